#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"

#include <json-c/json.h>

#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// ---- JSON -> blobmsg ----

// `room` is how many more container levels may be opened below the current
// one; a deeper value fails the whole conversion.
bool add_element(blob_buf *b, const char *name, json_object *obj, int room);

bool add_members(blob_buf *b, json_object *obj, int room)
{
	if (!json_object_is_type(obj, json_type_object))
		return false;
	json_object_iterator it = json_object_iter_begin(obj);
	json_object_iterator end = json_object_iter_end(obj);
	for (; !json_object_iter_equal(&it, &end); json_object_iter_next(&it)) {
		if (!add_element(b, json_object_iter_peek_name(&it), json_object_iter_peek_value(&it), room))
			return false;
	}
	return true;
}

bool add_items(blob_buf *b, json_object *arr, int room)
{
	size_t n = json_object_array_length(arr);
	for (size_t i = 0; i < n; i++) {
		if (!add_element(b, nullptr, json_object_array_get_idx(arr, i), room))
			return false;
	}
	return true;
}

bool add_element(blob_buf *b, const char *name, json_object *obj, int room)
{
	void *c;
	bool ok;
	switch (json_object_get_type(obj)) {
	case json_type_object:
		if (room <= 0)
			return false;
		c = blobmsg_open_table(b, name);
		if (!c)
			return false;
		ok = add_members(b, obj, room - 1);
		blobmsg_close_table(b, c);
		return ok;
	case json_type_array:
		if (room <= 0)
			return false;
		c = blobmsg_open_array(b, name);
		if (!c)
			return false;
		ok = add_items(b, obj, room - 1);
		blobmsg_close_array(b, c);
		return ok;
	case json_type_string:
		return blobmsg_add_string(b, name, json_object_get_string(obj)) == 0;
	case json_type_boolean:
		return blobmsg_add_u8(b, name, json_object_get_boolean(obj) ? 1 : 0) == 0;
	case json_type_int: {
		int64_t v = json_object_get_int64(obj);
		if (v >= INT32_MIN && v <= INT32_MAX)
			return blobmsg_add_u32(b, name, static_cast<uint32_t>(static_cast<int32_t>(v))) == 0;
		return blobmsg_add_u64(b, name, static_cast<uint64_t>(v)) == 0;
	}
	case json_type_double:
		return blobmsg_add_double(b, name, json_object_get_double(obj)) == 0;
	case json_type_null:
		return blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0) == 0;
	default:
		return false;
	}
}

// The current level of b as it was: a failed conversion leaves nothing behind
// (containers opened on the way are closed again, so the level is the same).
struct level_mark {
	blob_buf *b;
	size_t len;

	explicit level_mark(blob_buf *buf) : b(buf), len(buf->head ? blob_raw_len(buf->head) : 0) {}

	bool keep_if(bool ok) const
	{
		if (!ok && b->head)
			blob_set_raw_len(b->head, static_cast<unsigned int>(len));
		return ok;
	}
};

// A document is the members of a message: its own braces are one JSON level
// above WWAN_BLOBMSG_MAX_DEPTH.
constexpr int document_depth = WWAN_BLOBMSG_MAX_DEPTH + 1;

// Takes the parsed document; only an object is accepted.
bool add_document(blob_buf *b, json_object *obj)
{
	bool ok = false;
	if (obj && json_object_is_type(obj, json_type_object))
		ok = blobmsg_add_object(b, obj);
	json_object_put(obj);
	return ok;
}

json_object *parse_text(const char *str)
{
	json_tokener *tok = json_tokener_new_ex(document_depth);
	if (!tok)
		return nullptr;
	json_object *obj = json_tokener_parse_ex(tok, str, -1);
	if (json_tokener_get_error(tok) != json_tokener_success) {
		json_object_put(obj);
		obj = nullptr;
	}
	json_tokener_free(tok);
	return obj;
}

json_object *parse_file(const char *file)
{
	int fd = open(file, O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return nullptr;
	json_object *obj = json_object_from_fd_ex(fd, document_depth);
	close(fd);
	return obj;
}

// ---- blobmsg -> JSON text ----

constexpr int max_tabs = 16;

// Output buffer; the result is handed to the caller, who frees it with free().
struct writer {
	char *buf = nullptr;
	size_t len = 0;
	size_t cap = 0;
	bool failed = false;
	bool indent = false;
	int level = 0;  // of indentation
	int depth = 0;  // containers entered; beyond WWAN_BLOBMSG_MAX_DEPTH the text fails
	blobmsg_json_format_t cb = nullptr;
	void *priv = nullptr;

	~writer() { std::free(buf); }

	bool reserve(size_t extra)
	{
		if (failed)
			return false;
		if (len + extra + 1 <= cap)
			return true;
		size_t want = cap ? cap : 64;
		while (want < len + extra + 1)
			want *= 2;
		char *p = static_cast<char *>(std::realloc(buf, want));
		if (!p) {
			failed = true;
			return false;
		}
		buf = p;
		cap = want;
		return true;
	}

	void put(const char *s, size_t n)
	{
		if (!reserve(n))
			return;
		std::memcpy(buf + len, s, n);
		len += n;
		buf[len] = 0;
	}

	void put(const char *s) { put(s, std::strlen(s)); }
	void put(char c) { put(&c, 1); }

	void newline()
	{
		put('\n');
		for (int i = 0; i < level && i < max_tabs; i++)
			put('\t');
	}

	char *release()
	{
		if (failed || !len)
			return nullptr;
		char *out = buf;
		buf = nullptr;
		return out;
	}
};

void format_string(writer &w, const char *s)
{
	w.put('"');
	for (const unsigned char *p = reinterpret_cast<const unsigned char *>(s); *p; p++) {
		const char *esc = nullptr;
		switch (*p) {
		case '"': esc = "\\\""; break;
		case '\\': esc = "\\\\"; break;
		case '\b': esc = "\\b"; break;
		case '\n': esc = "\\n"; break;
		case '\t': esc = "\\t"; break;
		case '\r': esc = "\\r"; break;
		default: break;
		}
		if (esc) {
			w.put(esc);
		} else if (*p < 0x20) {
			char tmp[8];
			std::snprintf(tmp, sizeof(tmp), "\\u%04x", *p);
			w.put(tmp);
		} else {
			w.put(static_cast<char>(*p));
		}
	}
	w.put('"');
}

void format_element(writer &w, blob_attr *attr, bool without_name);

void format_list(writer &w, blob_attr *data, size_t len, bool array)
{
	w.put(array ? '[' : '{');
	if (w.indent) {
		w.level++;
		w.newline();
	}
	bool first = true;
	blob_attr *pos;
	size_t rem = len;
	__blob_for_each_attr(pos, data, rem) {
		if (w.failed)
			break;
		// the separator comes even when the element turns out invalid
		if (!first) {
			w.put(',');
			if (w.indent)
				w.newline();
		}
		format_element(w, pos, array);
		first = false;
	}
	if (w.indent) {
		w.level--;
		w.newline();
	}
	w.put(array ? ']' : '}');
}

void format_element(writer &w, blob_attr *attr, bool without_name)
{
	if (!blobmsg_check_attr(attr, false))
		return;
	if (!without_name && blob_is_extended(attr) && blobmsg_name(attr)[0]) {
		format_string(w, blobmsg_name(attr));
		w.put(w.indent ? ": " : ":");
	}
	if (w.cb) {
		if (const char *text = w.cb(w.priv, attr)) {
			w.put(text);
			return;
		}
	}

	void *data = blobmsg_data(attr);
	size_t len = blobmsg_data_len(attr);
	char num[330];  // "%lf" of the largest double needs 316
	switch (blob_id(attr)) {
	case BLOBMSG_TYPE_UNSPEC:
		w.put("null");
		break;
	case BLOBMSG_TYPE_INT8:
		w.put(*static_cast<uint8_t *>(data) ? "true" : "false");
		break;
	case BLOBMSG_TYPE_INT16:
		std::snprintf(num, sizeof(num), "%d", static_cast<int>(blobmsg_get_int16(attr)));
		w.put(num);
		break;
	case BLOBMSG_TYPE_INT32:
		std::snprintf(num, sizeof(num), "%" PRId32, blobmsg_get_int32(attr));
		w.put(num);
		break;
	case BLOBMSG_TYPE_INT64:
		std::snprintf(num, sizeof(num), "%" PRId64, blobmsg_get_int64(attr));
		w.put(num);
		break;
	case BLOBMSG_TYPE_DOUBLE: {
		uint64_t bits = blobmsg_get_u64(attr);
		double d;
		std::memcpy(&d, &bits, sizeof(d));
		// JSON has no infinity or NaN ("inf" would not read back): null.
		if (!std::isfinite(d)) {
			w.put("null");
			break;
		}
		std::snprintf(num, sizeof(num), "%lf", d);
		w.put(num);
		break;
	}
	case BLOBMSG_TYPE_STRING:
		format_string(w, static_cast<const char *>(data));
		break;
	case BLOBMSG_TYPE_ARRAY:
	case BLOBMSG_TYPE_TABLE:
		// checked before going down, so no input recurses without bound
		if (w.depth >= WWAN_BLOBMSG_MAX_DEPTH) {
			w.failed = true;
			break;
		}
		w.depth++;
		format_list(w, static_cast<blob_attr *>(data), len, blob_id(attr) == BLOBMSG_TYPE_ARRAY);
		w.depth--;
		break;
	default:
		break;
	}
}

void setup(writer &w, blobmsg_json_format_t cb, void *priv, int indent)
{
	w.cb = cb;
	w.priv = priv;
	w.indent = indent >= 0;
	w.level = indent >= 0 ? indent : 0;
}

}  // namespace

extern "C" {

bool blobmsg_add_object(blob_buf *b, json_object *obj)
{
	level_mark mark(b);
	return mark.keep_if(add_members(b, obj, WWAN_BLOBMSG_MAX_DEPTH));
}

bool blobmsg_add_json_element(blob_buf *b, const char *name, json_object *obj)
{
	level_mark mark(b);
	return mark.keep_if(add_element(b, name, obj, WWAN_BLOBMSG_MAX_DEPTH));
}

bool blobmsg_add_json_from_string(blob_buf *b, const char *str)
{
	return str && add_document(b, parse_text(str));
}

bool blobmsg_add_json_from_file(blob_buf *b, const char *file)
{
	return file && add_document(b, parse_file(file));
}

char *blobmsg_format_json_with_cb(blob_attr *attr, bool list, blobmsg_json_format_t cb, void *priv, int indent)
{
	if (!attr)
		return nullptr;
	writer w;
	setup(w, cb, priv, indent);
	if (list) {
		bool array = blob_is_extended(attr) && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY;
		format_list(w, static_cast<blob_attr *>(blobmsg_data(attr)), blobmsg_data_len(attr), array);
	} else {
		format_element(w, attr, false);
	}
	return w.release();
}

char *blobmsg_format_json_value_with_cb(blob_attr *attr, blobmsg_json_format_t cb, void *priv, int indent)
{
	if (!attr)
		return nullptr;
	writer w;
	setup(w, cb, priv, indent);
	format_element(w, attr, true);
	return w.release();
}

}  // extern "C"

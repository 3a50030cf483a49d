#include "util/ujson.h"

#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// The stored name of an extended attribute, or null when it has none or its
// name header is malformed (beyond the payload, or not NUL-terminated).
const char *name_of(const blob_attr *attr)
{
    if (!blob_is_extended(attr) || blob_len(attr) < sizeof(blobmsg_hdr))
        return nullptr;
    auto *hdr = static_cast<const blobmsg_hdr *>(blob_data(attr));
    uint16_t namelen = blobmsg_namelen(hdr);
    if (blob_len(attr) < static_cast<size_t>(blobmsg_hdrlen(namelen)) || hdr->name[namelen] != 0)
        return nullptr;
    return reinterpret_cast<const char *>(hdr->name);
}

// strcmp() equality with name (n = strlen(name)), without reading past the
// name header.
bool name_is(const blob_attr *attr, const char *name, size_t n)
{
    const char *stored = name_of(attr);
    if (!stored)
        return false;
    size_t limit = blobmsg_namelen(static_cast<const blobmsg_hdr *>(blob_data(attr)));
    return n <= limit && std::memcmp(stored, name, n) == 0 && stored[n] == 0;
}

bool fits(const blob_attr *attr, const char *end)
{
    const char *p = reinterpret_cast<const char *>(attr);
    if (end - p < static_cast<ptrdiff_t>(sizeof(blob_attr)))
        return false;
    size_t pad = blob_pad_len(attr);
    return pad >= sizeof(blob_attr) && pad <= static_cast<size_t>(end - p);
}

}  // namespace

ujson::ujson(blob_buf *wrapped) : buf_(wrapped ? wrapped : &own_) {}

ujson::~ujson()
{
    if (owns())
        blob_buf_free(&own_);
}

std::unique_ptr<ujson> ujson::create(blob_buf *buf)
{
    std::unique_ptr<ujson> j(new (std::nothrow) ujson(buf));
    if (!j)
        return nullptr;
    if (!buf && blob_buf_init(&j->own_, 0) != 0)
        return nullptr;
    return j;
}

std::unique_ptr<ujson> ujson::create_ex(blob_attr *msg)
{
    if (msg && !wwan_blobmsg_check_depth(msg, true))
        return nullptr;
    std::unique_ptr<ujson> j = create();
    if (j && msg) {
        j->sel_ = msg;
        j->msg_begin_ = reinterpret_cast<const char *>(msg);
        j->msg_end_ = j->msg_begin_ + blob_pad_len(msg);
        j->sel_end_ = j->msg_end_;
    }
    return j;
}

std::unique_ptr<ujson> ujson::create_file(const char *path)
{
    std::unique_ptr<ujson> j = create();
    if (!j || !path || !blobmsg_add_json_from_file(j->buf_, path))
        return nullptr;
    return j;
}

blob_attr *ujson::container() const
{
    return sel_ ? sel_ : buf_->head;
}

blob_attr *ujson::find(const char *name) const
{
    blob_attr *from = container();
    if (!from)
        return nullptr;
    size_t n = std::strlen(name);
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, from, rem) {
        if (name_is(pos, name, n))
            return pos;
    }
    return nullptr;
}

// The value bytes of the named child (or of the selection for a null name),
// `width` of them copied into out. A shorter value is zero-filled rather
// than read past its end. Null when there is nothing to read.
const void *ujson::read_value(const char *name, void *out, size_t width) const
{
    const blob_attr *attr = name ? find(name) : sel_;
    if (!attr)
        return nullptr;
    size_t have = blobmsg_data_len(attr);
    std::memset(out, 0, width);
    std::memcpy(out, blobmsg_data(attr), have < width ? have : width);
    return out;
}

void ujson::add_string(const char *name, const char *text)
{
    if (text)
        blobmsg_add_string(buf_, name, text);
}

// The value bytes whatever the type, as long as a NUL ends them before the
// attribute does (its padding counts): text from a malformed message must not
// send the reader past it.
const char *ujson::get_string(const char *name) const
{
    const blob_attr *attr = name ? find(name) : sel_;
    if (!attr)
        return nullptr;
    auto *data = static_cast<const char *>(blobmsg_data(attr));
    const char *end = reinterpret_cast<const char *>(attr) + blob_pad_len(attr);
    if (data >= end || !std::memchr(data, 0, static_cast<size_t>(end - data)))
        return nullptr;
    return data;
}

int ujson::add_int(const char *name, int32_t value)
{
    return blobmsg_add_u32(buf_, name, static_cast<uint32_t>(value));
}

int32_t ujson::get_int(const char *name) const
{
    uint32_t raw;
    return read_value(name, &raw, sizeof(raw)) ? static_cast<int32_t>(be32_to_cpu(raw)) : 0;
}

int ujson::add_long(const char *name, int64_t value)
{
    return blobmsg_add_u64(buf_, name, static_cast<uint64_t>(value));
}

int64_t ujson::get_long(const char *name) const
{
    uint64_t raw;
    return read_value(name, &raw, sizeof(raw)) ? static_cast<int64_t>(be64_to_cpu(raw)) : 0;
}

int ujson::add_bool(const char *name, bool value)
{
    return blobmsg_add_u8(buf_, name, value ? 1 : 0);
}

bool ujson::get_bool(const char *name) const
{
    uint8_t raw[1];
    return read_value(name, raw, sizeof(raw)) && raw[0] != 0;
}

int ujson::add_double(const char *name, double value)
{
    return blobmsg_add_double(buf_, name, value);
}

double ujson::get_double(const char *name) const
{
    uint64_t raw;
    if (!read_value(name, &raw, sizeof(raw)))
        return 0.0;
    uint64_t bits = be64_to_cpu(raw);
    double d;
    std::memcpy(&d, &bits, sizeof(d));
    return d;
}

void ujson::clear_name(const char *name)
{
    blob_attr *from = container();
    if (!name || !from)
        return;
    size_t n = std::strlen(name);
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, from, rem) {
        if (name_is(pos, name, n))
            blobmsg_clear_name(pos);
    }
}

void *ujson::open_table(const char *name)
{
    return blobmsg_open_table(buf_, name);
}

void ujson::close_table(void *cookie)
{
    blob_nest_end(buf_, cookie);
}

void *ujson::open_array(const char *name)
{
    return blobmsg_open_array(buf_, name);
}

void ujson::close_array(void *cookie)
{
    blob_nest_end(buf_, cookie);
}

bool ujson::select_array(const char *name)
{
    blob_attr *from = container();
    if (!name || !from)
        return false;
    size_t n = std::strlen(name);
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, from, rem) {
        if (blobmsg_type(pos) != BLOBMSG_TYPE_ARRAY || !name_is(pos, name, n))
            continue;
        auto *first = static_cast<blob_attr *>(blobmsg_data(pos));
        const char *end = reinterpret_cast<const char *>(first) + blobmsg_data_len(pos);
        if (!fits(first, end))
            return false;  // empty: there is no element to select
        sel_ = first;
        sel_end_ = end;
        return true;
    }
    return false;
}

// Where a walk starting at attr must stop: the end of the root when attr is
// in our own storage, the end of the create_ex message when inside that,
// else unknown (null).
const char *ujson::bound_of(const blob_attr *attr) const
{
    const char *p = reinterpret_cast<const char *>(attr);
    const char *root = static_cast<const char *>(buf_->buf);
    if (root) {
        const char *root_end = root + blob_pad_len(reinterpret_cast<const blob_attr *>(root));
        if (p >= root && p < root_end)
            return root_end;
    }
    if (p >= msg_begin_ && p < msg_end_)
        return msg_end_;
    return nullptr;
}

void ujson::select_attr(blob_attr *attr)
{
    sel_ = attr;
    sel_end_ = attr ? bound_of(attr) : nullptr;
}

bool ujson::next_item()
{
    if (!sel_)
        return false;
    blob_attr *next = blob_next(sel_);
    if (sel_end_ && !fits(next, sel_end_))
        return false;
    if (blob_raw_len(next) < sizeof(blob_attr))
        return false;
    const char *name = name_of(sel_);
    if (!name)
        return false;
    if (!name_is(next, name, std::strlen(name)))
        return false;
    sel_ = next;
    return true;
}

bool ujson::exists(const char *name) const
{
    if (name)
        return find(name) != nullptr;
    return get_int(nullptr) != 0;
}

size_t ujson::len() const
{
    return buf_->head ? blob_len(buf_->head) : 0;
}

blob_attr *ujson::get_blobmsg() const
{
    return buf_->head;
}

// blobmsg_add_field, safe when the value lies in our own storage (which
// growing may move).
int ujson::add_copy(int type, const char *name, const void *data, size_t len)
{
    const char *p = static_cast<const char *>(data);
    const char *own = static_cast<const char *>(buf_->buf);
    bool inside = own && p >= own && p < own + buf_->buflen;
    bool name_inside = own && name && name >= own && name < own + buf_->buflen;
    if (!inside && !name_inside)
        return blobmsg_add_field(buf_, type, name, data, static_cast<unsigned int>(len));

    size_t name_len = name ? std::strlen(name) + 1 : 0;
    char *tmp = static_cast<char *>(std::malloc(len + name_len + 1));
    if (!tmp)
        return -1;
    std::memcpy(tmp, data, len);
    if (name)
        std::memcpy(tmp + len, name, name_len);
    int ret = blobmsg_add_field(buf_, type, name ? tmp + len : nullptr, tmp, static_cast<unsigned int>(len));
    std::free(tmp);
    return ret;
}

int ujson::add_blobmsg(const blob_attr *attr)
{
    if (!attr)
        return -1;
    const char *name = name_of(attr);
    return add_copy(blobmsg_type(attr), name ? name : "", blobmsg_data(attr), blobmsg_data_len(attr));
}

std::unique_ptr<ujson> ujson::clone() const
{
    std::unique_ptr<ujson> copy = create();
    if (!copy)
        return nullptr;
    auto size = static_cast<size_t>(buf_->buflen);
    if (buf_->buf && size) {
        blob_buf &dst = copy->own_;
        if (size > static_cast<size_t>(dst.buflen) &&
            !blob_buf_grow(&dst, static_cast<int>(size - static_cast<size_t>(dst.buflen))))
            return nullptr;
        std::memcpy(dst.buf, buf_->buf, size);
        dst.head = static_cast<blob_attr *>(dst.buf);
    }
    copy->sel_ = sel_;
    copy->sel_end_ = sel_end_;
    copy->msg_begin_ = msg_begin_;
    copy->msg_end_ = msg_end_;
    return copy;
}

int ujson::clone_value(const char *name, ujson &dst, const char *new_name) const
{
    blob_attr *root = buf_->head;
    if (!name || !root)
        return 0;
    size_t n = std::strlen(name);
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, root, rem) {
        if (name_is(pos, name, n))
            return dst.add_copy(blobmsg_type(pos), new_name, blobmsg_data(pos), blobmsg_data_len(pos));
    }
    return 0;
}

// JSON text to blobmsg and back, through the ujson accessor.
// Byte 0: bit 0 set: the rest is a raw blob message as the bus delivers it
// (any bytes), read through ujson and formatted; clear: the rest is JSON text.
// Checked for JSON text that parses: the formatted text parses again and
// formats to the same text (a table member with an empty name prints as a
// bare value, as the reference formatter does, and only such a document may
// not read back); a copy rebuilt member by member with ujson's adds
// and a clone format the same; every getter and the array walk stay inside
// the message. Raw blobs: reading and formatting never crash.
#include "wwan/ubox.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "util/ujson.h"

namespace
{

struct blob_holder {
    blob_buf b = {};
    blob_holder() { blob_buf_init(&b, 0); }
    ~blob_holder() { blob_buf_free(&b); }
    blob_holder(const blob_holder &) = delete;
    blob_holder &operator=(const blob_holder &) = delete;
};

// The message as JSON text, indented when indent >= 0; must not fail.
std::string format(blob_attr *msg, bool list = true, int indent = -1)
{
    char *p = indent < 0 ? blobmsg_format_json(msg, list) : blobmsg_format_json_indent(msg, list, indent);
    FUZZ_CHECK(p != nullptr);
    std::string text(p);
    std::free(p);
    return text;
}

// JSON text parsed and formatted again; must parse.
std::string reformat(const std::string &text)
{
    blob_holder again;
    FUZZ_CHECK(blobmsg_add_json_from_string(&again.b, text.c_str()));
    return format(again.b.head);
}

// Adds the members of container to out with ujson's typed adds.
void rebuild(ujson &out, blob_attr *container, bool array)
{
    blob_attr *attr;
    size_t rem;
    blobmsg_for_each_attr(attr, container, rem)
    {
        const char *name = array ? nullptr : blobmsg_name(attr);
        const int type = blobmsg_type(attr);
        if (type == BLOBMSG_TYPE_STRING)
            out.add_string(name, blobmsg_get_string(attr));
        else if (type == BLOBMSG_TYPE_INT8)
            out.add_bool(name, blobmsg_get_u8(attr));
        else if (type == BLOBMSG_TYPE_INT32)
            out.add_int(name, static_cast<int32_t>(blobmsg_get_u32(attr)));
        else if (type == BLOBMSG_TYPE_INT64)
            out.add_long(name, static_cast<int64_t>(blobmsg_get_u64(attr)));
        else if (type == BLOBMSG_TYPE_DOUBLE)
            out.add_double(name, blobmsg_get_double(attr));
        else if (type == BLOBMSG_TYPE_ARRAY) {
            void *c = out.open_array(name);
            rebuild(out, attr, true);
            out.close_array(c);
        } else if (type == BLOBMSG_TYPE_TABLE) {
            void *c = out.open_table(name);
            rebuild(out, attr, false);
            out.close_table(c);
        } else {
            out.add_blobmsg(attr); // JSON null: an empty unspecified attribute
        }
    }
}

// Every reader of ujson on every member of the top level (and one absent).
void read_all(ujson &u, blob_attr *root)
{
    std::vector<std::string> names = {"absent"};
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, root, rem)
    {
        if (!blobmsg_check_attr(cur, true))
            break;
        names.emplace_back(blobmsg_name(cur));
    }
    for (const std::string &n : names) {
        const char *name = n.c_str();
        (void)u.exists(name);
        (void)u.get_int(name);
        (void)u.get_long(name);
        (void)u.get_bool(name);
        (void)u.get_double(name);
        if (const char *s = u.get_string(name))
            (void)std::strlen(s);
        if (u.select_array(name)) {
            int guard = 0;
            do {
                (void)u.get_int();
                (void)u.get_long();
                (void)u.get_double();
                (void)u.exists();
                FUZZ_CHECK(++guard < 1 << 20);
            } while (u.next_item());
            u.select_attr(nullptr);
        }
    }
}

// Whether a table at any depth has a member with an empty name.
bool empty_member_name(blob_attr *container, bool array)
{
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, container, rem)
    {
        if (!array && !*blobmsg_name(cur))
            return true;
        const int type = blobmsg_type(cur);
        if ((type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY) &&
            empty_member_name(cur, type == BLOBMSG_TYPE_ARRAY))
            return true;
    }
    return false;
}

void raw_blob(const uint8_t *data, size_t size)
{
    // A message as received: aligned storage holding the bytes.
    std::vector<uint32_t> store(size / 4 + 2, 0);
    std::memcpy(store.data(), data, size);
    auto *attr = reinterpret_cast<blob_attr *>(store.data());
    if (size < sizeof(blob_attr) || blob_pad_len(attr) > size)
        return;
    auto u = ujson::create_ex(attr);
    if (u)
        read_all(*u, attr);
    std::free(blobmsg_format_json(attr, true));
    std::free(blobmsg_format_json_indent(attr, false, 1));
}

void json_text(std::string_view input)
{
    const std::string text(input);
    blob_holder in;
    if (!blobmsg_add_json_from_string(&in.b, text.c_str()))
        return;
    const std::string first = format(in.b.head);
    // The text, and the indented form, read back as the same document.
    if (!empty_member_name(in.b.head, false))
        FUZZ_CHECK(reformat(first) == first && reformat(format(in.b.head, true, 0)) == first);
    auto reader = ujson::create_ex(in.b.head);
    FUZZ_CHECK(reader != nullptr);
    read_all(*reader, in.b.head);

    auto copy = ujson::create();
    FUZZ_CHECK(copy != nullptr);
    rebuild(*copy, in.b.head, false);
    FUZZ_CHECK(format(copy->get_blobmsg()) == first);
    auto clone = copy->clone();
    FUZZ_CHECK(clone != nullptr && format(clone->get_blobmsg()) == first);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (auto in = fuzz::split(data, size, false))
        (in->mode & 0x01) ? raw_blob(in->data, in->size) : json_text(in->text());
    return 0;
}

// Structured data as blobmsg: bus method arguments and replies, event
// payloads and cached values all travel in a ujson.
//
// Adds append at the buffer's current nesting level. Reads look a child up by
// name in the selection when there is one, else in the root table; a null
// name reads the selected attribute itself. Getters do not check the stored
// type: they read the value bytes as the type they return (big-endian), so
// get_int of a string gives its first four bytes as a number.
//
// Pointers from get_string()/get_blobmsg() and the selection stay valid only
// while the buffer is neither freed nor grown by further adds.
#pragma once

#include "wwan/ubox.h"

#include <cstddef>
#include <cstdint>
#include <memory>

class ujson {
public:
    // Null buf: an own, empty root table (id 0). Otherwise wraps buf, which
    // the caller keeps and frees. Null when an allocation fails.
    static std::unique_ptr<ujson> create(blob_buf *buf = nullptr);
    // Reader for an incoming message: reads look among msg's children, adds
    // go to the object's own empty buffer. Null when msg's members nest
    // deeper than WWAN_BLOBMSG_MAX_DEPTH (wwan/blobmsg_depth.h).
    static std::unique_ptr<ujson> create_ex(blob_attr *msg);
    // The members of a JSON object file; null if the file is missing, is not
    // a JSON object, nests deeper than WWAN_BLOBMSG_MAX_DEPTH or cannot be loaded.
    static std::unique_ptr<ujson> create_file(const char *path);

    ~ujson();
    ujson(const ujson &) = delete;
    ujson &operator=(const ujson &) = delete;

    // A null text adds nothing.
    void add_string(const char *name, const char *text);
    const char *get_string(const char *name = nullptr) const;
    // The add_* results are blobmsg's: 0, or -1 when the buffer cannot grow.
    int add_int(const char *name, int32_t value);
    int32_t get_int(const char *name = nullptr) const;
    int add_long(const char *name, int64_t value);
    int64_t get_long(const char *name = nullptr) const;
    int add_bool(const char *name, bool value);
    bool get_bool(const char *name = nullptr) const;
    int add_double(const char *name, double value);
    double get_double(const char *name = nullptr) const;

    // Empties the name of every child called `name`, in place, so lookups no
    // longer find them; nothing is moved or removed.
    void clear_name(const char *name);

    void *open_table(const char *name);
    void close_table(void *cookie);
    void *open_array(const char *name);
    void close_array(void *cookie);

    // Selects the first element of the array child `name`; false (selection
    // unchanged) when there is no such array or it is empty.
    bool select_array(const char *name);
    // Any attribute, or null to read from the root again.
    void select_attr(blob_attr *attr);
    // Moves to the following attribute if it carries the same name as the
    // selection (array elements: the empty name); false at the end.
    bool next_item();

    // With a name: is there such a child. Without: is the selection's 32-bit
    // value non-zero.
    bool exists(const char *name = nullptr) const;

    size_t len() const;              // payload bytes of the root
    blob_attr *get_blobmsg() const;  // the root attribute
    int add_blobmsg(const blob_attr *attr);

    // Own byte copy of the whole buffer; the selection is carried over as is.
    std::unique_ptr<ujson> clone() const;
    // Appends the root child `name` to dst under new_name with its type and
    // value; 0 when absent.
    int clone_value(const char *name, ujson &dst, const char *new_name) const;

    blob_buf *buffer() const { return buf_; }
    blob_attr *selection() const { return sel_; }
    bool owns() const { return buf_ == &own_; }

private:
    explicit ujson(blob_buf *wrapped);

    blob_attr *container() const;
    blob_attr *find(const char *name) const;
    const void *read_value(const char *name, void *out, size_t width) const;
    int add_copy(int type, const char *name, const void *data, size_t len);
    const char *bound_of(const blob_attr *attr) const;

    blob_buf own_{};
    blob_buf *buf_;
    blob_attr *sel_ = nullptr;
    // End of the storage the selection lies in, when known; next_item never
    // walks past it.
    const char *sel_end_ = nullptr;
    // The message given to create_ex, to bound walks inside it.
    const char *msg_begin_ = nullptr;
    const char *msg_end_ = nullptr;
};

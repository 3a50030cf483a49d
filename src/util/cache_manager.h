// Value cache of one modem: named, typed values with byte accounting. Writers
// learn from update_item() whether a value changed, so events go out only on
// change; the whole store can be dumped into a reply with fill_stats().
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

class ujson;

// Type ids of cached values, shared by the event and async managers. The two
// ids of each integer width are stored and reported alike.
enum cache_data_type : uint32_t {
    CACHE_DATA_STRING = 1, // text; its size counts the terminator
    CACHE_DATA_DOUBLE = 2,
    CACHE_DATA_INT32 = 3,
    CACHE_DATA_UINT32 = 4,
    CACHE_DATA_INT64 = 5,
    CACHE_DATA_UINT64 = 6,
    CACHE_DATA_UJSON = 7, // the value is a ujson, stored as its clone
    CACHE_DATA_BOOL = 8,  // one byte
};

// Fixed size of a type's value; 0 for text, ujson and unknown types.
uint32_t cache_data_type_size(uint32_t type);

// update_item() results.
enum cache_update_result : int {
    CACHE_ITEM_CHANGED = 1, // or created
    CACHE_ITEM_UNCHANGED = 2,
    CACHE_ITEM_FAILED = 3,
};

class cache_item
{
  public:
    ~cache_item();
    cache_item(const cache_item &) = delete;
    cache_item &operator=(const cache_item &) = delete;

    const char *name() const { return name_.get(); }
    uint32_t type() const { return type_; }
    uint32_t size() const { return size_; }
    // The stored bytes (null when the size is 0); for CACHE_DATA_UJSON the
    // ujson itself.
    const void *value() const;
    ujson *json() const { return type_ == CACHE_DATA_UJSON ? json_.get() : nullptr; }
    // The text of a CACHE_DATA_STRING item, else null.
    const char *text() const
    {
        return type_ == CACHE_DATA_STRING ? reinterpret_cast<const char *>(bytes_.get()) : nullptr;
    }

    // The stored bytes read as T; zero-filled where the value is shorter.
    template <typename T> T get() const
    {
        T out{};
        if (bytes_)
            std::memcpy(&out, bytes_.get(), size_ < sizeof(T) ? size_ : sizeof(T));
        return out;
    }

  private:
    friend class cache_manager;
    cache_item() = default;

    std::unique_ptr<char[]> name_;
    uint32_t type_ = 0;
    // One of the two holds the value, by type. The byte copy carries one
    // more zero byte than its size, so stored text is always terminated.
    std::unique_ptr<uint8_t[]> bytes_;
    std::unique_ptr<ujson> json_;
    uint32_t size_ = 0;
    cache_item *prev_ = nullptr;
    cache_item *next_ = nullptr;
};

class cache_manager
{
  public:
    // Empty cache; null when the allocation fails.
    static std::unique_ptr<cache_manager> create();

    ~cache_manager();
    cache_manager(const cache_manager &) = delete;
    cache_manager &operator=(const cache_manager &) = delete;

    // Appends an item holding a copy of size bytes of value (for
    // CACHE_DATA_UJSON value is a ujson, stored as its clone). 0, or 1 when
    // an allocation fails or value is null; nothing is kept then.
    [[nodiscard]] int new_item(std::string_view name, uint32_t type, const void *value, uint32_t size);
    // Creates or replaces the value: CACHE_ITEM_CHANGED, CACHE_ITEM_UNCHANGED
    // when the same bytes of the same type were stored already, or
    // CACHE_ITEM_FAILED. A ujson value always counts as changed.
    int update_item(std::string_view name, uint32_t type, const void *value, uint32_t size);
    // The first item of that exact name, in insertion order, or null.
    cache_item *get_item(std::string_view name) const;
    // Unlinks and frees the item; null is ignored.
    void remove_item(cache_item *item);
    void remove_item_name(std::string_view name);
    // Adds a table "cache" with every item under its name in its kind, and a
    // table "cache_stats" with "heap_usage" (text) and "item_count".
    void fill_stats(ujson &json) const;

    int32_t item_count() const { return count_; }
    // The cache's own record plus, per item, its size + 25 + its name length.
    int32_t heap_usage() const { return heap_; }

  private:
    cache_manager() = default;
    int replace_value(cache_item &item, uint32_t type, const void *value, uint32_t size);

    int32_t count_ = 0;
    int32_t heap_ = 40;
    cache_item *head_ = nullptr;
    cache_item *tail_ = nullptr;
};

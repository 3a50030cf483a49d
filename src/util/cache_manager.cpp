#include "util/cache_manager.h"

#include "util/ujson.h"

#include <cstdio>
#include <new>

namespace
{

// What one item adds to the heap usage: its value plus the item record, name
// and terminator, counted as 25 bytes and the name.
int32_t item_cost(uint32_t size, size_t name_len)
{
    return static_cast<int32_t>(size + 25 + name_len);
}

bool value_missing(uint32_t type, const void *value, uint32_t size)
{
    return !value && (size || type == CACHE_DATA_UJSON);
}

// Appends every child of src's root to dst as it is.
void copy_attributes(const ujson &src, ujson &dst)
{
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, src.get_blobmsg(), rem)
    {
        dst.add_blobmsg(pos);
    }
}

} // namespace

uint32_t cache_data_type_size(uint32_t type)
{
    switch (type) {
    case CACHE_DATA_DOUBLE:
    case CACHE_DATA_INT64:
    case CACHE_DATA_UINT64:
        return 8;
    case CACHE_DATA_INT32:
    case CACHE_DATA_UINT32:
        return 4;
    case CACHE_DATA_BOOL:
        return 1;
    default:
        return 0;
    }
}

cache_item::~cache_item() = default;

const void *cache_item::value() const
{
    if (type_ == CACHE_DATA_UJSON)
        return json_.get();
    return bytes_.get();
}

std::unique_ptr<cache_manager> cache_manager::create()
{
    return std::unique_ptr<cache_manager>(new (std::nothrow) cache_manager);
}

cache_manager::~cache_manager()
{
    while (head_)
        remove_item(head_);
}

// Gives the item its own copy of the value, type and size. On failure the
// item keeps what it held.
int cache_manager::replace_value(cache_item &item, uint32_t type, const void *value, uint32_t size)
{
    if (type == CACHE_DATA_UJSON) {
        std::unique_ptr<ujson> copy = static_cast<const ujson *>(value)->clone();
        if (!copy)
            return 1;
        item.bytes_.reset();
        item.json_ = std::move(copy);
    } else {
        std::unique_ptr<uint8_t[]> bytes;
        if (size) {
            bytes.reset(new (std::nothrow) uint8_t[size + 1]);
            if (!bytes)
                return 1;
            std::memcpy(bytes.get(), value, size);
            bytes[size] = 0;
        }
        item.json_.reset();
        item.bytes_ = std::move(bytes);
    }
    item.type_ = type;
    item.size_ = size;
    return 0;
}

int cache_manager::new_item(std::string_view name, uint32_t type, const void *value, uint32_t size)
{
    if (value_missing(type, value, size))
        return 1;
    std::unique_ptr<cache_item> item(new (std::nothrow) cache_item);
    if (!item)
        return 1;
    item->name_.reset(new (std::nothrow) char[name.size() + 1]);
    if (!item->name_)
        return 1;
    std::memcpy(item->name_.get(), name.data(), name.size());
    item->name_[name.size()] = 0;
    if (replace_value(*item, type, value, size) != 0)
        return 1;

    cache_item *added = item.release();
    added->prev_ = tail_;
    if (tail_)
        tail_->next_ = added;
    else
        head_ = added;
    tail_ = added;
    count_++;
    heap_ += item_cost(size, name.size());
    return 0;
}

int cache_manager::update_item(std::string_view name, uint32_t type, const void *value, uint32_t size)
{
    cache_item *item = get_item(name);
    if (!item)
        return new_item(name, type, value, size) == 0 ? CACHE_ITEM_CHANGED : CACHE_ITEM_FAILED;
    if (value_missing(type, value, size))
        return CACHE_ITEM_FAILED;

    if (type != CACHE_DATA_UJSON && type == item->type_ && size == item->size_) {
        if (size == 0 || std::memcmp(item->bytes_.get(), value, size) == 0)
            return CACHE_ITEM_UNCHANGED;
        std::memcpy(item->bytes_.get(), value, size);
        return CACHE_ITEM_CHANGED;
    }

    uint32_t old_size = item->size_;
    if (replace_value(*item, type, value, size) != 0) {
        // A structured value is replaced, never kept stale: without its new
        // value the item goes.
        if (type == CACHE_DATA_UJSON)
            remove_item(item);
        return CACHE_ITEM_FAILED;
    }
    heap_ += static_cast<int32_t>(size) - static_cast<int32_t>(old_size);
    return CACHE_ITEM_CHANGED;
}

cache_item *cache_manager::get_item(std::string_view name) const
{
    for (cache_item *item = head_; item; item = item->next_) {
        if (name == item->name_.get())
            return item;
    }
    return nullptr;
}

void cache_manager::remove_item(cache_item *item)
{
    if (!item)
        return;
    if (item->prev_)
        item->prev_->next_ = item->next_;
    else
        head_ = item->next_;
    if (item->next_)
        item->next_->prev_ = item->prev_;
    else
        tail_ = item->prev_;
    count_--;
    heap_ -= item_cost(item->size_, std::strlen(item->name_.get()));
    delete item;
}

void cache_manager::remove_item_name(std::string_view name)
{
    remove_item(get_item(name));
}

void cache_manager::fill_stats(ujson &json) const
{
    void *table = json.open_table("cache");
    for (const cache_item *item = head_; item; item = item->next_) {
        const char *name = item->name_.get();
        switch (item->type_) {
        case CACHE_DATA_STRING:
            json.add_string(name, item->text());
            break;
        case CACHE_DATA_DOUBLE:
            json.add_double(name, item->get<double>());
            break;
        case CACHE_DATA_INT32:
        case CACHE_DATA_UINT32:
            json.add_int(name, item->get<int32_t>());
            break;
        case CACHE_DATA_INT64:
        case CACHE_DATA_UINT64:
            json.add_long(name, item->get<int64_t>());
            break;
        case CACHE_DATA_UJSON: {
            void *nested = json.open_table(name);
            copy_attributes(*item->json_, json);
            json.close_table(nested);
            break;
        }
        case CACHE_DATA_BOOL:
            json.add_bool(name, item->get<uint8_t>() != 0);
            break;
        default:
            break;
        }
    }
    json.close_table(table);

    char usage[32];
    if (heap_ > 1024)
        std::snprintf(usage, sizeof(usage), "%d KB", heap_ / 1024);
    else
        std::snprintf(usage, sizeof(usage), "%d B", heap_);
    table = json.open_table("cache_stats");
    json.add_string("heap_usage", usage);
    json.add_int("item_count", count_);
    json.close_table(table);
}

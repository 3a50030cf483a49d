#include "util/event_handler.h"

#include "util/cache_manager.h"
#include "util/log.h"
#include "util/ujson.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>

namespace
{

// Events whose notification also goes to the hotplug service.
constexpr uint32_t evt_pin_state = 1;
constexpr uint32_t evt_snd_sms = 6;

struct evt_node {
    evt_desc desc;
    evt_node *next;
};

// The registered event kinds, in registration order; freed at exit.
struct evt_registry {
    evt_node *head = nullptr;
    evt_node *tail = nullptr;

    ~evt_registry()
    {
        while (head) {
            evt_node *next = head->next;
            delete head;
            head = next;
        }
    }
};

constinit evt_registry g_events;

// Adds the value under name in its kind; a structured value adds its members.
void add_value(ujson &payload, const char *name, uint32_t type, const void *value, uint32_t size)
{
    auto read = [&](auto zero) {
        decltype(zero) out = zero;
        std::memcpy(&out, value, size < sizeof(out) ? size : sizeof(out));
        return out;
    };
    if (!value)
        return;
    switch (type) {
    case CACHE_DATA_STRING:
        payload.add_string(name, static_cast<const char *>(value));
        break;
    case CACHE_DATA_DOUBLE:
        payload.add_double(name, read(0.0));
        break;
    case CACHE_DATA_INT32:
    case CACHE_DATA_UINT32:
        payload.add_int(name, read(int32_t{0}));
        break;
    case CACHE_DATA_INT64:
    case CACHE_DATA_UINT64:
        payload.add_long(name, read(int64_t{0}));
        break;
    case CACHE_DATA_UJSON: {
        blob_attr *pos;
        size_t rem;
        blobmsg_for_each_attr(pos, static_cast<const ujson *>(value)->get_blobmsg(), rem)
        {
            payload.add_blobmsg(pos);
        }
        break;
    }
    case CACHE_DATA_BOOL:
        payload.add_bool(name, read(uint8_t{0}) != 0);
        break;
    default:
        break;
    }
}

} // namespace

int event_register(const evt_desc &desc)
{
    LOG_DEBUG("[EVT] Registering %s event...\n", desc.name);
    for (evt_node *n = g_events.head; n; n = n->next) {
        if (n->desc.id == desc.id) {
            n->desc = desc;
            return 0;
        }
    }
    auto *node = new (std::nothrow) evt_node{desc, nullptr};
    if (!node) {
        LOG_ERROR("[EVT] Failed to allocate memory for `%s` event!\n", desc.name);
        return 1;
    }
    if (g_events.tail)
        g_events.tail->next = node;
    else
        g_events.head = node;
    g_events.tail = node;
    return 0;
}

void event_unregister(uint32_t id)
{
    evt_node *prev = nullptr;
    for (evt_node *n = g_events.head; n; prev = n, n = n->next) {
        if (n->desc.id != id)
            continue;
        (prev ? prev->next : g_events.head) = n->next;
        if (g_events.tail == n)
            g_events.tail = prev;
        delete n;
        return;
    }
}

const evt_desc *event_find(uint32_t id)
{
    for (const evt_node *n = g_events.head; n; n = n->next) {
        if (n->desc.id == id)
            return &n->desc;
    }
    return nullptr;
}

// One queued event. The descriptor is copied, so that a later registration
// cannot change an event already pushed.
struct evtmgr::item {
    evt_modem *mdm;
    uint32_t id;
    evt_desc desc;
    std::unique_ptr<uint8_t[]> bytes;
    std::unique_ptr<ujson> json;
    uint32_t size;
    bool always_notify;
    item *next;

    void *value() const { return json ? static_cast<void *>(json.get()) : bytes.get(); }
};

evtmgr::evtmgr() : watch_{}
{
    watch_.fd = -1;
    watch_.cb = __worker_cb;
    watch_.owner = this;
}

std::unique_ptr<evtmgr> evtmgr::create()
{
    return std::unique_ptr<evtmgr>(new (std::nothrow) evtmgr);
}

evtmgr::~evtmgr()
{
    uloop_fd_delete(&watch_);
    if (watch_.fd >= 0 || send_fd_ >= 0) {
        LOG_DEBUG("[EVT] Closing dispatcher pipe %d / %d\n", watch_.fd, send_fd_);
        close(watch_.fd);
        close(send_fd_);
    }
    while (head_) {
        item *next = head_->next;
        delete head_;
        head_ = next;
    }
}

int evtmgr::init(evt_modem &mdm)
{
    if (watch_.fd >= 0)
        return 0;
    int fds[2];
    // The write end does not block either: a full pipe must not stall the
    // loop that alone can empty it.
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        LOG_ERROR("[EVT] Failed to create dispatcher pipe for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
        return 1;
    }
    watch_.fd = fds[0];
    send_fd_ = fds[1];
    if (uloop_fd_add(&watch_, ULOOP_READ) != 0) {
        LOG_ERROR("[EVT] Failed to create dispatcher pipe for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
        close(fds[0]);
        close(fds[1]);
        watch_.fd = send_fd_ = -1;
        return 1;
    }
    LOG_DEBUG("[EVT] Dispatcher pipe opened: %d / %d for `%s [%s]` modem\n", watch_.fd, send_fd_, mdm.id(),
              mdm.vid_pid());
    return 0;
}

int evtmgr::push(evt_modem &mdm, uint32_t id, const void *value, bool always_notify)
{
    const evt_desc *desc = event_find(id);
    if (!desc) {
        LOG_ERROR("[EVT] Unable to find event by `%d` id! for `%s [%s]` modem!\n", static_cast<int>(id), mdm.id(),
                  mdm.vid_pid());
        return 1;
    }
    if (!value)
        return 1;

    std::unique_ptr<item> it(new (std::nothrow) item{&mdm, id, *desc, nullptr, nullptr, 0, always_notify, nullptr});
    if (!it) {
        LOG_ERROR("[EVT] Failed to allocate memory for `%s [%s]` modem event item!\n", mdm.id(), mdm.vid_pid());
        return 1;
    }
    if (desc->type == CACHE_DATA_UJSON) {
        it->json = static_cast<const ujson *>(value)->clone();
        if (!it->json) {
            LOG_ERROR("[EVT] Failed to allocate memory for `%s [%s]` modem event item's ujson!\n", mdm.id(),
                      mdm.vid_pid());
            return 1;
        }
    } else {
        it->size = desc->type == CACHE_DATA_STRING
                       ? static_cast<uint32_t>(std::strlen(static_cast<const char *>(value)) + 1)
                       : cache_data_type_size(desc->type);
        if (it->size) {
            it->bytes.reset(new (std::nothrow) uint8_t[it->size]);
            if (!it->bytes) {
                LOG_ERROR("[EVT] Failed to allocate memory for `%s [%s]` modem event item!\n", mdm.id(), mdm.vid_pid());
                return 1;
            }
            std::memcpy(it->bytes.get(), value, it->size);
        }
    }

    item *queued = it.release();
    (tail_ ? tail_->next : head_) = queued;
    tail_ = queued;
    LOG_DEBUG("[EVT] New event pushed: %u (%s) for `%s [%s]` modem\n", id, desc->name, mdm.id(), mdm.vid_pid());

    if (write(send_fd_, "1", 1) != 1) {
        LOG_ERROR("[EVT] Fd write error: errno %d: %s\n", errno, std::strerror(errno));
        // Without its wake-up byte the event would wait for the next push;
        // it goes, so that the queue and the pipe stay in step.
        drop(queued);
        return 1;
    }
    return 0;
}

// Unlinks and frees a queued item.
void evtmgr::drop(item *it)
{
    item *prev = nullptr;
    for (item *n = head_; n != it; n = n->next)
        prev = n;
    (prev ? prev->next : head_) = it->next;
    if (tail_ == it)
        tail_ = prev;
    delete it;
}

void evtmgr::fill_stats(ujson &json) const
{
    void *table = json.open_table("evtmgr_stats");
    json.add_int("recv_pipe_fd", watch_.fd);
    json.add_int("send_pipe_fd", send_fd_);
    json.close_table(table);
}

// Stores the event in the modem's cache and publishes it when it changed or
// when it is to be sent always.
void evtmgr::evt_handle(item &it)
{
    evt_modem &mdm = *it.mdm;
    const char *name = it.desc.name;
    cache_manager *cache = mdm.cache();
    int result = cache ? cache->update_item(name, it.desc.type, it.value(), it.size) : CACHE_ITEM_FAILED;
    if (result != CACHE_ITEM_CHANGED && !it.always_notify)
        return;

    LOG_DEBUG("[EVT] Item changed: %s on `%s [%s]` modem\n", name, mdm.id(), mdm.vid_pid());
    std::unique_ptr<ujson> payload = ujson::create();
    if (payload) {
        add_value(*payload, name, it.desc.type, it.value(), it.size);
        payload->add_string("modem_id", mdm.id());
        mdm.notify_event(name, *payload, it.id == evt_pin_state || it.id == evt_snd_sms);
    } else {
        LOG_ERROR("uJson memory allocation error!\n");
    }
    if (it.desc.cb)
        it.desc.cb(mdm, it.id, it.value());
}

void evtmgr::__worker_cb(uloop_fd *fd, unsigned int)
{
    evtmgr *mgr = static_cast<pipe_watch *>(fd)->owner;
    char ping;
    if (read(fd->fd, &ping, 1) != 1)
        return;
    LOG_DEBUG("[EVT] Received new event ping!\n");
    item *it = mgr->head_;
    if (!it) {
        LOG_ERROR("[EVT] Event waiting queue is empty!\n");
        return;
    }
    mgr->head_ = it->next;
    if (!mgr->head_)
        mgr->tail_ = nullptr;
    std::unique_ptr<item> owned(it);
    evt_handle(*owned);
}

std::array<char, 49> convert_ipv6(const uint8_t *addr)
{
    static constexpr char hex[] = "0123456789ABCDEF";
    std::array<char, 49> out{};
    for (size_t i = 0; addr && i < 16; i++) {
        out[i * 3] = hex[addr[i] >> 4];
        out[i * 3 + 1] = hex[addr[i] & 0x0f];
        out[i * 3 + 2] = ':';
    }
    return out;
}

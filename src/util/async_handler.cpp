#include "util/async_handler.h"

#include "ubus/modem_api.h"
#include "util/cache_manager.h"
#include "util/log.h"
#include "util/ujson.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>

namespace
{

struct async_node {
    async_call call;
    async_node *next;
};

// The registered call kinds, in registration order; freed at exit.
struct async_registry {
    async_node *head = nullptr;
    async_node *tail = nullptr;

    ~async_registry()
    {
        while (head) {
            async_node *next = head->next;
            delete head;
            head = next;
        }
    }
};

constinit async_registry g_async_calls;

} // namespace

int async_register(const async_call &call)
{
    LOG_DEBUG("[ASYNC] Registering %s async call...\n", call.name);
    for (async_node *n = g_async_calls.head; n; n = n->next) {
        if (n->call.id == call.id) {
            n->call = call;
            return 0;
        }
    }
    auto *node = new (std::nothrow) async_node{call, nullptr};
    if (!node) {
        LOG_ERROR("[ASYNC] Failed to allocate memory for `%s` async call!\n", call.name);
        return 1;
    }
    if (g_async_calls.tail)
        g_async_calls.tail->next = node;
    else
        g_async_calls.head = node;
    g_async_calls.tail = node;
    return 0;
}

void async_unregister(uint32_t id)
{
    async_node *prev = nullptr;
    for (async_node *n = g_async_calls.head; n; prev = n, n = n->next) {
        if (n->call.id != id)
            continue;
        (prev ? prev->next : g_async_calls.head) = n->next;
        if (g_async_calls.tail == n)
            g_async_calls.tail = prev;
        delete n;
        return;
    }
}

const async_call *async_find(uint32_t id)
{
    for (const async_node *n = g_async_calls.head; n; n = n->next) {
        if (n->call.id == id)
            return &n->call;
    }
    return nullptr;
}

async_item::async_item(async_modem &mdm, const async_call &call, uint32_t timeout, uint32_t action)
    : mdm_(&mdm), call_(call), timeout_(timeout), action_(action)
{
}

async_item::~async_item() = default;

void asyncmgr::item_list::append(async_item *it)
{
    it->prev_ = tail;
    it->next_ = nullptr;
    (tail ? tail->next_ : head) = it;
    tail = it;
}

void asyncmgr::item_list::unlink(async_item *it)
{
    (it->prev_ ? it->prev_->next_ : head) = it->next_;
    (it->next_ ? it->next_->prev_ : tail) = it->prev_;
    it->prev_ = it->next_ = nullptr;
}

void asyncmgr::item_list::clear()
{
    while (head) {
        async_item *it = head;
        unlink(it);
        delete it;
    }
}

void complete_async_call(modem *, uint32_t, ujson *, void *ctx)
{
    auto *item = static_cast<async_item *>(ctx);
    if (!item)
        return;
    item->owner_->pending_.unlink(item);
    delete item;
}

asyncmgr::asyncmgr() : watch_{}
{
    watch_.fd = -1;
    watch_.cb = __worker_cb;
    watch_.owner = this;
}

std::unique_ptr<asyncmgr> asyncmgr::create()
{
    return std::unique_ptr<asyncmgr>(new (std::nothrow) asyncmgr);
}

asyncmgr::~asyncmgr()
{
    uloop_fd_delete(&watch_);
    if (watch_.fd >= 0 || send_fd_ >= 0) {
        LOG_DEBUG("[ASYNC] Closing dispatcher pipe %d / %d\n", watch_.fd, send_fd_);
        close(watch_.fd);
        close(send_fd_);
    }
    queue_.clear();
    pending_.clear();
}

int asyncmgr::init(async_modem &mdm)
{
    if (watch_.fd >= 0)
        return 0;
    int fds[2];
    // The write end does not block either: a full pipe must not stall the
    // loop that alone can empty it.
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        LOG_ERROR("[ASYNC] Failed to create async dispatcher pipe for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
        return 1;
    }
    watch_.fd = fds[0];
    send_fd_ = fds[1];
    if (uloop_fd_add(&watch_, ULOOP_READ) != 0) {
        LOG_ERROR("[ASYNC] Failed to create async dispatcher pipe for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
        close(fds[0]);
        close(fds[1]);
        watch_.fd = send_fd_ = -1;
        return 1;
    }
    LOG_DEBUG("[ASYNC] Async dispatcher pipe opened: %d / %d for `%s [%s]` modem\n", watch_.fd, send_fd_, mdm.id(),
              mdm.vid_pid());
    return 0;
}

int asyncmgr::push(async_modem &mdm, uint32_t id, const void *value, uint32_t timeout, uint32_t action)
{
    const async_call *call = async_find(id);
    if (!call) {
        LOG_ERROR("[ASYNC] Unable to find async call by `%d` id! for `%s [%s]` modem!\n", static_cast<int>(id),
                  mdm.id(), mdm.vid_pid());
        return 1;
    }
    if (!value)
        return 1;

    std::unique_ptr<async_item> it(new (std::nothrow) async_item(mdm, *call, timeout, action));
    if (!it) {
        LOG_ERROR("[ASYNC] Failed to allocate memory for `%s [%s]` modem async item!\n", mdm.id(), mdm.vid_pid());
        return 1;
    }
    if (call->type == CACHE_DATA_UJSON) {
        it->json_ = static_cast<const ujson *>(value)->clone();
        if (!it->json_) {
            LOG_ERROR("[ASYNC] Failed to allocate memory for `%s [%s]` modem async call item's ujson!\n", mdm.id(),
                      mdm.vid_pid());
            return 1;
        }
    } else {
        it->size_ = call->type == CACHE_DATA_STRING
                        ? static_cast<uint32_t>(std::strlen(static_cast<const char *>(value)) + 1)
                        : cache_data_type_size(call->type);
        if (it->size_) {
            it->bytes_.reset(new (std::nothrow) uint8_t[it->size_]);
            if (!it->bytes_) {
                LOG_ERROR("[ASYNC] Failed to allocate memory for `%s [%s]` modem async item!\n", mdm.id(),
                          mdm.vid_pid());
                return 1;
            }
            std::memcpy(it->bytes_.get(), value, it->size_);
        }
    }

    async_item *queued = it.release();
    queued->owner_ = this;
    queue_.append(queued);
    LOG_DEBUG("[ASYNC] New async call pushed: %u (%s) for `%s [%s]` modem\n", id, call->name, mdm.id(), mdm.vid_pid());

    if (write(send_fd_, "1", 1) != 1) {
        LOG_ERROR("[ASYNC] Fd write error: errno %d: %s\n", errno, std::strerror(errno));
        // Without its wake-up byte the call would wait for the next push; it
        // goes, so that the queue and the pipe stay in step.
        queue_.unlink(queued);
        delete queued;
        return 1;
    }
    return 0;
}

// Has the driver build the item's action from args and queues the request;
// the item then waits on the pending list for the request's completion.
void asyncmgr::call_async(std::unique_ptr<async_item> item, ujson *args)
{
    async_modem &mdm = *item->mdm_;
    if (!mdm.check_func(item->action_))
        return;
    async_command cmd;
    int status = mdm.invoke_func(item->action_, args, cmd);
    if (status != ACT_STATUS_OK) {
        LOG_ERROR("[MODEM] An error (%d) occurred: %s for `%s [%s]` modem!\n", status,
                  act_status_str(static_cast<uint32_t>(status)), mdm.id(), mdm.vid_pid());
        return;
    }
    item_list &pending = item->owner_->pending_;
    pending.append(item.get());
    if (mdm.new_internal_request(item->action_, complete_async_call, item.get(), cmd.text.data(),
                                 static_cast<uint32_t>(cmd.text.size()), item->timeout_ * 1000, cmd.extra) != 0) {
        LOG_ERROR("[MODEM] Failed to create new internal request for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
        pending.unlink(item.get());
        std::free(cmd.extra);
        return;
    }
    item.release(); // the request's completion frees it
}

void asyncmgr::__worker_cb(uloop_fd *fd, unsigned int)
{
    asyncmgr *mgr = static_cast<pipe_watch *>(fd)->owner;
    char ping;
    if (read(fd->fd, &ping, 1) != 1)
        return;
    LOG_DEBUG("[ASYNC] Received new async call ping!\n");
    std::unique_ptr<async_item> item(mgr->queue_.head);
    if (!item) {
        LOG_ERROR("[ASYNC] Async waiting queue is empty!\n");
        return;
    }
    mgr->queue_.unlink(item.get());
    ujson *args = item->call_.prepare ? item->call_.prepare(*item) : nullptr;
    if (args)
        call_async(std::move(item), args);
}

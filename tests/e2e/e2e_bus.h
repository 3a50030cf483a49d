// The test's own bus client: calls that keep the event loop running while
// they wait, broadcast events and the notifications of a subscribed object.
#pragma once

#include <libubus.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace e2e
{

// Deadlines for a loaded machine (sanitizer builds, other suites in parallel).
// They bound waits; nothing is asserted about how quickly things happen.
constexpr int start_ms = 20000;   // the daemon's `gsm` object appears
constexpr int modem_ms = 30000;   // a modem is identified and on the bus
constexpr int call_ms = 20000;    // a bus call that the modem answers
constexpr int watcher_ms = 25000; // an expired request reaches the 5 s watcher
constexpr int settle_ms = 3000;   // time given to something that must not happen

// A structured message from the bus (reply, event or notification), or a
// named table inside one; members looked up as blobmsg_parse finds them.
class bus_message
{
  public:
    bus_message() = default;
    explicit bus_message(blob_attr *msg, bool table = false);

    const std::string &json() const { return json_; }
    bool has(const char *key) const { return find(key, BLOBMSG_TYPE_UNSPEC) != nullptr; }
    std::optional<std::string> text(const char *key) const;
    std::optional<int64_t> number(const char *key) const;
    std::optional<bus_message> table(const char *key) const;

  private:
    blob_attr *find(const char *key, int type) const;

    std::vector<uint64_t> data_; // the members, aligned
    size_t len_ = 0;
    std::string json_;
};

// The outcome of a method call.
struct call_result {
    bool done = false;
    int status = -1;
    bus_message reply; // the last data message
    int replies = 0;
};

// A call that is answered later; the test runs the loop meanwhile.
struct pending_call {
    ~pending_call();
    bool done() const { return result.done; }

    ubus_context *ctx = nullptr;
    ubus_request req{};
    call_result result;
};

struct bus_event {
    std::string type;
    bus_message data;
};

// The test's own connection to the broker, on the process's event loop.
class bus_client
{
  public:
    explicit bus_client(const std::string &socket);
    ~bus_client();
    bus_client(const bus_client &) = delete;
    bus_client &operator=(const bus_client &) = delete;

    bool connected() const { return ctx_ != nullptr; }
    ubus_context *context() const { return ctx_; }

    std::optional<uint32_t> object_id(const std::string &path);
    // Object paths on the bus that match pattern ("gsm.modem*").
    std::vector<std::string> objects(const std::string &pattern);

    // Calls path.method with a JSON message; the loop runs while waiting, so
    // events and notifications keep arriving.
    call_result call(const std::string &path, const std::string &method, const std::string &json = "{}",
                     int timeout_ms = call_ms);
    // Starts a call; nullptr when the object is not there or the call cannot
    // be sent.
    std::unique_ptr<pending_call> call_async(const std::string &path, const std::string &method,
                                             const std::string &json);
    int send_event(const std::string &type, const std::string &json);

    // Receives the broadcast events matching pattern ("gsm.*").
    bool listen(const std::string &pattern);
    // Subscribes to the notifications of object path.
    bool subscribe(const std::string &path);

    const std::vector<bus_event> &events() const { return hooks_.events; }
    std::vector<bus_event> events_of(const std::string &type) const { return of(hooks_.events, type); }
    std::vector<bus_event> notifications_of(const std::string &type) const { return of(hooks_.notes, type); }

  private:
    static std::vector<bus_event> of(const std::vector<bus_event> &all, const std::string &type);

    // One event handler for every pattern, one subscriber for every object.
    struct hooks {
        ubus_event_handler handler{}; // first: the callback's pointer is this
        ubus_subscriber sub{};
        bool listening = false, subscribed = false;
        std::vector<bus_event> events, notes;
    };
    ubus_context *ctx_ = nullptr;
    hooks hooks_;
};

} // namespace e2e

// Messages nested beyond the limit every walker of a bus message keeps: the
// daemon, with its debug log on, refuses them and goes on serving.
#include "tests/e2e/e2e_harness.h"

#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"
#include <libubus.h>

#include <vector>

namespace e2e {
namespace {

// A call on a connection of its own, with a message built in place: the
// JSON text such a message would need is refused by the client's parser.
class raw_caller
{
  public:
    explicit raw_caller(const std::string &socket) : ctx_(ubus_connect(socket.c_str())) {}
    ~raw_caller()
    {
        if (ctx_)
            ubus_free(ctx_);
    }
    raw_caller(const raw_caller &) = delete;
    raw_caller &operator=(const raw_caller &) = delete;

    bool connected() const { return ctx_ != nullptr; }

    // exec of command on path with a member "extra" of `levels` nested
    // tables; the call's status (replies are dropped).
    int exec_nested(const std::string &path, const char *command, int levels, size_t *size)
    {
        uint32_t id = 0;
        if (ubus_lookup_id(ctx_, path.c_str(), &id) != 0)
            return -1;
        blob_buf b = {};
        blob_buf_init(&b, 0);
        blobmsg_add_string(&b, "command", command);
        std::vector<void *> open;
        for (int i = 0; i < levels; i++)
            open.push_back(blobmsg_open_table(&b, i ? "n" : "extra"));
        for (auto it = open.rbegin(); it != open.rend(); ++it)
            blobmsg_close_table(&b, *it);
        *size = blob_raw_len(b.head);
        int status = ubus_invoke(ctx_, id, "exec", b.head, nullptr, nullptr, call_ms);
        blob_buf_free(&b);
        return status;
    }

  private:
    ubus_context *ctx_;
};

class Nesting : public DaemonTest
{
};

TEST_F(Nesting, DeepExecArgumentIsRefusedAndTheDaemonGoesOn)
{
    modem_sim &sim = plug_ec25(usb_device{});
    write_board(*root, R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true}]})");
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_NE(wait_modem("gsm.modem0"), 0u);
    ASSERT_TRUE(wait_idle(*bus, "gsm.modem0"));

    raw_caller caller(bus_socket);
    ASSERT_TRUE(caller.connected());
    {
        SCOPED_TRACE("about 1 MB, nested 125000 levels");
        size_t size = 0;
        EXPECT_EQ(caller.exec_nested("gsm.modem0", "AT+CCLK?", 125000, &size), UBUS_STATUS_INVALID_ARGUMENT);
        EXPECT_GT(size, 1000000u);
        EXPECT_EQ(count_of(sim.transcript(), "CCLK"), 0u) << "the refused command reached the modem";
        EXPECT_TRUE(log->has("debug: Ubus call: exec refused: arguments nested deeper than " +
                             std::to_string(WWAN_BLOBMSG_MAX_DEPTH) + " levels"));
    }
    {
        SCOPED_TRACE("at the limit");
        size_t size = 0;
        size_t sent = count_of(sim.transcript(), "in  \"AT+CSQ");
        EXPECT_EQ(caller.exec_nested("gsm.modem0", "AT+CSQ", WWAN_BLOBMSG_MAX_DEPTH, &size), 0);
        EXPECT_EQ(count_of(sim.transcript(), "in  \"AT+CSQ"), sent + 1) << sim.transcript();
    }

    expect_exec(*bus, "gsm.modem0", "AT", "\r\nOK\r\n");
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

} // namespace
} // namespace e2e

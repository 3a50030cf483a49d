// Requests that answer bus calls: the reply and the completion reach the
// caller through a real broker.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "wwan/ubox.h"
#include <libubus.h>

#include "comm/cmm_test_support.h"
#include "core/modem_driver.h"
#include "util/ujson.h"

using namespace cmm_test;

namespace
{

int invalid_response(modem *, int, ujson *, request *)
{
    return 5;
}

int nothing_to_report(modem *, int, ujson *, request *)
{
    return 0;
}

modem_driver g_bus_driver = {"Bus test AT", "bustest", nullptr, nullptr};

// What the method handler queues next.
test_modem *g_target = nullptr;
uint32_t g_action = 0;
const char *g_command = "AT+CSQ";

int exec_cb(ubus_context *ctx, ubus_object *, ubus_request_data *call, const char *, blob_attr *)
{
    request *req = create_request(g_action, nullptr, nullptr, g_command, static_cast<uint32_t>(std::strlen(g_command)),
                                  10, nullptr);
    if (!req)
        return UBUS_STATUS_UNKNOWN_ERROR;
    req->has_req_data = true;
    ubus_defer_request(ctx, call, &req->req_data);
    list_add_tail(&req->list, g_target->request_list());
    g_target->cmm->ping();
    return 0;
}

ubus_method g_methods[] = {UBUS_METHOD_NOARG("exec", exec_cb)};
ubus_object_type g_type = UBUS_OBJECT_TYPE("gsm.modem", g_methods);

struct call_result {
    bool done = false;
    int status = -1;
    std::string data;
};

void data_cb(ubus_request *req, int, blob_attr *msg)
{
    auto *r = static_cast<call_result *>(req->priv);
    if (char *json = blobmsg_format_json(msg, true)) {
        r->data += json;
        free(json);
    }
}

void complete_cb(ubus_request *req, int ret)
{
    auto *r = static_cast<call_result *>(req->priv);
    r->status = ret;
    r->done = true;
}

class CommManagerBus : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        modem_driver_override(&g_bus_driver, ACT_GET_IMSI, invalid_response);
        modem_driver_override(&g_bus_driver, ACT_GET_FUNC, nothing_to_report);
    }

    void SetUp() override
    {
        if (sim_executable().empty() || access(WWAN_BUSD, X_OK) != 0)
            GTEST_SKIP() << "wwan-modem-sim or wwan-busd is not built";
        ASSERT_EQ(uloop_init(), 0);
        sock = root.path() + "/ubus.sock";
        start_broker();
        ASSERT_GT(broker, 0);

        modem_sim::options opt;
        opt.link = root.path() + "/dev/ttyUSB2";
        sim = std::make_unique<modem_sim>(root.path(), opt);
        ASSERT_FALSE(sim->pty().empty());
        mdm = std::make_unique<test_modem>("/dev/ttyUSB2", &g_bus_driver);
        g_target = mdm.get();

        server = ubus_connect(sock.c_str());
        client = ubus_connect(sock.c_str());
        ASSERT_TRUE(server && client);
        ubus_add_uloop(server);
        ubus_add_uloop(client);
        // A fresh broker each time: the type is registered anew.
        g_type.id = 0;
        object.name = "gsm.modem0";
        object.type = &g_type;
        object.methods = g_methods;
        object.n_methods = 1;
        ASSERT_EQ(ubus_add_object(server, &object), 0);
        ASSERT_EQ(ubus_lookup_id(client, "gsm.modem0", &object_id), 0);
        mdm->bus_ctx = server;

        mdm->cmm = comm_manager::create([] {
            cmm_timing t;
            t.settle_ms = t.escape_guard_ms = t.round_ms = 20;
            return t;
        }());
        ASSERT_EQ(mdm->cmm->init(mdm.get(), 0), 0);
        ASSERT_TRUE(run_until(5000, [&] { return mdm->ready == 1; }));
    }

    void TearDown() override
    {
        g_target = nullptr;
        mdm.reset();
        if (server)
            ubus_free(server);
        if (client)
            ubus_free(client);
        sim.reset();
        if (broker > 0) {
            kill(broker, SIGTERM);
            waitpid(broker, nullptr, 0);
        }
        uloop_done();
    }

    void start_broker()
    {
        broker = fork();
        if (broker == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            execl(WWAN_BUSD, WWAN_BUSD, "-s", sock.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 500; i++) {
            int fd = usock(USOCK_UNIX, sock.c_str(), nullptr);
            if (fd >= 0) {
                close(fd);
                return;
            }
            usleep(10000);
        }
    }

    call_result call(uint32_t action)
    {
        g_action = action;
        call_result r;
        ubus_request req = {};
        blob_buf b = {};
        blob_buf_init(&b, 0);
        if (ubus_invoke_async(client, object_id, "exec", b.head, &req) == 0) {
            req.data_cb = data_cb;
            req.complete_cb = complete_cb;
            req.priv = &r;
            ubus_complete_request_async(client, &req);
            run_until(5000, [&] { return r.done; });
        }
        blob_buf_free(&b);
        return r;
    }

    temp_root root;
    std::string sock;
    pid_t broker = -1;
    std::unique_ptr<modem_sim> sim;
    std::unique_ptr<test_modem> mdm;
    ubus_context *server = nullptr;
    ubus_context *client = nullptr;
    ubus_object object = {};
    uint32_t object_id = 0;
};

} // namespace

TEST_F(CommManagerBus, AnswerWithoutADriverFunctionCarriesTheExchange)
{
    call_result r = call(ACT_AT_COMMAND);
    ASSERT_TRUE(r.done);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.data, "{\"request\":\"AT+CSQ\\r\",\"response\":\"\\r\\n+CSQ: 22,99\\r\\n\\r\\nOK\\r\\n\"}");
    ASSERT_EQ(mdm->finished.size(), 1u);
}

TEST_F(CommManagerBus, ActionErrorIsAnsweredThroughTheErrorCompletion)
{
    call_result r = call(ACT_GET_IMSI);
    ASSERT_TRUE(r.done);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.data, "{\"request\":\"AT+CSQ\\r\",\"response\":\"\\r\\n+CSQ: 22,99\\r\\n\\r\\nOK\\r\\n\","
                      "\"errno\":5,\"error\":\"Invalid response\"}");
    EXPECT_EQ(mdm->bus_errors.size(), 1u);
}

TEST_F(CommManagerBus, EmptyReplyGetsTheStatusAndTheNextCallIsAnsweredToo)
{
    call_result first = call(ACT_GET_FUNC);
    call_result second = call(ACT_GET_FUNC);
    ASSERT_TRUE(first.done && second.done);
    EXPECT_EQ(first.data, "{\"status_id\":0,\"status\":\"OK\"}");
    EXPECT_EQ(second.data, first.data);
    EXPECT_EQ(mdm->finished.size(), 2u);
}

// Tests on a broker of their own: this process serves the objects under test
// on one connection (`server`) and calls them on another (`client`), as any
// client would. The test target defines WWAN_BUSD, the broker to start.
#pragma once

#include "wwan/ubox.h"
#include <libubus.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process_test_support.h"
#include "ubus/ubus.h"
#include "util/log.h"
#include "util/root_test_support.h"

namespace bus_test
{

inline std::string json_text(blob_attr *attr)
{
    char *j = attr ? blobmsg_format_json(attr, true) : nullptr;
    std::string s = j ? j : "";
    std::free(j);
    return s;
}

// Runs the loop until pred holds; false after timeout_ms.
inline bool run_until(int timeout_ms, const std::function<bool()> &pred)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= until)
            return false;
        uloop_run_timeout(5);
    }
    return true;
}

struct call_result {
    bool done = false;
    int status = -1;
    std::string reply;
    ubus_request req{};
};

class fixture : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        if (access(WWAN_BUSD, X_OK) != 0)
            GTEST_SKIP() << "wwan-busd is not built";
        std::string sock = root.path() + "/ubus.sock";
        broker = test_support::start_broker(WWAN_BUSD, sock);
        ASSERT_GT(broker, 0);
        ASSERT_EQ(uloop_init(), 0);
        server = ubus_connect(sock.c_str());
        client = ubus_connect(sock.c_str());
        ASSERT_TRUE(server && client);
        ubus_add_uloop(server);
        ubus_add_uloop(client);
    }
    void TearDown() override
    {
        if (server)
            ubus_free(server);
        if (client)
            ubus_free(client);
        ubus_cleanup();
        test_support::stop_process(broker);
        uloop_done();
        log_level(0);
    }

    // Starts a call of the JSON arguments and, with levels, a member "extra"
    // of that many nested tables; r fills in as the loop runs.
    void call_async(uint32_t obj, const char *method, const char *json, call_result &r, int levels = 0)
    {
        blob_buf b = {};
        blob_buf_init(&b, 0);
        if (json) {
            EXPECT_TRUE(blobmsg_add_json_from_string(&b, json)) << json;
        }
        std::vector<void *> open;
        for (int i = 0; i < levels; i++)
            open.push_back(blobmsg_open_table(&b, i ? "n" : "extra"));
        for (auto it = open.rbegin(); it != open.rend(); ++it)
            blobmsg_close_table(&b, *it);
        ASSERT_EQ(ubus_invoke_async(client, obj, method, b.head, &r.req), 0);
        blob_buf_free(&b);
        r.req.data_cb = [](ubus_request *rq, int, blob_attr *msg) {
            static_cast<call_result *>(rq->priv)->reply = json_text(msg);
        };
        r.req.complete_cb = [](ubus_request *rq, int ret) {
            auto *res = static_cast<call_result *>(rq->priv);
            res->status = ret;
            res->done = true;
        };
        r.req.priv = &r;
        ubus_complete_request_async(client, &r.req);
    }
    // The call's result, or done false after timeout_ms.
    call_result call(uint32_t obj, const char *method, const char *json = nullptr, int levels = 0,
                     int timeout_ms = 8000)
    {
        call_result r;
        call_async(obj, method, json, r, levels);
        if (!run_until(timeout_ms, [&] { return r.done; }))
            ubus_abort_request(client, &r.req);
        return r;
    }

    temp_root root;
    pid_t broker = -1;
    ubus_context *server = nullptr;
    ubus_context *client = nullptr;
};

} // namespace bus_test

// A broker and the test peer as processes in a temporary directory, plus a
// client connection of the test itself.
#pragma once

#include "bus_harness.h"

#include <gtest/gtest.h>
#include <signal.h>

namespace bus_test
{

class BusFixture : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_FALSE(dir.path().empty());
        sock = dir.path() + "/ubus.sock";
        broker = start_broker(sock, broker_args);
        ASSERT_TRUE(broker) << "broker did not start";
        peer = start_peer(sock);
        ASSERT_TRUE(peer) << "peer did not publish its objects";
        ctx = ubus_connect(sock.c_str());
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(ubus_lookup_id(ctx, "test", &test_id), 0);
    }

    void TearDown() override
    {
        if (ctx)
            ubus_free(ctx);
        ctx = nullptr;
        uloop_done();
        blob_buf_free(&b);
        // Clean exits on SIGTERM: the sanitizers' leak check decides the
        // status of both the client library (peer) and the broker.
        if (peer && peer->running()) {
            EXPECT_EQ(peer->stop(SIGTERM), 0) << "peer exit status";
        }
        if (broker && broker->running()) {
            EXPECT_EQ(broker->stop(SIGTERM), 0) << "broker exit status";
        }
    }

    temp_root dir;
    std::vector<std::string> broker_args;
    std::string sock;
    std::unique_ptr<process> broker;
    std::unique_ptr<process> peer;
    struct ubus_context *ctx = nullptr;
    uint32_t test_id = 0;
    struct blob_buf b = {};
};

} // namespace bus_test

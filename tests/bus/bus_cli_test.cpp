// wwan-bus output, error texts and exit codes, against the real broker and
// the peer process.
#include "bus_fixture.h"

#include <stdio.h>

namespace bus_test {
namespace {

class BusCli : public BusFixture {
protected:
	cli_result cli(std::vector<std::string> args, int timeout_ms = 10000)
	{
		args.insert(args.begin(), {"-s", sock});
		return run_cli(args, timeout_ms);
	}
};

TEST_F(BusCli, ListPrintsPathsInOrder)
{
	auto r = cli({"list"});
	EXPECT_EQ(r.code, 0);
	EXPECT_EQ(r.out, "test\ntest.other\n");
	EXPECT_EQ(r.err, "");
	r = cli({"list", "test.*"});
	EXPECT_EQ(r.out, "test.other\n");
}

TEST_F(BusCli, VerboseListShowsIdAndArgumentTypes)
{
	auto r = cli({"-v", "list", "test"});
	EXPECT_EQ(r.code, 0);
	char head[64];
	snprintf(head, sizeof(head), "'test' @%08x\n", test_id);
	EXPECT_EQ(r.out, std::string(head) +
				 "\t\"echo\":{}\n"
				 "\t\"typed\":{\"num\":\"Integer\",\"name\":\"String\"}\n"
				 "\t\"masked\":{\"num\":\"Integer\",\"d\":\"(unknown)\"}\n"
				 "\t\"whoami\":{}\n"
				 "\t\"defer\":{}\n"
				 "\t\"silent\":{}\n"
				 "\t\"exit\":{}\n"
				 "\t\"fail\":{}\n"
				 "\t\"notify\":{}\n"
				 "\t\"state\":{}\n"
				 "\t\"event\":{}\n"
				 "\t\"events\":{}\n"
				 "\t\"big\":{\"size\":\"Integer\"}\n"
				 "\t\"fd\":{}\n");
	EXPECT_EQ(cli({"-v", "-S", "list", "test"}).out, "test\n") << "simple output ignores -v";
}

TEST_F(BusCli, CallPrintsIndentedOrCompactJson)
{
	auto r = cli({"call", "test", "typed", R"({"num":21,"name":"x"})"});
	EXPECT_EQ(r.code, 0);
	EXPECT_EQ(r.out, "{\n\t\"num\": 42,\n\t\"name\": \"x\"\n}\n");
	EXPECT_EQ(r.err, "");
	r = cli({"-S", "call", "test", "echo", R"({"a":[1,true],"b":{"c":"d"}})"});
	EXPECT_EQ(r.out, "{\"a\":[1,true],\"b\":{\"c\":\"d\"}}\n");
	r = cli({"call", "test", "fail"});
	EXPECT_EQ(r.out, "") << "nothing printed without data";
}

TEST_F(BusCli, CallErrorsUseTheStockTextsAndCodes)
{
	auto r = cli({"call", "nothere", "echo"});
	EXPECT_EQ(r.code, 4);
	EXPECT_EQ(r.err, "Command failed: Not found\n");

	// stderr is a pipe here: the whole command is quoted, code is 256-N.
	r = cli({"call", "test", "nomethod", "{}"});
	EXPECT_EQ(r.code, 253);
	EXPECT_EQ(r.err, "Command failed: ubus call test nomethod {} (Method not found)\n");
	r = cli({"call", "test", "fail"});
	EXPECT_EQ(r.code, 248);
	EXPECT_EQ(r.err, "Command failed: ubus call test fail (Operation not supported)\n");
	r = cli({"call", "test", "typed", R"({"num":"x"})"});
	EXPECT_EQ(r.code, 254);

	r = cli({"-S", "call", "test", "nomethod"});
	EXPECT_EQ(r.code, 3);
	EXPECT_EQ(r.err, "");

	r = cli({"call", "test", "echo", "[1,2]"});
	EXPECT_EQ(r.code, 12);
	EXPECT_EQ(r.err, "Command failed: Parsing message data failed\n");
}

TEST_F(BusCli, CallTimesOutAfterTheGivenSeconds)
{
	auto r = cli({"-t", "1", "call", "test", "silent"});
	EXPECT_EQ(r.code, 256 - UBUS_STATUS_TIMEOUT);
	EXPECT_EQ(r.err, "Command failed: ubus call test silent (Request timed out)\n");
}

TEST_F(BusCli, UsageAndConnectionErrors)
{
	auto r = cli({"bogus"});
	EXPECT_EQ(r.code, 254);
	EXPECT_EQ(r.err.rfind("Usage: ", 0), 0u) << r.err;
	r = cli({"call", "test"});
	EXPECT_EQ(r.code, 254);
	r = run_cli({"-s", dir.path() + "/none.sock", "list"});
	EXPECT_EQ(r.code, 255);
	EXPECT_EQ(r.err, "Failed to connect to ubus\n");
}

TEST_F(BusCli, ListenPrintsMatchingEvents)
{
	process listener({WWAN_BUS, "-s", sock, "-t", "3", "listen", "cli.*", "other"}, true);
	// Wait until both patterns are registered: then an event arrives.
	ASSERT_TRUE(wait_until(3000, [&] {
		blob_buf_init(&b, 0);
		blobmsg_add_u8(&b, "probe", 1);
		ubus_send_event(ctx, "other", b.head);
		std::string l;
		return listener.line(&l, 50) && l == "{ \"other\": {\"probe\":true} }";
	}));
	blob_buf_init(&b, 0);
	blobmsg_add_u32(&b, "a", 1);
	blobmsg_add_string(&b, "s", "t\"q");
	ASSERT_EQ(ubus_send_event(ctx, "nomatch", b.head), 0);
	ASSERT_EQ(ubus_send_event(ctx, "cli.x", b.head), 0);
	std::string l;
	do {
		ASSERT_TRUE(listener.line(&l, 3000));
	} while (l == "{ \"other\": {\"probe\":true} }");
	EXPECT_EQ(l, R"({ "cli.x": {"a":1,"s":"t\"q"} })");
	EXPECT_EQ(listener.stop(0, 5000), 0) << "-t ends listen with status 0";
}

TEST_F(BusCli, SendDeliversAndRejectsReservedNames)
{
	auto r = cli({"send", "peer.cli", R"({"x":1})"});
	EXPECT_EQ(r.code, 0);
	EXPECT_EQ(r.out + r.err, "");
	auto ev = cli({"-S", "call", "test", "events"});
	EXPECT_EQ(ev.out, "{\"events\":[\"peer.cli\"]}\n");
	r = cli({"send", "ubus.object.add"});
	EXPECT_EQ(r.code, 6);
	EXPECT_EQ(r.err, "Command failed: Permission denied\n");
	r = cli({"send", "x", "nojson"});
	EXPECT_EQ(r.code, 12);
}

TEST_F(BusCli, SubscribePrintsNotifications)
{
	process sub({WWAN_BUS, "-s", sock, "-t", "3", "subscribe", "test"}, true);
	ASSERT_TRUE(wait_until(3000, [&] {
		blob_buf_init(&b, 0);
		int has = 0;
		ubus_invoke(ctx, test_id, "state", b.head,
			    [](struct ubus_request *req, int, struct blob_attr *msg) {
				    *static_cast<int *>(req->priv) = json_of(msg) == R"({"has_subscribers":true})";
			    },
			    &has, 1000);
		return has == 1;
	}));
	auto r = cli({"call", "test", "notify", R"({"n":5})"});
	EXPECT_EQ(r.out, "{\n\t\"rc\": 0\n}\n");
	std::string l;
	ASSERT_TRUE(sub.line(&l, 3000));
	EXPECT_EQ(l, R"({ "ping": {"n":5} })");

	auto bad = cli({"subscribe", "nothere"});
	EXPECT_EQ(bad.code, 255);
	EXPECT_EQ(bad.err, "Error while registering for event 'nothere': Not found\n");
}

TEST_F(BusCli, WaitForReturnsWhenObjectsAppearOrTimesOut)
{
	EXPECT_EQ(cli({"wait_for", "test", "test.other"}).code, 0);
	auto r = cli({"-t", "1", "wait_for", "test", "late"});
	EXPECT_EQ(r.code, UBUS_STATUS_TIMEOUT);
	EXPECT_EQ(r.err, "Command failed: Request timed out\n");

	process waiter({WWAN_BUS, "-s", sock, "-t", "5", "wait_for", "late"});
	usleep(300 * 1000);
	EXPECT_TRUE(waiter.running());
	static const struct ubus_method none[] = {{"x", nullptr, 0, 0, nullptr, 0}};
	static struct ubus_object_type late_type = UBUS_OBJECT_TYPE("late", none);
	struct ubus_object late = {};
	late.name = "late";
	late.type = &late_type;
	late.methods = none;
	late.n_methods = 1;
	ASSERT_EQ(ubus_add_object(ctx, &late), 0);
	EXPECT_EQ(waiter.stop(0, 3000), 0);
}

} // namespace
} // namespace bus_test

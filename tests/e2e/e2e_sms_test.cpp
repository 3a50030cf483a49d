// SMS through the real processes: what a service on the bus sends reaches
// the network whole and once, what the network delivers is read whole and
// announced, and the router's sending limit is kept.
#include <string>

#include "tests/e2e/e2e_harness.h"
#include "tests/e2e/e2e_sms_limit.h"

namespace e2e {
namespace {

using Sms = ServedModemTest;

// Telekom's notice in the simulator's store: part 1 of 2 (reference 42) at
// index 2, as the network delivered it.
const char *const telekom_part1 =
    "0791947101670000440DD0D432BBBC7EB701000042508190142180A00500032A020198E9B2B82C072DEB6E7299054AA2E52062985E76DB"
    "DFEC7ABBEC06D9DF6E500C063A0A41E9391DA4AF8370B012C85E968BE5E1FA184D77818262500C062B81E675B9B9EC064DD365503B4D07"
    "B5C37817C84603ADC569FA6B0EBA97D3F4B2DC056A96D17210327D46CFE1E532B9657DB3EBEDB21B24AE8FD16537689A2E83EA6E7A590E"
    "8287E7";

// 160 characters outside the default alphabet: three UCS-2 parts.
std::string long_unicode()
{
    std::string text = "Grüße aus dem Router ☕";
    for (int i = 0; i < 6; i++)
        text += " Grüße aus dem Router ☕";
    return text;
}

// The message of "messages" whose "index" is index, as JSON ("" when none).
std::string message_at(const bus_message &reply, int index)
{
    const std::string &json = reply.json();
    std::string key = "{\"index\":" + std::to_string(index) + ",";
    size_t at = json.find(key);
    return at == std::string::npos ? std::string() : json.substr(at, json.find('}', at) - at + 1);
}

TEST_F(Sms, StoredMessagesAreReadWholeAndDeletedByTheirParts)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(ok("get_sms_mode").number("format_id"), 1);

    bus_message all = ok("read_sms", R"({"index":-1})");
    std::string notice = message_at(all, 2);
    EXPECT_NE(notice.find("\"sender\":\"Telekom\""), std::string::npos) << all.json();
    EXPECT_NE(notice.find("\"n_parts\":2"), std::string::npos) << notice;
    EXPECT_NE(notice.find("\"pdus\":[2,3]"), std::string::npos) << notice;
    EXPECT_NE(notice.find("\"missing\":false"), std::string::npos) << notice;
    EXPECT_NE(message_at(all, 4).find("\xF0\x9F\x8D\x95"), std::string::npos) << all.json(); // outside the BMP
    EXPECT_EQ(message_at(all, 3), "");                                                      // joined into 2

    // A repeated part: read once, and the copy is deleted from the modem.
    sim.control(std::string("sms pdu ") + telekom_part1);
    EXPECT_TRUE(notified("sms_index", [](const bus_message &m) { return m.number("sms_index") == 5; }));
    all = ok("read_sms", R"({"index":-1})");
    EXPECT_EQ(message_at(all, 5), "") << all.json();
    EXPECT_TRUE(bus->wait_until(call_ms, [&] { return sim.control("sms list").find("\n5 ") == std::string::npos; }))
        << sim.control("sms list");

    // Part 2 gone: a placeholder, or nothing with strip.
    ok("delete_sms", R"({"index":3,"single":true})");
    bus_message torn = ok("read_sms", R"({"index":2})");
    EXPECT_NE(torn.json().find(" <part_missing> "), std::string::npos) << torn.json();
    EXPECT_NE(torn.json().find("\"missing\":true"), std::string::npos);
    bus_message stripped = ok("read_sms", R"({"index":2,"strip":true})");
    EXPECT_EQ(stripped.json().find("part_missing"), std::string::npos) << stripped.json();

    ok("delete_sms", R"({"index":2,"single":true})");
    ok("delete_sms", R"({"index":0})"); // everything
    EXPECT_NE(ok("read_sms", R"({"index":-1})").json().find("\"messages\":[]"), std::string::npos);
    EXPECT_NE(sim.control("sms list").find("ME 0/255"), std::string::npos) << sim.control("sms list");
}

// The network delivers a long message in parts: each is announced, and
// reading one part gives the whole text.
TEST_F(Sms, DeliveredPartsAreAnnouncedAndJoined)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    ok("delete_sms", R"({"index":0})");
    EXPECT_EQ(sim.control("sms deliver +491701112233 " + long_unicode()), "OK\n");
    for (int index : {0, 1, 2})
        EXPECT_TRUE(notified("sms_index", [index](const bus_message &m) { return m.number("sms_index") == index; }))
            << index << " " << diagnostics();
    bus_message one = ok("read_sms", R"({"index":1})");
    EXPECT_NE(one.json().find("\"sender\":\"+491701112233\""), std::string::npos) << one.json();
    EXPECT_NE(one.json().find(long_unicode()), std::string::npos) << one.json();
    EXPECT_NE(one.json().find("\"parts\":[1,2,3]"), std::string::npos) << one.json();

    // A single part by itself.
    bus_message part = ok("read_sms", R"({"index":1,"single":true})");
    EXPECT_EQ(part.json().find(long_unicode()), std::string::npos) << part.json();
}

TEST_F(Sms, SendingIsMeteredByTheLimitService)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    const std::string hi = R"({"number":"+491701234567","text":"Hi"})";

    // No limit service on the bus: nothing is sent.
    EXPECT_EQ(call_errno("send_sms", hi), 9);

    sms_limit_service limit(*bus, 10, 0);
    ASSERT_TRUE(limit.registered());
    bus_message check = ok("send_sms", R"({"number":"+491701234567","text":"Hi","validate":true})");
    EXPECT_EQ(check.number("sms_used"), 1) << check.json();
    EXPECT_EQ(check.number("cur_chars"), 2);
    EXPECT_EQ(check.number("max_chars"), 160);
    EXPECT_EQ(sim.control("sms sent"), "OK\n");

    EXPECT_EQ(ok("send_sms", hi).number("sms_used"), 1);
    EXPECT_TRUE(notified("snd_sms", [](const bus_message &m) { return m.text("number") == "+491701234567"; }));
    const std::string text = long_unicode();
    EXPECT_EQ(ok("send_sms", R"({"number":"+491701234567","text":")" + text + "\"}").number("sms_used"), 3);
    EXPECT_EQ(sim.control("sms sent"),
              "+491701234567 1/1 GSM7 \"Hi\"\n+491701234567 3/3 UCS2 \"" + text + "\"\nOK\n");
    EXPECT_EQ(limit.current, 4);
    EXPECT_EQ(limit.calls.front(), "check 1 gsm.modem0");

    // Three parts with room for two: refused whole, also when only asked.
    limit.current = 8;
    EXPECT_EQ(call_errno("send_sms", R"({"number":"+491701234567","text":")" + text + "\"}"), 9);
    EXPECT_EQ(call_errno("send_sms", R"({"number":"+491701234567","text":")" + text + R"(","validate":true})"), 9);
    limit.current = 10;
    EXPECT_EQ(call_errno("send_sms", hi), 9);

    // A service that fails or answers late keeps the limit; "not supported"
    // means this router has none.
    limit.current = 0;
    limit.behaviour = sms_limit_service::mode::failing;
    EXPECT_EQ(call_errno("send_sms", hi), 9);
    limit.behaviour = sms_limit_service::mode::slow;
    EXPECT_EQ(call_errno("send_sms", hi), 9);
    limit.behaviour = sms_limit_service::mode::not_supported;
    EXPECT_EQ(ok("send_sms", hi).number("sms_used"), 1);
    EXPECT_NE(sim.control("sms sent").find("\n+491701234567 1/1 GSM7 \"Hi\"\nOK"), std::string::npos);
    expect_serving();
}

// An asynchronous send answers at once; the notification tells it was sent.
TEST_F(Sms, AsynchronousSendingReportsWhenSent)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    sms_limit_service limit(*bus, 10, 0);
    ASSERT_TRUE(limit.registered());
    call_result r = bus->call(modem0, "send_sms", R"({"number":"+4915112345678","text":"later","async":true})");
    EXPECT_EQ(r.status, 0);
    EXPECT_FALSE(r.reply.has("errno")) << r.reply.json();
    EXPECT_TRUE(notified("snd_sms", [](const bus_message &m) {
        return m.text("number") == "+4915112345678" && m.number("sms_used") == 1;
    })) << diagnostics();
    EXPECT_EQ(sim.control("sms sent"), "+4915112345678 1/1 GSM7 \"later\"\nOK\n");
    EXPECT_EQ(limit.current, 1);
}

// Text mode: sending works, reading (which needs PDUs) is refused.
TEST_F(Sms, TextMode)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    sms_limit_service limit(*bus, 10, 0, sms_limit_service::mode::not_supported);
    ok("set_sms_mode", R"({"mode":"text"})");
    EXPECT_EQ(ok("get_sms_mode").number("format_id"), 2);
    ok("send_sms", R"({"number":"+491701234567","text":"plain words"})");
    EXPECT_EQ(sim.control("sms sent"), "+491701234567 1/1 GSM7 \"plain words\"\nOK\n");
    EXPECT_EQ(call_errno("read_sms", R"({"index":-1})"), 7);
}

TEST_F(Sms, StoragesAndReporting)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    bus_message me = ok("get_msg_storage");
    EXPECT_EQ(me.table("mem1")->text("storage"), "Mobile equipment") << me.json();
    EXPECT_EQ(me.table("mem3")->number("used"), 5);
    EXPECT_EQ(me.table("mem3")->number("total"), 255);

    ok("set_msg_storage", R"({"mem1":"SM","mem2":"SM","mem3":"SM"})");
    bus_message sm = ok("get_msg_storage");
    EXPECT_EQ(sm.table("mem3")->text("storage"), "SIM") << sm.json();
    EXPECT_EQ(sm.table("mem3")->number("total"), 50);
    EXPECT_EQ(call_errno("set_msg_storage", R"({"mem1":"XX","mem2":"SM","mem3":"SM"})"), 2);

    sim.control("sms fill SM");
    bus_message full = ok("get_msg_storage", R"({"full":true})");
    EXPECT_EQ(full.table("mem1")->number("used"), 50) << full.json();
    EXPECT_EQ(full.table("mem3")->text("storage"), "Mobile equipment");

    ok("set_sms_evt_rep_cfg", R"({"mode":2,"mt":1,"bm":0,"ds":0,"bfr":0})");
    bus_message cnmi = ok("get_sms_evt_rep_cfg");
    EXPECT_EQ(cnmi.number("mode"), 2);
    EXPECT_EQ(cnmi.number("mt"), 1);
    // Without mt the network's messages are stored but not announced.
    ok("set_sms_evt_rep_cfg", R"({"mode":2,"mt":0,"bm":0,"ds":0,"bfr":0})");
    ok("set_msg_storage", R"({"mem1":"ME","mem2":"ME","mem3":"ME"})");
    sim.control("sms deliver +491701112233 quiet");
    EXPECT_FALSE(bus->wait_until(settle_ms, [&] { return !bus->notifications_of("sms_index").empty(); }));
    EXPECT_NE(sim.control("sms list").find("\"quiet\""), std::string::npos);
}

// A number or a text-mode text that would end the command early is refused
// before a byte reaches the modem.
TEST_F(Sms, RefusedNumbersAndTexts)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    sms_limit_service limit(*bus, 100, 0);
    // As JSON string contents.
    const char *const numbers[] = {
        R"(+49170\r\nAT+CFUN=0)", R"(+49170\u001a)", R"(+49170\u001b)", R"(+49\"170)", "123456789012345678901234", "",
        "+49 170",
    };
    int64_t received = sim_stat(sim, "received");
    for (const char *number : numbers) {
        std::string json = std::string(R"({"number":")") + number + R"(","text":"x"})";
        EXPECT_EQ(call_errno("send_sms", json), 2) << json;
    }
    EXPECT_EQ(sim_stat(sim, "received"), received) << sim.control("stats");
    ok("set_sms_mode", R"({"mode":"text"})");
    received = sim_stat(sim, "received");
    EXPECT_EQ(call_errno("send_sms", R"({"number":"+491701234567","text":"a\u001aAT+CFUN=0\r"})"), 2);
    EXPECT_EQ(sim_stat(sim, "received"), received) << sim.control("stats");
    EXPECT_EQ(limit.current, 0);
}

} // namespace
} // namespace e2e

// SMS through the real processes: what a service on the bus sends reaches
// the network whole and once, within the router's sending limit; what the
// network delivers is read whole, announced and deleted by its parts.
#include <string>

#include "tests/e2e/e2e_harness.h"

namespace e2e
{
namespace
{

using Sms = ServedModemTest;

// A stand-in for the router's SMS sending-limit service, served on the
// test's own connection: "check" answers max and current, "inc" counts
// (with "limit":"reached" at max).
struct sms_limit {
    ubus_object object{};
    int max, current = 0;
    ubus_context *ctx;

    sms_limit(ubus_context *c, int m) : max(m), ctx(c)
    {
        static const ubus_method methods[] = {{"check", on_call, 0, 0, nullptr, 0}, {"inc", on_call, 0, 0, nullptr, 0}};
        static ubus_object_type type = {"sms_limit", 0, methods, 2};
        object.name = "sms_limit";
        object.type = &type;
        object.methods = methods;
        object.n_methods = 2;
        EXPECT_EQ(ubus_add_object(ctx, &object), 0);
    }
    ~sms_limit() { ubus_remove_object(ctx, &object); }
    static int on_call(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *)
    {
        auto *self = reinterpret_cast<sms_limit *>(obj); // the object is the first member
        blob_buf b{};
        blob_buf_init(&b, 0);
        if (std::string(method) == "inc" && ++self->current >= self->max)
            blobmsg_add_string(&b, "limit", "reached");
        if (std::string(method) == "check") {
            blobmsg_add_u32(&b, "max", static_cast<uint32_t>(self->max));
            blobmsg_add_u32(&b, "current", static_cast<uint32_t>(self->current));
        }
        ubus_send_reply(ctx, req, b.head);
        blob_buf_free(&b);
        return UBUS_STATUS_OK;
    }
};

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
    size_t at = json.find("{\"index\":" + std::to_string(index) + ",");
    return at == std::string::npos ? std::string() : json.substr(at, json.find('}', at) - at + 1);
}

TEST_F(Sms, StoredMessagesAreReadWholeAndDeletedByTheirParts)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFailure());
    bus_message all = ok("read_sms", R"({"index":-1})");
    std::string notice = message_at(all, 2);
    for (const char *part : {R"("sender":"Telekom")", R"("n_parts":2)", R"("pdus":[2,3])", R"("missing":false)"})
        EXPECT_NE(notice.find(part), std::string::npos) << part << " in " << all.json();
    EXPECT_NE(message_at(all, 4).find("\xF0\x9F\x8D\x95"), std::string::npos) << all.json(); // outside the BMP
    EXPECT_EQ(message_at(all, 3), "");                                                       // joined into 2

    // A repeated part: read once, and the copy is deleted from the modem.
    sim.control(std::string("sms pdu ") + telekom_part1);
    EXPECT_TRUE(notified("sms_index", [](const bus_message &m) { return m.number("sms_index") == 5; }));
    EXPECT_EQ(message_at(ok("read_sms", R"({"index":-1})"), 5), "");
    EXPECT_TRUE(wait_until(call_ms, [&] { return sim.control("sms list").find("\n5 ") == std::string::npos; }))
        << sim.control("sms list");

    // Part 2 gone: a placeholder, or nothing with strip.
    ok("delete_sms", R"({"index":3,"single":true})");
    bus_message torn = ok("read_sms", R"({"index":2})");
    EXPECT_NE(torn.json().find(" <part_missing> "), std::string::npos) << torn.json();
    EXPECT_NE(torn.json().find("\"missing\":true"), std::string::npos);
    EXPECT_EQ(ok("read_sms", R"({"index":2,"strip":true})").json().find("part_missing"), std::string::npos);

    ok("delete_sms", R"({"index":0})"); // everything
    EXPECT_NE(ok("read_sms", R"({"index":-1})").json().find("\"messages\":[]"), std::string::npos);
    EXPECT_NE(sim.control("sms list").find("ME 0/255"), std::string::npos) << sim.control("sms list");

    // The network delivers a long message in parts: each is announced, and
    // reading one part gives the whole text, unless asked for the part.
    EXPECT_EQ(sim.control("sms deliver +491701112233 " + long_unicode()), "OK\n");
    for (int index : {0, 1, 2})
        EXPECT_TRUE(notified("sms_index", [index](const bus_message &m) { return m.number("sms_index") == index; }))
            << index;
    bus_message one = ok("read_sms", R"({"index":1})");
    EXPECT_NE(one.json().find("\"sender\":\"+491701112233\""), std::string::npos) << one.json();
    EXPECT_NE(one.json().find(long_unicode()), std::string::npos) << one.json();
    EXPECT_NE(one.json().find("\"parts\":[1,2,3]"), std::string::npos) << one.json();
    EXPECT_EQ(ok("read_sms", R"({"index":1,"single":true})").json().find(long_unicode()), std::string::npos);
}

TEST_F(Sms, SendingIsMeteredByTheLimitService)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFailure());
    const std::string to = R"({"number":"+491701234567","text":")";
    // No limit service on the bus: nothing is sent.
    EXPECT_EQ(call_errno("send_sms", to + R"(Hi"})"), 9);

    sms_limit limit(bus->context(), 10);
    bus_message check = ok("send_sms", to + R"(Hi","validate":true})");
    EXPECT_EQ(check.number("sms_used"), 1) << check.json();
    EXPECT_EQ(check.number("cur_chars"), 2);
    EXPECT_EQ(check.number("max_chars"), 160);
    EXPECT_EQ(sim.control("sms sent"), "OK\n");

    EXPECT_EQ(ok("send_sms", to + R"(Hi"})").number("sms_used"), 1);
    EXPECT_TRUE(notified("snd_sms", [](const bus_message &m) { return m.text("number") == "+491701234567"; }));
    const std::string text = long_unicode();
    EXPECT_EQ(ok("send_sms", to + text + "\"}").number("sms_used"), 3);
    EXPECT_EQ(sim.control("sms sent"), "+491701234567 1/1 GSM7 \"Hi\"\n+491701234567 3/3 UCS2 \"" + text + "\"\nOK\n");
    EXPECT_EQ(limit.current, 4);

    // Three parts with room for two: refused whole, also when only asked.
    limit.current = 8;
    EXPECT_EQ(call_errno("send_sms", to + text + "\"}"), 9);
    EXPECT_EQ(call_errno("send_sms", to + text + R"(","validate":true})"), 9);
    EXPECT_EQ(limit.current, 8);
}

using Files = ServedModemTest;

// Every byte value, over and over (CR, LF, Ctrl-Z, NUL, ESC, "+++" among them).
std::string every_byte(size_t n)
{
    std::string b;
    for (size_t i = 0; i < n; i++)
        b.push_back(static_cast<char>((i + i / 256) & 0xff));
    return b;
}

// A file of the router is uploaded through the AT channel byte for byte,
// listed and deleted; a firmware update from an uploaded package reports its
// progress on the bus.
TEST_F(Files, UploadListDeleteAndFirmwareUpdate)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFailure());
    const std::string data = every_byte(100 * 1024 + 3), size = std::to_string(data.size());
    root->write("/tmp/blob.bin", data);
    unsigned sum = 0; // the module's checksum, worked out here on its own
    for (size_t i = 0; i < data.size(); i += 2)
        sum ^= static_cast<unsigned char>(data[i]) << 8 |
               (i + 1 < data.size() ? static_cast<unsigned char>(data[i + 1]) : 0);
    bus_message up = ok("upload_file", R"({"path":"/tmp/blob.bin","size":)" + size + R"(,"timeout":20})");
    EXPECT_EQ(up.text("name"), "blob.bin") << up.json();
    EXPECT_EQ(up.number("size"), static_cast<int64_t>(data.size()));
    EXPECT_EQ(up.number("checksum"), sum);
    char hex[16];
    snprintf(hex, sizeof(hex), "%x", sum);
    EXPECT_EQ(sim.control("ufs list"), "UFS blob.bin " + size + " " + hex + "\nOK\n");
    EXPECT_NE(ok("get_file_list").json().find(R"({"name":"blob.bin","size":)" + size + "}"), std::string::npos);
    bus_message space = ok("get_storage_space");
    EXPECT_EQ(space.number("total").value_or(0) - space.number("free").value_or(0), static_cast<int64_t>(data.size()))
        << space.json();
    // Without the package the module refuses.
    EXPECT_NE(call_errno("dfota_upgrade", R"({"path":"update.bin"})"), 0);

    ok("delete_file", R"({"path":"blob.bin"})");
    EXPECT_NE(ok("get_file_list").json().find(R"("files":[])"), std::string::npos);
    EXPECT_EQ(sim.control("ufs list"), "OK\n");

    root->write("/tmp/update.bin", every_byte(4099));
    ok("upload_file", R"({"path":"/tmp/update.bin","size":4099})");
    ok("dfota_upgrade", R"({"path":"update.bin"})");
    auto states = [&] {
        std::string s;
        for (const bus_event &e : bus->events_of("gsm.fota_state")) {
            auto percent = e.data.number("percent");
            s += e.data.text("state").value_or("?") + (percent ? std::to_string(*percent) : "") + " ";
            s += e.data.text("modem_id") == "1-1" ? "" : "(not 1-1) ";
        }
        return s;
    };
    EXPECT_TRUE(wait_until(15000, [&] { return states().find("END") != std::string::npos; })) << states();
    EXPECT_EQ(states(), "START UPDATING1 UPDATING50 UPDATING100 END ");
}

} // namespace
} // namespace e2e

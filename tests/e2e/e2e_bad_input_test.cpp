// Hostile input from bus callers: refused before a byte reaches the modem,
// and the daemon goes on serving.
#include "tests/e2e/e2e_harness.h"

#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"

namespace e2e
{
namespace
{

using BadInput = ServedModemTest;

struct hostile {
    const char *method;
    std::string args;
    int status;    // of the call
    int error = 0; // the reply's "errno" when it answers (2: invalid arguments)
    const char *object = "gsm.modem0";
};

const std::string huge(10240, 'A');

// clang-format off
const hostile hostile_calls[] = {
    // Not one command line, or a time-out out of range.
    {"exec", "{}", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":5})", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":"AT+)" + huge + R"("})", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":"AT\rAT+CFUN=0"})", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":"AT\nAT+CFUN=0"})", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":"AT+CMGF=1\u001a"})", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":"AT\u001b"})", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":"AT+COPS=1,0,\"x"})", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":"AT+CSQ","timeout":0})", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":"AT+CSQ","timeout":3601})", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":"AT+CSQ","timeout":2147483647})", UBUS_STATUS_INVALID_ARGUMENT},
    {"exec", R"({"command":"CFUN=0"})", UBUS_STATUS_INVALID_COMMAND},
    {"update_modem_func", R"({"state_id":"1"})", UBUS_STATUS_INVALID_ARGUMENT},
    {"set_net_reg_stat", R"({"mode":1})", UBUS_STATUS_INVALID_ARGUMENT},
    {"enable_debug", "{}", UBUS_STATUS_INVALID_ARGUMENT, 0, "gsm"},
    {"attach", "{}", UBUS_STATUS_INVALID_ARGUMENT, 0, "gsm"},
    {"deattach", R"({"usbid":7})", UBUS_STATUS_INVALID_ARGUMENT, 0, "gsm"},
    // Arguments that would reach past their command.
    {"set_pin_code", R"({"code":"1234\r\nAT+CFUN=0"})", 0, 2},
    {"set_puk_code", R"({"puk":"12345678","pin":"12\"34"})", 0, 2},
    {"set_pdp_ctx", R"({"cid":1,"apn":"internet\u001aAT"})", 0, 2},
    {"set_pdp_ctx", R"({"cid":1,"apn":"a","addr":"10.0.0.1\u001b"})", 0, 2},
    {"set_pdp_ctx", R"({"cid":99,"apn":"internet"})", 0, 2},
    {"set_operator_selection", R"({"mode":"manual","format":"numeric","operator":"26201\";+CFUN=0;\""})", 0, 2},
    {"set_ussd", R"({"mode":"enable","request":"*100#\r"})", 0, 2},
    {"send_voice_call", R"({"number":"+49301;+CFUN=0"})", 0, 2},
    {"set_fac_lock", R"({"facility":"SC\r","state":"lock","pass":"1234"})", 0, 2},
    {"set_new_pass", R"({"facility":"SC","old_pass":"1234","new_pass":"12345678901234567890123456789"})", 0, 2},
    {"get_pdp_addr", R"({"index":-1})", 0, 2},
    {"set_net_reg_stat", R"({"mode":"enable\n"})", 0, 2},
    {"send_sms", R"({"number":"+49170\r\nAT+CFUN=0","text":"x"})", 0, 2},
    {"send_sms", R"({"number":"+49170\u001a","text":"x"})", 0, 2},
    {"send_sms", R"({"number":"+49\"170","text":"x"})", 0, 2},
    {"send_sms", R"({"number":"123456789012345678901234","text":"x"})", 0, 2},
    {"send_sms", R"({"number":"+49 170","text":"x"})", 0, 2},
    {"set_msg_storage", R"({"mem1":"XX","mem2":"SM","mem3":"SM"})", 0, 2},
    // Outside the module's bands or of another family.
    {"set_lte_band", R"({"bands":["LTE_B71"]})", 0, 2},
    {"set_lte_band", R"({"bands":["NSA_5G_N78"]})", 0, 2},
    {"set_lte_band", R"({"bands":["LTE_B3\""]})", 0, 2},
    {"set_lte_band", R"({"bands":[]})", 0, 2},
    {"set_mbn_select", R"({"mbn_name":"a\"b"})", 0, 2},
    {"set_mbn_select", R"({"mbn_name":"../x"})", 0, 2},
    {"gnss_start", R"({"fix_max_time":0})", 0, 2},
    {"set_nmea", R"({"satellite":"glonass","types":["RMC"]})", 0, 2},
    // Files: a size that is not the file's, a name that is a pattern.
    {"upload_file", R"({"path":"/tmp/blob.bin","size":5})", 0, 2},
    {"delete_file", R"({"path":"*"})", 0, 2},
};
// clang-format on

TEST_F(BadInput, HostileCallsAreRefusedAndNothingReachesTheModem)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFailure());
    root->write("/tmp/blob.bin", "0123456789");
    for (const hostile &h : hostile_calls) {
        SCOPED_TRACE(std::string(h.object) + " " + h.method + " " + h.args.substr(0, 100));
        int64_t received = sim.stat("received");
        call_result r = bus->call(h.object, h.method, h.args);
        EXPECT_EQ(r.status, h.status);
        if (h.error) {
            EXPECT_EQ(r.reply.number("errno"), h.error) << r.reply.json();
            EXPECT_EQ(r.reply.text("error"), "Invalid arguments") << r.reply.json();
        } else {
            EXPECT_EQ(r.replies, 0) << r.reply.json();
        }
        EXPECT_EQ(sim.stat("received"), received) << sim.transcript();
    }
    // A well-formed command still gets its answer, with the line end the
    // daemon adds and nothing else.
    call_result csq = bus->call(modem0, "exec", R"({"command":"AT+CSQ\r"})");
    EXPECT_EQ(csq.reply.text("request"), "AT+CSQ\r") << csq.reply.json();
    EXPECT_EQ(csq.reply.text("response"), "\r\n+CSQ: 22,99\r\n\r\nOK\r\n") << csq.reply.json();
}

// A message nested beyond the limit every walker of a bus message keeps
// (built in place: the JSON text it needs is refused by the client's parser).
TEST_F(BadInput, DeeplyNestedArgumentsAreRefused)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFailure());
    uint32_t id = *bus->object_id(modem0);
    struct row {
        const char *command;
        int levels, status;
        size_t sent;
    };
    const row rows[] = {{"AT+CCLK?", 125000, UBUS_STATUS_INVALID_ARGUMENT, 0}, // about 1 MB
                        {"AT+CSQ", WWAN_BLOBMSG_MAX_DEPTH, 0, 1}};
    for (const row &r : rows) {
        SCOPED_TRACE(r.levels);
        blob_buf b = {};
        blob_buf_init(&b, 0);
        blobmsg_add_string(&b, "command", r.command);
        std::vector<void *> open;
        for (int i = 0; i < r.levels; i++)
            open.push_back(blobmsg_open_table(&b, i ? "n" : "extra"));
        for (auto it = open.rbegin(); it != open.rend(); ++it)
            blobmsg_close_table(&b, *it);
        const std::string written = std::string("in  \"") + r.command;
        size_t sent = count_of(sim.transcript(), written);
        EXPECT_EQ(ubus_invoke(bus->context(), id, "exec", b.head, nullptr, nullptr, call_ms), r.status);
        blob_buf_free(&b);
        EXPECT_EQ(count_of(sim.transcript(), written), sent + r.sent) << sim.transcript();
    }
    EXPECT_EQ(logged("exec refused: arguments nested deeper than " + std::to_string(WWAN_BLOBMSG_MAX_DEPTH)), 1u);
}

} // namespace
} // namespace e2e

#include "drivers/generic/generic_sys.h"

#include <string>

#include <gtest/gtest.h>

#include "core/modem_info.h"
#include "drivers/generic/driver_test_support.h"
#include "util/root_test_support.h"

namespace
{

using GenericSysTest = driver_test;

// Captured from an EC25-E, firmware EC25EFAR06A06M4G.
const char ec25_gmr[] = "\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n";
const char ec25_gsn[] = "\r\n866758041234564\r\n\r\nOK\r\n";

// What each identity answer replies and leaves cached (a fresh cache each).
TEST_F(GenericSysTest, IdentityAnswersAndWhatIsCached)
{
    const std::string a40(40, 'A'), a31(31, 'A');
    // clang-format off
    const struct { act_func fn; std::string answer, outcome; const char *key, *cached; } rows[] = {
        {get_firmware, ec25_gmr, R"(0 {"firmware":"EC25EFAR06A06M4G"})", "firmware", "EC25EFAR06A06M4G"},
        {get_firmware, "EC21EUGAR06A04M4G\r\n0\r", R"(0 {"firmware":"EC21EUGAR06A04M4G"})", "firmware", "EC21EUGAR06A04M4G"}, // ATV0
        {get_firmware, "\r\n+CME ERROR: 10\r\n", "5 {}", "firmware", "<none>"},
        {get_firmware, "\r\nOK\r\n", "5 {}", "firmware", "<none>"},
        {get_imei, ec25_gsn, R"(0 {"imei":"866758041234564"})", "imei", "<none>"},
        {get_imei, "\r\nMPY22GB0A2345\r\n\r\nOK\r\n", "5 {}", "imei", "<none>"}, // a serial is no IMEI
        {get_sn, "\r\nMPY22GB0A2345\r\n\r\nOK\r\n", R"(0 {"serial":"MPY22GB0A2345"})", "serial_num", "MPY22GB0A2345"},
        {get_sn, "\r\n" + a40 + "\r\n\r\nOK\r\n", R"(0 {"serial":")" + a31 + "\"}", "serial_num", a31.c_str()},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        cache = cache_manager::create();
        mdm.set_cache(cache.get());
        EXPECT_EQ(parsed(row.fn, row.answer), row.outcome);
        EXPECT_EQ(cached(row.key), row.cached);
    }
}

// No command: the action answers at once from the model row and the cached
// firmware, status 1 while either is unknown.
TEST_F(GenericSysTest, IdInfoFromTheModelRowAndCachedFirmware)
{
    const std::string f200(200, 'F');
    const std::string ec25 = "\r\nQuectel\r\nEC25-E\r\nRevision: ";
    // firmware: "" none cached
    // clang-format off
    const struct { const modem_info *row; std::string firmware; int status; const char *model; std::string raw; } rows[] = {
        {&g_midata[2], f200, 0, "EC25-E", (ec25 + f200).substr(0, 127)}, // the raw text is cut
        {nullptr, "X", 1, "<none>", "<none>"},
        {&g_midata[0], "X", 1, "<none>", "<none>"}, // the "Unknown" row has no model
        {&g_midata[1], "", 1, "<none>", "<none>"},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.firmware);
        mdm.set_info(row.row);
        cache->remove_item_name("firmware");
        if (!row.firmware.empty())
            cache->update_item("firmware", CACHE_DATA_STRING, row.firmware.c_str(), row.firmware.size() + 1);
        reply = ujson::create();
        ASSERT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), row.status);
        EXPECT_EQ(field("model"), row.model);
        EXPECT_EQ(field("raw"), row.raw);
        if (row.status == 0) {
            EXPECT_EQ(field("manuf"), "Quectel");
            EXPECT_EQ(field("firmware"), row.firmware);
        }
    }
}

// Every interpolated argument reaches the command as given (refusals: the
// family's refusal table); captured answers (EC25 unless the row names
// 3GPP TS 27.007 or another source) and the reply each gives.
TEST_F(GenericSysTest, CommandsAndAnswers)
{
    const std::string ussd160(160, '1');
    // clang-format off
    const struct { step op; act_func fn; std::string text, expect; } rows[] = {
        {BUILD, set_func, R"({"func":"minimum","reset":true})", "0 AT+CFUN=0,1\r"},
        {BUILD, set_crc_fmt, R"({"format":"disable"})", "0 AT+CRC=0\r"},
        {BUILD, set_auto_tz_update, R"({"enabled":false})", "0 AT+CTZU=0\r"},
        {BUILD, set_fac_lock, R"({"facility":"SC","state":"lock","pass":"1234"})", "0 AT+CLCK=\"SC\",1,\"1234\"\r"},
        {BUILD, get_fac_lock, R"({"facility":"SC"})", "0 AT+CLCK=\"SC\",2\r"},
        {BUILD, set_new_pass, R"({"facility":"P2","old_pass":"1234","new_pass":"4321"})", "0 AT+CPWD=\"P2\",\"1234\",\"4321\"\r"},
        {BUILD, set_ussd, "{}", "0 AT+CUSD\r"},
        {BUILD, set_ussd, R"({"mode":"enable","request":"*100#","coding_scheme":15})", "0 AT+CUSD=1,\"*100#\",15\r"},
        {BUILD, set_ussd, R"({"request":")" + ussd160 + "\"}", "0 AT+CUSD=1,\"" + ussd160 + "\"\r"},
        {PARSE, get_func, "\r\n+CME ERROR: 3\r\n", R"(0 {"func_id":0,"response":"\r\n+CME ERROR: 3\r\n"})"},
        {PARSE, get_clip_mode, "\r\n+CLIP: 0,1\r\n\r\nOK\r\n", R"(0 {"mode_id":1,"mode":"Disabled","state_id":2,"state":"Provisioned"})"},
        {PARSE, get_clip_mode, "\r\nERROR\r\n", "5 {}"},
        {PARSE, get_crc_fmt, "\r\n+CRC: 0\r\n\r\nOK\r\n", R"(0 {"format_id":1,"format":"Disabled"})"},
        // 3GPP TS 27.007: one line per class; the first counts.
        {PARSE, get_fac_lock, "\r\n+CLCK: 1,1\r\n+CLCK: 0,2\r\n\r\nOK\r\n", R"(0 {"state_id":2,"state":"Locked"})"},
        {PARSE, get_fac_lock, "\r\n+CME ERROR: 17\r\n", "5 {}"},
        {PARSE, get_auto_tz_update, "\r\n+CTZU: 3\r\n\r\nOK\r\n", R"(0 {"enabled":true})"}, // Quectel local time
        // 3GPP TS 27.007 list form, with an item no vocabulary knows.
        {PARSE, get_capabilities, "\r\n+GCAP: +CGSM,+FCLASS, +DS,+W\r\n\r\nOK\r\n", R"(0 {"cap_list":[{"id":1,"name":"+CGSM"},{"id":2,"name":"+FCLASS"},{"id":3,"name":"+DS"},)" R"({"id":0,"name":"+W"}]})"},
        {PARSE, get_capabilities, "\r\nOK\r\n", "5 {}"},
    };
    // clang-format on
    for (const auto &row : rows)
        EXPECT_EQ(run(row.op, row.fn, row.text), row.expect) << row.text;

    // With a model row, the capabilities carry it too.
    mdm.set_info(&g_midata[2]); // EC25-E
    auto model = ujson::create();
    modem_info_fill_blob(*model, g_midata[2]);
    EXPECT_EQ(parsed(get_capabilities, "\r\n+GCAP: +CGSM\r\n\r\nOK\r\n"),
              R"(0 {"cap_list":[{"id":1,"name":"+CGSM"}],)" + as_json(*model).substr(1));
}

// The caller is answered at once; a sent request leaves +CUSD awaited.
TEST_F(GenericSysTest, UssdAnswerDecidesWhatIsAwaited)
{
    // awaited: "-": unchanged
    // clang-format off
    const struct { const char *args, *answer; int status; const char *awaited; } rows[] = {
        {R"({"request":"*100#"})", "\r\nOK\r\n", 0, "+CUSD"},
        {R"({"request":"*100#"})", "\r\n+CME ERROR: 3\r\n", 5, "-"},
        {R"({"mode":"disable","request":"*100#"})", "\r\nOK\r\n", 0, ""},
        {R"({"mode":"enable"})", "\r\nOK\r\n", 0, "-"},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        mdm.awaited = "-";
        ASSERT_EQ(build(set_ussd, json_of(row.args).get()), ACT_STATUS_OK);
        EXPECT_EQ(parse(set_ussd, row.answer), row.status);
        EXPECT_EQ(mdm.awaited, row.awaited);
        EXPECT_EQ(as_json(*reply), "{}");
        std::free(req.extra);
        req.extra = nullptr;
    }
}

TEST_F(GenericSysTest, UssdNetworkAnswersBecomeServiceData)
{
    // clang-format off
    const struct { std::string line; int status; const char *raised; } rows[] = {
        {"\r\n+CUSD: 0,\"Guthaben: 12,34 EUR\",15\r\n", 0, R"(15={"state_id":0,"response":"Guthaben: 12,34 EUR","coding_scheme":15})"},
        {"\r\n+CUSD: 2\r\n", 0, R"(15={"state_id":2})"},
        // 3GPP TS 27.007: a menu over several lines; <dcs> left out.
        {"\r\n+CUSD: 1,\"Menu\r\n1 Balance\",15\r\n", 0, R"(15={"state_id":1,"response":"Menu\r\n1 Balance","coding_scheme":15})"},
        {"\r\n+CME ERROR: 30\r\n", 0, R"(15={"response":"+CME ERROR: 30"})"},
        {"\r\n+CUSD: x\r\n", ACT_STATUS_INVALID_URC, ""},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        mdm.events.clear();
        mdm.awaited = "+CUSD";
        EXPECT_EQ(urc(urc_cusd, row.line), row.status);
        EXPECT_EQ(mdm.awaited, "");
        EXPECT_EQ(raised(), row.raised);
    }
}

TEST(GenericSimSlot, SelectingReadingAndChangingSlots)
{
    const std::string two = "211101\n211200\n", four = "211111\n211211\n211121\n211221\n";
    // factory: slot texts; "": no wiring object at all; before: the two selector lines, "-" for a missing file; index:
    // "index" argument, -1 none; answer_ok: the modem's answer to AT+CFUN=0 or AT; slot: reply "index" and
    // EVT_SIM_CHANGE value, -1 none; radio_on: full functionality requested again
    // clang-format off
    const struct { const char *what; std::string factory; const char *before; act_func fn; int index; int build_status; bool answer_ok; int parse_status; const char *after; int slot; bool radio_on; } rows[] = {
        {"slot 1 read from switch 1", two, "0-", get_io_sim_slot, -1, 0, true, 0, "0-", 1, false},
        {"both switches read", four, "01", get_io_sim_slot, -1, 0, true, 0, "01", 3, false},
        {"unreadable switch", two, "--", get_io_sim_slot, -1, 0, true, 1, "--", -1, false},
        {"no wiring: the one slot", "", "--", get_io_sim_slot, -1, 0, true, 0, "--", 1, false},
        {"select slot 2", two, "0-", set_io_sim_slot, 2, 0, true, 0, "1-", 2, true},
        {"select slot 4 on two switches", four, "00", set_io_sim_slot, 4, 0, true, 0, "11", 4, true},
        {"slot beyond the wired ones", two, "0-", set_io_sim_slot, 3, 2, true, 0, "0-", -1, false},
        {"radio stays on: nothing switched", two, "0-", set_io_sim_slot, 2, 0, false, 5, "0-", -1, false},
        {"selector line missing", two, "--", set_io_sim_slot, 2, 0, true, 1, "--", -1, true},
        {"slot on no line is selected", "210001\n211201\n", "1-", set_io_sim_slot, 1, 0, true, 0, "1-", 1, true},
        {"change wraps to slot 1", two, "1-", change_sim_slot, -1, 0, true, 0, "0-", 1, true},
        {"change without slots", "N/A\n", "--", change_sim_slot, -1, 7, true, 0, "--", -1, false},
    };
    // clang-format on
    const std::string lines[] = {"/sys/class/gpio/sim_sel/value", "/sys/class/gpio/sim_sel2/value"};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        temp_root root;
        slot_modem mdm;
        if (!row.factory.empty()) {
            root.write("/etc/mnfinfo/sim_cfg", row.factory);
            mdm.wire();
        }
        for (int i = 0; i < 2; i++) {
            root.write(lines[i], std::string(1, row.before[i]));
            if (row.before[i] == '-')
                root.remove(lines[i]);
        }
        auto args = ujson::create();
        if (row.index >= 0)
            args->add_int("index", row.index);
        request req;
        ASSERT_EQ(row.fn(&mdm, 0, args.get(), &req), row.build_status);
        auto reply = ujson::create();
        if (req.command) {
            EXPECT_EQ(std::string(req.command, req.length), row.fn == get_io_sim_slot ? "AT\r" : "AT+CFUN=0\r");
            std::string answer = row.answer_ok ? "\r\nOK\r\n" : "\r\nERROR\r\n";
            mdm.set_response(answer.data(), answer.size());
            EXPECT_EQ(row.fn(&mdm, 1, reply.get(), &req), row.parse_status);
        }
        std::free(req.command);
        std::free(req.extra);
        std::string after;
        for (const auto &line : lines)
            after += root.exists(line) ? root.read(line).substr(0, 1) : "-";
        EXPECT_EQ(after, row.after);
        EXPECT_EQ(reply->exists("index") ? reply->get_int("index") : -1, row.slot);
        int event = -1;
        for (const auto &e : mdm.events)
            event = e.id == EVT_SIM_CHANGE ? e.number : event;
        EXPECT_EQ(event, row.fn == get_io_sim_slot ? -1 : row.slot);
        EXPECT_EQ(mdm.func, row.radio_on ? "full" : "");
    }
}

} // namespace

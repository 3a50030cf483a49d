#include "drivers/generic/generic_sys.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include "wwan/ubox.h"

#include "comm/request.h"
#include "core/modem.h"
#include "core/modem_info.h"
#include "core/sim_config.h"
#include "drivers/generic/driver_test_support.h"
#include "ubus/vocab.h"
#include "util/cache_manager.h"
#include "util/ujson.h"

namespace
{

using GenericSysTest = driver_test;


std::string json_text(const ujson &json)
{
    char *text = blobmsg_format_json(json.get_blobmsg(), true);
    std::string out = text ? text : "";
    std::free(text);
    return out;
}

// Bus arguments written as JSON ("{}" for none).
std::unique_ptr<ujson> json_args(const std::string &text)
{
    auto json = ujson::create();
    EXPECT_TRUE(blobmsg_add_json_from_string(json->buffer(), text.c_str())) << text;
    return json;
}

// Captured from an EC25-E, firmware EC25EFAR06A06M4G.
const char ec25_gmr[] = "\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n";
const char ec25_gsn[] = "\r\n866758041234564\r\n\r\nOK\r\n";
const char cme_error[] = "\r\n+CME ERROR: 10\r\n";
const char plain_error[] = "\r\nERROR\r\n";

TEST_F(GenericSysTest, ProbeInstallsTheActionsAndTheUssdHandler)
{
    modem_driver drv = {"Test AT", "test", nullptr, nullptr};
    EXPECT_EQ(generic_sys_probe(&drv), 0);
    const std::pair<uint32_t, act_func> installed[] = {
        {ACT_GET_FIRMWARE, get_firmware}, {ACT_GET_IMEI, get_imei}, {ACT_GET_ID_INFO, get_id_info},
        {ACT_GET_SN, get_sn}, {ACT_GET_CAPABILITIES, get_capabilities}, {ACT_SET_FUNC, set_func},
        {ACT_GET_FUNC, get_func}, {ACT_SET_ERR_MSG_FMT, set_err_msg_fmt}, {ACT_GET_ERR_MSG_FMT, get_err_msg_fmt},
        {ACT_SET_CLIP_MODE, set_clip_mode}, {ACT_GET_CLIP_MODE, get_clip_mode}, {ACT_SET_CRC_FMT, set_crc_fmt},
        {ACT_GET_CRC_FMT, get_crc_fmt}, {ACT_GET_MOD_STATUS, get_mod_status}, {ACT_SET_FAC_LOCK, set_fac_lock},
        {ACT_GET_FAC_LOCK, get_fac_lock}, {ACT_SET_SIM_SLOT, set_io_sim_slot}, {ACT_GET_SIM_SLOT, get_io_sim_slot},
        {ACT_CHANGE_SIM_SLOT, change_sim_slot}, {ACT_SET_USSD, set_ussd}, {ACT_SET_NEW_PASS, set_new_pass},
        {ACT_SET_AUTO_TZ_UPDATE, set_auto_tz_update}, {ACT_GET_AUTO_TZ_UPDATE, get_auto_tz_update}};
    for (const auto &[act, fn] : installed)
        EXPECT_EQ(drv.funcs[act], fn) << act;
    EXPECT_EQ(drv.funcs[ACT_GET_IMSI], nullptr);
    const char cusd[] = "\r\n+CUSD: 2\r\n";
    EXPECT_EQ(modem_driver_urc_method(&drv, cusd, sizeof(cusd) - 1), &urc_cusd);
    while (urc_entry *e = drv.urcs) {
        drv.urcs = e->next;
        delete e;
    }
}

TEST_F(GenericSysTest, RegisteredGenericDriverCarriesThem)
{
    modem_driver *generic = modem_driver_by_id("generic");
    ASSERT_NE(generic, nullptr);
    for (uint32_t act : {ACT_GET_FIRMWARE, ACT_GET_IMEI, ACT_GET_ID_INFO, ACT_GET_SN})
        EXPECT_EQ(modem_driver_check_func(generic, act), 1) << act;
    // Inherited by a model driver that does not replace them.
    EXPECT_EQ(modem_driver_check_func(modem_driver_by_id("quectel,ec25"), ACT_GET_IMEI), 1);
}

TEST_F(GenericSysTest, FirmwareAsksGmrAndCachesTheRevision)
{
    ASSERT_EQ(build(get_firmware), ACT_STATUS_OK);
    EXPECT_EQ(command(), "AT+GMR\r");
    ASSERT_EQ(parse(get_firmware, ec25_gmr), ACT_STATUS_OK);
    EXPECT_EQ(field("firmware"), "EC25EFAR06A06M4G");
    EXPECT_EQ(cached("firmware"), "EC25EFAR06A06M4G");
}

TEST_F(GenericSysTest, FirmwareAcceptsNumericResultCode)
{
    // ATV0: the text ends in CR LF and the final result is "0\r".
    ASSERT_EQ(parse(get_firmware, "EC21EUGAR06A04M4G\r\n0\r"), ACT_STATUS_OK);
    EXPECT_EQ(field("firmware"), "EC21EUGAR06A04M4G");
    // "4\r" is the numeric ERROR.
    EXPECT_EQ(parse(get_firmware, "4\r"), ACT_STATUS_INVALID_RESPONSE);
}

TEST_F(GenericSysTest, FirmwareErrorsAreInvalidResponses)
{
    for (const char *text : {cme_error, plain_error, "", "\r\nOK\r\n"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(parse(get_firmware, text), ACT_STATUS_INVALID_RESPONSE);
    }
    EXPECT_EQ(field("firmware"), "<none>");
    EXPECT_EQ(cached("firmware"), "<none>");
}

TEST_F(GenericSysTest, ImeiIsTheDecimalNumber)
{
    ASSERT_EQ(build(get_imei), ACT_STATUS_OK);
    EXPECT_EQ(command(), "AT+GSN\r");
    ASSERT_EQ(parse(get_imei, ec25_gsn), ACT_STATUS_OK);
    EXPECT_EQ(field("imei"), "866758041234564");
}

TEST_F(GenericSysTest, ImeiRejectsErrorsAndText)
{
    EXPECT_EQ(parse(get_imei, cme_error), ACT_STATUS_INVALID_RESPONSE);
    EXPECT_EQ(parse(get_imei, plain_error), ACT_STATUS_INVALID_RESPONSE);
    // A serial-number style answer is not an IMEI.
    EXPECT_EQ(parse(get_imei, "\r\nMPY22GB0A2345\r\n\r\nOK\r\n"), ACT_STATUS_INVALID_RESPONSE);
    EXPECT_EQ(field("imei"), "<none>");
}

TEST_F(GenericSysTest, SerialIsTheFirstWordAndIsCached)
{
    ASSERT_EQ(build(get_sn), ACT_STATUS_OK);
    EXPECT_EQ(command(), "AT+GSN\r");
    ASSERT_EQ(parse(get_sn, "\r\nMPY22GB0A2345\r\n\r\nOK\r\n"), ACT_STATUS_OK);
    EXPECT_EQ(field("serial"), "MPY22GB0A2345");
    EXPECT_EQ(cached("serial_num"), "MPY22GB0A2345");
    ASSERT_EQ(parse(get_sn, ec25_gsn), ACT_STATUS_OK);
    EXPECT_EQ(cached("serial_num"), "866758041234564");
}

TEST_F(GenericSysTest, SerialKeepsAtMost31Characters)
{
    std::string longer(40, 'A');
    ASSERT_EQ(parse(get_sn, "\r\n" + longer + "\r\n\r\nOK\r\n"), ACT_STATUS_OK);
    EXPECT_EQ(field("serial"), std::string(31, 'A'));
}

TEST_F(GenericSysTest, SerialErrorLeavesCacheAlone)
{
    EXPECT_EQ(parse(get_sn, cme_error), ACT_STATUS_INVALID_RESPONSE);
    EXPECT_EQ(cached("serial_num"), "<none>");
}

TEST_F(GenericSysTest, IdInfoComesFromTheTableRowAndCachedFirmware)
{
    mdm.set_info(&g_midata[2]); // EC25-E
    ASSERT_EQ(parse(get_firmware, ec25_gmr), ACT_STATUS_OK);
    reply = ujson::create();
    // No command is built: the action answers at once, in either phase.
    ASSERT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), ACT_STATUS_OK);
    EXPECT_EQ(field("manuf"), "Quectel");
    EXPECT_EQ(field("model"), "EC25-E");
    EXPECT_EQ(field("firmware"), "EC25EFAR06A06M4G");
    EXPECT_EQ(field("raw"), "\r\nQuectel\r\nEC25-E\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n");
}

TEST_F(GenericSysTest, IdInfoWithoutVariantNamesTheModelAlone)
{
    mdm.set_info(&g_midata[35]); // BG96
    ASSERT_EQ(cache->update_item("firmware", CACHE_DATA_STRING, "BG96MAR02A07M1G", 16), CACHE_ITEM_CHANGED);
    ASSERT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), ACT_STATUS_OK);
    EXPECT_EQ(field("model"), "BG96");
}

TEST_F(GenericSysTest, IdInfoIsStatusOneWhileSomethingIsUnknown)
{
    // No row, no firmware.
    EXPECT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), 1);
    // The "Unknown" row has no model.
    mdm.set_info(&g_midata[0]);
    ASSERT_EQ(cache->update_item("firmware", CACHE_DATA_STRING, "X", 2), CACHE_ITEM_CHANGED);
    EXPECT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), 1);
    // A known row but no firmware yet.
    cache->remove_item_name("firmware");
    mdm.set_info(&g_midata[1]);
    EXPECT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), 1);
    EXPECT_EQ(field("raw"), "<none>");
}

TEST_F(GenericSysTest, RawTextIsCutTo128Bytes)
{
    mdm.set_info(&g_midata[1]);
    std::string firmware(200, 'F');
    ASSERT_EQ(cache->update_item("firmware", CACHE_DATA_STRING, firmware.c_str(), 201), CACHE_ITEM_CHANGED);
    ASSERT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), ACT_STATUS_OK);
    EXPECT_EQ(field("raw").size(), 127u);
    EXPECT_EQ(field("firmware"), firmware);
}

// Every interpolated argument is checked; a refused one builds nothing.
TEST_F(GenericSysTest, CommandsFromArguments)
{
    const std::string pass17(17, '1'), ussd160(160, '1');
    const struct {
        act_func fn;
        std::string args; // JSON
        std::string want; // the command, or "status N"
    } rows[] = {
        {set_func, R"({"func":"full"})", "AT+CFUN=1,0\r"},
        {set_func, R"({"func":"minimum","reset":true})", "AT+CFUN=0,1\r"},
        {set_func, R"({"func":"Full"})", "status 2"},
        {set_err_msg_fmt, R"({"format":"verbose"})", "AT+CMEE=2\r"},
        {set_clip_mode, R"({"mode":"enable"})", "AT+CLIP=1\r"},
        {set_crc_fmt, R"({"format":"disable"})", "AT+CRC=0\r"},
        {set_auto_tz_update, R"({"enabled":false})", "AT+CTZU=0\r"},
        {set_auto_tz_update, "{}", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"lock","pass":"1234"})", "AT+CLCK=\"SC\",1,\"1234\"\r"},
        {set_fac_lock, R"({"facility":"AO","state":"unlock","pass":"0000"})", "AT+CLCK=\"AO\",0,\"0000\"\r"},
        {set_fac_lock, R"({"facility":"SC\",0,\"","state":"lock","pass":"1234"})", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"lock"})", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"lock","pass":"12\"34"})", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"lock","pass":"1\r\nAT+CFUN=0"})", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"lock","pass":")" + pass17 + "\"}", "status 2"},
        {get_fac_lock, R"({"facility":"SC"})", "AT+CLCK=\"SC\",2\r"},
        {set_new_pass, R"({"facility":"P2","old_pass":"1234","new_pass":"4321"})",
         "AT+CPWD=\"P2\",\"1234\",\"4321\"\r"},
        {set_new_pass, R"({"facility":"SC","old_pass":"1234","new_pass":"43\u001a21"})", "status 2"},
        {set_new_pass, R"({"facility":"SC","old_pass":"\u001b1234","new_pass":"4321"})", "status 2"},
        {set_ussd, "{}", "AT+CUSD\r"},
        {set_ussd, R"({"mode":"cancel"})", "AT+CUSD=2\r"},
        {set_ussd, R"({"request":"*100#"})", "AT+CUSD=1,\"*100#\"\r"},
        {set_ussd, R"({"mode":"enable","request":"*100#","coding_scheme":15})", "AT+CUSD=1,\"*100#\",15\r"},
        {set_ussd, R"({"request":")" + ussd160 + "\"}", "AT+CUSD=1,\"" + ussd160 + "\"\r"},
        {set_ussd, R"({"request":"1)" + ussd160 + "\"}", "status 2"},
        {set_ussd, R"({"request":"*100#\",15\r"})", "status 2"},
        {set_ussd, R"({"request":"*100#\u001a"})", "status 2"},
        {set_ussd, R"({"request":""})", "status 2"},
        {set_ussd, R"({"request":"*100#","coding_scheme":256})", "status 2"},
        {set_ussd, R"({"coding_scheme":15})", "status 2"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        auto args = json_args(row.args);
        int status = build(row.fn, args.get());
        EXPECT_EQ(status ? "status " + std::to_string(status) : command(), row.want);
        EXPECT_EQ(status ? req.command : nullptr, nullptr);
    }
}

// Captured answers (EC25 unless the row names 3GPP TS 27.007 or another
// source) and the reply each gives.
TEST_F(GenericSysTest, QueryAnswers)
{
    const struct {
        act_func fn;
        std::string answer;
        int status;
        std::string reply; // JSON
    } rows[] = {
        {get_func, "\r\n+CFUN: 1\r\n\r\nOK\r\n", 0, R"({"func_id":2,"func":"Full functionality"})"},
        {get_func, "+CFUN: 4\r\n0\r", 0, R"({"func_id":5,"func":"RF circuits disabled"})"}, // ATV0
        {get_func, "\r\n+CME ERROR: 3\r\n", 0, R"({"func_id":0,"response":"\r\n+CME ERROR: 3\r\n"})"},
        {get_err_msg_fmt, "\r\n+CMEE: 2\r\n\r\nOK\r\n", 0, R"({"format_id":3,"format":"Verbose"})"},
        {get_err_msg_fmt, "\r\nOK\r\n", 0, R"({"format_id":0,"response":"\r\nOK\r\n"})"},
        {get_clip_mode, "\r\n+CLIP: 0,1\r\n\r\nOK\r\n", 0,
         R"({"mode_id":1,"mode":"Disabled","state_id":2,"state":"Provisioned"})"},
        {get_clip_mode, "\r\nERROR\r\n", 5, "{}"},
        {get_crc_fmt, "\r\n+CRC: 0\r\n\r\nOK\r\n", 0, R"({"format_id":1,"format":"Disabled"})"},
        {get_mod_status, "\r\n+CPAS: 0\r\n\r\nOK\r\n", 0, R"({"status_id":1,"status":"Ready"})"},
        {get_mod_status, "\r\nOK\r\n", 0, R"({"status_id":0,"status":"Unknown"})"},
        {get_fac_lock, "\r\n+CLCK: 0\r\n\r\nOK\r\n", 0, R"({"state_id":1,"state":"Unlocked"})"},
        // 3GPP TS 27.007: one line per class; the first counts.
        {get_fac_lock, "\r\n+CLCK: 1,1\r\n+CLCK: 0,2\r\n\r\nOK\r\n", 0, R"({"state_id":2,"state":"Locked"})"},
        {get_fac_lock, "\r\n+CME ERROR: 17\r\n", 5, "{}"},
        {get_auto_tz_update, "\r\n+CTZU: 1\r\n\r\nOK\r\n", 0, R"({"enabled":true})"},
        {get_auto_tz_update, "\r\n+CTZU: 3\r\n\r\nOK\r\n", 0, R"({"enabled":true})"}, // Quectel local time
        {set_auto_tz_update, "\r\nOK\r\n", 0, R"({"restart":true})"},
        {get_capabilities, "\r\n+GCAP: +CGSM\r\n\r\nOK\r\n", 0, R"({"cap_list":[{"id":1,"name":"+CGSM"}]})"},
        // 3GPP TS 27.007 list form, with an item no vocabulary knows.
        {get_capabilities, "\r\n+GCAP: +CGSM,+FCLASS, +DS,+W\r\n\r\nOK\r\n", 0,
         R"({"cap_list":[{"id":1,"name":"+CGSM"},{"id":2,"name":"+FCLASS"},{"id":3,"name":"+DS"},)"
         R"({"id":0,"name":"+W"}]})"},
        {get_capabilities, "\r\nOK\r\n", 5, "{}"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        EXPECT_EQ(parse(row.fn, row.answer), row.status);
        EXPECT_EQ(json_text(*reply), row.reply);
    }
}

TEST_F(GenericSysTest, CapabilitiesAddTheModelRow)
{
    mdm.set_info(&g_midata[2]); // EC25-E
    ASSERT_EQ(parse(get_capabilities, "\r\n+GCAP: +CGSM\r\n\r\nOK\r\n"), ACT_STATUS_OK);
    auto row = ujson::create();
    modem_info_fill_blob(*row, g_midata[2]);
    EXPECT_EQ(json_text(*reply), R"({"cap_list":[{"id":1,"name":"+CGSM"}],)" + json_text(*row).substr(1));
}

// The caller is answered at once; a sent request leaves +CUSD awaited.
TEST_F(GenericSysTest, UssdAnswerDecidesWhatIsAwaited)
{
    const struct {
        const char *args, *answer;
        int status;
        const char *awaited; // "-": unchanged
    } rows[] = {
        {R"({"request":"*100#"})", "\r\nOK\r\n", 0, "+CUSD"},
        {R"({"request":"*100#","coding_scheme":15})", "0\r", 0, "+CUSD"},
        {R"({"request":"*100#"})", "\r\n+CME ERROR: 3\r\n", 5, "-"},
        {R"({"mode":"disable","request":"*100#"})", "\r\nOK\r\n", 0, ""},
        {R"({"mode":"cancel"})", "\r\nOK\r\n", 0, ""},
        {R"({"mode":"enable"})", "\r\nOK\r\n", 0, "-"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        mdm.awaited = "-";
        auto args = json_args(row.args);
        ASSERT_EQ(build(set_ussd, args.get()), ACT_STATUS_OK);
        EXPECT_EQ(parse(set_ussd, row.answer), row.status);
        EXPECT_EQ(mdm.awaited, row.awaited);
        EXPECT_EQ(json_text(*reply), "{}");
        std::free(req.extra);
        req.extra = nullptr;
    }
}

TEST_F(GenericSysTest, UssdNetworkAnswersBecomeServiceData)
{
    const struct {
        std::string line;
        int status;
        const char *data; // the event's data; null: no event
    } rows[] = {
        {"\r\n+CUSD: 0,\"Guthaben: 12,34 EUR\",15\r\n", 0,
         R"({"state_id":0,"response":"Guthaben: 12,34 EUR","coding_scheme":15})"},
        {"\r\n+CUSD: 2\r\n", 0, R"({"state_id":2})"},
        // 3GPP TS 27.007: a menu over several lines; <dcs> left out.
        {"\r\n+CUSD: 1,\"Menu\r\n1 Balance\",15\r\n", 0,
         R"({"state_id":1,"response":"Menu\r\n1 Balance","coding_scheme":15})"},
        {"\r\n+CUSD: 0,\"Done\"\r\n", 0, R"({"state_id":0,"response":"Done"})"},
        {"\r\n+CME ERROR: 30\r\n", 0, R"({"response":"+CME ERROR: 30"})"},
        {"\r\n+CUSD: x\r\n", ACT_STATUS_INVALID_URC, nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        mdm.events.clear();
        mdm.awaited = "+CUSD";
        EXPECT_EQ(urc(urc_cusd, row.line), row.status);
        EXPECT_EQ(mdm.awaited, "");
        ASSERT_EQ(mdm.events.size(), row.data ? 1u : 0u);
        if (row.data) {
            EXPECT_EQ(mdm.events[0].id, EVT_SERVICE_DATA);
            EXPECT_EQ(json_text(*mdm.events[0].data), row.data);
        }
    }
}

// --- SIM slots ------------------------------------------------------------------------

namespace fs = std::filesystem;

// A modem with the board's slot wiring that records the functionality the
// radio is brought back to.
struct slot_modem : recording_modem {
    const sim_config *sim_cfg() const override { return cfg.get(); }
    uint32_t sim_slot_count() const override { return count; }
    int refresh(uint32_t action, const ujson *args) override
    {
        if (action == ACT_SET_FUNC && args)
            func = args->get_string("func");
        return recording_modem::refresh(action, args);
    }
    std::unique_ptr<sim_config> cfg;
    uint32_t count = 0;
    std::string func;
};

class SimSlotTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/wwan-slot-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        setenv("WWANCTL_ROOT", root.c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("WWANCTL_ROOT");
        fs::remove_all(root);
    }
    // The two selector lines as "sw1/sw2", "-" for a missing file.
    void set_lines(const std::string &lines)
    {
        fs::remove_all(root + "/sys");
        fs::create_directories(root + "/sys/class/gpio/sim_sel");
        fs::create_directories(root + "/sys/class/gpio/sim_sel2");
        if (lines[0] != '-')
            std::ofstream(root + "/sys/class/gpio/sim_sel/value") << lines[0];
        if (lines[2] != '-')
            std::ofstream(root + "/sys/class/gpio/sim_sel2/value") << lines[2];
    }
    std::string lines()
    {
        std::string out;
        for (const char *file : {"/sys/class/gpio/sim_sel/value", "/sys/class/gpio/sim_sel2/value"}) {
            std::ifstream in(root + file);
            char c = '-';
            in >> c;
            out += out.empty() ? std::string(1, c) : "/" + std::string(1, c);
        }
        return out;
    }
    std::string root;
};

TEST_F(SimSlotTest, SelectingReadingAndChangingSlots)
{
    const std::string two = "211101\n211200\n", four = "211111\n211211\n211121\n211221\n";
    const struct {
        const char *what;
        std::string factory; // slot texts; "": no wiring object at all
        const char *before;
        act_func fn;
        int index;       // "index" argument, -1 none
        int build_status;
        bool answer_ok;  // the modem's answer to AT+CFUN=0 or AT
        int parse_status;
        const char *after;
        int slot;        // reply "index" and EVT_SIM_CHANGE value, -1 none
        bool radio_on;   // full functionality requested again
    } rows[] = {
        {"slot 1 read from switch 1", two, "0/-", get_io_sim_slot, -1, 0, true, 0, "0/-", 1, false},
        {"slot 2 read from switch 1", two, "1/-", get_io_sim_slot, -1, 0, true, 0, "1/-", 2, false},
        {"both switches read", four, "0/1", get_io_sim_slot, -1, 0, true, 0, "0/1", 3, false},
        {"unreadable switch", two, "-/-", get_io_sim_slot, -1, 0, true, 1, "-/-", -1, false},
        {"no wiring: the one slot", "", "-/-", get_io_sim_slot, -1, 0, true, 0, "-/-", 1, false},
        {"select slot 2", two, "0/-", set_io_sim_slot, 2, 0, true, 0, "1/-", 2, true},
        {"select slot 4 on two switches", four, "0/0", set_io_sim_slot, 4, 0, true, 0, "1/1", 4, true},
        {"slot beyond the wired ones", two, "0/-", set_io_sim_slot, 3, 2, true, 0, "0/-", -1, false},
        {"index missing", two, "0/-", set_io_sim_slot, -1, 2, true, 0, "0/-", -1, false},
        {"no slots to select", "N/A\n", "0/-", set_io_sim_slot, 1, 2, true, 0, "0/-", -1, false},
        {"radio stays on: nothing switched", two, "0/-", set_io_sim_slot, 2, 0, false, 5, "0/-", -1, false},
        {"selector line missing", two, "-/-", set_io_sim_slot, 2, 0, true, 1, "-/-", -1, true},
        {"slot on no line is selected", "210001\n211201\n", "1/-", set_io_sim_slot, 1, 0, true, 0, "1/-", 1, true},
        {"change to the next slot", two, "0/-", change_sim_slot, -1, 0, true, 0, "1/-", 2, true},
        {"change wraps to slot 1", two, "1/-", change_sim_slot, -1, 0, true, 0, "0/-", 1, true},
        {"change without slots", "N/A\n", "-/-", change_sim_slot, -1, ACT_STATUS_NOT_SUPPORTED, true, 0, "-/-", -1,
         false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        slot_modem mdm;
        if (!row.factory.empty()) {
            fs::create_directories(root + "/etc/mnfinfo");
            std::ofstream(root + "/etc/mnfinfo/sim_cfg") << row.factory;
            mdm.cfg = sim_config_create(1, mdm.count);
        }
        set_lines(row.before);
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
        EXPECT_EQ(lines(), row.after);
        EXPECT_EQ(reply->exists("index") ? reply->get_int("index") : -1, row.slot);
        int event = -1;
        for (const auto &e : mdm.events)
            event = e.id == EVT_SIM_CHANGE ? e.number : event;
        EXPECT_EQ(event, row.fn == get_io_sim_slot ? -1 : row.slot);
        EXPECT_EQ(mdm.func, row.radio_on ? "full" : "");
    }
}

} // namespace

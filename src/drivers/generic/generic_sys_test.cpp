#include "drivers/generic/generic_sys.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <libubox/blobmsg_json.h>

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

void free_urcs(modem_driver &drv)
{
    while (urc_entry *e = drv.urcs) {
        drv.urcs = e->next;
        delete e;
    }
}

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
        {ACT_GET_FIRMWARE, get_firmware},     {ACT_GET_IMEI, get_imei},
        {ACT_GET_ID_INFO, get_id_info},       {ACT_GET_SN, get_sn},
        {ACT_GET_CAPABILITIES, get_capabilities}, {ACT_SET_FUNC, set_func},
        {ACT_GET_FUNC, get_func},             {ACT_SET_ERR_MSG_FMT, set_err_msg_fmt},
        {ACT_GET_ERR_MSG_FMT, get_err_msg_fmt}, {ACT_SET_CLIP_MODE, set_clip_mode},
        {ACT_GET_CLIP_MODE, get_clip_mode},   {ACT_SET_CRC_FMT, set_crc_fmt},
        {ACT_GET_CRC_FMT, get_crc_fmt},       {ACT_GET_MOD_STATUS, get_mod_status},
        {ACT_SET_FAC_LOCK, set_fac_lock},     {ACT_GET_FAC_LOCK, get_fac_lock},
        {ACT_SET_SIM_SLOT, set_io_sim_slot},  {ACT_GET_SIM_SLOT, get_io_sim_slot},
        {ACT_CHANGE_SIM_SLOT, change_sim_slot}, {ACT_SET_USSD, set_ussd},
        {ACT_SET_NEW_PASS, set_new_pass},     {ACT_SET_AUTO_TZ_UPDATE, set_auto_tz_update},
        {ACT_GET_AUTO_TZ_UPDATE, get_auto_tz_update},
    };
    for (const auto &[act, fn] : installed)
        EXPECT_EQ(drv.funcs[act], fn) << act;
    EXPECT_EQ(drv.funcs[ACT_GET_IMSI], nullptr);
    const char cusd[] = "\r\n+CUSD: 2\r\n";
    EXPECT_EQ(modem_driver_urc_method(&drv, cusd, sizeof(cusd) - 1), &urc_cusd);
    free_urcs(drv);
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

// --- commands from bus arguments ---------------------------------------------------

struct build_row {
    act_func fn;
    std::string args; // JSON
    std::string want; // the command, or "status N" when refused
};

std::string built(int status, const std::string &command)
{
    return status == ACT_STATUS_OK ? command : "status " + std::to_string(status);
}

TEST_F(GenericSysTest, CommandsFromArguments)
{
    const std::string long_pass(17, '1');
    const build_row rows[] = {
        {set_func, R"({"func":"full"})", "AT+CFUN=1,0\r"},
        {set_func, R"({"func":"minimum","reset":true})", "AT+CFUN=0,1\r"},
        {set_func, R"({"func":"offline"})", "AT+CFUN=7,0\r"},
        {set_func, R"({"func":"Full"})", "status 2"},
        {set_func, R"({"reset":true})", "status 2"},
        {set_err_msg_fmt, R"({"format":"verbose"})", "AT+CMEE=2\r"},
        {set_err_msg_fmt, R"({"format":"2"})", "status 2"},
        {set_clip_mode, R"({"mode":"enable"})", "AT+CLIP=1\r"},
        {set_crc_fmt, R"({"format":"disable"})", "AT+CRC=0\r"},
        {set_auto_tz_update, R"({"enabled":true})", "AT+CTZU=1\r"},
        {set_auto_tz_update, R"({"enabled":false})", "AT+CTZU=0\r"},
        {set_auto_tz_update, "{}", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"lock","pass":"1234"})", "AT+CLCK=\"SC\",1,\"1234\"\r"},
        {set_fac_lock, R"({"facility":"AO","state":"unlock","pass":"0000"})", "AT+CLCK=\"AO\",0,\"0000\"\r"},
        {set_fac_lock, R"({"facility":"sc","state":"lock","pass":"1234"})", "status 2"},
        {set_fac_lock, R"({"facility":"SC\",0,\"","state":"lock","pass":"1234"})", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"on","pass":"1234"})", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"lock"})", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"lock","pass":"12\"34"})", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"lock","pass":"12\r\nAT+CFUN=0"})", "status 2"},
        {set_fac_lock, R"({"facility":"SC","state":"lock","pass":")" + long_pass + R"("})", "status 2"},
        {get_fac_lock, R"({"facility":"SC"})", "AT+CLCK=\"SC\",2\r"},
        {get_fac_lock, R"({"facility":"SC\r"})", "status 2"},
        {get_fac_lock, "{}", "status 2"},
        {set_new_pass, R"({"facility":"P2","old_pass":"1234","new_pass":"4321"})",
         "AT+CPWD=\"P2\",\"1234\",\"4321\"\r"},
        {set_new_pass, R"({"facility":"SC","old_pass":"1234","new_pass":"43\u001a21"})", "status 2"},
        {set_new_pass, R"({"facility":"SC","old_pass":"\u001b1234","new_pass":"4321"})", "status 2"},
        {set_new_pass, R"({"facility":"SC","old_pass":"1234","new_pass":"43\n21"})", "status 2"},
        {set_new_pass, R"({"facility":"SC","old_pass":"1234"})", "status 2"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        auto args = json_args(row.args);
        int status = build(row.fn, args.get());
        EXPECT_EQ(built(status, command()), row.want);
        if (status != ACT_STATUS_OK) {
            EXPECT_EQ(req.command, nullptr);
        }
    }
}

TEST_F(GenericSysTest, UssdCommandForms)
{
    const std::string longest(160, '1');
    const build_row rows[] = {
        {set_ussd, "{}", "AT+CUSD\r"},
        {set_ussd, R"({"mode":"enable"})", "AT+CUSD=1\r"},
        {set_ussd, R"({"mode":"cancel"})", "AT+CUSD=2\r"},
        {set_ussd, R"({"request":"*100#"})", "AT+CUSD=1,\"*100#\"\r"},
        {set_ussd, R"({"mode":"enable","request":"*100#","coding_scheme":15})", "AT+CUSD=1,\"*100#\",15\r"},
        {set_ussd, R"({"request":")" + longest + R"("})", "AT+CUSD=1,\"" + longest + "\"\r"},
        {set_ussd, R"({"request":"1)" + longest + R"("})", "status 2"},
        {set_ussd, R"({"request":"*100#\",15\r"})", "status 2"},
        {set_ussd, R"({"request":"*100#\u001a"})", "status 2"},
        {set_ussd, R"({"request":""})", "status 2"},
        {set_ussd, R"({"mode":"on","request":"*100#"})", "status 2"},
        {set_ussd, R"({"request":"*100#","coding_scheme":256})", "status 2"},
        {set_ussd, R"({"request":"*100#","coding_scheme":-1})", "status 2"},
        {set_ussd, R"({"coding_scheme":15})", "status 2"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        auto args = json_args(row.args);
        int status = build(row.fn, args.get());
        EXPECT_EQ(built(status, command()), row.want);
    }
}

// --- answers ----------------------------------------------------------------------

struct answer_row {
    const char *what; // where the answer comes from
    act_func fn;
    std::string answer;
    int status;
    std::string reply; // JSON; "" for none checked
};

TEST_F(GenericSysTest, QueryAnswers)
{
    const answer_row rows[] = {
        {"EC25 +CFUN", get_func, "\r\n+CFUN: 1\r\n\r\nOK\r\n", 0, R"({"func_id":2,"func":"Full functionality"})"},
        {"EC25 ATV0", get_func, "+CFUN: 0\r\n0\r", 0, R"({"func_id":1,"func":"Minimum functionality"})"},
        {"EC25 airplane mode", get_func, "\r\n+CFUN: 4\r\n\r\nOK\r\n", 0,
         R"({"func_id":5,"func":"RF circuits disabled"})"},
        {"error is passed on raw", get_func, "\r\n+CME ERROR: 3\r\n", 0,
         R"({"func_id":0,"response":"\r\n+CME ERROR: 3\r\n"})"},
        {"EC25 +CMEE", get_err_msg_fmt, "\r\n+CMEE: 2\r\n\r\nOK\r\n", 0, R"({"format_id":3,"format":"Verbose"})"},
        {"unreadable +CMEE", get_err_msg_fmt, "\r\nOK\r\n", 0, R"({"format_id":0,"response":"\r\nOK\r\n"})"},
        {"EC25 +CLIP", get_clip_mode, "\r\n+CLIP: 0,1\r\n\r\nOK\r\n", 0,
         R"({"mode_id":1,"mode":"Disabled","state_id":2,"state":"Provisioned"})"},
        {"27.007 +CLIP <m> 2", get_clip_mode, "\r\n+CLIP: 1,2\r\n\r\nOK\r\n", 0,
         R"({"mode_id":2,"mode":"Enabled","state_id":3,"state":"Unknown"})"},
        {"+CLIP error", get_clip_mode, "\r\nERROR\r\n", 5, "{}"},
        {"EC25 +CRC", get_crc_fmt, "\r\n+CRC: 0\r\n\r\nOK\r\n", 0, R"({"format_id":1,"format":"Disabled"})"},
        {"EC25 +CPAS", get_mod_status, "\r\n+CPAS: 0\r\n\r\nOK\r\n", 0, R"({"status_id":1,"status":"Ready"})"},
        {"27.007 +CPAS ringing", get_mod_status, "\r\n+CPAS: 3\r\n\r\nOK\r\n", 0,
         R"({"status_id":4,"status":"Ringing"})"},
        {"+CPAS missing", get_mod_status, "\r\nOK\r\n", 0, R"({"status_id":0,"status":"Unknown"})"},
        {"+CPAS error", get_mod_status, "\r\n+CME ERROR: 100\r\n", 5, "{}"},
        {"EC25 +CLCK", get_fac_lock, "\r\n+CLCK: 0\r\n\r\nOK\r\n", 0, R"({"state_id":1,"state":"Unlocked"})"},
        {"27.007 +CLCK per class", get_fac_lock, "\r\n+CLCK: 1,1\r\n+CLCK: 0,2\r\n\r\nOK\r\n", 0,
         R"({"state_id":2,"state":"Locked"})"},
        {"EC25 wrong PIN2", get_fac_lock, "\r\n+CME ERROR: 17\r\n", 5, "{}"},
        {"EC25 +CTZU", get_auto_tz_update, "\r\n+CTZU: 1\r\n\r\nOK\r\n", 0, R"({"enabled":true})"},
        {"Quectel local time mode", get_auto_tz_update, "\r\n+CTZU: 3\r\n\r\nOK\r\n", 0, R"({"enabled":true})"},
        {"EC25 +CTZU off", get_auto_tz_update, "\r\n+CTZU: 0\r\n\r\nOK\r\n", 0, R"({"enabled":false})"},
        {"CTZU set", set_auto_tz_update, "\r\nOK\r\n", 0, R"({"restart":true})"},
        {"CTZU set refused", set_auto_tz_update, "\r\nERROR\r\n", 5, "{}"},
        {"EC25 +GCAP", get_capabilities, "\r\n+GCAP: +CGSM\r\n\r\nOK\r\n", 0,
         R"({"cap_list":[{"id":1,"name":"+CGSM"}]})"},
        {"27.007 +GCAP list", get_capabilities, "\r\n+GCAP: +CGSM,+FCLASS, +DS,+W\r\n\r\nOK\r\n", 0,
         R"({"cap_list":[{"id":1,"name":"+CGSM"},{"id":2,"name":"+FCLASS"},{"id":3,"name":"+DS"},)"
         R"({"id":0,"name":"+W"}]})"},
        {"+GCAP missing", get_capabilities, "\r\nOK\r\n", 5, "{}"},
        {"set refused", set_func, "\r\n+CME ERROR: 3\r\n", 5, "{}"},
        {"set with ATV0", set_func, "0\r", 0, "{}"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(parse(row.fn, row.answer), row.status);
        EXPECT_EQ(json_text(*reply), row.reply);
    }
}

TEST_F(GenericSysTest, CapabilitiesAddTheModelRow)
{
    mdm.set_info(&g_midata[2]); // EC25-E
    ASSERT_EQ(parse(get_capabilities, "\r\n+GCAP: +CGSM\r\n\r\nOK\r\n"), ACT_STATUS_OK);
    auto expected = ujson::create();
    modem_info_fill_blob(*expected, g_midata[2]);
    std::string row = json_text(*expected);
    EXPECT_EQ(json_text(*reply), R"({"cap_list":[{"id":1,"name":"+CGSM"}],)" + row.substr(1));
}

// --- USSD -----------------------------------------------------------------------------

TEST_F(GenericSysTest, UssdAnswerDecidesWhatIsAwaited)
{
    const struct {
        const char *args;
        const char *answer;
        int status;
        const char *awaited; // "-" unchanged
    } rows[] = {
        {R"({"request":"*100#"})", "\r\nOK\r\n", 0, "+CUSD"},
        {R"({"mode":"enable","request":"*100#","coding_scheme":15})", "0\r", 0, "+CUSD"},
        {R"({"request":"*100#"})", "\r\n+CME ERROR: 3\r\n", 5, "-"},
        {R"({"mode":"disable","request":"*100#"})", "\r\nOK\r\n", 0, ""},
        {R"({"mode":"cancel"})", "\r\nOK\r\n", 0, ""},
        {R"({"mode":"enable"})", "\r\nOK\r\n", 0, "-"},
        {"{}", "\r\nOK\r\n", 0, "-"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        std::free(req.extra);
        req.extra = nullptr;
        mdm.awaited = "-";
        auto args = json_args(row.args);
        ASSERT_EQ(build(set_ussd, args.get()), ACT_STATUS_OK);
        EXPECT_EQ(parse(set_ussd, row.answer), row.status);
        EXPECT_EQ(mdm.awaited, row.awaited);
        EXPECT_EQ(json_text(*reply), "{}"); // the network answers later
    }
}

TEST_F(GenericSysTest, UssdNetworkAnswersBecomeServiceData)
{
    const struct {
        const char *what;
        std::string line;
        int status;
        const char *data; // null: no event
    } rows[] = {
        {"EC25, balance answer", "\r\n+CUSD: 0,\"Guthaben: 12,34 EUR\",15\r\n", 0,
         R"({"state_id":0,"response":"Guthaben: 12,34 EUR","coding_scheme":15})"},
        {"EC25, network released", "\r\n+CUSD: 2\r\n", 0, R"({"state_id":2})"},
        {"27.007 menu over several lines", "\r\n+CUSD: 1,\"Menu\r\n1 Balance\r\n2 Offers\",15\r\n", 0,
         R"({"state_id":1,"response":"Menu\r\n1 Balance\r\n2 Offers","coding_scheme":15})"},
        {"27.007 without <dcs>", "\r\n+CUSD: 0,\"Done\"\r\n", 0, R"({"state_id":0,"response":"Done"})"},
        {"EC25, network refused", "\r\n+CME ERROR: 30\r\n", 0, R"({"response":"+CME ERROR: 30"})"},
        {"SMS error text", "\r\n+CMS ERROR: 500\r\n", 0, R"({"response":"+CMS ERROR: 500"})"},
        {"garbage", "\r\n+CUSD: x\r\n", ACT_STATUS_INVALID_URC, nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        mdm.events.clear();
        mdm.awaited = "+CUSD";
        EXPECT_EQ(urc(urc_cusd, row.line), row.status);
        EXPECT_EQ(mdm.awaited, "");
        if (!row.data) {
            EXPECT_TRUE(mdm.events.empty());
            continue;
        }
        ASSERT_EQ(mdm.events.size(), 1u);
        EXPECT_EQ(mdm.events[0].id, EVT_SERVICE_DATA);
        ASSERT_TRUE(mdm.events[0].data);
        EXPECT_EQ(json_text(*mdm.events[0].data), row.data);
    }
}

// --- SIM slots ------------------------------------------------------------------------

namespace fs = std::filesystem;

// A modem with the board's slot wiring; it records the functionality the
// radio is brought back to.
class slot_modem : public recording_modem
{
  public:
    const sim_config *sim_cfg() const override { return cfg.get(); }
    uint32_t sim_slot_count() const override { return count; }
    int refresh(uint32_t action, const ujson *args) override
    {
        recording_modem::refresh(action, args);
        if (action == ACT_SET_FUNC && args && args->exists("func"))
            func = args->get_string("func");
        return 0;
    }
    std::unique_ptr<sim_config> cfg;
    uint32_t count = 0;
    std::string func;
};

const char *sw1_file = "/sys/class/gpio/sim_sel/value";
const char *sw2_file = "/sys/class/gpio/sim_sel2/value";

struct slot_row {
    const char *what;
    std::vector<std::string> factory; // slot texts; empty: no wiring object at all
    const char *sw1, *sw2;            // selector files before (null: absent)
    act_func fn;
    int index;              // "index" argument, -1 none
    int build_status;
    const char *answer;     // to AT+CFUN=0 / AT
    int parse_status;
    const char *sw1_after, *sw2_after;
    int reply_index;        // -1 none
    int event_slot;         // EVT_SIM_CHANGE value, -1 none
    bool radio_on;          // full functionality requested again
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
    void write(const char *rel, const std::string &text)
    {
        fs::create_directories(fs::path(root + rel).parent_path());
        std::ofstream(root + rel) << text;
    }
    std::string read(const char *rel)
    {
        std::ifstream in(root + rel);
        std::string text;
        std::getline(in, text);
        return in || !text.empty() ? text : "<none>";
    }
    void run(const slot_row &row);

    std::string root;
};

void SimSlotTest::run(const slot_row &row)
{
    SCOPED_TRACE(row.what);
    fs::remove_all(root + "/etc");
    fs::remove_all(root + "/sys");
    slot_modem mdm;
    mdm.set_identity("1-1.2", "2C7C:0125");
    if (!row.factory.empty()) {
        std::string all;
        for (const auto &t : row.factory)
            all += t + "\n";
        write("/etc/mnfinfo/sim_cfg", all);
        mdm.cfg = sim_config_create(1, mdm.count);
        ASSERT_TRUE(mdm.cfg);
    }
    if (row.sw1)
        write(sw1_file, row.sw1);
    if (row.sw2)
        write(sw2_file, row.sw2);

    auto args = ujson::create();
    if (row.index >= 0)
        args->add_int("index", row.index);
    request req;
    ASSERT_EQ(row.fn(&mdm, 0, args.get(), &req), row.build_status);
    if (row.build_status == ACT_STATUS_OK) {
        std::string cmd(req.command, req.length);
        EXPECT_EQ(cmd, row.fn == get_io_sim_slot ? "AT\r" : "AT+CFUN=0\r");
        std::string answer = row.answer;
        mdm.set_response(answer.data(), answer.size());
        auto reply = ujson::create();
        EXPECT_EQ(row.fn(&mdm, 1, reply.get(), &req), row.parse_status);
        EXPECT_EQ(reply->exists("index") ? reply->get_int("index") : -1, row.reply_index);
    } else {
        EXPECT_EQ(req.command, nullptr);
        EXPECT_EQ(req.extra, nullptr);
    }
    std::free(req.command);
    std::free(req.extra);

    EXPECT_EQ(read(sw1_file), row.sw1_after);
    EXPECT_EQ(read(sw2_file), row.sw2_after);
    int event = -1;
    for (const auto &e : mdm.events)
        if (e.id == EVT_SIM_CHANGE)
            event = e.number;
    EXPECT_EQ(event, row.event_slot);
    EXPECT_EQ(mdm.func, row.radio_on ? "full" : "");
}

const std::vector<std::string> two_on_sw1 = {"211101", "211200"};
const std::vector<std::string> four_on_two = {"211111", "211211", "211121", "211221"};

TEST_F(SimSlotTest, SelectingReadingAndChangingSlots)
{
    const char *ok = "\r\nOK\r\n";
    const slot_row rows[] = {
        {"slot 1 is read from switch 1", two_on_sw1, "0", nullptr, get_io_sim_slot, -1, 0, ok, 0, "0", "<none>", 1,
         -1, false},
        {"slot 2 is read from switch 1", two_on_sw1, "1", nullptr, get_io_sim_slot, -1, 0, ok, 0, "1", "<none>", 2,
         -1, false},
        {"both switches are read", four_on_two, "0", "1", get_io_sim_slot, -1, 0, "0\r", 0, "0", "1", 3, -1, false},
        {"unreadable switch", two_on_sw1, nullptr, nullptr, get_io_sim_slot, -1, 0, ok, 1, "<none>", "<none>", -1,
         -1, false},
        {"no wiring: the one slot", {}, nullptr, nullptr, get_io_sim_slot, -1, 0, ok, 0, "<none>", "<none>", 1, -1,
         false},
        {"factory lists no slot", {"N/A"}, "1", nullptr, get_io_sim_slot, -1, 0, ok, 0, "1", "<none>", 1, -1, false},
        {"modem not answering", two_on_sw1, "0", nullptr, get_io_sim_slot, -1, 0, "\r\nERROR\r\n", 5, "0", "<none>",
         -1, -1, false},
        {"select slot 2", two_on_sw1, "0", nullptr, set_io_sim_slot, 2, 0, ok, 0, "1", "<none>", 2, 2, true},
        {"select slot 4 on two switches", four_on_two, "0", "0", set_io_sim_slot, 4, 0, ok, 0, "1", "1", 4, 4, true},
        {"slot beyond the wired ones", two_on_sw1, "0", nullptr, set_io_sim_slot, 3, 2, ok, 0, "0", "<none>", -1,
         -1, false},
        {"slot 0", two_on_sw1, "0", nullptr, set_io_sim_slot, 0, 2, ok, 0, "0", "<none>", -1, -1, false},
        {"index missing", two_on_sw1, "0", nullptr, set_io_sim_slot, -1, 2, ok, 0, "0", "<none>", -1, -1, false},
        {"no slots to select", {"N/A"}, "0", nullptr, set_io_sim_slot, 1, 2, ok, 0, "0", "<none>", -1, -1, false},
        {"radio stays on: nothing switched", two_on_sw1, "0", nullptr, set_io_sim_slot, 2, 0, "\r\n+CME ERROR: 3\r\n",
         5, "0", "<none>", -1, -1, false},
        {"selector line missing", two_on_sw1, nullptr, nullptr, set_io_sim_slot, 2, 0, ok, 1, "<none>", "<none>",
         -1, -1, true},
        {"slot on no line is selected", {"210001", "211201"}, "1", nullptr, set_io_sim_slot, 1, 0, ok, 0, "1",
         "<none>", 1, 1, true},
        {"change to the next slot", two_on_sw1, "0", nullptr, change_sim_slot, -1, 0, ok, 0, "1", "<none>", 2, 2,
         true},
        {"change wraps to slot 1", two_on_sw1, "1", nullptr, change_sim_slot, -1, 0, ok, 0, "0", "<none>", 1, 1,
         true},
        {"change from slot 2 of four", four_on_two, "1", "0", change_sim_slot, -1, 0, ok, 0, "0", "1", 3, 3, true},
        {"change without slots", {"N/A"}, nullptr, nullptr, change_sim_slot, -1, ACT_STATUS_NOT_SUPPORTED, ok, 0,
         "<none>", "<none>", -1, -1, false},
    };
    for (const auto &row : rows)
        run(row);
}

} // namespace

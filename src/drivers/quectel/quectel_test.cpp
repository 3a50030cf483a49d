#include "drivers/quectel/quectel.h"

#include "drivers/generic/driver_test_support.h"
#include "drivers/generic/generic_net.h"
#include "drivers/generic/generic_pin.h"
#include "drivers/generic/generic_sms.h"
#include "drivers/generic/generic_sys.h"
#include "drivers/generic/generic_call.h"
#include "drivers/quectel/quectel_data.h"
#include "drivers/quectel/quectel_file.h"
#include "drivers/quectel/quectel_net.h"
#include "drivers/quectel/quectel_sys.h"

namespace
{

using QuectelUrcTest = driver_test;

TEST_F(QuectelUrcTest, ReportsBecomeEventsOrAreRefused)
{
    // clang-format off
    const struct { urc_func fn; const char *line; int status; const char *raised; } rows[] = {
        // Firmware update: the state with its percent or error code, also
        // sent on the bus with the modem's USB id.
        {urc_qind, "+QIND: \"FOTA\",\"HTTPEND\",0", 0, R"(16={"error":0,"state_id":6,"state":"HTTPEND"} gsm.fota_state={"error":0,"state_id":6,"state":"HTTPEND","modem_id":"1-1.2"})"},
        {urc_qind, "+QIND: \"FOTA\",\"DOWNLOADING\",45", 0, R"(16={"percent":45,"state_id":4,"state":"DOWNLOADING"} gsm.fota_state={"percent":45,"state_id":4,"state":"DOWNLOADING","modem_id":"1-1.2"})"},
        {urc_qind, "+QIND: \"FOTA\",\"DOWNLOADING\"", ACT_STATUS_INVALID_URC, ""},
        {urc_qind, "+QIND: \"FOTA\",\"REBOOTING\"", 0, R"(16={"state_id":0,"state":"UNKNOWN"} gsm.fota_state={"state_id":0,"state":"UNKNOWN","modem_id":"1-1.2"})"},
        // EC2x DFOTA of a local package (Quectel's URC forms as the public
        // fwupd modem-manager plugin documents them): start and progress.
        {urc_qind, "+QIND: \"FOTA\",\"START\"", 0, R"(16={"state_id":8,"state":"START"} gsm.fota_state={"state_id":8,"state":"START","modem_id":"1-1.2"})"},
        {urc_qind, "+QIND: \"FOTA\",\"UPDATING\",50", 0, R"(16={"percent":50,"state_id":9,"state":"UPDATING"} gsm.fota_state={"percent":50,"state_id":9,"state":"UPDATING","modem_id":"1-1.2"})"},
        // The state text is matched by prefix, in any case.
        {urc_qind, "+QIND: \"FOTA\",\"fileend_ok\",552", 0, R"(16={"error":552,"state_id":7,"state":"FILEEND"} gsm.fota_state={"error":552,"state_id":7,"state":"FILEEND","modem_id":"1-1.2"})"},
        // Signal indication of an EC25 (AT+QINDCFG="csq",1), +CSQ coding.
        {urc_qind, "+QIND: \"csq\",20,99", 0, "7=-73 13=99"},
        {urc_qind, "+QIND: \"csq\",99,99", 0, "13=99"}, // level not known: none reported
        // An EC25 start-up indication: not followed.
        {urc_qind, "+QIND: SMS DONE", ACT_STATUS_INVALID_URC, ""},
        // +QCSQ: LTE is RSSI, RSRP, SINR (1/5 dB from -20 dB), RSRQ.
        {urc_qcsq, "+QCSQ: \"LTE\",-60,-90,100,-10", 0, "7=-60 10=-90 11=0 12=-10"},
        // BG96 on CAT-M1 (public BG96 examples).
        {urc_qcsq, "+QCSQ: \"CAT-M1\",-52,-81,195,-10", 0, "7=-52 10=-81 11=19 12=-10"},
        // Magnitudes are made negative; zero is no value.
        {urc_qcsq, "+QCSQ: \"wcdma\",67,72,5", 0, "7=-67 8=-72 9=-5"},
        {urc_qcsq, "+QCSQ: \"LTE\",-60,0,0,-10", 0, "7=-60 12=-10"},
        {urc_qcsq, "+QCSQ: \"GSM\",-71", 0, "7=-71"},
        {urc_qcsq, "+QCSQ: \"NOSERVICE\"", 0, ""},
        {urc_qcsq, "+QCSQ: \"WIFI\",-60", ACT_STATUS_INVALID_URC, ""},
        // Reject causes (constructed lines; no public capture).
        {urc_emm, "+EMM ERROR: 0,15", 0, R"(23={"cause_id":15,"cause":"No suitable cells in tracking area"})"},
        {urc_emm, "+EMM ERROR: 7", 0, R"(23={"cause_id":7,"cause":"EPS services not allowed"})"},
        {urc_esm, "+ESM ERROR: 1,27", 0, R"(24={"cause_id":27,"cause":"Missing or unknown APN"})"},
        {urc_esm, "+ESM ERROR: 27", ACT_STATUS_INVALID_RESPONSE, ""},
        // +QNETRC report forms of the RM520N AT commands manual.
        {urc_qnetrc, "+QNETRC: \"emm_cause\",15", 0, R"(23={"cause_id":15,"cause":"No suitable cells in tracking area"})"},
        {urc_qnetrc, "+QNETRC: \"esm_cause\",27", 0, R"(24={"cause_id":27,"cause":"Missing or unknown APN"})"},
        {urc_qnetrc, "+QNETRC:\"5gmm_cause\",62", 0, R"(23={"cause_id":62,"cause":"No network slices available"})"},
        {urc_qnetrc, "+QNETRC: \"emm_cause\",0", 0, ""},
        {urc_qnetrc, "+QNETRC: \"emm_cause\",-", ACT_STATUS_INVALID_URC, ""},
        {urc_qnetrc, "+QNETRC: \"mm_cause\",7", ACT_STATUS_INVALID_URC, ""},
        // End of an upload, XOR checksum in hex (a public EC2x upload
        // example); the base form reads it in decimal.
        {urc_qfupl_hex, "+QFUPL: 683,f6e", 0, R"(22={"size":683,"checksum":3950})"},
        {urc_qfupl, "+QFUPL: 683,3950", 0, R"(22={"size":683,"checksum":3950})"},
        {urc_qfupl, "+QFUPL: 683,f6e", ACT_STATUS_INVALID_RESPONSE, ""},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        mdm.events.clear();
        mdm.broadcasts.clear();
        EXPECT_EQ(urc(row.fn, std::string("\r\n") + row.line + "\r\n"), row.status);
        EXPECT_EQ(raised(), row.raised);
    }
}

TEST_F(QuectelUrcTest, SerialNumberIsCachedUnquoted)
{
    // Quoted as Quectel prints AT+EGMR values; the number is made up.
    EXPECT_EQ(urc(urc_egmr, "\r\n+EGMR: \"MPY21ABC3456789\"\r\n"), 0);
    EXPECT_EQ(cached("serial_num"), "MPY21ABC3456789");
}

// Every kind of argument the Quectel actions take, each refused with status 2
// and nothing built for the modem.
TEST_F(QuectelUrcTest, ArgumentRefusal)
{
    // clang-format off
    const struct { act_func fn; std::string args; } rows[] = {
        {set_apn_auth, R"({"cid":1,"type":"IP","apn":")" + std::string(64, 'a') + R"(","auth_tp":"None"})"},
        {set_apn_auth, R"({"cid":1,"type":"PPP","apn":"web","auth_tp":"None"})"},
        {set_apn_auth, R"({"cid":17,"type":"IP","apn":"web","auth_tp":"None"})"},
        {set_apn_auth, R"({"cid":1,"type":"IP","apn":"web","auth_tp":"MSCHAP"})"},
        {set_apn_auth, R"({"cid":1,"type":"IP","apn":"web"})"},
        {set_apn_auth, R"({"cid":1,"type":"IP","apn":"web","passw":"a\",1\r","auth_tp":"PAP"})"},
        {get_apn_auth, R"({"index":0})"},
        {set_pdp_ctx_state, R"({"cid":3,"state":"activate","timeout":0})"},
        {set_dns_addr, R"({"cid":1,"pri_dns":"8.8.8.8","sec_dns":"8.8.4.4 "})"},
        {gnss_start, R"({"fix_count":1001})"},
        {set_nmea, R"({"satellite":"gps","types":["GNS"]})"},
        {set_nmea, R"({"satellite":"sbas","types":["GGA"]})"},
        {set_nmea, R"({"satellite":"gps"})"},
        {set_signal_query_cfg, R"({"mode":"enable","change_threshold":3})"},
        {set_signal_query_cfg, R"({})"},
        {set_net_mode, R"({"mode":"LTE"})"},
        {set_net_mode_lpwa, R"({"mode":"wcdma"})"},
        {set_net_mode_nr, R"({"mode":"gsm"})"},
        {set_roaming_svc_nr, R"({"mode":"auto"})"},                  // no such preference
        {set_roaming_svc_nr, R"({"mode":"enable","effect":false})"}, // applies at once only
        {set_urc_cause_support_nr, R"({})"},
        {get_time, R"({"mode":"1\r"})"},
        {get_file_list, R"({"path":"../x"})"}, // paths: no way out of the storage
        {get_file_list, R"({"path":"NAND:x"})"},
        {delete_file, R"({"path":"*"})"}, // one file, never a pattern
        {delete_file, R"({"path":"a/b"})"},
        {delete_file, R"({"path":".."})"},
        {delete_file, R"({"path":""})"},
        {delete_file, R"({"path":")" + std::string(81, 'a') + "\"}"},
        {dfota_upgrade, R"({"path":"http://host/update.bin"})"},
        {dfota_upgrade, R"({"path":"/data/ufs/../etc/passwd"})"},
        {dfota_upgrade, R"({"path":"/tmp/update.bin"})"},
        {dfota_upgrade, R"({"path":"RAM:update.bin"})"},
    };
    // clang-format on
    for (const auto &row : rows)
        EXPECT_EQ(built(row.fn, row.args), "2") << row.args;
}

// The reports each family follows (the actions each model runs are in the
// analysis listing's golden file).
TEST(QuectelModels, ReportsEachFamilyFollows)
{
    // clang-format off
    const struct { const char *compatible, *line; urc_func fn; } rows[] = {
        // The 5G modules report reject causes with +QNETRC; the others do not.
        {"quectel,rm520n", "+QNETRC: \"emm_cause\",7", urc_qnetrc},
        {"quectel,ec25", "+QNETRC: \"emm_cause\",7", nullptr},
        // The upload checksum: hexadecimal on the Linux-based modules, decimal on the others.
        {"quectel,ec25,e", "+QFUPL: 683,f6e", urc_qfupl_hex},
        {"quectel,eg06", "+QFUPL: 683,f6e", urc_qfupl_hex},
        {"quectel,rm520n", "+QFUPL: 683,f6e", urc_qfupl_hex},
        {"quectel,bg96", "+QFUPL: 683,f6e", urc_qfupl},
        {"quectel,ec200a", "+QFUPL: 683,f6e", urc_qfupl},
        {"quectel", "+QFUPL: 683,f6e", urc_qfupl},
        // Every Quectel model: its own reports and the generic ones.
        {"quectel,ec25", "+QCSQ: \"GSM\",-71", urc_qcsq},
        {"quectel,ec25", "+QIND: \"csq\",20,99", urc_qind},
        {"quectel,ec25", "+EMM ERROR: 0,15", urc_emm},
        {"quectel,ec25", "+ESM ERROR: 1,27", urc_esm},
        {"quectel,ec25", "+EGMR: \"MPY21\"", urc_egmr},
        {"quectel,ec25", "POWERED DOWN", urc_power},
        {"quectel,ec25", "+CPIN: READY", urc_cpin},
        {"quectel,ec25", "+CUSD: 2", urc_cusd},
        {"quectel,ec25", "+CMTI: \"SM\",3", urc_cmti},
        {"quectel,ec25", "RING", urc_ring},
        {"quectel,ec25", "+CEREG: 1", urc_cereg},
        {"quectel,ec25", "+C5GREG: 1", urc_c5greg},
    };
    // clang-format on
    for (const auto &row : rows) {
        const std::string line = std::string("\r\n") + row.line + "\r\n";
        EXPECT_EQ(modem_driver_urc_method(modem_driver_by_id(row.compatible), line.data(), line.size()), row.fn)
            << row.compatible << " " << row.line;
    }
}

} // namespace

#include "drivers/quectel/quectel.h"

#include "drivers/generic/driver_test_support.h"
#include "drivers/generic/generic_call.h"
#include "drivers/generic/generic_net.h"
#include "drivers/generic/generic_pdp.h"
#include "drivers/generic/generic_pin.h"
#include "drivers/generic/generic_sms.h"
#include "drivers/generic/generic_sys.h"
#include "drivers/quectel/quectel_band.h"
#include "drivers/quectel/quectel_data.h"
#include "drivers/quectel/quectel_file.h"
#include "drivers/quectel/quectel_net.h"
#include "drivers/quectel/quectel_sys.h"

namespace
{

class QuectelUrcTest : public driver_test
{
  protected:
    // What the handler asked of the modem: "<event>=<value>" per event,
    // "<bus event>=<payload>" per broadcast, space separated.
    std::string raised() const
    {
        std::string out;
        for (const auto &e : mdm.events) {
            char *json = e.data ? blobmsg_format_json(e.data->get_blobmsg(), true) : nullptr;
            out += " " + std::to_string(e.id) + "=" + (json ? json : std::to_string(e.number));
            std::free(json);
        }
        for (const auto &[name, payload] : mdm.broadcasts)
            out += " " + name + "=" + payload;
        return out.empty() ? out : out.substr(1);
    }
};

TEST_F(QuectelUrcTest, ReportsBecomeEventsOrAreRefused)
{
    const struct {
        urc_func fn;
        const char *line;
        int status;
        const char *raised;
    } rows[] = {
        // Firmware update: the state with its percent or error code, also
        // sent on the bus with the modem's USB id.
        {urc_qind, "+QIND: \"FOTA\",\"HTTPEND\",0", 0,
         R"(16={"error":0,"state_id":6,"state":"HTTPEND"} gsm.fota_state={"error":0,"state_id":6,"state":"HTTPEND","modem_id":"1-1.2"})"},
        {urc_qind, "+QIND: \"FOTA\",\"DOWNLOADING\",45", 0,
         R"(16={"percent":45,"state_id":4,"state":"DOWNLOADING"} gsm.fota_state={"percent":45,"state_id":4,"state":"DOWNLOADING","modem_id":"1-1.2"})"},
        {urc_qind, "+QIND: \"FOTA\",\"DOWNLOADING\"", ACT_STATUS_INVALID_URC, ""},
        {urc_qind, "+QIND: \"FOTA\",\"FTPEND\"", ACT_STATUS_INVALID_URC, ""},
        {urc_qind, "+QIND: \"FOTA\",\"REBOOTING\"", 0,
         R"(16={"state_id":0,"state":"UNKNOWN"} gsm.fota_state={"state_id":0,"state":"UNKNOWN","modem_id":"1-1.2"})"},
        // EC2x DFOTA of a local package (Quectel's URC forms as the public
        // fwupd modem-manager plugin documents them): start and progress.
        {urc_qind, "+QIND: \"FOTA\",\"START\"", 0,
         R"(16={"state_id":8,"state":"START"} gsm.fota_state={"state_id":8,"state":"START","modem_id":"1-1.2"})"},
        {urc_qind, "+QIND: \"FOTA\",\"UPDATING\",50", 0,
         R"(16={"percent":50,"state_id":9,"state":"UPDATING"} gsm.fota_state={"percent":50,"state_id":9,"state":"UPDATING","modem_id":"1-1.2"})"},
        // The state text is matched by prefix, in any case.
        {urc_qind, "+QIND: \"FOTA\",\"fileend_ok\",552", 0,
         R"(16={"error":552,"state_id":7,"state":"FILEEND"} gsm.fota_state={"error":552,"state_id":7,"state":"FILEEND","modem_id":"1-1.2"})"},
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
        // End of an upload, XOR checksum in hex (a public EC2x upload
        // example); the base form reads it in decimal.
        {urc_qfupl_hex, "+QFUPL: 683,f6e", 0, R"(22={"size":683,"checksum":3950})"},
        {urc_qfupl, "+QFUPL: 683,3950", 0, R"(22={"size":683,"checksum":3950})"},
        {urc_qfupl, "+QFUPL: 683,f6e", ACT_STATUS_INVALID_RESPONSE, ""},
    };
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
    const struct {
        act_func fn;
        std::string args;
    } rows[] = {
        {set_apn_auth, R"({"cid":1,"type":"IP","apn":")" + std::string(64, 'a') + R"(","auth_tp":"None"})"},
        {set_apn_auth, R"({"cid":1,"type":"PPP","apn":"web","auth_tp":"None"})"},
        {set_apn_auth, R"({"cid":0,"type":"IP","apn":"web","auth_tp":"None"})"},
        {set_apn_auth, R"({"cid":17,"type":"IP","apn":"web","auth_tp":"None"})"},
        {set_apn_auth, R"({"cid":1,"type":"IP","apn":"web","auth_tp":"MSCHAP"})"},
        {set_apn_auth, R"({"cid":1,"type":"IP","apn":"web"})"},
        {set_apn_auth, R"({"cid":1,"type":"IP","apn":"web","passw":"a\",1\r","auth_tp":"PAP"})"},
        {get_apn_auth, R"({"index":0})"},
        {set_pdp_ctx_state, R"({"cid":3,"state":"activate","timeout":0})"},
        {set_dns_addr, R"({"cid":1,"pri_dns":"8.8.8"})"},
        {set_dns_addr, R"({"cid":1,"pri_dns":"dns.google"})"},
        {set_dns_addr, R"({"cid":1,"pri_dns":"8.8.8.8","sec_dns":"8.8.4.4 "})"},
        {gnss_start, R"({"fix_max_time":256})"},
        {gnss_start, R"({"fix_count":1001})"},
        {gnss_start, R"({"fix_interval":0})"},
        {gnss_start, R"({"accuracy":"best"})"},
        {gnss_start, R"({"mode":"assisted"})"},
        {set_nmea_outport, R"({"port":"usb"})"},
        {set_nmea, R"({"satellite":"gps","types":["GNS"]})"},
        {set_nmea, R"({"satellite":"gps","types":["XYZ"]})"},
        {set_nmea, R"({"satellite":"sbas","types":["GGA"]})"},
        {set_nmea, R"({"satellite":"gps"})"},
        {get_nmea, R"({"satellite":"qzss"})"},
        {set_signal_query_cfg, R"({"mode":"enable","change_threshold":3})"},
        {set_signal_query_cfg, R"({"mode":"enable","report_interval":10})"},
        {set_signal_query_cfg, R"({})"},
        {set_net_mode, R"({"mode":"LTE"})"},
        {set_net_mode_lpwa, R"({"mode":"wcdma"})"},
        {set_net_mode_nr, R"({"mode":"gsm"})"},
        {set_net_mode_nr, R"({})"},
        {set_roaming_svc, R"({"mode":"roam"})"},
        {set_roaming_svc_nr, R"({"mode":"auto"})"},                  // no such preference
        {set_roaming_svc_nr, R"({"mode":"enable","effect":false})"}, // applies at once only
        {set_gprs_attach_mode, R"({"mode":"1"})"},
        {set_urc_cause_support_nr, R"({})"},
        {set_nr5g_disable_mode_nr, R"({"mode":"all"})"},
        {get_time, R"({"mode":"1\r"})"},
        {set_dpo_mode, R"({"mode":"on"})"},
        {get_file_list, R"({"path":"../x"})"}, // paths: no way out of the storage
        {get_file_list, R"({"path":"a\"b"})"},
        {get_file_list, R"({"path":"NAND:x"})"},
        {delete_file, R"({"path":"*"})"}, // one file, never a pattern
        {delete_file, R"({"path":"RAM:*"})"},
        {delete_file, R"({"path":"a/b"})"},
        {delete_file, R"({"path":".."})"},
        {delete_file, R"({"path":""})"},
        {delete_file, R"({"path":"a\tb"})"},
        {delete_file, R"({"path":")" + std::string(81, 'a') + "\"}"},
        {delete_file, "{}"},
        {get_storage_space, R"({"storage":"NAND"})"},
        {dfota_upgrade, R"({"path":"http://host/update.bin"})"},
        {dfota_upgrade, R"({"path":"/data/ufs/../etc/passwd"})"},
        {dfota_upgrade, R"({"path":"/tmp/update.bin"})"},
        {dfota_upgrade, R"({"path":"RAM:update.bin"})"},
        {dfota_upgrade, R"({"path":"/data/ufs/"})"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(built(row.fn, row.args), "2") << row.args;
}

// The registered model drivers: each takes its family's command set, and a
// variant keeps its model's. A model given the wrong family reads bands, cells
// and modes in another family's format.
TEST(QuectelModels, EachModelRunsItsFamilysCommands)
{
    struct {
        const char *compatible;
        uint32_t action;
        act_func expected; // null: not supported on that model
    } rows[] = {
        // The generic driver's modules, inherited where a model does not replace them.
        {"generic", ACT_GET_FIRMWARE, get_firmware},
        {"generic", ACT_GET_IMEI, get_imei},
        {"generic", ACT_GET_IMSI, get_imsi},
        {"generic", ACT_SET_PIN_CODE, set_pin_code},
        {"generic", ACT_SEND_VCALL, send_voice_call},
        {"generic", ACT_GET_INC_VCALLS, get_incoming_voice_calls},
        {"generic", ACT_SEND_SMS, send_sms},
        {"generic", ACT_DELETE_PDUS, delete_pdus},
        {"generic", ACT_GET_NET_GREG_STAT, get_net_greg_stat},
        {"generic", ACT_OPERATOR_SCAN, scan_op},
        {"generic", ACT_GET_DNS_ADDR, get_dns_addr},
        {"generic", ACT_SET_PS_ATT_STATE, set_ps_att_state},
        {"generic", ACT_GET_SIM_SLOT, get_io_sim_slot},
        {"quectel,ec25", ACT_GET_IMEI, get_imei},
        // Quectel's own commands in place of the generic ones, and those withdrawn.
        {"quectel", ACT_GET_FIRMWARE, quectel::get_firmware},
        {"quectel", ACT_GET_SN, quectel::get_sn},
        {"quectel", ACT_SET_SIM_SLOT, quectel::quectel_set_sim_slot},
        {"quectel", ACT_UPLOAD_FILE, upload_file},
        {"quectel", ACT_SET_APN_AUTH, set_apn_auth},
        {"quectel", ACT_GET_SIGNAL_QRY, get_signal_query},
        {"quectel", ACT_SET_MTU_INFO, nullptr},
        {"quectel", ACT_SET_USSD_TEXT_MODE, nullptr},
        {"quectel", ACT_GET_M2M_STATE, nullptr},
        {"quectel,ec25", ACT_GET_BANDS, get_bands},
        {"quectel,ec25,e", ACT_GET_BANDS, get_bands},
        {"quectel,eg06,a", ACT_GET_CELL_INFO, get_cell_info},
        {"quectel,rg255c", ACT_GET_BANDS, get_bands},
        {"quectel,ec200a", ACT_GET_BANDS, get_bands_cat1},
        {"quectel,eg915q,na", ACT_SET_LTE_BAND, lte_band_set_cat1},
        {"quectel,ec200a", ACT_GET_SIGNAL_QRY, nullptr},
        {"quectel,bg96", ACT_GET_BANDS, get_bands_lpwa},
        {"quectel,bg95,m4", ACT_SET_LTE_NB_BAND, lte_nb_band_set_lpwa},
        {"quectel,bg96", ACT_SET_WCDMA_BAND, nullptr},
        {"quectel,bg96", ACT_SET_NET_MODE, set_net_mode_lpwa},
        {"quectel,ec25", ACT_SET_LTE_NB_BAND, nullptr},
        {"quectel,rm520n", ACT_GET_BANDS, get_bands_nr},
        {"quectel,rg520n", ACT_SET_5G_SA_BAND, sa_5g_band_set_nr},
        {"quectel,rg501q", ACT_GET_CELL_INFO, get_cell_info_nr},
        {"quectel,rg500q", ACT_SET_GSM_BAND, nullptr},
        {"quectel,rm520n", ACT_SET_NET_MODE, set_net_mode_nr},
        {"quectel,ec25", ACT_SET_5G_NSA_BAND, nullptr},
        {"quectel,rg500u", ACT_SET_5G_NSA_BAND, nsa_5g_band_set_unisoc_nr},
        {"quectel,rg500u", ACT_GET_NET_MODE_TECH, get_net_mode_tech_unisoc_nr},
        {"quectel,rg500u", ACT_GET_CELL_INFO, get_cell_info},
        {"quectel,rg500u", ACT_GET_NAT_CFG, nullptr},
    };
    for (const auto &row : rows) {
        const modem_driver *drv = modem_driver_by_id(row.compatible);
        ASSERT_NE(drv, nullptr) << row.compatible;
        EXPECT_EQ(drv->funcs[row.action], row.expected) << row.compatible << " " << act_type_id_str[row.action];
    }
    // The 5G modules report reject causes with +QNETRC; the others do not.
    const std::string qnetrc = "\r\n+QNETRC: \"emm_cause\",7\r\n";
    EXPECT_EQ(modem_driver_urc_method(modem_driver_by_id("quectel,rm520n"), qnetrc.data(), qnetrc.size()), urc_qnetrc);
    EXPECT_EQ(modem_driver_urc_method(modem_driver_by_id("quectel,ec25"), qnetrc.data(), qnetrc.size()), nullptr);
    // The upload report's checksum: hexadecimal on the Linux-based modules,
    // decimal on the others (as the base driver reads it).
    // The reports every Quectel model follows.
    for (const auto &[line, fn] :
         std::initializer_list<std::pair<std::string, urc_func>>{{"\r\n+QCSQ: \"GSM\",-71\r\n", urc_qcsq},
                                                                 {"\r\n+QIND: \"csq\",20,99\r\n", urc_qind},
                                                                 {"\r\n+EMM ERROR: 0,15\r\n", urc_emm},
                                                                 {"\r\n+ESM ERROR: 1,27\r\n", urc_esm},
                                                                 {"\r\n+EGMR: \"MPY21\"\r\n", urc_egmr},
                                                                 {"\r\nPOWERED DOWN\r\n", urc_power},
                                                                 {"\r\n+CPIN: READY\r\n", urc_cpin},
                                                                 {"\r\n+CUSD: 2\r\n", urc_cusd},
                                                                 {"\r\n+CMTI: \"SM\",3\r\n", urc_cmti},
                                                                 {"\r\nRING\r\n", urc_ring},
                                                                 {"\r\n+CEREG: 1\r\n", urc_cereg},
                                                                 {"\r\n+C5GREG: 1\r\n", urc_c5greg}})
        EXPECT_EQ(modem_driver_urc_method(modem_driver_by_id("quectel,ec25"), line.data(), line.size()), fn) << line;
    const std::string qfupl = "\r\n+QFUPL: 683,f6e\r\n";
    const std::pair<const char *, urc_func> checksums[] = {
        {"quectel,ec25,e", urc_qfupl_hex}, {"quectel,eg06", urc_qfupl_hex}, {"quectel,rm520n", urc_qfupl_hex},
        {"quectel,bg96", urc_qfupl},       {"quectel,ec200a", urc_qfupl},   {"quectel", urc_qfupl}};
    for (const auto &[compatible, fn] : checksums)
        EXPECT_EQ(modem_driver_urc_method(modem_driver_by_id(compatible), qfupl.data(), qfupl.size()), fn)
            << compatible;
}

} // namespace

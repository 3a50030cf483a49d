#include "drivers/quectel/quectel.h"

#include <algorithm>

#include "drivers/generic/driver_test_support.h"
#include "drivers/quectel/quectel_band.h"
#include "drivers/quectel/quectel_net.h"

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

TEST(QuectelDriver, ProbeWithdrawsActionsAndInstallsHandlers)
{
    // A parent that has every action.
    act_func any = [](modem *, int, ujson *, request *) { return 0; };
    modem_driver drv = {"Test AT", "test", nullptr, nullptr};
    std::fill(std::begin(drv.funcs), std::end(drv.funcs), any);
    EXPECT_EQ(quectel_driver_probe(&drv), 0);
    const uint32_t withdrawn[] = {ACT_SET_UE_USAGE_CFG,   ACT_GET_UE_USAGE_CFG,   ACT_SET_M2M_STATE,
                                  ACT_GET_M2M_STATE,      ACT_GET_MTU_INFO,       ACT_SET_MTU_INFO,
                                  ACT_GET_RAT_PRIORITY,   ACT_SET_RAT_PRIORITY,   ACT_GET_FROUTING_STATE,
                                  ACT_SET_FROUTING_STATE, ACT_GET_USSD_TEXT_MODE, ACT_SET_USSD_TEXT_MODE};
    // Replaced by Quectel's own commands (or, where Quectel firmware has no
    // command for them, by nothing).
    const uint32_t replaced[] = {
        ACT_GET_FIRMWARE, ACT_GET_SN, ACT_SET_GSM_BAND, ACT_SET_WCDMA_BAND, ACT_SET_LTE_BAND,
        ACT_SET_DEFAULT_BANDS, ACT_GET_BANDS, ACT_SET_CFG_SIGNAL_QRY, ACT_GET_CFG_SIGNAL_QRY, ACT_GET_SIGNAL_QRY,
        ACT_SET_GPRS_ATTACH, ACT_GET_GPRS_ATTACH, ACT_GET_MBN_LIST, ACT_MBN_DEACTIVATE, ACT_MBN_SELECT,
        ACT_SET_MBN_AUTO_SEL, ACT_GET_MBN_AUTO_SEL, ACT_SET_NET_MODE, ACT_GET_NET_MODE_TECH, ACT_GET_NET_MODE_TYPE,
        ACT_SET_ROAMING_SVC, ACT_GET_ROAMING_SVC, ACT_GET_TEMPERATURE, ACT_GET_ICCID, ACT_GET_NETWORK_INFO,
        ACT_GET_NEIGHBOUR_INFO, ACT_GET_PIN_COUNT, ACT_SET_URC_CFG, ACT_GET_URC_CFG, ACT_SET_DHCP_PKT_FLTR,
        ACT_GET_DHCP_PKT_FLTR, ACT_SET_USBNET_CFG, ACT_GET_USBNET_CFG, ACT_SET_NAT_CFG, ACT_GET_NAT_CFG,
        ACT_SET_IMS_STATE, ACT_GET_IMS_STATE, ACT_SET_VOLTE_STATE, ACT_GET_VOLTE_STATE, ACT_GET_VOLTE_READY,
        ACT_SET_APN_AUTH, ACT_GET_APN_AUTH, ACT_GET_TIME, ACT_SET_PDP_CTX_STATE, ACT_GET_ATTACHED_PDP_CTX_LIST,
        ACT_SET_DNS_ADDR, ACT_GET_CA_INFO, ACT_UPLOAD_FILE, ACT_GET_FILE_LIST, ACT_DELETE_FILE,
        ACT_GET_STORAGE_SPACE, ACT_DFOTA_UPGRADE, ACT_SET_NMEA, ACT_GET_NMEA, ACT_GET_SERVICE_PROVIDER,
        ACT_GNSS_START, ACT_SET_NMEA_OUTPORT, ACT_GNSS_STOP, ACT_GET_CELL_INFO, ACT_SET_URC_IND_CFG,
        ACT_GET_URC_IND_CFG, ACT_GET_PDP_PROFILE_REGISTRY, ACT_GET_LTE_SMS_FORMAT, ACT_SET_LTE_SMS_FORMAT,
        ACT_GET_FLASH_STATE, ACT_SET_CEFS_RESTORE, ACT_SET_SIM_SOFT_HOTPLUG, ACT_GET_SIM_SOFT_HOTPLUG,
        ACT_GET_EFS_VERSION, ACT_SET_URC_CAUSE_SUPPORT, ACT_GET_URC_CAUSE_SUPPORT, ACT_SET_DPO_MODE,
        ACT_GET_DPO_MODE, ACT_SET_USBCFG, ACT_GET_USBCFG, ACT_GET_QSIMDET, ACT_SET_QSIMDET, ACT_SET_SIM_SLOT,
        ACT_GET_SIM_SLOT};
    auto listed = [](const auto &table, uint32_t act) {
        return std::find(std::begin(table), std::end(table), act) != std::end(table);
    };
    for (uint32_t act = 0; act < __ACT_TYPE_MAX; act++) {
        if (listed(withdrawn, act))
            EXPECT_EQ(drv.funcs[act], nullptr) << act_type_id_str[act];
        else if (listed(replaced, act))
            EXPECT_NE(drv.funcs[act], any) << act_type_id_str[act];
        else
            EXPECT_EQ(drv.funcs[act], any) << act_type_id_str[act];
    }
    const std::pair<std::string, urc_func> handlers[] = {
        {"\r\n+QCSQ: \"GSM\",-71\r\n", urc_qcsq}, {"\r\n+QIND: \"csq\",20,99\r\n", urc_qind},
        {"\r\n+QFUPL: 683,3950\r\n", urc_qfupl},  {"\r\n+EMM ERROR: 0,15\r\n", urc_emm},
        {"\r\n+ESM ERROR: 1,27\r\n", urc_esm},    {"\r\n+EGMR: \"MPY21\"\r\n", urc_egmr},
        {"\r\nPOWERED DOWN\r\n", urc_power}};
    for (const auto &[line, fn] : handlers)
        EXPECT_EQ(modem_driver_urc_method(&drv, line.data(), line.size()), fn) << line;
    while (urc_entry *e = drv.urcs) {
        drv.urcs = e->next;
        delete e;
    }
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
    const std::string qfupl = "\r\n+QFUPL: 683,f6e\r\n";
    const std::pair<const char *, urc_func> checksums[] = {
        {"quectel,ec25,e", urc_qfupl_hex}, {"quectel,eg06", urc_qfupl_hex}, {"quectel,rm520n", urc_qfupl_hex},
        {"quectel,bg96", urc_qfupl},       {"quectel,ec200a", urc_qfupl},   {"quectel", urc_qfupl}};
    for (const auto &[compatible, fn] : checksums)
        EXPECT_EQ(modem_driver_urc_method(modem_driver_by_id(compatible), qfupl.data(), qfupl.size()), fn)
            << compatible;
}

} // namespace

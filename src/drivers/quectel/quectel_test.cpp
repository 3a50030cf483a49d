#include "drivers/quectel/quectel.h"

#include <vector>

#include "drivers/generic/driver_test_support.h"

namespace
{

std::string json_text(const ujson *json)
{
    char *text = json ? blobmsg_format_json(json->get_blobmsg(), true) : nullptr;
    std::string s = text ? text : "<none>";
    std::free(text);
    return s;
}

class QuectelUrcTest : public driver_test
{
};

// Firmware update progress: the event carries the state and its number, the
// bus event the same and the modem's USB id.
TEST_F(QuectelUrcTest, FotaStatesAreRaisedAndBroadcast)
{
    const struct {
        const char *line;
        int status;
        const char *data; // the event's data; null: neither event nor broadcast
    } rows[] = {
        {"\r\n+QIND: \"FOTA\",\"HTTPEND\",0\r\n", 0, R"({"error":0,"state_id":6,"state":"HTTPEND"})"},
        {"\r\n+QIND: \"FOTA\",\"DOWNLOADING\",45\r\n", 0, R"({"percent":45,"state_id":4,"state":"DOWNLOADING"})"},
        {"\r\n+QIND: \"FOTA\",\"DOWNLOADING\"\r\n", ACT_STATUS_INVALID_URC, nullptr},
        {"\r\n+QIND: \"FOTA\",\"FTPEND\"\r\n", ACT_STATUS_INVALID_URC, nullptr},
        {"\r\n+QIND: \"FOTA\",\"REBOOTING\"\r\n", 0, R"({"state_id":0,"state":"UNKNOWN"})"},
        // EC2x DFOTA from a local package: start, progress, end with 0 for
        // success (the URC forms of Quectel's DFOTA flow as published with
        // the fwupd modem-manager plugin).
        {"\r\n+QIND: \"FOTA\",\"START\"\r\n", 0, R"({"state_id":8,"state":"START"})"},
        {"\r\n+QIND: \"FOTA\",\"UPDATING\",50\r\n", 0, R"({"percent":50,"state_id":9,"state":"UPDATING"})"},
        {"\r\n+QIND: \"FOTA\",\"END\",0\r\n", 0, R"({"error":0,"state_id":10,"state":"END"})"},
        // A state that carries no number ignores one; case and a longer
        // text still name the state.
        {"\r\n+QIND: \"FOTA\",\"HTTPSTART\",7\r\n", 0, R"({"state_id":2,"state":"HTTPSTART"})"},
        {"\r\n+QIND: \"FOTA\",\"fileend\",552\r\n", 0, R"({"error":552,"state_id":7,"state":"FILEEND"})"},
        {"\r\n+QIND: \"FOTA\",\"ENDED\",3\r\n", 0, R"({"error":3,"state_id":10,"state":"END"})"},
        {"\r\n+QIND: \"FOTA\",START\r\n", ACT_STATUS_INVALID_URC, nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        mdm.events.clear();
        mdm.broadcasts.clear();
        EXPECT_EQ(urc(urc_qind, row.line), row.status);
        if (!row.data) {
            EXPECT_TRUE(mdm.events.empty());
            EXPECT_TRUE(mdm.broadcasts.empty());
            continue;
        }
        ASSERT_EQ(mdm.events.size(), 1u);
        EXPECT_EQ(mdm.events[0].id, EVT_FOTA_STATE);
        EXPECT_EQ(json_text(mdm.events[0].data.get()), row.data);
        ASSERT_EQ(mdm.broadcasts.size(), 1u);
        EXPECT_EQ(mdm.broadcasts[0].first, "gsm.fota_state");
        std::string sent = row.data;
        sent.insert(sent.size() - 1, R"(,"modem_id":"1-1.2")");
        EXPECT_EQ(mdm.broadcasts[0].second, sent);
    }
}

TEST_F(QuectelUrcTest, FotaStateIsRaisedEvenWhenTheBusEventFails)
{
    mdm.broadcast_result = 1;
    EXPECT_EQ(urc(urc_qind, "\r\n+QIND: \"FOTA\",\"END\",0\r\n"), 0);
    EXPECT_EQ(mdm.broadcasts.size(), 1u);
    ASSERT_EQ(mdm.events.size(), 1u);
    EXPECT_EQ(mdm.events[0].id, EVT_FOTA_STATE);
}

// Signal reports, each value as its own event, in the order reported.
TEST_F(QuectelUrcTest, SignalReportsRaiseOneEventPerValue)
{
    using events = std::vector<std::pair<uint32_t, int32_t>>;
    const struct {
        urc_func fn;
        const char *line;
        int status;
        events raised;
    } rows[] = {
        // EC25 signal indication (AT+QINDCFG="csq",1), +CSQ coding.
        {urc_qind, "\r\n+QIND: \"csq\",20,99\r\n", 0, {{EVT_RSSI, -73}, {EVT_BER, 99}}},
        {urc_qind, "\r\n+QIND: \"csq\",31,0\r\n", 0, {{EVT_RSSI, -51}, {EVT_BER, 0}}},
        {urc_qind, "\r\n+QIND: \"csq\",20\r\n", ACT_STATUS_INVALID_URC, {}},
        // EC25 boot-time and other indications this driver does not follow.
        {urc_qind, "\r\n+QIND: SMS DONE\r\n", ACT_STATUS_INVALID_URC, {}},
        {urc_qind, "\r\n+QIND: \"act\",\"LTE\"\r\n", ACT_STATUS_INVALID_URC, {}},
        {urc_qind, "\r\n+QIND\r\n", ACT_STATUS_INVALID_URC, {}},
        // LTE: RSSI, RSRP, SINR in 1/5 dB from -20 dB, RSRQ.
        {urc_qcsq,
         "\r\n+QCSQ: \"LTE\",-60,-90,100,-10\r\n",
         0,
         {{EVT_RSSI, -60}, {EVT_RSRP, -90}, {EVT_SINR, 0}, {EVT_RSRQ, -10}}},
        // EG06 answer to AT+QCSQ, SINR 150 = 10 dB (public forum log).
        {urc_qcsq,
         "\r\n+QCSQ: \"LTE\",-69,-102,150,-12\r\n",
         0,
         {{EVT_RSSI, -69}, {EVT_RSRP, -102}, {EVT_SINR, 10}, {EVT_RSRQ, -12}}},
        // BG96 on CAT-M1 (public BG96 examples).
        {urc_qcsq,
         "\r\n+QCSQ: \"CAT-M1\",-52,-81,195,-10\r\n",
         0,
         {{EVT_RSSI, -52}, {EVT_RSRP, -81}, {EVT_SINR, 19}, {EVT_RSRQ, -10}}},
        // Levels as magnitudes are made negative; a zero is no value.
        {urc_qcsq, "\r\n+QCSQ: \"wcdma\",67,72,5\r\n", 0, {{EVT_RSSI, -67}, {EVT_RSCP, -72}, {EVT_ECIO, -5}}},
        {urc_qcsq, "\r\n+QCSQ: \"LTE\",-60,0,0,-10\r\n", 0, {{EVT_RSSI, -60}, {EVT_RSRQ, -10}}},
        {urc_qcsq, "\r\n+QCSQ: \"GSM\",-71\r\n", 0, {{EVT_RSSI, -71}}},
        {urc_qcsq, "\r\n+QCSQ: \"NOSERVICE\"\r\n", 0, {}},
        {urc_qcsq, "\r\n+QCSQ: \"WIFI\",-60\r\n", ACT_STATUS_INVALID_URC, {}},
        {urc_qcsq, "\r\n+QCSQ: LTE,-60\r\n", ACT_STATUS_INVALID_URC, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        mdm.events.clear();
        EXPECT_EQ(urc(row.fn, row.line), row.status);
        events got;
        for (const auto &e : mdm.events)
            got.emplace_back(e.id, e.number);
        EXPECT_EQ(got, row.raised);
    }
}

// Reject causes from the network (constructed lines: <type>,<cause> and
// the bare cause some firmware prints for EMM).
TEST_F(QuectelUrcTest, RejectCausesAreRaisedWithTheirText)
{
    const struct {
        urc_func fn;
        const char *line;
        int status;
        uint32_t event;
        const char *data;
    } rows[] = {
        {urc_emm, "\r\n+EMM ERROR: 0,15\r\n", 0, EVT_EMM_ERROR,
         R"({"cause_id":15,"cause":"No suitable cells in tracking area"})"},
        {urc_emm, "\r\n+EMM ERROR: 7\r\n", 0, EVT_EMM_ERROR, R"({"cause_id":7,"cause":"EPS services not allowed"})"},
        {urc_emm, "\r\n+EMM ERROR: none\r\n", ACT_STATUS_INVALID_RESPONSE, 0, nullptr},
        {urc_esm, "\r\n+ESM ERROR: 1,27\r\n", 0, EVT_ESM_ERROR, R"({"cause_id":27,"cause":"Missing or unknown APN"})"},
        {urc_esm, "\r\n+ESM ERROR: 27\r\n", ACT_STATUS_INVALID_RESPONSE, 0, nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        mdm.events.clear();
        EXPECT_EQ(urc(row.fn, row.line), row.status);
        ASSERT_EQ(mdm.events.size(), row.data ? 1u : 0u);
        if (row.data) {
            EXPECT_EQ(mdm.events[0].id, row.event);
            EXPECT_EQ(json_text(mdm.events[0].data.get()), row.data);
        }
    }
}

TEST_F(QuectelUrcTest, UploadEndReportsSizeAndChecksum)
{
    const struct {
        urc_func fn;
        const char *line;
        int status;
        const char *data;
    } rows[] = {
        // Upload end with the 16-bit XOR checksum in hex (Quectel FILE
        // AT manual example, EC2x).
        {urc_qfupl_hex, "\r\n+QFUPL: 683,f6e\r\n", 0, R"({"size":683,"checksum":3950})"},
        {urc_qfupl, "\r\n+QFUPL: 683,3950\r\n", 0, R"({"size":683,"checksum":3950})"},
        {urc_qfupl, "\r\n+QFUPL: 683,f6e\r\n", ACT_STATUS_INVALID_RESPONSE, nullptr},
        {urc_qfupl, "\r\n+QFUPL: 683\r\n", ACT_STATUS_INVALID_RESPONSE, nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        mdm.events.clear();
        EXPECT_EQ(urc(row.fn, row.line), row.status);
        ASSERT_EQ(mdm.events.size(), row.data ? 1u : 0u);
        if (row.data) {
            EXPECT_EQ(mdm.events[0].id, EVT_FILE_UPLOAD);
            EXPECT_EQ(json_text(mdm.events[0].data.get()), row.data);
        }
    }
}

TEST_F(QuectelUrcTest, SerialNumberIsCached)
{
    // The quoted form of AT+EGMR=0,5 (EC25 field scripts).
    EXPECT_EQ(urc(urc_egmr, "\r\n+EGMR: \"MPY21ABC3456789\"\r\n"), 0);
    EXPECT_EQ(cached("serial_num"), "MPY21ABC3456789");
    EXPECT_EQ(urc(urc_egmr, "\r\n+EGMR: 5\r\n"), ACT_STATUS_INVALID_RESPONSE);
    EXPECT_EQ(cached("serial_num"), "MPY21ABC3456789");
}

// Actions Quectel firmware lacks are withdrawn from what the generic driver
// gives, the rest stays; the Quectel reports get their handlers.
TEST(QuectelDriver, ProbeWithdrawsActionsAndInstallsHandlers)
{
    // A driver that has every action, as its parent would give it.
    act_func any = [](modem *, int, ujson *, request *) { return 0; };
    modem_driver drv = {"Test AT", "test", nullptr, nullptr};
    std::fill(std::begin(drv.funcs), std::end(drv.funcs), any);
    EXPECT_EQ(quectel_driver_probe(&drv), 0);

    const uint32_t withdrawn[] = {ACT_SET_UE_USAGE_CFG,   ACT_GET_UE_USAGE_CFG,   ACT_SET_M2M_STATE,
                                  ACT_GET_M2M_STATE,      ACT_GET_MTU_INFO,       ACT_SET_MTU_INFO,
                                  ACT_GET_RAT_PRIORITY,   ACT_SET_RAT_PRIORITY,   ACT_GET_FROUTING_STATE,
                                  ACT_SET_FROUTING_STATE, ACT_GET_USSD_TEXT_MODE, ACT_SET_USSD_TEXT_MODE};
    for (uint32_t act = 0; act < __ACT_TYPE_MAX; act++) {
        bool gone = std::find(std::begin(withdrawn), std::end(withdrawn), act) != std::end(withdrawn);
        EXPECT_EQ(drv.funcs[act], gone ? nullptr : any) << act;
    }

    const std::pair<std::string, urc_func> handlers[] = {{"\r\n+QCSQ: \"LTE\",-60,-90,100,-10\r\n", urc_qcsq},
                                                         {"\r\n+QIND: \"csq\",20,99\r\n", urc_qind},
                                                         {"\r\n+QFUPL: 683,3950\r\n", urc_qfupl},
                                                         {"\r\n+EMM ERROR: 0,15\r\n", urc_emm},
                                                         {"\r\n+ESM ERROR: 1,27\r\n", urc_esm},
                                                         {"\r\n+EGMR: \"MPY21\"\r\n", urc_egmr},
                                                         {"\r\nPOWERED DOWN\r\n", urc_power}};
    for (const auto &[line, fn] : handlers)
        EXPECT_EQ(modem_driver_urc_method(&drv, line.data(), line.size()), fn) << line;
    while (urc_entry *e = drv.urcs) {
        drv.urcs = e->next;
        delete e;
    }

    // Every Quectel model inherits the withdrawal.
    for (const char *id : {"quectel", "quectel,ec25"}) {
        const modem_driver *registered = modem_driver_by_id(id);
        ASSERT_NE(registered, nullptr) << id;
        EXPECT_EQ(modem_driver_check_func(registered, ACT_GET_USSD_TEXT_MODE), 0) << id;
    }
}

} // namespace

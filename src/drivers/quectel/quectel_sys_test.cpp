#include "drivers/quectel/quectel_sys.h"

#include "drivers/generic/testdata_answers.h"
#include "util/root_test_support.h"

namespace
{

using namespace quectel;

class QuectelSysTest : public driver_case_test
{
};

TEST_F(QuectelSysTest, CommandsAndAnswers)
{
    const named_fn fns[] = {ACTION(get_firmware),         ACTION(get_sn),          ACTION(get_iccid),
                            ACTION(get_pin_count),        ACTION(set_urc_cfg),     ACTION(get_urc_cfg),
                            ACTION(set_urc_ind_cfg),      ACTION(get_urc_ind_cfg), ACTION(set_dhcp_pkt_fltr),
                            ACTION(get_dhcp_pkt_fltr),    ACTION(set_usbnet_cfg),  ACTION(get_usbnet_cfg),
                            ACTION(get_nat_cfg_nr),       ACTION(set_ims_state),   ACTION(get_ims_state),
                            ACTION(set_volte_state),      ACTION(get_volte_state), ACTION(get_volte_ready),
                            ACTION(get_qsimdet),          ACTION(set_qsimdet),     ACTION(set_sim_soft_hotplug),
                            ACTION(get_sim_soft_hotplug), ACTION(get_temperature), ACTION(get_flash_state),
                            ACTION(get_mbn_list),         ACTION(mbn_deactivate),  ACTION(set_mbn_select),
                            ACTION(set_mbn_auto_sel),     ACTION(get_mbn_auto_sel)};
    run_cases("quectel", "sys.txt", fns);
}

TEST_F(QuectelSysTest, IdentityIsCachedOnlyWhenRead)
{
    // cached: "<none>": nothing cached
    // clang-format off
    const struct { act_func fn; const char *answer; const char *key; const char *cached; } rows[] = {
        // EG25-G capture.
        {get_firmware, "\r\nEG25GGBR07A08M2G\r\n\r\nOK\r\n\r\nEG25GGBR07A08M2G_30.203.30.203\r\n\r\nOK\r\n", "firmware", "EG25GGBR07A08M2G"},
        // EM05-G still starting (peer driver notes): retried later, not cached.
        {get_firmware, "\r\nEM05GFAR07A07M1G\r\n\r\nOK\r\n\r\nEM05GFAR07A07M1G_01.016.00.000\r\n\r\nOK\r\n", "firmware", "<none>"},
        {get_sn, "\r\n+EGMR: \"MPY21ABC3456789\"\r\n\r\nOK\r\n", "serial_num", "MPY21ABC3456789"},
        // EC25 AT manual example, and a SIM with the filler F.
        {get_iccid, "\r\n+QCCID: 89860025128306012474\r\n\r\nOK\r\n", "iccid", "89860025128306012474"},
        {get_iccid, "\r\n+QCCID: 8944110068256270054F\r\n\r\nOK\r\n", "iccid", "8944110068256270054"},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        cache = cache_manager::create();
        mdm.set_cache(cache.get());
        parse(row.fn, row.answer);
        EXPECT_EQ(cached(row.key), row.cached);
    }
}

TEST_F(QuectelSysTest, ImsChangeRestartsTheModemOnlyWhenAsked)
{
    // clang-format off
    const struct { const char *args; const char *answer; int status; const char *reply; } rows[] = {
        // No bus in the test: the restart request cannot go out and says so.
        {R"({"state":"enable","apply":true})", "\r\nOK\r\n", 0, R"({"restart":true,"rebooting":false})"},
        {R"({"state":"enable","apply":false})", "\r\nOK\r\n", 0, R"({"restart":true})"},
        // The modem refused the setting: no restart is asked for.
        {R"({"state":"enable","apply":true})", "\r\nERROR\r\n", ACT_STATUS_INVALID_RESPONSE, "{}"},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        auto json = ujson::create();
        ASSERT_TRUE(blobmsg_add_json_from_string(json->buffer(), row.args));
        ASSERT_EQ(build(set_ims_state, json.get()), 0);
        EXPECT_EQ(parse(set_ims_state, row.answer), row.status);
        EXPECT_EQ(as_json(*reply), row.reply);
    }
}

TEST_F(QuectelSysTest, OneSimDetectionValueKeepsTheOther)
{
    // answer: the modem's current setting (manual form); written: arguments of the queued write, "" none; write: the
    // command that write sends
    // clang-format off
    const struct { const char *args; const char *answer; int status; const char *written; const char *write; } rows[] = {
        {R"({"enabled":true})", "\r\n+QSIMDET: 0,1\r\n\r\nOK\r\n", 0, R"({"enabled":true,"insert_level":1})", "AT+QSIMDET=1,1\r"},
        {R"({"insert_level":0})", "\r\n+QSIMDET: 1,1\r\n\r\nOK\r\n", 0, R"({"enabled":true,"insert_level":0})", "AT+QSIMDET=1,0\r"},
        // The current setting cannot be read: nothing is written.
        {R"({"enabled":true})", "\r\nERROR\r\n", ACT_STATUS_INVALID_RESPONSE, "", ""},
        {R"({"enabled":true})", "\r\n+QSIMDET: 1\r\n\r\nOK\r\n", ACT_STATUS_INVALID_RESPONSE, "", ""},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        mdm.refreshed.clear();
        mdm.refresh_args.clear();
        auto json = ujson::create();
        ASSERT_TRUE(blobmsg_add_json_from_string(json->buffer(), row.args));
        ASSERT_EQ(build(set_qsimdet, json.get()), 0);
        EXPECT_EQ(command(), "AT+QSIMDET?\r");
        EXPECT_EQ(parse(set_qsimdet, row.answer), row.status);
        if (*row.written) {
            ASSERT_EQ(mdm.refreshed, std::vector<uint32_t>{ACT_SET_QSIMDET});
            EXPECT_EQ(mdm.refresh_args[0], row.written);
            // The queued write comes back with both values and is sent as such.
            auto again = ujson::create();
            ASSERT_TRUE(blobmsg_add_json_from_string(again->buffer(), row.written));
            ASSERT_EQ(build(set_qsimdet, again.get()), 0);
            EXPECT_EQ(command(), row.write);
            EXPECT_EQ(parse(set_qsimdet, "\r\nOK\r\n"), 0);
            EXPECT_EQ(as_json(*reply), R"({"restart":true})");
        } else {
            EXPECT_TRUE(mdm.refreshed.empty());
        }
    }
}

// --- SIM slots ------------------------------------------------------------------------

TEST(QuectelSimSlot, TheBoardOrTheModemSwitches)
{
    // Factory slot texts: control type, modem, type, switch 1, switch 2, presence.
    const std::string gpio = "211101\n211201\n", internal = "111001\n111001\n", single = "011001\n";
    // index: "index" argument, -1 none; command: "" none; slot: reply "index", -1 none; event: EVT_SIM_CHANGE value, -1
    // none; line: switch 1 after the action
    // clang-format off
    const struct { const char *what; std::string factory; act_func fn; int index; int build_status; const char *command; const char *answer; int parse_status; int slot; int event; const char *line; } rows[] = {
        // Selector lines on the board: the radio goes off and the line is switched.
        {"gpio select", gpio, quectel_set_sim_slot, 2, 0, "AT+CFUN=0\r", "\r\nOK\r\n", 0, 2, 2, "1"},
        // Two slots and no line: the modem's own interfaces, 0-based on EC2x.
        {"qdsim select 2", internal, quectel_set_sim_slot, 2, 0, "AT+QDSIM=1\r", "\r\nOK\r\n", 0, 2, 2, "0"},
        {"qdsim refused", internal, quectel_set_sim_slot, 2, 0, "AT+QDSIM=1\r", "\r\nERROR\r\n", 5, -1, -1, "0"},
        {"qdsim beyond the slots", internal, quectel_set_sim_slot, 3, 2, "", "", 0, -1, -1, "0"},
        // EC2x manual form of the read.
        {"qdsim read", internal, quectel_get_sim_slot, -1, 0, "AT+QDSIM?\r", "\r\n+QDSIM: 1\r\n\r\nOK\r\n", 0, 2, -1, "0"},
        {"qdsim read dash", internal, quectel_get_sim_slot, -1, 0, "AT+QDSIM?\r", "\r\n+QDSIM: -\r\n\r\nOK\r\n", 5, -1, -1, "0"},
        // RM5xx: 1-based slot numbers.
        {"quimslot select", internal, quectel_set_sim_slot_nr, 2, 0, "AT+QUIMSLOT=2\r", "\r\nOK\r\n", 0, 2, 2, "0"},
        {"quimslot read", internal, quectel_get_sim_slot_nr, -1, 0, "AT+QUIMSLOT?\r", "\r\n+QUIMSLOT:1\r\n\r\nOK\r\n", 0, 1, -1, "0"},
        {"quimslot read 0", internal, quectel_get_sim_slot_nr, -1, 0, "AT+QUIMSLOT?\r", "\r\n+QUIMSLOT: 0\r\n\r\nOK\r\n", 5, -1, -1, "0"},
        // One slot is no dual-SIM: the board path, which has only slot 1.
        {"single slot", single, quectel_get_sim_slot, -1, 0, "AT\r", "\r\nOK\r\n", 0, 1, -1, "0"},
        {"single slot select 2", single, quectel_set_sim_slot, 2, 2, "", "", 0, -1, -1, "0"},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        temp_root root;
        root.write("/sys/class/gpio/sim_sel/value", "0");
        root.write("/etc/mnfinfo/sim_cfg", row.factory);
        slot_modem mdm;
        mdm.wire();
        auto args = ujson::create();
        if (row.index >= 0)
            args->add_int("index", row.index);
        request req;
        ASSERT_EQ(row.fn(&mdm, 0, args.get(), &req), row.build_status);
        EXPECT_EQ(req.command ? std::string(req.command, req.length) : "", row.command);
        auto reply = ujson::create();
        if (req.command) {
            std::string answer = row.answer;
            mdm.set_response(answer.data(), answer.size());
            EXPECT_EQ(row.fn(&mdm, 1, reply.get(), &req), row.parse_status);
        }
        std::free(req.command);
        std::free(req.extra);
        EXPECT_EQ(reply->exists("index") ? reply->get_int("index") : -1, row.slot);
        int event = -1;
        for (const auto &e : mdm.events)
            event = e.id == EVT_SIM_CHANGE ? e.number : event;
        EXPECT_EQ(event, row.event);
        EXPECT_EQ(root.read("/sys/class/gpio/sim_sel/value").substr(0, 1), row.line);
    }
}

} // namespace

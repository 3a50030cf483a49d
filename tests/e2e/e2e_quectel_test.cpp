// The Quectel drivers through the real processes, one test per family: the
// simulated modem answers in its family's formats, so a model bound to the
// wrong family's driver reads the wrong values (or none) here.
#include "tests/e2e/e2e_harness.h"

namespace e2e {
namespace {

const char *const rm520n_description = R"({"desc":"RM520N","boudrate":115200,"control":2,"gps":1,"gps_optional":true})";
const char *const bg96_description = R"({"desc":"BG96","boudrate":115200,"control":2,"gps":1,"gps_optional":true})";

class Quectel : public ServedModemTest
{
  protected:
    // The errno of a call on the modem, and the simulator saw no command.
    void refused(modem_sim &sim, const std::string &method, const std::string &args)
    {
        int64_t executed = sim_stat(sim, "executed");
        EXPECT_EQ(call_errno(method, args), 2) << method << " " << args;
        EXPECT_EQ(sim_stat(sim, "executed"), executed) << method << " " << args;
    }
    // A method the bound driver has no implementation of.
    void unsupported(const std::string &method, const std::string &args = "{}")
    {
        call_result r = bus->call(modem0, method, args);
        EXPECT_EQ(r.status, UBUS_STATUS_NOT_SUPPORTED) << method << ": " << r.reply.json();
    }
    static bool has(const bus_message &m, const std::string &text) { return m.json().find(text) != std::string::npos; }
};

// EC25-E: AT+QCFG bands in three hex fields, QENG SINR in dB, QCSQ, carrier
// profiles, GNSS, and the actions Quectel withdraws.
TEST_F(Quectel, Ec25)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(ok("get_firmware").text("firmware_full"), "EC25EFAR06A06M4G_01.001.01.001");

    bus_message sig = ok("get_signal_query");
    EXPECT_EQ(sig.text("mode"), "LTE") << sig.json();
    EXPECT_EQ(sig.number("sinr"), 12); // 160 in steps of 1/5 dB from -20
    bus_message cell = ok("get_serving_cell");
    EXPECT_TRUE(has(cell, R"("rat":"LTE")") && has(cell, R"("band":"B3")") && has(cell, R"("sinr":12,)"))
        << cell.json();
    EXPECT_TRUE(has(ok("get_network_info"), R"("band":"B3","channel":1300)"));

    // Bands: the LTE field changes, the others stay; outside the module's
    // bands or of another family: refused with nothing sent.
    ok("set_lte_band", R"({"bands":["LTE_B3","LTE_B20"]})");
    bus_message bands = ok("get_bands");
    EXPECT_TRUE(has(bands, R"("lte":["LTE_B3","LTE_B20"])")) << bands.json();
    EXPECT_TRUE(has(bands, R"("gsm":["GSM_900","GSM_1800"])")) << bands.json();
    EXPECT_EQ(sim.control("get band2"), "0x80004\nOK\n");
    refused(sim, "set_lte_band", R"({"bands":["LTE_B71"]})");
    refused(sim, "set_lte_band", R"({"bands":["NSA_5G_N78"]})");
    refused(sim, "set_lte_band", R"({"bands":["LTE_B3\""]})");
    refused(sim, "set_lte_band", R"({"bands":[]})");
    unsupported("set_5g_sa_band", R"({"bands":["5G_N78"]})");

    ok("set_gprs_attach_mode", R"({"mode":"manual"})");
    EXPECT_EQ(sim.control("get gprsattach"), "0\nOK\n");
    ok("set_roaming_svc", R"({"mode":"disable"})");
    EXPECT_EQ(ok("get_roaming_svc").text("mode"), "Disabled");

    bus_message mbn = ok("get_mbn_list");
    EXPECT_TRUE(has(mbn, R"("selected":true,"activated":true,"name":"Commercial-DT")")) << mbn.json();
    EXPECT_TRUE(has(ok("set_mbn_select", R"({"mbn_name":"ROW_Generic_3GPP"})"), R"("restart":true)"));
    refused(sim, "set_mbn_select", R"({"mbn_name":"a\"b"})");
    refused(sim, "set_mbn_select", R"({"mbn_name":"../x"})");

    EXPECT_EQ(ok("get_temperature").number("temperature"), 37);
    EXPECT_EQ(ok("get_iccid").text("iccid"), "8949020000012345670");
    EXPECT_EQ(ok("get_pin_count").number("puk_count"), 10);
    EXPECT_EQ(ok("get_time", R"({"mode":"nitz"})").json().find(R"("synchronised":true)") != std::string::npos, true);
    EXPECT_TRUE(has(ok("get_volte_ready"), R"("ready":true)"));

    // GNSS: on, a fix some seconds later, off.
    EXPECT_TRUE(has(ok("gnss_start"), R"("running":true)"));
    EXPECT_TRUE(bus->wait_until(10000, [&] { return has(ok("get_nmea", R"({"satellite":"gps"})"), R"("fix":"3D")"); }))
        << ok("get_nmea", R"({"satellite":"gps"})").json();
    refused(sim, "gnss_start", R"({"fix_max_time":0})");
    refused(sim, "set_nmea", R"({"satellite":"glonass","types":["RMC"]})");
    EXPECT_TRUE(has(ok("gnss_stop"), R"("running":false)"));

    // The signal report the modem sends on its own, once enabled.
    ok("set_signal_query_cfg", R"({"mode":"enable","change_threshold":0,"report_interval":0})");
    sim.control("do signal 20");
    EXPECT_TRUE(notified("rssi_value", [](const bus_message &m) { return m.number("rssi_value") == -73; }))
        << diagnostics();

    unsupported("get_rat_priority");
    unsupported("get_ussd_text_mode");
    unsupported("set_lte_nb_band", R"({"bands":["LTE_NB20"]})");
}

// RM520N-GL: AT+QNWPREFCFG band lists and modes, the three serving-cell
// forms with the 5G SINR scale, carrier aggregation, reject causes.
TEST_F(Quectel, Rm520n)
{
    usb_device dev;
    dev.pid = "0801";
    modem_sim &sim = serve(dev, rm520n_description, "rm520n");
    ASSERT_FALSE(HasFatalFailure());

    bus_message cell = ok("get_serving_cell");
    EXPECT_TRUE(has(cell, R"("rat":"NR5G-SA")") && has(cell, R"("band":"n78")") && has(cell, R"("scs":30)"))
        << cell.json();
    EXPECT_EQ(ok("get_net_mode_type").text("mode"), "5G-SA");
    bus_message ca = ok("get_ca_info");
    EXPECT_TRUE(has(ca, R"("role":"pcc","rat":"NR5G","band":"n78")")) << ca.json();

    sim.control("do nsa");
    cell = ok("get_serving_cell");
    // The LTE anchor's SINR on the 5G modules: 2 * raw - 20 dB.
    EXPECT_TRUE(has(cell, R"("rat":"LTE")") && has(cell, R"("rat":"NR5G-NSA")")) << cell.json();
    EXPECT_TRUE(has(cell, R"("sinr_raw":16,"sinr":12,)")) << cell.json();
    EXPECT_EQ(ok("get_net_mode_type").text("mode"), "5G-NSA");
    sim.control("do sa");

    ok("set_5g_sa_band", R"({"bands":["5G_N78","5G_N41"]})");
    EXPECT_EQ(sim.control("get pref_nr5g_band"), "41:78\nOK\n");
    ok("set_5g_nsa_band", R"({"bands":["NSA_5G_N78"]})");
    ok("set_lte_band", R"({"bands":["LTE_B3","LTE_B7","LTE_B20"]})");
    bus_message bands = ok("get_bands");
    EXPECT_TRUE(has(bands, R"("5g":["5G_N41","5G_N78"])")) << bands.json();
    EXPECT_TRUE(has(bands, R"("nsa_5g":["NSA_5G_N78"])")) << bands.json();
    EXPECT_TRUE(has(bands, R"("lte":["LTE_B3","LTE_B7","LTE_B20"])")) << bands.json();
    refused(sim, "set_5g_sa_band", R"({"bands":[]})");
    refused(sim, "set_5g_sa_band", R"({"bands":["5G_N100"]})");
    refused(sim, "set_5g_nsa_band", R"({"bands":["5G_N78"]})");
    unsupported("set_gsm_band", R"({"bands":["GSM_900"]})");

    ok("set_net_mode", R"({"mode":"lte_nr5g"})");
    EXPECT_EQ(sim.control("get pref_mode_pref"), "LTE:NR5G\nOK\n");
    EXPECT_EQ(ok("get_net_mode").text("mode"), "LTE_NR5G");
    ok("set_nr5g_disable_mode", R"({"mode":"nsa"})");
    EXPECT_EQ(ok("get_nr5g_disable_mode").number("mode_id"), 3);

    ok("set_urc_cause_support", R"({"enabled":true})");
    sim.control("do reject emm 7");
    EXPECT_TRUE(notified("emm_error", [](const bus_message &m) {
        auto t = m.table("emm_error");
        return (t && t->number("cause_id") == 7) || m.number("cause_id") == 7;
    })) << diagnostics();

    EXPECT_EQ(ok("get_temperature").number("temperature"), 41); // the ambient sensor
}

// BG96: GSM, LTE Cat-M1 and NB-IoT band fields, its scan sequence codes, and
// its own numbering of the radio in registration reports.
TEST_F(Quectel, Bg96)
{
    usb_device dev;
    dev.pid = "0296";
    modem_sim &sim = serve(dev, bg96_description, "bg96");
    ASSERT_FALSE(HasFatalFailure());

    ok("set_net_ereg_stat", R"({"mode":"enable_loc"})");
    bus_message reg = ok("get_net_ereg_stat");
    EXPECT_EQ(reg.number("act_id"), 8) << reg.json(); // E-UTRAN, not EC-GSM-IoT
    EXPECT_EQ(ok("get_net_reg_stat_all").number("act_id"), 8);
    bus_message sig = ok("get_signal_query");
    EXPECT_EQ(sig.text("mode"), "CAT-M1") << sig.json();
    EXPECT_EQ(sig.number("sinr"), 19);
    EXPECT_TRUE(has(ok("get_serving_cell"), R"("rat":"eMTC")"));

    ok("set_lte_nb_band", R"({"bands":["LTE_NB20","LTE_NB8"]})");
    bus_message bands = ok("get_bands");
    EXPECT_TRUE(has(bands, R"("lte_nb":["LTE_NB8","LTE_NB20"])")) << bands.json();
    EXPECT_TRUE(has(bands, R"("gsm":["GSM_850","GSM_900","GSM_1800","GSM_1900"])")) << bands.json();
    EXPECT_EQ(sim.control("get band3"), "0x80080\nOK\n");
    refused(sim, "set_lte_band", R"({"bands":["LTE_B7"]})");
    unsupported("set_wcdma_band", R"({"bands":["WCDMA_2100"]})");

    bus_message mode = ok("get_net_mode");
    EXPECT_TRUE(has(mode, R"("scan_seq":["eMTC","NB-IoT","GSM"])")) << mode.json();
    ok("set_net_mode", R"({"mode":"lte"})");
    EXPECT_EQ(ok("get_net_mode").text("mode"), "LTE");
    refused(sim, "set_net_mode", R"({"mode":"wcdma"})");

    bus_message mbn = ok("get_mbn_list"); // lower-case verbs on this family
    EXPECT_TRUE(has(mbn, R"("name":"Commercial-DT")")) << mbn.json();
}

} // namespace
} // namespace e2e

// The Quectel drivers through the real processes, one run per family: the
// simulated modem answers in its family's formats, so a model bound to the
// wrong family's driver reads the wrong values (or none) here.
#include "tests/e2e/e2e_harness.h"

namespace e2e
{
namespace
{

// A call and a text its JSON reply holds, or (method "sim") an operator
// command and the simulator's exact reply.
struct step {
    const char *method, *args, *want;
    int status = 0;
};

struct family {
    const char *model, *pid, *scenario;
    std::vector<step> steps;
};

// Test names and failure reports show the model, not the record's bytes.
void PrintTo(const family &f, std::ostream *os)
{
    *os << f.model;
}

// clang-format off
const family families[] = {
    // AT+QCFG bands in three hex fields, QENG SINR in steps of 1/5 dB from -20.
    {"EC25", "0125", "ec25", {
      {"get_firmware", "{}", R"("firmware_full":"EC25EFAR06A06M4G_01.001.01.001")"},
      {"get_signal_query", "{}", R"("mode":"LTE")"},
      {"get_signal_query", "{}", R"("sinr":12,)"},
      {"get_serving_cell", "{}", R"("band":"B3")"},
      {"get_network_info", "{}", R"("band":"B3","channel":1300)"},
      {"set_lte_band", R"({"bands":["LTE_B3","LTE_B20"]})", ""},
      {"get_bands", "{}", R"("gsm":["GSM_900","GSM_1800"],"wcdma":["WCDMA_850","WCDMA_900","WCDMA_2100"],)"
                          R"("ltebandval":"0x80004","lte":["LTE_B3","LTE_B20"],"tdsbandval":"0x0")"},
      {"sim", "get band2", "0x80004\nOK\n"},
      {"get_mbn_list", "{}", R"("selected":true,"activated":true,"name":"Commercial-DT")"},
      {"get_temperature", "{}", R"("temperature":37)"},
      {"get_rat_priority", "{}", nullptr, UBUS_STATUS_NOT_SUPPORTED},
      {"set_5g_sa_band", R"({"bands":["5G_N78"]})", nullptr, UBUS_STATUS_NOT_SUPPORTED}}},
    // AT+QNWPREFCFG band lists and modes, the serving-cell forms with the 5G
    // SINR scale (2 * raw - 20 dB on the LTE anchor), the 5GS registration.
    {"RM520N", "0801", "rm520n", {
      {"get_serving_cell", "{}", R"("band":"n78")"},
      {"get_serving_cell", "{}", R"("rat":"NR5G-SA")"},
      {"get_net_mode_type", "{}", R"("mode":"5G-SA")"},
      {"get_ca_info", "{}", R"("role":"pcc","rat":"NR5G","band":"n78")"},
      {"sim", "do nsa", "OK\n"},
      {"get_serving_cell", "{}", R"("sinr_raw":16,"sinr":12,)"},
      {"get_net_mode_type", "{}", R"("mode":"5G-NSA")"},
      {"sim", "do sa", "OK\n"},
      {"set_5g_sa_band", R"({"bands":["5G_N78","5G_N41"]})", ""},
      {"sim", "get pref_nr5g_band", "41:78\nOK\n"},
      {"get_bands", "{}", R"("5g":["5G_N41","5G_N78"])"},
      {"set_net_mode", R"({"mode":"lte_nr5g"})", ""},
      {"sim", "get pref_mode_pref", "LTE:NR5G\nOK\n"},
      {"set_net_5greg_stat", R"({"mode":"enable_loc"})", ""},
      {"get_net_5greg_stat", "{}", R"("reg_tac":"41394")"},
      {"get_temperature", "{}", R"("temperature":41)"},
      {"set_gsm_band", R"({"bands":["GSM_900"]})", nullptr, UBUS_STATUS_NOT_SUPPORTED}}},
    // GSM, LTE Cat-M1 and NB-IoT band fields, scan sequence codes, and its own
    // numbering of the radio in registration reports (8: E-UTRAN).
    {"BG96", "0296", "bg96", {
      {"set_net_ereg_stat", R"({"mode":"enable_loc"})", ""},
      {"get_net_ereg_stat", "{}", R"("act_id":8)"},
      {"get_signal_query", "{}", R"("mode":"CAT-M1")"},
      {"get_signal_query", "{}", R"("sinr":19)"},
      {"get_serving_cell", "{}", R"("rat":"eMTC")"},
      {"set_lte_nb_band", R"({"bands":["LTE_NB20","LTE_NB8"]})", ""},
      {"get_bands", "{}", R"("lte_nb":["LTE_NB8","LTE_NB20"])"},
      {"sim", "get band3", "0x80080\nOK\n"},
      {"get_net_mode", "{}", R"("scan_seq":["eMTC","NB-IoT","GSM"])"},
      {"get_mbn_list", "{}", R"("name":"Commercial-DT")"},
      {"set_wcdma_band", R"({"bands":["WCDMA_2100"]})", nullptr, UBUS_STATUS_NOT_SUPPORTED}}},
};
// clang-format on

class Quectel : public ServedModemTest, public testing::WithParamInterface<family>
{
};

TEST_P(Quectel, FamilyFormats)
{
    const family &f = GetParam();
    usb_device dev;
    dev.pid = f.pid;
    modem_sim &sim = serve(dev, f.model, f.scenario);
    ASSERT_FALSE(HasFailure());
    for (const step &s : f.steps) {
        SCOPED_TRACE(std::string(s.method) + " " + s.args);
        if (std::string(s.method) == "sim") {
            EXPECT_EQ(sim.control(s.args), s.want);
            continue;
        }
        call_result r = bus->call(modem0, s.method, s.args);
        EXPECT_EQ(r.status, s.status);
        EXPECT_FALSE(r.reply.has("errno")) << r.reply.json();
        EXPECT_NE(r.reply.json().find(s.want ? s.want : ""), std::string::npos) << r.reply.json();
    }
}

INSTANTIATE_TEST_SUITE_P(Families, Quectel, testing::ValuesIn(families),
                         [](const auto &info) { return std::string(info.param.model); });

} // namespace
} // namespace e2e

#include "core/analysis.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace {

int act_one(modem *, int, ujson *, request *) { return 0; }
int act_two(modem *, int, ujson *, request *) { return 0; }
int act_three(modem *, int, ujson *, request *) { return 0; }

int vendor_probe(modem_driver *d)
{
    modem_driver_override(d, ACT_GET_IMEI, act_one);
    modem_driver_override(d, ACT_GET_IMSI, act_one);
    modem_driver_override(d, ACT_GET_ICCID, act_one);
    return 0;
}

int model_probe(modem_driver *d)
{
    modem_driver_override(d, ACT_GET_IMEI, act_two);  // replaced
    modem_driver_override(d, ACT_GET_ICCID, nullptr); // removed
    return 0;
}

int variant_probe(modem_driver *d)
{
    modem_driver_override(d, ACT_GET_IMEI, act_three);
    return 0;
}

std::string run(const modem_driver_registry &reg)
{
    char *buf = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&buf, &size);
    analysis_run(reg, f);
    fclose(f);
    std::string out(buf, size);
    free(buf);
    return out;
}

std::string row(unsigned action, bool yes, const char *chain)
{
    char line[256];
    snprintf(line, sizeof(line), "%-4u %-35s %-20s %-15s\n", action + 1, act_type_id_str[action],
             yes ? "\e[32myes\e[0m" : "\e[31mno\e[0m", chain);
    return line;
}

std::string section(const std::string &out, const char *driver)
{
    size_t start = out.find(std::string("\nMethods on ") + driver + " driver:\n");
    EXPECT_NE(start, std::string::npos) << driver;
    size_t end = out.find("\nMethods on ", start + 1);
    return out.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

TEST(AnalysisTest, ReportsSupportAndOverrideChains)
{
    modem_driver_registry reg;
    modem_driver root{"Root AT", "root", nullptr, vendor_probe};
    modem_driver model{"Model AT", "root,model", "root", model_probe};
    modem_driver variant{"Variant AT", "root,model,v", "root,model", variant_probe};
    ASSERT_EQ(reg.add(&root), 0);
    ASSERT_EQ(reg.add(&model), 0);
    ASSERT_EQ(reg.add(&variant), 0);

    std::string out = run(reg);
    EXPECT_EQ(out.rfind("Running driver analysis...\nTotal registered drivers: 3\n\n"
                        "#    Name                      Compatible           Overrides      \n" +
                            std::string(62, '-') + "\n" +
                            "1    Root AT                   root                 none           \n"
                            "2    Model AT                  root,model           root           \n"
                            "3    Variant AT                root,model,v         root,model     \n" +
                            std::string(62, '-') + "\n\nListing methods...\n\n",
                        0),
              0u)
        << out;

    std::string r = section(out, "Root AT");
    EXPECT_NE(r.find("#    Name                                Supported   Override chain \n" + std::string(67, '-')),
              std::string::npos);
    EXPECT_NE(r.find(row(ACT_AT_COMMAND, true, "--")), std::string::npos); // always supported
    EXPECT_NE(r.find(row(ACT_GET_IMEI, true, "--")), std::string::npos);   // no parent: no chain
    EXPECT_NE(r.find(row(ACT_GET_FIRMWARE, false, "--")), std::string::npos);

    std::string m = section(out, "Model AT");
    EXPECT_NE(m.find(row(ACT_GET_IMEI, true, "Model AT -> Root AT")), std::string::npos);
    EXPECT_NE(m.find(row(ACT_GET_IMSI, true, "--")), std::string::npos); // inherited unchanged
    EXPECT_NE(m.find(row(ACT_GET_ICCID, false, "--")), std::string::npos);

    std::string v = section(out, "Variant AT");
    EXPECT_NE(v.find(row(ACT_GET_IMEI, true, "Variant AT -> Model AT-> Root AT")), std::string::npos) << v;
    EXPECT_NE(v.find(row(__ACT_TYPE_MAX - 1, false, "--")), std::string::npos);
    reg.cleanup();
}

} // namespace

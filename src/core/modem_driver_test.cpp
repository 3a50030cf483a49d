#include "core/modem_driver.h"

#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/modem.h"

namespace
{

// The registration of the linked drivers, in order, is checked by the
// analysis report's golden file.
TEST(DriverLookup, FindFallsBackFromVariantToModelToVendorToGeneric)
{
    const struct {
        const char *vendor, *model, *variant, *expected;
    } cases[] = {
        // clang-format off
        {"quectel", "ec25", "af", "Quectel EC25 AF(D) AT"}, // the first of two "quectel,ec25,af"
        {"quectel", "ec25", "e", "Quectel EC25-E AT"},
        {"quectel", "ec25", "zz", "Quectel EC25 AT"},
        {"quectel", "xx99", "", "Quectel AT"},
        {"quectel", "", "a", "Quectel AT"},
        {"QUECTEL", "BG96", "", "Quectel BG96 AT"},
        {"Quectel", "Bg95", "M4", "Quectel BG95-M4 AT"},
        {"telit", "fn990", "", "Telit FN990 AT"},
        {"", "", "", "Generic AT"},
        {"quectel", "ec25", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", "Quectel EC25 AT"}, // keys are cut to 31
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.vendor << "," << c.model << "," << c.variant);
        modem_driver *d = modem_driver_find(c.vendor, c.model, c.variant);
        ASSERT_NE(d, nullptr);
        EXPECT_STREQ(d->name, c.expected);
    }
    EXPECT_EQ(modem_driver_by_id("quectel,bg9"), nullptr);
    EXPECT_EQ(modem_driver_by_id("quectel,bg966"), nullptr);
    EXPECT_STREQ(modem_driver_by_id("QUECTEL,BG96")->name, "Quectel BG96 AT");
}

// Test doubles: distinct functions so table slots can be told apart.
constexpr act_func act_a = [](modem *, int, ujson *, request *) { return 0; };
constexpr act_func act_b = [](modem *, int, ujson *, request *) { return 5; };
constexpr urc_func urc_a = [](modem *, ujson *) { return 0; };
constexpr urc_func urc_b = [](modem *, ujson *) { return 6; };

int parent_probe(modem_driver *d)
{
    modem_driver_override(d, ACT_GET_IMEI, act_a);
    modem_driver_override(d, ACT_GET_IMSI, act_a);
    for (const char *urc : {"+CREG", "+QIND", "RING"})
        modem_driver_urc_override(d, urc, urc_a);
    return 0;
}

int child_probe(modem_driver *d)
{
    modem_driver_override(d, ACT_GET_IMSI, nullptr); // the model lacks it
    modem_driver_override(d, ACT_GET_ICCID, act_b);
    modem_driver_urc_override(d, "RING", urc_b);   // replaces in place
    modem_driver_urc_override(d, "+QTEMP", urc_b); // new, at the head
    return 0;
}

// Every driver a test registers lives here, so the registry's URC lists are
// freed exactly once, after the test and before the drivers go.
class DriverRegistry : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(reg.add(&base), 0);
        ASSERT_EQ(reg.add(&child), 0);
        ASSERT_EQ(reg.add(&urcs), 0);
        for (const char *name : {"+CREG", "RING", "NO CARRIER", "+CMTI", "+QIND", "+C", "\r"})
            modem_driver_urc_override(&urcs, name, urc_a);
        modem_driver_urc_override(&urcs, long_name, urc_b);
    }
    void TearDown() override { reg.cleanup(); }

    bool urc_found(const std::string &line) { return modem_driver_urc_method(&urcs, line.data(), line.size()); }

    const std::string long_name = std::string(63, 'X');
    modem_driver_registry reg;
    modem_driver base{"Base", "base", nullptr, parent_probe};
    modem_driver child{"Child", "base,child", "base", child_probe};
    modem_driver urcs{"U", "u", nullptr, modem_driver_probe_none};
    modem_driver orphan{"Orphan", "orphan", "missing", modem_driver_probe_none};
    modem_driver broken{"Broken", "broken", nullptr, [](modem_driver *) { return 1; }};
    std::vector<modem_driver> fill{64, modem_driver{"D", "d", nullptr, modem_driver_probe_none}};
};

std::vector<std::string> urc_names(const modem_driver &d)
{
    std::vector<std::string> names;
    for (const urc_entry *e = d.urcs; e; e = e->next)
        names.push_back(e->name);
    return names;
}

TEST_F(DriverRegistry, ChildInheritsTablesAndOverridesWithoutTouchingParent)
{
    EXPECT_TRUE(modem_driver_check_func(&child, ACT_GET_IMEI));
    EXPECT_FALSE(modem_driver_check_func(&child, ACT_GET_IMSI));
    EXPECT_TRUE(modem_driver_check_func(&base, ACT_GET_IMSI));
    EXPECT_FALSE(modem_driver_check_func(&base, ACT_GET_ICCID));
    EXPECT_EQ(child.funcs[ACT_GET_ICCID], act_b);

    // Inherited entries come in reverse order; new ones go to the head.
    EXPECT_EQ(urc_names(base), (std::vector<std::string>{"RING", "+QIND", "+CREG"}));
    EXPECT_EQ(urc_names(child), (std::vector<std::string>{"+QTEMP", "+CREG", "+QIND", "RING"}));
    EXPECT_EQ(child.urc_count, 4u);

    // A URC of the vendor base is handled by the child unless replaced.
    EXPECT_EQ(modem_driver_urc_method(&child, "+QIND: \"FOTA\"", 13), urc_a);
    EXPECT_EQ(modem_driver_urc_method(&child, "\r\nRING\r\n", 8), urc_b);
    EXPECT_EQ(modem_driver_urc_method(&base, "\r\nRING\r\n", 8), urc_a);
}

// An unknown parent leaves empty tables; a failed probe or a full table
// (64 drivers) refuses the driver.
TEST_F(DriverRegistry, RefusedDrivers)
{
    ASSERT_EQ(reg.add(&orphan), 0);
    EXPECT_FALSE(modem_driver_check_func(&orphan, ACT_GET_IMEI));
    EXPECT_EQ(orphan.urcs, nullptr);

    testing::internal::CaptureStdout();
    EXPECT_EQ(reg.add(&broken), 1);
    EXPECT_EQ(reg.by_id("broken"), nullptr);
    EXPECT_EQ(reg.get_num(), 4u);
    for (unsigned i = 4; i < 64; i++)
        ASSERT_EQ(reg.add(&fill[i]), 0);
    EXPECT_EQ(reg.add(&fill[0]), 1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(reg.get_num(), 64u);
    EXPECT_EQ(reg.get_all()[64], nullptr);
}

TEST_F(DriverRegistry, UrcNameIsTakenBeforeColonBlankOrLineEnd)
{
    const struct {
        std::string line;
        bool found;
    } cases[] = {
        // clang-format off
        {"+CREG: 1,\"1A2B\"\r\n", true},
        {"\r\n+CMTI: \"SM\",3\r\n", true},
        {"\r\nRING\r\n", true},
        {"NO CARRIER\r\n", true},
        {"+CREG:1\r\n", false},  // no blank after the colon: name runs to the line end
        {"+creg: 1\r\n", false}, // names are case-sensitive
        {"+CREG: ", true},
        {"+CREG:", false}, // nothing after the colon
        {"RING", false},   // no line end
        {"\r\n", false},   // empty line: position 0
        {"\r\nRING", false},
        {"", false},
        {": x", false},     // name would be empty at position 0
        {"\r\n: x", false}, // empty name after the line start
        {long_name + "\r\n", true}, // 63 bytes still fit
        {"Y" + long_name + "\r\n", false},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.line));
        EXPECT_EQ(urc_found(c.line), c.found);
    }

    // Fuzz finding: the name extraction read past the end of a line.
    const char alphabet[] = {'+', 'C', ':', ' ', '\r', '\n', 'A', '\0'};
    unsigned seed = 12345;
    for (int iter = 0; iter < 20000; iter++) {
        seed = seed * 1103515245 + 12345;
        std::vector<char> line((seed >> 16) % 80); // exactly sized: ASan sees any read past the end
        for (char &ch : line) {
            seed = seed * 1103515245 + 12345;
            ch = alphabet[(seed >> 16) % sizeof(alphabet)];
        }
        (void)modem_driver_urc_method(&urcs, line.data(), line.size());
    }
}

constexpr act_func crash_with_sigsegv = [](modem *, int, ujson *, request *) { return raise(SIGSEGV); };

__attribute__((no_sanitize("undefined"))) int crash_on_null(modem *, int, ujson *, request *)
{
    volatile int *p = nullptr;
    return *p;
}

constexpr urc_func crash_urc = [](modem *, ujson *) { return raise(SIGILL); };

// A driver crash becomes status 4; the guard is gone after the call and the
// next call works normally.
TEST_F(DriverRegistry, CrashGuardTurnsADriverCrashIntoStatusFour)
{
    modem_driver_override(&urcs, ACT_GET_IMEI, crash_with_sigsegv);
    modem_driver_override(&urcs, ACT_GET_IMSI, crash_on_null);
    modem_driver_override(&urcs, ACT_GET_ICCID, act_b);
    modem mdm;
    testing::internal::CaptureStdout();
    for (uint32_t action : {ACT_GET_IMEI, ACT_GET_IMSI, ACT_GET_IMEI}) {
        SCOPED_TRACE(act_type_id_str[action]);
        EXPECT_EQ(modem_driver_invoke_func(&urcs, &mdm, action, 1, nullptr, nullptr), 4);
        struct sigaction sa;
        sigaction(SIGSEGV, nullptr, &sa);
        EXPECT_EQ(sa.sa_handler, SIG_DFL);
        EXPECT_EQ(modem_driver_invoke_func(&urcs, &mdm, ACT_GET_ICCID, 0, nullptr, nullptr), 5);
    }
    EXPECT_EQ(modem_driver_invoke_urc_cb(&urcs, &mdm, nullptr, crash_urc), 4);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Recovered from fatal error in driver subsystem!"), std::string::npos) << out;
    EXPECT_EQ(modem_driver_invoke_urc_cb(&urcs, &mdm, nullptr, urc_b), 6);
    EXPECT_EQ(modem_driver_invoke_func_unsafe(&urcs, &mdm, ACT_GET_ICCID, 0, nullptr, nullptr), 5);
}

TEST(DriverResponse, FinalResultTests)
{
    const struct {
        std::string response;
        int valid, invalid;
    } cases[] = {
        // clang-format off
        {"\r\n+CGSN: 866834040000000\r\n\r\nOK\r\n", 1, 0},
        {"866834040000000\r\n0\r", 1, 0}, // numeric OK
        {"0\r", 1, 0},
        {"\r\nERROR\r\n", 0, 0}, // textual ERROR is not recognised
        {"\r\n+CME ERROR: 10\r\n", 0, 0},
        {"4\r", 0, 1}, // numeric ERROR
        {"xyz\r\n4\r", 0, 1},
        {"OK\r\n", 0, 0},
        {"0", 0, 0},
        {"", 0, 0},
        {std::string("\r\0ERROR\0\n", 9), 0, 1}, // the only bytes the text pattern matches
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.response));
        EXPECT_EQ(is_response_valid(c.response.data(), c.response.size()), c.valid);
        EXPECT_EQ(is_response_invalid(c.response.data(), c.response.size()) != 0, c.invalid != 0);
    }
}

} // namespace

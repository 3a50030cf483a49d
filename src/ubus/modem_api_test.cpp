#include "ubus/modem_api.h"

#include <cstring>
#include <iterator>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace
{

TEST(ActTypeIdStr, OneNamePerActionPlusTheCount)
{
    EXPECT_EQ(std::size(act_type_id_str), 199u);
    EXPECT_EQ(__ACT_TYPE_MAX, 198u);
    EXPECT_STREQ(act_type_id_str[__ACT_TYPE_MAX], "__ACT_TYPE_MAX");

    std::set<std::string> seen;
    for (uint32_t id = 0; id < __ACT_TYPE_MAX; id++) {
        SCOPED_TRACE(id);
        ASSERT_NE(act_type_id_str[id], nullptr);
        EXPECT_EQ(std::strncmp(act_type_id_str[id], "ACT_", 4), 0) << act_type_id_str[id];
        EXPECT_TRUE(seen.insert(act_type_id_str[id]).second) << "duplicate " << act_type_id_str[id];
    }
}

TEST(ActTypeIdStr, NamesSitAtTheirIds)
{
    struct row {
        act_type id;
        const char *name;
    };
    const row rows[] = {
        {ACT_AT_COMMAND, "ACT_AT_COMMAND"},
        {ACT_GET_ID_INFO, "ACT_GET_ID_INFO"},
        {ACT_GET_NET_GREG_STAT, "ACT_GET_NET_GREG_STAT"},
        {ACT_SET_NET_GREG_STAT, "ACT_SET_NET_GREG_STAT"},
        {ACT_GET_NET_REG_STAT_ALL, "ACT_GET_NET_REG_STAT_ALL"},
        {ACT_SEND_SMS, "ACT_SEND_SMS"},
        {ACT_GET_BANDS, "ACT_GET_BANDS"},
        {ACT_GET_NET_MODE_TECH, "ACT_GET_NET_MODE_TECH"},
        {ACT_GET_NET_MODE_TYPE, "ACT_GET_NET_MODE_TYPE"},
        {ACT_GET_FULL_MSG_STORAGE_LOC, "ACT_GET_FULL_MSG_STORAGE_LOC"},
        {ACT_DELETE_PDUS, "ACT_DELETE_PDUS"},
        {ACT_GET_APN_AUTH_INTERNAL, "ACT_GET_APN_AUTH_INTERNAL"},
        {ACT_SET_USSD, "ACT_SET_USSD"},
        {ACT_GET_ACT_PDP_CTX_LIST, "ACT_GET_ACT_PDP_CTX_LIST"},
        {ACT_STOP_NMEA, "ACT_STOP_NMEA"},
        {ACT_GET_LTE_SMS_FORMAT, "ACT_GET_LTE_SMS_FORMAT"},
        {ACT_SET_LTE_SMS_FORMAT, "ACT_SET_LTE_SMS_FORMAT"},
        {ACT_GET_DFAULT_MODEM_FUNC, "ACT_GET_DFAULT_MODEM_FUNC"},
        {ACT_DISABLE_GEA_1_2_ALGORYTHM, "ACT_DISABLE_GEA_1_2_ALGORYTHM"},
        {ACT_GET_FROUTING_STATE, "ACT_GET_FROUTING_STATE"},
        {ACT_SET_FROUTING_STATE, "ACT_SET_FROUTING_STATE"},
        {ACT_SET_FAST_SHUTDOWN_INFO, "ACT_SET_FAST_SHUTDOWN_INFO"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_STREQ(act_type_id_str[r.id], r.name);
    }
    // Fixed numbers the bus and the drivers rely on.
    EXPECT_EQ(ACT_GET_NET_5GREG_STAT, 21u);
    EXPECT_EQ(ACT_GET_PIN_COUNT, 74u);
    EXPECT_EQ(ACT_GET_VOLTE_READY, 102u);
    EXPECT_EQ(ACT_SET_FAST_SHUTDOWN_INFO, 197u);
}

TEST(ActStatusStr, Texts)
{
    struct row {
        uint32_t status;
        const char *text;
    };
    const row rows[] = {
        {0, "OK"},
        {1, "Unknown error"},
        {2, "Invalid arguments"},
        {3, "Memory allocation error"},
        {4, "Fatal exception occurred"},
        {5, "Invalid response"},
        {6, "Invalid URC response"},
        {7, "Functionality not supported"},
        {8, "Request timeout expired"},
        {9, "SMS limit reached"},
        {10, "Unknown error"},
        {UINT32_MAX, "Unknown error"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.status);
        EXPECT_STREQ(act_status_str(r.status), r.text);
    }
}

} // namespace

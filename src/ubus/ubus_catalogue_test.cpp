// The method registry as the groups fill it: order, counts, actions,
// time-outs and the published signatures.
#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ubus/modem_api.h"
#include "ubus/ubus.h"

namespace {

class Catalogue : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ubus_cleanup();
        ASSERT_EQ(ubus_core_init(), 0);
        ASSERT_EQ(ubus_sys_init(), 0);
        ASSERT_EQ(ubus_net_init(), 0);
        ASSERT_EQ(ubus_band_init(), 0);
        ASSERT_EQ(ubus_sim_init(), 0);
        ASSERT_EQ(ubus_sms_init(), 0);
        ASSERT_EQ(ubus_call_init(), 0);
        for (const ubus_method &m : ubus_methods())
            names.emplace_back(m.name);
    }
    void TearDown() override { ubus_cleanup(); }

    size_t index_of(const std::string &name) const
    {
        return static_cast<size_t>(std::find(names.begin(), names.end(), name) - names.begin());
    }
    const ubus_method &method(const std::string &name) const { return ubus_methods()[index_of(name)]; }

    std::vector<std::string> names;
};

// Where each group starts and how many methods it has: core, system,
// network, band, SIM, SMS, call.
TEST_F(Catalogue, GroupsRegisterInOrderWithTheirCounts)
{
    struct group {
        const char *first;
        const char *last;
        size_t count;
    };
    const group groups[] = {
        {"info", "get_default_modem_func", 5},
        {"get_firmware", "get_fast_shutdown_info", 66},
        {"set_signal_query_cfg", "get_ussd_text_mode", 84},
        {"set_gsm_band", "get_bands", 8},
        {"set_pin_code", "get_sim_soft_hotplug", 16},
        {"set_sms_evt_rep_cfg", "get_msg_storage", 11},
        {"send_voice_call", "reject_voice_call", 4},
    };
    size_t at = 0;
    for (const group &g : groups) {
        SCOPED_TRACE(g.first);
        ASSERT_LT(at + g.count - 1, names.size());
        EXPECT_EQ(names[at], g.first);
        EXPECT_EQ(names[at + g.count - 1], g.last);
        at += g.count;
    }
    EXPECT_EQ(names.size(), at);
    EXPECT_EQ(names.size(), 194u);
}

TEST_F(Catalogue, OrderInsideGroupsFollowsTheTables)
{
    const std::vector<std::string> core = {"info", "get_id_info", "exec", "update_modem_func",
                                           "get_default_modem_func"};
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.begin() + 5), core);
    // Spot checks in the middle of the long groups.
    EXPECT_EQ(index_of("get_serving_cell") + 1, index_of("get_neighbour_cells"));
    EXPECT_EQ(index_of("get_cpu_sn") + 1, index_of("get_urc_ind_cfg"));
    EXPECT_EQ(index_of("get_net_mode") + 1, index_of("get_net_mode_tech"));
    EXPECT_EQ(index_of("get_usbnet_cfg") + 1, index_of("set_usbcfg"));
    EXPECT_EQ(index_of("get_qsimdet") + 1, index_of("set_qsimdet"));
    EXPECT_EQ(index_of("send_sms") + 1, index_of("read_sms"));
    EXPECT_EQ(index_of("get_incoming_voice_calls") + 1, index_of("accept_voice_call"));
    std::set<std::string> unique(names.begin(), names.end());
    EXPECT_EQ(unique.size(), names.size());
}

// Every action reaches exactly one method except the net-mode alias, and the
// actions no method reaches are the internal ones.
TEST_F(Catalogue, ActionsCoverTheIdsExceptTheInternalOnes)
{
    std::map<uint32_t, std::vector<std::string>> by_action;
    for (size_t i = 5; i < names.size(); i++) {
        const ubus_catalogue_row *row = ubus_catalogue_find(names[i].c_str());
        ASSERT_NE(row, nullptr) << names[i];
        ASSERT_LT(row->action, static_cast<uint32_t>(__ACT_TYPE_MAX));
        by_action[row->action].push_back(names[i]);
    }
    const std::set<uint32_t> internal = {ACT_AT_COMMAND,        ACT_GET_ID_INFO,           ACT_GET_IMEI,
                                         ACT_GET_FULL_MSG_STORAGE_LOC, ACT_DELETE_PDUS,      ACT_SET_APN_AUTH_INTERNAL,
                                         ACT_GET_APN_AUTH_INTERNAL, ACT_STOP_NMEA,          ACT_UPDATE_MODEM_FUNC,
                                         ACT_GET_DFAULT_MODEM_FUNC};
    for (uint32_t a = 0; a < __ACT_TYPE_MAX; a++) {
        SCOPED_TRACE(act_type_id_str[a]);
        if (internal.count(a)) {
            EXPECT_EQ(by_action.count(a), 0u);
        } else if (a == ACT_GET_NET_MODE_TECH) {
            EXPECT_EQ(by_action[a], (std::vector<std::string>{"get_net_mode", "get_net_mode_tech"}));
        } else {
            EXPECT_EQ(by_action[a].size(), 1u);
        }
    }
    EXPECT_EQ(ubus_catalogue_find("get_serial")->action, ACT_GET_SN);
    EXPECT_EQ(ubus_catalogue_find("set_wan_ping")->action, ACT_SET_MG_WAN_PING);
    EXPECT_EQ(ubus_catalogue_find("get_gea_algo")->action, ACT_GET_GEA_ALGORYTHM);
    EXPECT_EQ(ubus_catalogue_find("exec"), nullptr); // core methods are not catalogue rows
}

TEST_F(Catalogue, OnlyTheListedMethodsWaitOtherThanTenSeconds)
{
    const std::map<std::string, uint32_t> longer = {
        {"scan_operators", 180},         {"get_operator_selection", 180},    {"set_operator_selection", 180},
        {"send_sms", 160},               {"set_pdp_ctx_state", 150},         {"get_attached_pdp_ctx_list", 150},
        {"get_active_pdp_ctx_list", 150}, {"set_ps_att_state", 140},         {"get_ps_att_state", 140},
        {"accept_voice_call", 90},       {"reject_voice_call", 90},          {"set_pdp_call", 30},
        {"get_clip_mode", 20},           {"set_clip_mode", 15},              {"set_gprs_attach_mode", 15},
        {"get_apn_auth", 15},            {"delete_sms", 15},                 {"set_func", 15},
        {"get_func", 15}};
    std::map<std::string, uint32_t> found;
    for (size_t i = 5; i < names.size(); i++) {
        uint32_t t = ubus_catalogue_find(names[i].c_str())->timeout;
        if (t != 10)
            found[names[i]] = t;
    }
    EXPECT_EQ(found, longer);
}

TEST_F(Catalogue, TimeoutAndAsyncArgumentsOnlyWhereListed)
{
    std::set<std::string> with_timeout, with_async;
    for (size_t i = 5; i < names.size(); i++) {
        const ubus_catalogue_row *row = ubus_catalogue_find(names[i].c_str());
        for (const ubus_catalogue_arg &a : row->args) {
            if (!a.name)
                break;
            if (!std::strcmp(a.name, "timeout")) {
                with_timeout.insert(names[i]);
                EXPECT_EQ(a.type, BLOBMSG_TYPE_INT32);
                EXPECT_TRUE(a.optional);
            }
            if (!std::strcmp(a.name, "async"))
                with_async.insert(names[i]);
            EXPECT_TRUE(a.type == BLOBMSG_TYPE_STRING || a.type == BLOBMSG_TYPE_INT32 ||
                        a.type == BLOBMSG_TYPE_BOOL || a.type == BLOBMSG_TYPE_ARRAY)
                << names[i] << " " << a.name;
        }
    }
    EXPECT_EQ(with_timeout, (std::set<std::string>{"set_pdp_ctx_state", "set_pdp_call", "upload_file"}));
    EXPECT_EQ(with_async, (std::set<std::string>{"send_sms"}));
}

// Introspection shows the registry's policy; read_sms, delete_sms and
// get_msg_storage publish less than their handler accepts.
TEST_F(Catalogue, PublishedSignatures)
{
    const ubus_method &read = method("read_sms");
    ASSERT_EQ(read.n_policy, 1);
    EXPECT_STREQ(read.policy[0].name, "index");
    EXPECT_EQ(method("delete_sms").n_policy, 1);
    EXPECT_EQ(method("get_msg_storage").n_policy, 0);
    EXPECT_EQ(method("get_msg_storage").policy, nullptr);
    EXPECT_STREQ(ubus_catalogue_find("read_sms")->args[2].name, "strip");
    EXPECT_STREQ(ubus_catalogue_find("get_msg_storage")->args[0].name, "full");

    const ubus_method &pdp = method("set_pdp_ctx");
    ASSERT_EQ(pdp.n_policy, 8);
    EXPECT_STREQ(pdp.policy[7].name, "req_tp");
    const ubus_method &exec = method("exec");
    ASSERT_EQ(exec.n_policy, 2);
    EXPECT_STREQ(exec.policy[0].name, "command");
    EXPECT_EQ(exec.policy[1].type, BLOBMSG_TYPE_INT32);
    for (const ubus_method &m : ubus_methods()) {
        EXPECT_NE(m.handler, nullptr) << m.name;
        EXPECT_EQ(m.mask, 0u);
        EXPECT_EQ(m.tags, 0u);
    }
    EXPECT_EQ(method("get_net_mode").handler, method("get_net_mode_tech").handler);
}

} // namespace

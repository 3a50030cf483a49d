// The method registry as the groups fill it: order, actions, time-outs and
// the published signatures.
#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ubus/modem_api.h"
#include "ubus/ubus.h"

namespace
{

class Catalogue : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ubus_cleanup();
        for (int (*init)() : {ubus_core_init, ubus_sys_init, ubus_net_init, ubus_band_init, ubus_sim_init,
                              ubus_sms_init, ubus_call_init})
            ASSERT_EQ(init(), 0);
        for (const ubus_method &m : ubus_methods())
            names.emplace_back(m.name);
    }
    void TearDown() override { ubus_cleanup(); }

    const ubus_method &method(const std::string &name) const
    {
        return ubus_methods()[std::find(names.begin(), names.end(), name) - names.begin()];
    }

    std::vector<std::string> names;
};

// The groups in order (core, system, network, band, SIM, SMS, call), each
// method once; every action reaches one method except the net-mode alias and
// the internal actions.
TEST_F(Catalogue, GroupsAndActions)
{
    const struct {
        const char *first, *last;
        size_t count;
    } groups[] = {
        {"info", "get_default_modem_func", 5},
        {"get_firmware", "get_fast_shutdown_info", 66},
        {"set_signal_query_cfg", "get_ussd_text_mode", 84},
        {"set_gsm_band", "get_bands", 8},
        {"set_pin_code", "get_sim_soft_hotplug", 16},
        {"set_sms_evt_rep_cfg", "get_msg_storage", 11},
        {"send_voice_call", "reject_voice_call", 4},
    };
    size_t at = 0;
    for (const auto &g : groups) {
        SCOPED_TRACE(g.first);
        ASSERT_LE(at + g.count, names.size());
        EXPECT_EQ(names[at], g.first);
        EXPECT_EQ(names[at + g.count - 1], g.last);
        at += g.count;
    }
    EXPECT_EQ(names.size(), at);
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());

    std::map<uint32_t, std::vector<std::string>> by_action;
    for (size_t i = 5; i < names.size(); i++) {
        const ubus_catalogue_row *row = ubus_catalogue_find(names[i].c_str());
        ASSERT_NE(row, nullptr) << names[i];
        by_action[row->action].push_back(names[i]);
    }
    // clang-format off
    const std::set<uint32_t> internal = {ACT_AT_COMMAND, ACT_GET_ID_INFO, ACT_GET_IMEI, ACT_GET_FULL_MSG_STORAGE_LOC,
                                         ACT_DELETE_PDUS, ACT_SET_APN_AUTH_INTERNAL, ACT_GET_APN_AUTH_INTERNAL,
                                         ACT_STOP_NMEA, ACT_UPDATE_MODEM_FUNC, ACT_GET_DFAULT_MODEM_FUNC};
    // clang-format on
    for (uint32_t a = 0; a < __ACT_TYPE_MAX; a++) {
        SCOPED_TRACE(act_type_id_str[a]);
        size_t want = internal.count(a) ? 0 : a == ACT_GET_NET_MODE_TECH ? 2 : 1;
        EXPECT_EQ(by_action[a].size(), want);
    }
    EXPECT_EQ(ubus_catalogue_find("get_serial")->action, ACT_GET_SN);
    EXPECT_EQ(method("get_net_mode").handler, method("get_net_mode_tech").handler);
}

// Time-outs other than ten seconds, and the methods taking "timeout" or
// "async"; introspection shows the policy.
TEST_F(Catalogue, TimeoutsAndSignatures)
{
    // clang-format off
    const std::map<std::string, uint32_t> longer = {
        {"scan_operators", 180},
        {"get_operator_selection", 180},
        {"set_operator_selection", 180},
        {"send_sms", 160},
        {"set_pdp_ctx_state", 150},
        {"get_attached_pdp_ctx_list", 150},
        {"get_active_pdp_ctx_list", 150},
        {"set_ps_att_state", 140},
        {"get_ps_att_state", 140},
        {"accept_voice_call", 90},
        {"reject_voice_call", 90},
        {"set_pdp_call", 30},
        {"get_clip_mode", 20},
        {"set_clip_mode", 15},
        {"set_gprs_attach_mode", 15},
        {"get_apn_auth", 15},
        {"delete_sms", 15},
        {"set_func", 15},
        {"get_func", 15}};
    // clang-format on
    std::map<std::string, uint32_t> found;
    std::set<std::string> with_timeout, with_async;
    for (size_t i = 5; i < names.size(); i++) {
        const ubus_catalogue_row *row = ubus_catalogue_find(names[i].c_str());
        if (row->timeout != 10)
            found[names[i]] = row->timeout;
        for (const ubus_catalogue_arg &a : row->args) {
            if (!a.name)
                break;
            if (!std::strcmp(a.name, "timeout"))
                with_timeout.insert(names[i]);
            if (!std::strcmp(a.name, "async"))
                with_async.insert(names[i]);
        }
    }
    EXPECT_EQ(found, longer);
    EXPECT_EQ(with_timeout, (std::set<std::string>{"set_pdp_ctx_state", "set_pdp_call", "upload_file"}));
    EXPECT_EQ(with_async, (std::set<std::string>{"send_sms"}));

    // read_sms, delete_sms and get_msg_storage publish less than they accept.
    ASSERT_EQ(method("read_sms").n_policy, 1);
    EXPECT_STREQ(method("read_sms").policy[0].name, "index");
    EXPECT_EQ(method("delete_sms").n_policy, 1);
    EXPECT_EQ(method("get_msg_storage").n_policy, 0);
    ASSERT_EQ(method("set_pdp_ctx").n_policy, 8);
    EXPECT_STREQ(method("set_pdp_ctx").policy[7].name, "req_tp");
    ASSERT_EQ(method("exec").n_policy, 2);
    EXPECT_EQ(method("exec").policy[1].type, BLOBMSG_TYPE_INT32);
}

} // namespace

#include "drivers/generic/generic_net.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>

#include <gtest/gtest.h>
#include "wwan/ubox.h"

#include "drivers/generic/driver_test_support.h"
#include "drivers/generic/testdata_answers.h"
#include "ubus/vocab.h"

namespace
{

// Reply and cache keys as the tables below name them.
const std::pair<const char *, const char *> short_keys[] = {
    {"mode_id", "m"},    {"status_id", "s"},   {"reg_stat", "s"},  {"format_id", "f"}, {"op_format", "f"},
    {"operator", "op"},  {"reg_lac", "lac"},   {"reg_tac", "tac"}, {"reg_ci", "ci"},   {"act_id", "act"},
    {"reg_act", "ract"}, {"reg_type", "type"}, {"response", "raw"}};

class NetTest : public driver_test
{
  protected:
    // The PIN state as the event manager caches it; a negative one is absent.
    void pin(int32_t state)
    {
        cache->remove_item_name("pin_state");
        if (state >= 0)
            cache->update_item("pin_state", CACHE_DATA_INT32, &state, sizeof(state));
    }
    // Drops the keys cached and what the modem recorded; the SIM is usable.
    void forget(std::initializer_list<const char *> keys)
    {
        for (const char *key : keys)
            cache->remove_item_name(key);
        pin(PIN_STATE_OK);
        mdm.events.clear();
        mdm.refreshed.clear();
        mdm.iface_actions.clear();
    }
    // "name=value" for the keys the reply (the raw response as "yes") or the
    // cache holds, in short_keys' order.
    std::string listed(bool from_cache) const
    {
        std::map<std::string, std::string> got;
        blob_attr *a;
        size_t rem;
        blobmsg_for_each_attr(a, reply->get_blobmsg(), rem) got[blobmsg_name(a)] =
            blobmsg_type(a) == BLOBMSG_TYPE_INT32      ? std::to_string(static_cast<int32_t>(blobmsg_get_u32(a)))
            : std::strcmp(blobmsg_name(a), "response") ? blobmsg_get_string(a)
                                                       : "yes";
        std::string s;
        for (auto [key, name] : short_keys) {
            const cache_item *item = from_cache ? cache->get_item(key) : nullptr;
            if (item || (!from_cache && got.count(key)))
                s += (s.empty() ? "" : " ") + std::string(name) + "=" +
                     (!item          ? got[key]
                      : item->text() ? item->text()
                                     : std::to_string(item->get<int32_t>()));
        }
        return s;
    }
    // Events as "id=value" ("!" when forced), then refreshed actions.
    std::string happened() const
    {
        std::string s = raised();
        for (uint32_t act : mdm.refreshed)
            s += " refresh " + std::to_string(act);
        return s;
    }

    std::map<std::string, std::string> reg = load_answers("generic", "registration.txt");
    std::map<std::string, std::string> ops = load_answers("generic", "operators.txt");
};

TEST_F(NetTest, RegistrationAnswers)
{
    // clang-format off
    struct { act_func fn; const char *capture; int phase, pin, status; const char *reply; } rows[] = {
        {get_net_reg_stat, "creg_n0", 1, PIN_STATE_OK, 0, "m=1 s=1"},
        {get_net_reg_stat, "creg_n1_roaming", 1, PIN_STATE_OK, 0, "m=2 s=5"},
        {get_net_reg_stat, "creg_n2", 1, PIN_STATE_OK, 0, "m=3 s=1 lac=54537 ci=135086397 act=8"},
        {get_net_reg_stat, "creg_after_urc", 1, PIN_STATE_OK, 0, "m=3 s=5 lac=54537 ci=135086397 act=8"},
        {get_net_greg_stat, "cgreg_n2", 1, PIN_STATE_OK, 0, "m=3 s=1 lac=54537 ci=135086397 act=8"},
        {get_net_ereg_stat, "cereg_ts27007", 1, PIN_STATE_OK, 0, "m=3 s=1 tac=6699 ci=27440068 act=8"},
        {get_net_ereg_stat, "cereg_n1_with_loc", 1, PIN_STATE_OK, 0, "m=2 s=1"},
        {get_net_ereg_stat, "cereg_act9", 1, PIN_STATE_OK, 0, "m=3 s=1 tac=6699 ci=27440068 act=0 raw=yes"},
        {get_net_ereg_stat, "cereg_act14", 1, PIN_STATE_OK, 0, "m=3 s=5 tac=6699 ci=27440068 act=0 raw=yes"},
        {get_net_ereg_stat, "cereg_n3", 1, PIN_STATE_OK, 0, "m=0 s=1 raw=yes"},
        {get_net_5greg_stat, "c5greg_n2", 1, PIN_STATE_OK, 0, "m=3 s=1 tac=3824670 ci=37358981143 act=11"},
        // Without a usable SIM every status is unknown.
        {get_net_reg_stat, "creg_n2", 1, PIN_STATE_NOT_INSERTED, 0, "m=3 s=4"},
        {get_net_reg_stat, "creg_n2", 1, -1, 0, "m=3 s=4"},
        // URC texts have no final result: they are read in phase 2 only.
        {get_net_reg_stat, "urc_creg", 2, PIN_STATE_OK, 0, "m=0 s=1 raw=yes"},
        {get_net_ereg_stat, "urc_cereg_loc", 2, PIN_STATE_OK, 0, "m=0 s=1 tac=54537 ci=135086397 act=8 raw=yes"},
        {get_net_reg_stat, "urc_creg", 1, PIN_STATE_OK, 5, ""},
        {get_net_reg_stat, "cereg_n2", 1, PIN_STATE_OK, 5, ""},
        {get_net_reg_stat, "cme_error", 1, PIN_STATE_OK, 5, ""},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.capture);
        forget({});
        pin(row.pin);
        EXPECT_EQ(row.fn(&mdm, row.phase, fresh_reply(reg.at(row.capture)), &req), row.status);
        EXPECT_EQ(listed(false), row.reply);
    }
    forget({});
    ASSERT_EQ(parse(get_net_ereg_stat, reg.at("cereg_ts27007")), 0);
    EXPECT_EQ(as_json(*reply),
              R"j({"mode_id":3,"mode":"Enabled (with location information)","max_mode_id":3,"max_mode":"Enabled )j"
              R"j((with location information)","status_id":1,"status":"Registered, home","reg_tac":"6699",)j"
              R"j("reg_ci":"27440068","act_id":8,"act":"E-UTRAN"})j");
}

TEST_F(NetTest, CommandsAndArguments)
{
    // clang-format off
    struct { act_func fn; const char *args, *command; } rows[] = {
        {get_net_reg_stat_all, "{}", "AT+C5GREG?\rAT+CEREG?\rAT+CGREG?\rAT+CREG?\r"},
        {get_op_slc, "{}", "AT+COPS?\r"},
        {set_net_reg_stat, R"({"mode":"enable_loc"})", "AT+CREG=2\r"},
        {set_net_ereg_stat, R"({"mode":"enable"})", "AT+CEREG=1\r"},
        {set_op_slc, R"({"mode":"manual","format":"long","operator":"26201"})", "AT+COPS=1,2,\"26201\"\r"},
        {set_op_slc, R"({"mode":"manual_auto","operator":"Telekom.de"})", "AT+COPS=4,2,\"Telekom.de\"\r"},
        {set_op_slc, R"({"mode":"auto","format":"short"})", "AT+COPS=0,1\r"},
        {set_op_slc, R"({"format":"long"})", "AT+COPS=3,0\r"},
    };
    // clang-format on
    for (const auto &row : rows)
        EXPECT_EQ(built(row.fn, row.args), std::string("0 ") + row.command) << row.args;
}

TEST_F(NetTest, AllReportsGiveTheRegistrationThatCounts)
{
    // clang-format off
    struct { const char *capture; int32_t pin; const char *tables, *reply, *cache, *events; } rows[] = {
        {"all_ec25", PIN_STATE_OK, "cereg cgreg creg", "s=1 tac=54537 ci=135086397 act=8 ract=8", "s=1 tac=54537 ci=135086397 ract=8 type=2", "2=21"},
        {"all_rm520n", PIN_STATE_OK, "c5greg cereg cgreg creg", "s=1 tac=3824670 ci=37358981143 act=11 ract=11", "s=1 tac=3824670 ci=37358981143 ract=11 type=3", "2=22"},
        {"all_ec25_3g", PIN_STATE_OK, "cereg cgreg creg", "s=5 lac=4001 ci=203107587 act=7 ract=7", "s=5 lac=4001 ci=203107587 ract=7 type=1", "2=8"},
        {"all_ec25", PIN_STATE_NOT_INSERTED, "cereg cgreg creg", "s=4", "s=4 type=2", "2=2"},
        {"all_ec25_no_sim", PIN_STATE_OK, "cereg cgreg creg", "s=0", "s=0 type=2", "2=2"},
        {"cme_error", PIN_STATE_OK, "", "", "", ""},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.capture + std::string(" pin ") + std::to_string(row.pin));
        forget({"reg_stat", "reg_act", "reg_lac", "reg_tac", "reg_ci", "reg_type"});
        pin(row.pin);
        EXPECT_EQ(parse(get_net_reg_stat_all, reg.at(row.capture)), *row.reply ? 0 : 5);
        std::string tables;
        for (const char *t : {"c5greg", "cereg", "cgreg", "creg"})
            tables += reply->exists(t) ? (tables.empty() ? "" : " ") + std::string(t) : "";
        EXPECT_EQ(tables, row.tables);
        EXPECT_EQ(listed(false), row.reply);
        EXPECT_EQ(listed(true), row.cache);
        EXPECT_EQ(happened(), row.events);
    }
}

TEST_F(NetTest, UrcsRaiseTheStateAndKeepTheCacheCoherent)
{
    // cur_stat: the registration cached before; type -1: none
    // clang-format off
    struct { urc_func handler; const char *capture; int32_t cur_type, cur_stat; int status; const char *happened, *cache; int32_t pin = PIN_STATE_OK; } rows[] = {
        // Complete and ranking at least as high: cached at once, with the service mode.
        {urc_cereg, "urc_cereg_loc", -1, 0, 0, "18=1 2=21", "s=1 tac=54537 ci=135086397 ract=8 type=2"},
        {urc_c5greg, "urc_c5greg_loc", NET_REG_EPS, 1, 0, "18=1 2=22", "s=1 tac=3824670 ci=37358981143 ract=11 type=3"},
        {urc_cgreg, "urc_cgreg_searching", -1, 0, 0, "18=2 2=2", "s=2 type=1"},
        // Registered without location, or the report that counted got worse: all are read again.
        {urc_creg, "urc_creg", -1, 0, 0, "17=1 refresh 23", ""},
        {urc_cereg, "urc_cereg_lost", NET_REG_EPS, 1, 0, "18=0 refresh 23", "s=1 type=2"},
        // A lesser report changing leaves the registration alone.
        {urc_cgreg, "urc_cgreg_searching", NET_REG_EPS, 1, 0, "18=2", "s=1 type=2"},
        {urc_creg, "cme_error", -1, 0, ACT_STATUS_INVALID_URC, "", ""},
        // Without a usable SIM the state is unknown.
        {urc_creg, "urc_creg", -1, 0, 0, "17=4 2=2", "s=4 type=0", PIN_STATE_FAILURE},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.capture);
        forget({"reg_stat", "reg_act", "reg_tac", "reg_ci", "reg_type"});
        pin(row.pin);
        if (row.cur_type >= 0) {
            cache->update_item("reg_stat", CACHE_DATA_INT32, &row.cur_stat, 4);
            cache->update_item("reg_type", CACHE_DATA_INT32, &row.cur_type, 4);
        }
        EXPECT_EQ(urc(row.handler, reg.at(row.capture)), row.status);
        EXPECT_EQ(happened(), row.happened);
        EXPECT_EQ(listed(true), row.cache);
    }
}

TEST_F(NetTest, ScanTakesTheInterfacesDownAroundIt)
{
    // answer: parsed after a successful build
    // clang-format off
    struct { const char *args; int iface_result, build_status; const char *answer; int parse_status; std::vector<int> iface; } rows[] = {
        {"{}", 0, 0, "scan_ec25", 0, {2, 1}},
        {R"({"block_ifup":false})", 0, 0, "scan_none", 0, {2, 1}},
        {R"({"block_ifup":true})", 0, 0, "scan_ec25", 0, {}},
        {"{}", 2, 0, "scan_ec25", 0, {2, 1}}, // an interface went away
        {"{}", 0, 0, "scan_error", 5, {2, 1}},
        {"{}", 1, 1, nullptr, 0, {2, 1}},
        {"{}", 3, 1, nullptr, 0, {2, 1}}, // a call failed: nothing is sent
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.answer ? row.answer : "-") + " result " + std::to_string(row.iface_result));
        forget({"operator_scan"});
        mdm.iface_result = row.iface_result;
        EXPECT_EQ(built(scan_op, row.args), row.build_status ? "1" : "0 AT+COPS=?\r");
        EXPECT_EQ(row.answer ? parse(scan_op, ops.at(row.answer)) : 0, row.parse_status);
        EXPECT_EQ(mdm.iface_actions, row.iface);
        EXPECT_EQ(cache->get_item("operator_scan") != nullptr, row.answer && row.parse_status == 0);
    }
    // The last good scan, as replied and as kept.
    ASSERT_EQ(parse(scan_op, ops.at("scan_ec25")), 0);
    EXPECT_EQ(as_json(*reply),
              R"j({"operators":[{"oper_name":"Telekom.de","short_name":"TDG","oper_num":26201,"state_id":3,)j"
              R"j("state":"Current","act_id":8},{"oper_name":"Vodafone.de","short_name":"Vodafone","oper_num":26202,)j"
              R"j("state_id":2,"state":"Available","act_id":8},{"oper_name":"o2 - de","short_name":"o2 - de",)j"
              R"j("oper_num":26203,"state_id":4,"state":"Forbidden","act_id":8}]})j");
    const cache_item *scan = cache->get_item("operator_scan");
    ASSERT_TRUE(scan && scan->json());
    EXPECT_EQ(as_json(*scan->json()), as_json(*reply));
    EXPECT_NEAR(std::atoll(cached("last_scan").c_str()), static_cast<long long>(std::time(nullptr)), 5);
}

// Reads (no arguments: a capture, its reply) and writes (arguments: the
// modem's answer, the events and reads that follow), with "old" cached as the
// operator before each.
TEST_F(NetTest, OperatorSelection)
{
    // clang-format off
    struct { const char *args, *answer; int status; const char *outcome, *cache; } rows[] = {
        {nullptr, "cops_long", 0, "m=1 f=1 op=Telekom.de act=8", "f=1 op=Telekom.de"},
        {nullptr, "cops_numeric_manual", 0, "m=2 f=3 op=26202 act=3", "f=3 op=26202"},
        {nullptr, "cops_endc", 0, "m=1 f=1 op=Vodafone.de act=13", "f=1 op=Vodafone.de"},
        {nullptr, "cops_nbiot", 0, "m=1 f=3 op=26201 act=0", "f=3 op=26201"},
        {nullptr, "cops_unregistered", 0, "m=1", ""},
        {nullptr, "cops_no_service", 0, "m=0", "op=old"},
        {nullptr, "scan_error", 5, "", "op=old"},
        {R"({"mode":"manual","format":"long","operator":"26201"})", "\r\nOK\r\n", 0, " refresh 23", "f=1"},
        {R"({"mode":"manual","operator":"26201"})", "0\r", 0, " refresh 23", "f=3"},
        {R"({"mode":"auto"})", "\r\nOK\r\n", 0, "27=0!", "op=old"},
        {R"({"mode":"auto"})", "\r\n+CME ERROR: 30\r\n", 5, "", "op=old"},
        {R"({"format":"short"})", "\r\nOK\r\n", 0, "", "f=2 op=old"},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.args ? row.args : "") + row.answer);
        forget({"op_format"});
        cache->update_item("operator", CACHE_DATA_STRING, "old", 4);
        if (row.args) {
            ASSERT_EQ(build(set_op_slc, json_of(row.args).get()), 0);
            EXPECT_EQ(parse(set_op_slc, row.answer), row.status);
            EXPECT_EQ(happened(), row.outcome);
        } else {
            EXPECT_EQ(parse(get_op_slc, ops.at(row.answer)), row.status);
            EXPECT_EQ(listed(false), row.outcome);
        }
        EXPECT_EQ(listed(true), row.cache);
    }
}

} // namespace

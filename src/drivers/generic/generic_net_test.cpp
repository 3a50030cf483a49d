#include "drivers/generic/generic_net.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <libubox/blobmsg_json.h>

#include "drivers/generic/driver_test_support.h"
#include "ubus/vocab.h"

namespace
{

// testdata/<file>: "name bytes" lines, bytes with C escapes (testdata/README).
std::map<std::string, std::string> load(const char *file)
{
    std::map<std::string, std::string> out;
    std::ifstream in(std::string(WWANCTL_SOURCE_DIR) + "/src/drivers/generic/testdata/" + file);
    for (std::string line; std::getline(in, line);) {
        size_t sp = line.find(' ');
        if (line.empty() || line[0] == '#' || sp == std::string::npos)
            continue;
        std::string bytes;
        for (size_t i = sp + 1; i < line.size(); i++) {
            char c = line[i];
            if (c == '\\' && i + 1 < line.size()) {
                c = line[++i];
                if (c == 'x') {
                    bytes += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
                    i += 2;
                    continue;
                }
                c = c == 'r' ? '\r' : c == 'n' ? '\n' : c;
            }
            bytes += c;
        }
        out[line.substr(0, sp)] = bytes;
    }
    return out;
}

std::string json_text(const ujson &j)
{
    char *s = blobmsg_format_json(j.get_blobmsg(), true);
    std::string out = s ? s : "(null)";
    std::free(s);
    return out;
}

class NetTest : public driver_test
{
  protected:
    void SetUp() override
    {
        driver_test::SetUp();
        pin(PIN_STATE_OK);
    }
    // The PIN state as the event manager caches it; a negative one is absent.
    void pin(int32_t state)
    {
        if (state < 0)
            cache->remove_item_name("pin_state");
        else
            cache->update_item("pin_state", CACHE_DATA_INT32, &state, sizeof(state));
    }
    int32_t cached_number(const char *key) const
    {
        const cache_item *item = cache->get_item(key);
        return item ? item->get<int32_t>() : -999;
    }
    // Events as "id=value" and refreshed actions, in order.
    std::string happened() const
    {
        std::string s;
        for (const auto &e : mdm.events)
            s += (s.empty() ? "" : " ") + std::to_string(e.id) + "=" + std::to_string(e.number) + (e.forced ? "!" : "");
        for (uint32_t act : mdm.refreshed)
            s += " refresh " + std::to_string(act);
        return s;
    }

    std::map<std::string, std::string> reg = load("registration.txt");
    std::map<std::string, std::string> ops = load("operators.txt");
};

TEST(ActMap, NumbersOfTheAccessTechnology)
{
    struct {
        int32_t act;
        uint32_t id;
    } rows[] = {{-1, 0}, {0, 1}, {2, 3}, {7, 8}, {8, 9}, {9, 0}, {10, 10}, {13, 13}, {14, 0}, {255, 0}};
    for (const auto &row : rows)
        EXPECT_EQ(generic_get_act(row.act), row.id) << row.act;
}

TEST_F(NetTest, ParserReadsEveryForm)
{
    // area, cell, act: -1 when not read.
    struct {
        const char *capture;
        int regtype;
        bool sim, ok;
        uint32_t mode, status;
        int64_t area, cell, act;
    } rows[] = {
        {"creg_n0", NET_REG_CS, true, true, 1, 1, -1, -1, -1},
        {"creg_n1_roaming", NET_REG_CS, true, true, 2, 5, -1, -1, -1},
        {"creg_n2", NET_REG_CS, true, true, 3, 1, 54537, 135086397, 8},
        {"creg_numeric", NET_REG_CS, true, true, 3, 1, 54537, 135086397, 8},
        {"cgreg_n2", NET_REG_GPRS, true, true, 3, 1, 54537, 135086397, 8},
        {"cereg_n2_searching", NET_REG_EPS, true, true, 3, 2, -1, -1, -1},
        {"cereg_n2_not_registered", NET_REG_EPS, true, true, 3, 0, -1, -1, -1},
        {"cereg_ts27007", NET_REG_EPS, true, true, 3, 1, 6699, 27440068, 8},
        {"cereg_n1_with_loc", NET_REG_EPS, true, true, 2, 1, -1, -1, -1},
        {"cereg_act9", NET_REG_EPS, true, true, 3, 1, 6699, 27440068, 0},
        {"cereg_act14", NET_REG_EPS, true, true, 3, 5, 6699, 27440068, 0},
        {"cereg_n3", NET_REG_EPS, true, true, 0, 1, -1, -1, -1},
        {"c5greg_n2", NET_REG_5GS, true, true, 3, 1, 3824670, 37358981143, 11},
        {"urc_creg", NET_REG_CS, true, true, 0, 1, -1, -1, -1},
        {"urc_cereg_loc", NET_REG_EPS, true, true, 0, 1, 54537, 135086397, 8},
        {"urc_cereg_denied", NET_REG_EPS, true, true, 0, 3, -1, -1, -1},
        {"creg_n2", NET_REG_CS, false, true, 3, 4, -1, -1, -1},
        {"urc_cereg_loc", NET_REG_EPS, false, true, 0, 4, -1, -1, -1},
        {"cereg_n2", NET_REG_CS, true, false, 0, 0, -1, -1, -1},
        {"cme_error", NET_REG_CS, true, false, 0, 0, -1, -1, -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.capture) + " type " + std::to_string(row.regtype));
        net_reg_report r;
        ASSERT_EQ(net_reg_parse(reg.at(row.capture), row.regtype, row.sim, generic_get_act, &r), row.ok);
        if (!row.ok)
            continue;
        EXPECT_EQ(r.mode_id, row.mode);
        EXPECT_EQ(r.status, row.status);
        EXPECT_EQ(r.has_area ? int64_t(r.area) : -1, row.area);
        EXPECT_EQ(r.has_cell ? int64_t(r.cell) : -1, row.cell);
        EXPECT_EQ(r.has_act ? int64_t(r.act_id) : -1, row.act);
    }
}

TEST_F(NetTest, SingleReadReplies)
{
    const std::string reg_loc = R"j("mode_id":3,"mode":"Enabled (with location information)",)j"
                                R"j("max_mode_id":3,"max_mode":"Enabled (with location information)",)j";
    struct {
        act_func fn;
        const char *capture;
        int phase;
        int32_t pin;
        int status;
        std::string reply;
    } rows[] = {
        {get_net_ereg_stat, "cereg_ts27007", 1, PIN_STATE_OK, 0,
         "{" + reg_loc + R"j("status_id":1,"status":"Registered, home","reg_tac":"6699","reg_ci":"27440068",)j"
                         R"j("act_id":8,"act":"E-UTRAN"})j"},
        {get_net_greg_stat, "cgreg_n2", 1, PIN_STATE_OK, 0,
         "{" + reg_loc + R"j("status_id":1,"status":"Registered, home","reg_lac":"54537","reg_ci":"135086397",)j"
                         R"j("act_id":8,"act":"E-UTRAN"})j"},
        {get_net_5greg_stat, "c5greg_n2", 1, PIN_STATE_OK, 0,
         "{" + reg_loc + R"j("status_id":1,"status":"Registered, home","reg_tac":"3824670",)j"
                         R"j("reg_ci":"37358981143","act_id":11,"act":"NR connected to 5GCN"})j"},
        {get_net_ereg_stat, "cereg_act9", 1, PIN_STATE_OK, 0,
         "{" + reg_loc + R"j("status_id":1,"status":"Registered, home","reg_tac":"6699","reg_ci":"27440068",)j"
                         R"j("act_id":0,"act":"Unknown","response":"\r\n+CEREG: 2,1,\"1A2B\",\"01A2B3C4\",9\r\n\r\nOK\r\n"})j"},
        {get_net_reg_stat, "creg_n2", 1, PIN_STATE_NOT_INSERTED, 0,
         "{" + reg_loc + R"j("status_id":4,"status":"Unknown"})j"},
        {get_net_reg_stat, "creg_n2", 1, -1, 0, "{" + reg_loc + R"j("status_id":4,"status":"Unknown"})j"},
        {get_net_reg_stat, "creg_n0", 1, PIN_STATE_NOT_READY, 0,
         R"j({"mode_id":1,"mode":"Disabled","max_mode_id":3,"max_mode":"Enabled (with location information)",)j"
         R"j("status_id":4,"status":"Unknown"})j"},
        // A URC text has no final result: read only in phase 2.
        {get_net_reg_stat, "urc_creg", 2, PIN_STATE_OK, 0,
         R"j({"mode_id":0,"mode":"Unknown","max_mode_id":3,"max_mode":"Enabled (with location information)",)j"
         R"j("status_id":1,"status":"Registered, home","response":"\r\n+CREG: 1\r\n"})j"},
        {get_net_reg_stat, "urc_creg", 1, PIN_STATE_OK, 5, "{}"},
        {get_net_reg_stat, "cme_error", 1, PIN_STATE_OK, 5, "{}"},
        {get_net_reg_stat, "cereg_n2", 1, PIN_STATE_OK, 5, "{}"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.capture);
        pin(row.pin);
        response = reg.at(row.capture);
        mdm.set_response(response.data(), response.size());
        reply = ujson::create();
        EXPECT_EQ(row.fn(&mdm, row.phase, reply.get(), &req), row.status);
        EXPECT_EQ(json_text(*reply), row.reply);
    }
}

TEST_F(NetTest, CommandsAndArguments)
{
    std::string too_long(33, '1');
    struct {
        act_func fn;
        std::unique_ptr<ujson> args;
        int status;
        const char *command;
    } rows[] = {
        {get_net_reg_stat, nullptr, 0, "AT+CREG?\r"},
        {get_net_greg_stat, nullptr, 0, "AT+CGREG?\r"},
        {get_net_ereg_stat, nullptr, 0, "AT+CEREG?\r"},
        {get_net_5greg_stat, nullptr, 0, "AT+C5GREG?\r"},
        {get_net_reg_stat_all, nullptr, 0, "AT+C5GREG?\rAT+CEREG?\rAT+CGREG?\rAT+CREG?\r"},
        {get_op_slc, nullptr, 0, "AT+COPS?\r"},
        {set_net_reg_stat, args({{"mode", "enable_loc"}}), 0, "AT+CREG=2\r"},
        {set_net_greg_stat, args({{"mode", "disable"}}), 0, "AT+CGREG=0\r"},
        {set_net_ereg_stat, args({{"mode", "enable"}}), 0, "AT+CEREG=1\r"},
        {set_net_5greg_stat, args({{"mode", "default"}}), 0, "AT+C5GREG=0\r"},
        {set_net_reg_stat, args({{"mode", "2"}}), 2, ""},
        {set_net_reg_stat, args({}), 2, ""},
        {set_op_slc, args({{"mode", "manual"}, {"format", "long"}, {"operator", "26201"}}), 0,
         "AT+COPS=1,2,\"26201\"\r"},
        {set_op_slc, args({{"mode", "manual_auto"}, {"operator", "Telekom.de"}}), 0, "AT+COPS=4,2,\"Telekom.de\"\r"},
        {set_op_slc, args({{"mode", "auto"}, {"format", "short"}}), 0, "AT+COPS=0,1\r"},
        {set_op_slc, args({{"mode", "deregister"}}), 0, "AT+COPS=2\r"},
        {set_op_slc, args({{"format", "long"}}), 0, "AT+COPS=3,0\r"},
        {set_op_slc, args({{"mode", "manual"}, {"operator", "26201\"\r\nAT+CFUN=0"}}), 2, ""},
        {set_op_slc, args({{"mode", "manual"}, {"operator", "26201\x1a"}}), 2, ""},
        {set_op_slc, args({{"mode", "manual"}, {"operator", too_long.c_str()}}), 2, ""},
        {set_op_slc, args({{"operator", "26201"}}), 2, ""},
        {set_op_slc, args({{"mode", "automatic"}}), 2, ""},
        {set_op_slc, args({{"mode", "auto"}, {"format", "numbers"}}), 2, ""},
        {set_op_slc, args({}), 2, ""},
    };
    for (auto &row : rows) {
        SCOPED_TRACE(row.command);
        EXPECT_EQ(build(row.fn, row.args.get()), row.status);
        EXPECT_EQ(command(), row.command);
    }
}

TEST_F(NetTest, AllReportsGiveTheRegistrationThatCounts)
{
    struct {
        const char *capture;
        int32_t pin;
        const char *tables; // the report tables present
        int32_t status, act;
        const char *area_key, *area, *ci;
        std::string events;
    } rows[] = {
        {"all_ec25", PIN_STATE_OK, "cereg cgreg creg", 1, 8, "reg_tac", "54537", "135086397", "2=21"},
        {"all_rm520n", PIN_STATE_OK, "c5greg cereg cgreg creg", 1, 11, "reg_tac", "3824670", "37358981143", "2=22"},
        {"all_ec25_3g", PIN_STATE_OK, "cereg cgreg creg", 5, 7, "reg_lac", "4001", "203107587", "2=8"},
        {"all_ec25", PIN_STATE_NOT_INSERTED, "cereg cgreg creg", 4, -999, nullptr, nullptr, nullptr, "2=2"},
        {"all_ec25_no_sim", PIN_STATE_OK, "cereg cgreg creg", 0, -999, nullptr, nullptr, nullptr, "2=2"},
        {"cme_error", PIN_STATE_OK, "", -999, -999, nullptr, nullptr, nullptr, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.capture + std::string(" pin ") + std::to_string(row.pin));
        cache_manager *c = cache.get();
        for (const char *key : {"reg_stat", "reg_act", "reg_lac", "reg_tac", "reg_ci", "reg_type"})
            c->remove_item_name(key);
        mdm.events.clear();
        pin(row.pin);
        EXPECT_EQ(parse(get_net_reg_stat_all, reg.at(row.capture)), row.status == -999 ? 5 : 0);
        std::string tables;
        for (const char *t : {"c5greg", "cereg", "cgreg", "creg"})
            if (reply->exists(t))
                tables += (tables.empty() ? "" : " ") + std::string(t);
        EXPECT_EQ(tables, row.tables);
        EXPECT_EQ(number("status_id"), row.status);
        EXPECT_EQ(number("act_id"), row.act);
        EXPECT_EQ(number("reg_act"), row.act);
        EXPECT_EQ(cached_number("reg_stat"), row.status);
        EXPECT_EQ(cached_number("reg_act"), row.act);
        for (const char *key : {"reg_lac", "reg_tac"}) {
            bool it = row.area_key && std::string(key) == row.area_key;
            EXPECT_EQ(field(key), it ? row.area : "<none>") << key;
            EXPECT_EQ(cached(key), it ? row.area : "<none>") << key;
        }
        EXPECT_EQ(field("reg_ci"), row.ci ? row.ci : "<none>");
        EXPECT_EQ(cached("reg_ci"), row.ci ? row.ci : "<none>");
        EXPECT_EQ(happened(), row.events);
    }
}

TEST_F(NetTest, UrcsRaiseTheStateAndKeepTheCacheCoherent)
{
    struct {
        urc_func handler;
        const char *capture;
        int32_t cur_type, cur_stat; // the cached registration before; -1 none
        int status;
        std::string happened;
        int32_t reg_stat;
        const char *reg_tac;
    } rows[] = {
        // Complete and better: cached at once, with the service mode.
        {urc_cereg, "urc_cereg_loc", -1, -1, 0, "18=1 2=21", 1, "54537"},
        {urc_c5greg, "urc_c5greg_loc", NET_REG_EPS, 1, 0, "18=1 2=22", 1, "3824670"},
        // Registered without location: the reports are read again.
        {urc_creg, "urc_creg", -1, -1, 0, "17=1 refresh 23", -999, "<none>"},
        // The report that counted got worse: read again.
        {urc_cereg, "urc_cereg_lost", NET_REG_EPS, 1, 0, "18=0 refresh 23", 1, "<none>"},
        // A lesser report changing leaves the registration alone.
        {urc_cgreg, "urc_cgreg_searching", NET_REG_EPS, 1, 0, "18=2", 1, "<none>"},
        // Nothing counted yet: a search is all there is.
        {urc_cgreg, "urc_cgreg_searching", -1, -1, 0, "18=2 2=2", 2, "<none>"},
        {urc_creg, "cme_error", -1, -1, ACT_STATUS_INVALID_URC, "", -999, "<none>"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.capture);
        for (const char *key : {"reg_stat", "reg_type", "reg_tac"})
            cache->remove_item_name(key);
        if (row.cur_type >= 0) {
            cache->update_item("reg_type", CACHE_DATA_INT32, &row.cur_type, 4);
            cache->update_item("reg_stat", CACHE_DATA_INT32, &row.cur_stat, 4);
        }
        mdm.events.clear();
        mdm.refreshed.clear();
        EXPECT_EQ(urc(row.handler, reg.at(row.capture)), row.status);
        EXPECT_EQ(happened(), row.happened);
        EXPECT_EQ(cached_number("reg_stat"), row.reg_stat);
        EXPECT_EQ(cached("reg_tac"), row.reg_tac);
    }
    // Without a usable SIM the state is unknown.
    pin(PIN_STATE_FAILURE);
    mdm.events.clear();
    EXPECT_EQ(urc(urc_creg, reg.at("urc_creg")), 0);
    EXPECT_EQ(mdm.events.at(0).number, 4);
}

TEST_F(NetTest, ScanTakesTheInterfacesDownAroundIt)
{
    struct {
        const char *block; // "block_ifup" argument, null when absent
        int iface_result;
        int build_status;
        const char *answer; // parsed after a successful build
        int parse_status;
        std::vector<int> iface;
    } rows[] = {
        {nullptr, 0, 0, "scan_ec25", 0, {2, 1}},
        {"false", 0, 0, "scan_none", 0, {2, 1}},
        {"true", 0, 0, "scan_ec25", 0, {}},
        {nullptr, 2, 0, "scan_ec25", 0, {2, 1}}, // an interface that went away
        {nullptr, 0, 0, "scan_error", 5, {2, 1}},
        {nullptr, 1, 1, nullptr, 0, {2, 1}}, // a call failed: nothing is sent
        {nullptr, 3, 1, nullptr, 0, {2, 1}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.answer ? row.answer : "-") + " result " + std::to_string(row.iface_result));
        mdm.iface_actions.clear();
        mdm.iface_result = row.iface_result;
        cache->remove_item_name("operator_scan");
        auto a = ujson::create();
        if (row.block)
            a->add_bool("block_ifup", std::string(row.block) == "true");
        ASSERT_EQ(build(scan_op, a.get()), row.build_status);
        EXPECT_EQ(command(), row.build_status ? "" : "AT+COPS=?\r");
        if (row.answer) {
            EXPECT_EQ(parse(scan_op, ops.at(row.answer)), row.parse_status);
        }
        EXPECT_EQ(mdm.iface_actions, row.iface);
        EXPECT_EQ(cache->get_item("operator_scan") != nullptr, row.answer && row.parse_status == 0);
    }
}

TEST_F(NetTest, ScanListsEveryOperatorAndIsCached)
{
    ASSERT_EQ(build(scan_op, nullptr), 0);
    ASSERT_EQ(parse(scan_op, ops.at("scan_ec25")), 0);
    EXPECT_EQ(json_text(*reply),
              R"j({"operators":[)j"
              R"j({"oper_name":"Telekom.de","short_name":"TDG","oper_num":26201,"state_id":3,"state":"Current","act_id":8},)j"
              R"j({"oper_name":"Vodafone.de","short_name":"Vodafone","oper_num":26202,"state_id":2,"state":"Available","act_id":8},)j"
              R"j({"oper_name":"o2 - de","short_name":"o2 - de","oper_num":26203,"state_id":4,"state":"Forbidden","act_id":8}]})j");
    const cache_item *kept = cache->get_item("operator_scan");
    ASSERT_TRUE(kept && kept->json());
    EXPECT_EQ(json_text(*kept->json()), json_text(*reply));
    EXPECT_NEAR(std::atoll(cached("last_scan").c_str()), static_cast<long long>(std::time(nullptr)), 5);
}

TEST_F(NetTest, OperatorSelectionRead)
{
    struct {
        const char *capture;
        int status;
        int32_t mode, format;
        const char *oper;
        int32_t act;
    } rows[] = {
        {"cops_long", 0, 1, 1, "Telekom.de", 8},
        {"cops_numeric_manual", 0, 2, 3, "26202", 3},
        {"cops_endc", 0, 1, 1, "Vodafone.de", 13},
        {"cops_nbiot", 0, 1, 3, "26201", 0},
        {"cops_unregistered", 0, 1, -999, "<none>", -999},
        {"cops_no_service", 0, 0, -999, "<none>", -999},
        {"scan_error", 5, -999, -999, "<none>", -999},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.capture);
        cache->remove_item_name("op_format");
        cache->update_item("operator", CACHE_DATA_STRING, "old", 4);
        EXPECT_EQ(parse(get_op_slc, ops.at(row.capture)), row.status);
        EXPECT_EQ(number("mode_id"), row.mode);
        EXPECT_EQ(number("format_id"), row.format);
        EXPECT_EQ(cached_number("op_format"), row.format);
        EXPECT_EQ(field("operator"), row.oper);
        EXPECT_EQ(number("act_id"), row.act);
        if (row.format != -999) {
            EXPECT_EQ(cached("operator"), row.oper);
        }
    }
    EXPECT_EQ(parse(get_op_slc, ops.at("cops_unregistered")), 0);
    EXPECT_EQ(cached("operator"), "<none>");
}

TEST_F(NetTest, OperatorSelectionWriteEffects)
{
    struct {
        std::unique_ptr<ujson> args;
        const char *answer;
        int status;
        std::string happened;
        int32_t op_format;
        const char *oper;
    } rows[] = {
        {args({{"mode", "manual"}, {"format", "long"}, {"operator", "26201"}}), "\r\nOK\r\n", 0, " refresh 23", 1,
         "<none>"},
        {args({{"mode", "manual"}, {"operator", "26201"}}), "0\r", 0, " refresh 23", 3, "<none>"},
        {args({{"mode", "auto"}}), "\r\nOK\r\n", 0, "27=0!", -999, "old"},
        {args({{"mode", "auto"}}), "\r\n+CME ERROR: 30\r\n", 5, "", -999, "old"},
        {args({{"format", "short"}}), "\r\nOK\r\n", 0, "", 2, "old"},
    };
    for (auto &row : rows) {
        SCOPED_TRACE(row.happened);
        cache->remove_item_name("op_format");
        cache->update_item("operator", CACHE_DATA_STRING, "old", 4);
        mdm.events.clear();
        mdm.refreshed.clear();
        ASSERT_EQ(build(set_op_slc, row.args.get()), 0);
        EXPECT_EQ(parse(set_op_slc, row.answer), row.status);
        EXPECT_EQ(happened(), row.happened);
        EXPECT_EQ(cached_number("op_format"), row.op_format);
        EXPECT_EQ(cached("operator"), row.oper);
    }
}

TEST(NetInstall, ActionsAndUrcHandlers)
{
    modem_driver drv = {"Test AT", "test", nullptr, nullptr};
    generic_net_install(&drv);
    struct {
        uint32_t act;
        act_func fn;
    } acts[] = {
        {ACT_SET_NET_REG_STAT, set_net_reg_stat},     {ACT_GET_NET_REG_STAT, get_net_reg_stat},
        {ACT_GET_NET_GREG_STAT, get_net_greg_stat},   {ACT_SET_NET_GREG_STAT, set_net_greg_stat},
        {ACT_GET_NET_EREG_STAT, get_net_ereg_stat},   {ACT_SET_NET_EREG_STAT, set_net_ereg_stat},
        {ACT_GET_NET_5GREG_STAT, get_net_5greg_stat}, {ACT_SET_NET_5GREG_STAT, set_net_5greg_stat},
        {ACT_GET_NET_REG_STAT_ALL, get_net_reg_stat_all}, {ACT_GET_OPER_SELECTION, get_op_slc},
        {ACT_SET_OPER_SELECTION, set_op_slc},         {ACT_OPERATOR_SCAN, scan_op},
    };
    for (const auto &a : acts)
        EXPECT_EQ(drv.funcs[a.act], a.fn) << a.act;
    struct {
        const char *line;
        urc_func handler;
    } urcs[] = {{"\r\n+CREG: 1\r\n", urc_creg},
                {"\r\n+CGREG: 1\r\n", urc_cgreg},
                {"\r\n+CEREG: 1\r\n", urc_cereg},
                {"\r\n+C5GREG: 1\r\n", urc_c5greg}};
    for (const auto &u : urcs)
        EXPECT_EQ(modem_driver_urc_method(&drv, u.line, std::strlen(u.line)), u.handler) << u.line;
    while (urc_entry *e = drv.urcs) {
        drv.urcs = e->next;
        delete e;
    }
}

} // namespace

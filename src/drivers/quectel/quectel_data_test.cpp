#include "drivers/quectel/quectel_data.h"

#include <algorithm>
#include <cstdio>

#include "drivers/generic/testdata_answers.h"

namespace
{

using QuectelDataTest = driver_test;

TEST_F(QuectelDataTest, CommandsFromArguments)
{
    const std::string apn63(63, 'a');
    const std::string long_apn_ok = R"({"cid":1,"type":"IP","apn":")" + apn63 + R"(","auth_tp":"None"})";
    // clang-format off
    const struct { act_func fn; std::string args; std::string outcome; } rows[] = {
        // Context type is the pdp_type id; authentication its AT value.
        {set_apn_auth, R"({"cid":1,"type":"ipv4","apn":"internet","username":"user","passw":"secret","auth_tp":"PAP"})", "0 AT+QICSGP=1,1,\"internet\",\"user\",\"secret\",1\r"},
        {set_apn_auth, R"({"cid":16,"type":"IPV4V6","apn":"web","auth_tp":"pap_chap"})", "0 AT+QICSGP=16,3,\"web\",\"\",\"\",3\r"},
        {set_apn_auth, long_apn_ok, "0 AT+QICSGP=1,1,\"" + apn63 + "\",\"\",\"\",0\r"},
        {get_apn_auth, R"({"index":16})", "0 AT+QICSGP=16\r"},
        {set_pdp_ctx_state, R"({"cid":1,"state":"activate"})", "0 AT+QIACT=1\r"},
        {set_pdp_ctx_state, R"({"cid":3,"state":"Deactivated","timeout":60})", "0 AT+QIDEACT=3\r"},
        {get_attached_pdp_ctx_list, "{}", "0 AT+QIACT?\r"},
        {set_dns_addr, R"({"cid":1,"pri_dns":"8.8.8.8"})", "0 AT+QIDNSCFG=1,\"8.8.8.8\"\r"},
        {set_dns_addr, R"({"cid":2,"pri_dns":"2001:4860:4860::8888","sec_dns":"1.1.1.1"})", "0 AT+QIDNSCFG=2,\"2001:4860:4860::8888\",\"1.1.1.1\"\r"},
        // Parameters up to the last one given, empty before it.
        {gnss_start, "{}", "0 AT+QGPS=1\r"},
        {gnss_start, R"({"mode":"Speed optimal","fix_max_time":30,"accuracy":"High","fix_count":0,"fix_interval":1})", "0 AT+QGPS=4,30,10,0,1\r"},
        {gnss_start, R"({"fix_count":5})", "0 AT+QGPS=1,,,5\r"},
        {gnss_start, R"({"accuracy":"Medium","fix_interval":65535})", "0 AT+QGPS=1,,100,,65535\r"},
        {gnss_stop, "{}", "0 AT+QGPSEND\r"},
        {set_nmea_outport, R"({"port":"usbnmea"})", "0 AT+QGPSCFG=\"outport\",\"usbnmea\"\r"},
        // Each system's own bits; a type it cannot output refuses the set.
        {set_nmea, R"({"satellite":"gps","types":["GGA","RMC"]})", "0 AT+QGPSCFG=\"gpsnmeatype\",3\r"},
        {set_nmea, R"({"satellite":"glonass","types":["GNS","GSA"]})", "0 AT+QGPSCFG=\"glonassnmeatype\",6\r"},
        {set_nmea, R"({"satellite":"beidou","types":["GSV"]})", "0 AT+QGPSCFG=\"beidounmeatype\",2\r"},
        {set_nmea, R"({"satellite":"beidou","types":[]})", "0 AT+QGPSCFG=\"beidounmeatype\",0\r"},
        {get_nmea, R"({"satellite":"beidou"})", "0 AT+QGPSCFG=\"beidounmeatype\"\rAT+QGPSLOC=2\r"},
        {set_dpo_mode, R"({"mode":"dynamic"})", "0 AT+QGPSCFG=\"dpoenable\",2\r"},
        {get_dpo_mode, "{}", "0 AT+QGPSCFG=\"dpoenable\"\r"},
    };
    // clang-format on
    for (const auto &row : rows)
        EXPECT_EQ(built(row.fn, row.args), row.outcome) << row.args;
}

TEST_F(QuectelDataTest, AnswersIntoReplies)
{
    // clang-format off
    const struct { act_func fn; const char *build_args; const char *answer; const char *outcome; } rows[] = {
        // Read form of the BG96 TCP/IP manual as a public cellular AT manual
        // quotes it; an unset context reads type 0 and empty texts.
        {get_apn_auth, R"({"index":2})", "\r\n+QICSGP: 0,\"\",\"\",\"\",0\r\n\r\nOK\r\n", R"(0 {"cid":2,"passw_set":false,"auth_tp_id":1,"auth_tp":"None"})"},
        // Constructed from that form: the password never comes back, even
        // with a comma in it; no blank after the colon, lower-case tag.
        {get_apn_auth, R"({"index":3})", "\r\n+qicsgp:3,\"web\",\"me\",\"p,w\",2\r\n\r\nOK\r\n", R"(0 {"cid":3,"type_id":3,"type":"IPV4V6","apn":"web","username":"me","passw_set":true,"auth_tp_id":3,"auth_tp":"CHAP"})"},
        {get_apn_auth, R"({"index":1})", "\r\n+QICSGP: 1,\"web\"\r\n\r\nOK\r\n", "5 {}"},
        {get_apn_auth, R"({"index":1})", "\r\n+QICSGP: 5,\"web\",\"\",\"\",0\r\n\r\nOK\r\n", "5 {}"},
        {set_apn_auth, nullptr, "\r\nOK\r\n", "0 {}"},
        {set_apn_auth, nullptr, "\r\nERROR\r\n", "5 {}"},
        // BG96 example of the same manual; none active is a bare OK.
        {get_attached_pdp_ctx_list, nullptr, "\r\n+QIACT: 1,1,1,\"10.100.32.119\"\r\n\r\nOK\r\n", R"(0 {"list":[{"cid":1,"state_id":2,"state":"Activated","type_id":1,"type":"IP","addr":"10.100.32.119"}]})"},
        {get_attached_pdp_ctx_list, nullptr, "\r\nOK\r\n", R"(0 {"list":[]})"},
        // Constructed: an IPv6 context without its address, blanks around
        // fields, a line the list cannot read is skipped.
        {get_attached_pdp_ctx_list, nullptr, "\r\n+QIACT:2, 1 ,2,\"\"\r\n+QIACT: x,1\r\n+QIACT: 3,0,1\r\n\r\nOK\r\n", R"(0 {"list":[{"cid":2,"state_id":2,"state":"Activated","type_id":2,"type":"IPV6"},{"cid":3,"state_id":1,"state":"Deactivated","type_id":1,"type":"IP"}]})"},
        {get_attached_pdp_ctx_list, nullptr, "\r\nERROR\r\n", "5 {}"},
        // GNSS error codes of a BG96 table: 504 already on, 505 not on.
        {gnss_start, nullptr, "\r\nOK\r\n", R"(0 {"running":true})"},
        {gnss_start, nullptr, "\r\n+CME ERROR: 504\r\n", R"(0 {"running":true})"},
        {gnss_start, nullptr, "\r\n+CME ERROR: 503\r\n", "5 {}"},
        {gnss_stop, nullptr, "\r\nOK\r\n", R"(0 {"running":false})"},
        {gnss_stop, nullptr, "\r\n+CME ERROR: 505\r\n", R"(0 {"running":false})"},
        {gnss_stop, nullptr, "\r\n+CME ERROR: 504\r\n", "5 {}"},
        // Read form of the EC2x GNSS note as a public EC2x tool quotes it
        // (31 is the GPS default), followed by the position.
        {get_nmea, R"({"satellite":"gps"})", "\r\n+QGPSCFG: \"gpsnmeatype\",31\r\n\r\nOK\r\n" "\r\n+QGPSLOC: 022137.000,37.87512,-122.29062,0.8,11.8,3,0.00,0.0,0.0,280821,09\r\n\r\nOK\r\n", R"(0 {"types":["GGA","RMC","GSV","GSA","VTG"],"position":{"running":true,"fix_id":3,"fix":"3D","latitude":37.875120,"longitude":-122.290620,"altitude":11.800000,"hdop":0.800000,"course":0.000000,"speed":0.000000,"satellites":9,"utc":"2021-08-28T02:21:37Z"}})"},
        {get_nmea, R"({"satellite":"glonass"})", "\r\n+QGPSCFG: \"glonassnmeatype\",6\r\n\r\nOK\r\n\r\n+CME ERROR: 516\r\n", R"(0 {"types":["GSA","GNS"],"position":{"running":true,"fix_id":1,"fix":"No fix"}})"},
        {get_nmea, R"({"satellite":"galileo"})", "\r\n+QGPSCFG:\"galileonmeatype\",0\r\n\r\nOK\r\n\r\n+CME ERROR: 505\r\n", R"(0 {"types":[],"position":{"running":false,"fix_id":1,"fix":"No fix"}})"},
        // A modem without GNSS: no position at all.
        {get_nmea, R"({"satellite":"beidou"})", "\r\n+QGPSCFG: \"beidounmeatype\",2\r\n\r\nOK\r\n\r\nERROR\r\n", R"(0 {"types":["GSV"]})"},
        {get_nmea, R"({"satellite":"gps"})", "\r\nERROR\r\n\r\n+CME ERROR: 505\r\n", "5 {}"},
        // The same with numeric results (ATV0): "0\r" ends each part.
        {get_nmea, R"({"satellite":"beidou"})", "+QGPSCFG: \"beidounmeatype\",3\r\n0\r+CME ERROR: 516\r\n", R"(0 {"types":["GSA","GSV"],"position":{"running":true,"fix_id":1,"fix":"No fix"}})"},
        {get_nmea, R"({"satellite":"gps"})", "\r\n+QGPSCFG: \"gpsnmeatype\",32\r\n\r\nOK\r\n\r\nERROR\r\n", "5 {}"},
        {get_nmea, R"({"satellite":"gps"})", "\r\n+QGPSCFG: \"beidounmeatype\",1\r\n\r\nOK\r\n\r\nERROR\r\n", "5 {}"},
        {get_dpo_mode, nullptr, "\r\n+QGPSCFG: \"dpoenable\",2\r\n\r\nOK\r\n", R"(0 {"mode_id":3,"mode":"Dynamic"})"},
        {get_dpo_mode, nullptr, "\r\nERROR\r\n", "5 {}"},
    };
    // clang-format on
    for (const auto &row : rows) {
        // The build hands the parse what it needs (the context, the system).
        EXPECT_EQ(row.build_args ? build(row.fn, json_of(row.build_args).get()) : 0, 0) << row.answer;
        EXPECT_EQ(parsed(row.fn, row.answer), row.outcome) << row.answer;
    }
}

// parse_qgpsloc over AT+QGPSLOC answers, as one line of text per result.
std::string describe(const gnss_position &p)
{
    auto num = [](const std::optional<double> &v) {
        char buf[32];
        std::snprintf(buf, sizeof(buf), "%.6f", v.value_or(0));
        return v ? std::string(buf) : std::string("-");
    };
    const char *status = p.status == gnss_position::result::fixed    ? "fixed"
                         : p.status == gnss_position::result::no_fix ? "no_fix"
                                                                     : "invalid";
    if (p.status != gnss_position::result::fixed)
        return status;
    return std::string(status) + " lat=" + num(p.latitude) + " lon=" + num(p.longitude) + " alt=" + num(p.altitude) +
           " hdop=" + num(p.hdop) + " fix=" + (p.fix ? std::to_string(*p.fix) : "-") + " cog=" + num(p.course) +
           " speed=" + num(p.speed) + " nsat=" + (p.satellites ? std::to_string(*p.satellites) : "-") +
           " utc=" + (p.utc.empty() ? "-" : p.utc);
}

TEST(QgpslocParser, CapturedAndEdgeForms)
{
    // clang-format off
    const struct { const char *text; const char *result; } rows[] = {
        // Mode 2 example of the EC2x GNSS note, as a public EC2x tool quotes it.
        {"\r\n+QGPSLOC: 022137.000,37.87512,-122.29062,0.8,11.8,3,0.00,0.0,0.0,280821,09\r\n\r\nOK\r\n", "fixed lat=37.875120 lon=-122.290620 alt=11.800000 hdop=0.800000 fix=3 cog=0.000000 speed=0.000000 nsat=9 " "utc=2021-08-28T02:21:37Z"},
        // Mode 0 example from the same source: ddmm.mmmm with hemispheres.
        {"\r\n+QGPSLOC: 142748.0,2259.0881S,04321.5515W,2.0,-83.0,2,0.00,0.0,0.0,140119,10\r\n\r\nOK\r\n", "fixed lat=-22.984802 lon=-43.359192 alt=-83.000000 hdop=2.000000 fix=2 cog=0.000000 speed=0.000000 nsat=10 " "utc=2019-01-14T14:27:48Z"},
        // No fix yet (BG96 error table); not running is no position at all.
        {"\r\n+CME ERROR: 516\r\n", "no_fix"},
        {"\r\n+CME ERROR: 505\r\n", "invalid"},
        // Constructed variants: no blank after the colon, lower-case tag,
        // "-" and empty fields stay unset, the satellite count may be
        // missing, extra trailing fields are ignored.
        {"\r\n+qgpsloc:022137.000,37.87512,-122.29062,-,,3,-,12.5,6.7,280821\r\n\r\nOK\r\n", "fixed lat=37.875120 lon=-122.290620 alt=- hdop=- fix=3 cog=- speed=12.500000 nsat=- " "utc=2021-08-28T02:21:37Z"},
        {"\r\n+QGPSLOC: 235959.0, 0.5 ,179.9,1.1,0.0,2,359.99,1.0,0.5,311299,04,extra\r\n\r\nOK\r\n", "fixed lat=0.500000 lon=179.900000 alt=0.000000 hdop=1.100000 fix=2 cog=359.990000 speed=1.000000 nsat=4 " "utc=2099-12-31T23:59:59Z"},
        // A broken date leaves the time out, not the position.
        {"\r\n+QGPSLOC: 022137.000,37.87512,-122.29062,0.8,11.8,3,0.00,0.0,0.0,281321,09\r\n\r\nOK\r\n", "fixed lat=37.875120 lon=-122.290620 alt=11.800000 hdop=0.800000 fix=3 cog=0.000000 speed=0.000000 nsat=9 " "utc=-"},
        // Unusable: latitude out of range, no fix kind, minutes past 59,
        // too few fields, missing hemisphere letter handled as a number.
        {"\r\n+QGPSLOC: 022137.000,91.0,-122.29062,0.8,11.8,3,0.00,0.0,0.0,280821,09\r\n\r\nOK\r\n", "invalid"},
        {"\r\n+QGPSLOC: 022137.000,37.87512,-122.29062,0.8,11.8,1,0.00,0.0,0.0,280821,09\r\n\r\nOK\r\n", "invalid"},
        {"\r\n+QGPSLOC: 142748.0,2260.0881S,04321.5515W,2.0,-83.0,2,0.00,0.0,0.0,140119,10\r\n\r\nOK\r\n", "invalid"},
        {"\r\n+QGPSLOC: 022137.000,37.87512,-122.29062,0.8,11.8,3\r\n\r\nOK\r\n", "invalid"},
    };
    // clang-format on
    for (const auto &row : rows)
        EXPECT_EQ(describe(parse_qgpsloc(row.text)), row.result) << row.text;
}

} // namespace

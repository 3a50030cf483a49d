// The file actions: what they build from the caller's arguments, what they
// refuse, and how they read the module's answers.
#include "drivers/quectel/quectel_file.h"

#include <string>

#include "comm/request.h"
#include "drivers/generic/driver_test_support.h"
#include "drivers/quectel/quectel.h"
#include "util/root_test_support.h"

namespace
{

class QuectelFileTest : public driver_test
{
  protected:
    void SetUp() override
    {
        driver_test::SetUp();
        root.write("/tmp/dir.bin/x", "");
    }
    // A file under the root, "/tmp/<name>" as the caller names it.
    void put(const std::string &name, const std::string &bytes) { root.write("/tmp/" + name, bytes); }

    temp_root root;
};

// Paths reach the module with its storage prefix (refusals: the family's
// table); EC2x answers as the public DFOTA updater notes and the peer EC2x
// module notes show them (names listed with their storage prefix).
TEST_F(QuectelFileTest, CommandsAndAnswers)
{
    // clang-format off
    const struct { step op; act_func fn; const char *text, *expect; } rows[] = {
        {BUILD, get_file_list, "{}", "0 AT+QFLST=\"*\"\r"},
        {BUILD, get_file_list, R"({"path":"UFS:dfota_update.bin"})", "0 AT+QFLST=\"UFS:dfota_update.bin\"\r"},
        {BUILD, delete_file, R"({"path":"RAM:log.txt"})", "0 AT+QFDEL=\"RAM:log.txt\"\r"},
        {BUILD, get_storage_space, R"({"storage":"SD"})", "0 AT+QFLDS=\"SD\"\r"},
        {BUILD, dfota_upgrade, R"({"path":"update.bin"})", "0 AT+QFOTADL=\"/data/ufs/update.bin\"\r"},
        {BUILD, dfota_upgrade, R"({"path":"UFS:update.bin"})", "0 AT+QFOTADL=\"/data/ufs/update.bin\"\r"},
        {PARSE, get_file_list, "\r\n+QFLST: \"dfota_update.bin\",683\r\n\r\nOK\r\n", R"(0 {"files":[{"name":"dfota_update.bin","size":683}]})"},
        // RAM files carry their prefix; no blank after the colon and a stray
        // one before the size are read alike.
        {PARSE, get_file_list, "\r\n+QFLST: \"a.txt\",12\r\n+QFLST:\"RAM:b.log\", 4096\r\n\r\nOK\r\n", R"(0 {"files":[{"name":"a.txt","size":12},{"name":"RAM:b.log","size":4096}]})"},
        {PARSE, get_file_list, "\r\n+QFLST: \"c\",-\r\n\r\nOK\r\n", R"(0 {"files":[{"name":"c"}]})"}, // size no number
        {PARSE, get_file_list, "\r\n+CME ERROR: 405\r\n", R"(0 {"files":[]})"}, // the file asked for is not there
        {PARSE, get_file_list, "\r\n+CME ERROR: 417\r\n", "5 {}"},
        // Free and total bytes.
        {PARSE, get_storage_space, "\r\n+QFLDS: 10240000,16777216\r\n\r\nOK\r\n", R"(0 {"free":10240000,"total":16777216})"},
        {PARSE, get_storage_space, "\r\n+QFLDS: -,2097152\r\n\r\nOK\r\n", "5 {}"},
        {PARSE, delete_file, "\r\nOK\r\n", "0 {}"},
        {PARSE, delete_file, "\r\n+CME ERROR: 405\r\n", "5 {}"},
    };
    // clang-format on
    for (const auto &r : rows)
        EXPECT_EQ(run(r.op, r.fn, r.text), r.expect) << r.text;
}

TEST_F(QuectelFileTest, UploadOpensTheRouterFileUnderTheRootOrRefusesIt)
{
    put("pkg.bin", std::string(683, 'x'));
    put("pkg\"q", "1");
    // clang-format off
    const struct { std::unique_ptr<ujson> args; int status; const char *command; } rows[] = {
        {json_of(R"({"path":"/tmp/pkg.bin","size":683})"), 0, "AT+QFUPL=\"pkg.bin\",683,10\r"},
        {json_of(R"({"path":"/tmp/pkg.bin","size":683,"timeout":60})"), 0, "AT+QFUPL=\"pkg.bin\",683,60\r"},
        {json_of(R"({"path":"/tmp/pkg.bin","size":682})"), 2, ""}, // not the file's size
        {json_of(R"({"path":"/tmp/pkg.bin","size":683,"timeout":0})"), 2, ""},
        {json_of(R"({"path":"/tmp/dir.bin","size":683})"), 2, ""}, // not a regular file
        {json_of(R"({"path":"tmp/pkg.bin","size":683})"), 2, ""},  // relative
        {json_of(R"({"path":"/tmp/../tmp/pkg.bin","size":683})"), 2, ""},
        {json_of(R"({"path":"/tmp/pkg.bin"})"), 2, ""}, // no size
    };
    // clang-format on
    for (const auto &r : rows) {
        SCOPED_TRACE(r.command);
        req.source = request_source();
        EXPECT_EQ(build(upload_file, r.args.get()), r.status);
        EXPECT_EQ(command(), r.command);
        // The file travels with the request only when the command was built.
        EXPECT_EQ(req.source.active(), r.status == 0);
        if (r.status == 0) {
            EXPECT_EQ(req.source.size, 683u);
        }
    }
}

// The modem's count and checksum, reported in front of the OK, are held
// against what the channel sent.
TEST_F(QuectelFileTest, UploadReportMustMatchWhatWasSent)
{
    // 683 bytes whose checksum is 0x0f6e, the size and checksum of the
    // example answer in the peer DFOTA updater notes ("+QFUPL: 683,f6e").
    std::string data(683, '\0');
    data[0] = '\x0f';
    data[1] = '\x6e';
    put("pkg.bin", data);
    // sent: bytes the channel got out; report: the +QFUPL line, or none
    // clang-format off
    const struct { const char *what; size_t sent; const char *report; const char *answer; int status; const char *reply; } rows[] = {
        {"match", 683, "+QFUPL: 683,f6e", "\r\nOK\r\n", 0, R"({"name":"pkg.bin","size":683,"checksum":3950})"},
        {"checksum differs", 683, "+QFUPL: 683,f6f", "\r\nOK\r\n", 5, ""},
        {"size differs", 683, "+QFUPL: 682,f6e", "\r\nOK\r\n", 5, ""},
        {"channel sent less", 600, "+QFUPL: 683,f6e", "\r\nOK\r\n", 5, ""},
        {"no report", 683, nullptr, "\r\nOK\r\n", 5, ""},
        {"error", 683, nullptr, "\r\n+CME ERROR: 421\r\n", 5, ""},
    };
    // clang-format on
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        auto a = json_of(R"({"path":"/tmp/pkg.bin","size":683})");
        ASSERT_EQ(build(upload_file, a.get()), 0);
        req.source.sent(data.data(), r.sent);
        if (r.report) {
            ASSERT_EQ(urc(urc_qfupl_hex, std::string("\r\n") + r.report + "\r\n"), 0);
        }
        ASSERT_EQ(parse(upload_file, r.answer), r.status);
        if (r.status == 0) {
            EXPECT_EQ(as_json(*reply), r.reply);
        }
    }
    // A report of an earlier upload does not count for the next one.
    ASSERT_EQ(urc(urc_qfupl_hex, "\r\n+QFUPL: 683,f6e\r\n"), 0);
    auto a = json_of(R"({"path":"/tmp/pkg.bin","size":683})");
    ASSERT_EQ(build(upload_file, a.get()), 0);
    req.source.sent(data.data(), data.size());
    EXPECT_EQ(parse(upload_file, "\r\nOK\r\n"), 5);
}

} // namespace

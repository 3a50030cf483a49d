// The file actions: what they build from the caller's arguments, what they
// refuse, and how they read the module's answers.
#include "drivers/quectel/quectel_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "wwan/ubox.h"

#include "comm/request.h"
#include "drivers/generic/driver_test_support.h"
#include "drivers/quectel/quectel.h"

namespace
{

class QuectelFileTest : public driver_test
{
  protected:
    void SetUp() override
    {
        driver_test::SetUp();
        char tmpl[] = "/tmp/qfile_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        const char *old = std::getenv("WWANCTL_ROOT");
        saved_root = old ? old : "";
        had_root = old != nullptr;
        setenv("WWANCTL_ROOT", root.c_str(), 1);
        mkdir((root + "/tmp").c_str(), 0755);
        mkdir((root + "/tmp/dir.bin").c_str(), 0755);
    }
    void TearDown() override
    {
        if (had_root)
            setenv("WWANCTL_ROOT", saved_root.c_str(), 1);
        else
            unsetenv("WWANCTL_ROOT");
        std::string cmd = "rm -rf '" + root + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
        driver_test::TearDown();
    }

    // A file under the root, "/tmp/<name>" as the caller names it.
    void put(const std::string &name, const std::string &bytes)
    {
        std::ofstream(root + "/tmp/" + name, std::ios::binary) << bytes;
    }

    std::string reply_json() const
    {
        char *j = blobmsg_format_json(reply->get_blobmsg(), true);
        std::string s = j ? j : "";
        std::free(j);
        return s;
    }

    std::string events() const
    {
        std::string out;
        for (const auto &e : mdm.events) {
            char *j = e.data ? blobmsg_format_json(e.data->get_blobmsg(), true) : nullptr;
            out += std::to_string(e.id) + "=" + (j ? j : "") + " ";
            std::free(j);
        }
        return out;
    }

    std::string root, saved_root;
    bool had_root = false;
};

// Arguments as the bus hands them: texts, and numbers for the keys named.
std::unique_ptr<ujson> call_args(std::initializer_list<std::pair<const char *, const char *>> texts,
                                 std::initializer_list<std::pair<const char *, int32_t>> numbers = {})
{
    auto json = ujson::create();
    for (const auto &[k, v] : texts)
        json->add_string(k, v);
    for (const auto &[k, v] : numbers)
        json->add_int(k, v);
    return json;
}

TEST_F(QuectelFileTest, CommandsBuiltFromTheArgumentsOrRefused)
{
    const std::string long_name(81, 'a');
    const struct {
        act_func fn;
        std::unique_ptr<ujson> args;
        int status;
        const char *command;
    } rows[] = {
        {get_file_list, call_args({}), 0, "AT+QFLST=\"*\"\r"},
        {get_file_list, call_args({{"path", "*.bin"}}), 0, "AT+QFLST=\"*.bin\"\r"},
        {get_file_list, call_args({{"path", "UFS:dfota_update.bin"}}), 0, "AT+QFLST=\"UFS:dfota_update.bin\"\r"},
        {get_file_list, call_args({{"path", "RAM:*"}}), 0, "AT+QFLST=\"RAM:*\"\r"},
        {get_file_list, call_args({{"path", "../x"}}), 2, ""},
        {get_file_list, call_args({{"path", "a\"b"}}), 2, ""},
        {get_file_list, call_args({{"path", "NAND:x"}}), 2, ""},
        {delete_file, call_args({{"path", "dfota_update.bin"}}), 0, "AT+QFDEL=\"dfota_update.bin\"\r"},
        {delete_file, call_args({{"path", "RAM:log.txt"}}), 0, "AT+QFDEL=\"RAM:log.txt\"\r"},
        {delete_file, call_args({{"path", "*"}}), 2, ""},
        {delete_file, call_args({{"path", "RAM:*"}}), 2, ""},
        {delete_file, call_args({{"path", "a/b"}}), 2, ""},
        {delete_file, call_args({{"path", ".."}}), 2, ""},
        {delete_file, call_args({{"path", ""}}), 2, ""},
        {delete_file, call_args({{"path", "a\tb"}}), 2, ""},
        {delete_file, call_args({{"path", long_name.c_str()}}), 2, ""},
        {delete_file, call_args({}), 2, ""},
        {get_storage_space, call_args({}), 0, "AT+QFLDS=\"UFS\"\r"},
        {get_storage_space, call_args({{"storage", "RAM"}}), 0, "AT+QFLDS=\"RAM\"\r"},
        {get_storage_space, call_args({{"storage", "SD"}}), 0, "AT+QFLDS=\"SD\"\r"},
        {get_storage_space, call_args({{"storage", "NAND"}}), 2, ""},
        {dfota_upgrade, call_args({{"path", "update.bin"}}), 0, "AT+QFOTADL=\"/data/ufs/update.bin\"\r"},
        {dfota_upgrade, call_args({{"path", "/data/ufs/update.bin"}}), 0, "AT+QFOTADL=\"/data/ufs/update.bin\"\r"},
        {dfota_upgrade, call_args({{"path", "UFS:update.bin"}}), 0, "AT+QFOTADL=\"/data/ufs/update.bin\"\r"},
        {dfota_upgrade, call_args({{"path", "http://host/update.bin"}}), 2, ""},
        {dfota_upgrade, call_args({{"path", "/data/ufs/../etc/passwd"}}), 2, ""},
        {dfota_upgrade, call_args({{"path", "/tmp/update.bin"}}), 2, ""},
        {dfota_upgrade, call_args({{"path", "RAM:update.bin"}}), 2, ""},
        {dfota_upgrade, call_args({{"path", "/data/ufs/"}}), 2, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.command);
        EXPECT_EQ(build(r.fn, r.args.get()), r.status);
        EXPECT_EQ(command(), r.command);
    }
}

TEST_F(QuectelFileTest, UploadOpensTheRouterFileUnderTheRootOrRefusesIt)
{
    put("pkg.bin", std::string(683, 'x'));
    put("pkg\"q", "1");
    const struct {
        std::unique_ptr<ujson> args;
        int status;
        const char *command;
    } rows[] = {
        {call_args({{"path", "/tmp/pkg.bin"}}, {{"size", 683}}), 0, "AT+QFUPL=\"pkg.bin\",683,10\r"},
        {call_args({{"path", "/tmp/pkg.bin"}}, {{"size", 683}, {"timeout", 60}}), 0, "AT+QFUPL=\"pkg.bin\",683,60\r"},
        {call_args({{"path", "/tmp/pkg.bin"}}, {{"size", 682}}), 2, ""},  // not the file's size
        {call_args({{"path", "/tmp/pkg.bin"}}, {{"size", 0}}), 2, ""},
        {call_args({{"path", "/tmp/pkg.bin"}}, {{"size", 683}, {"timeout", 0}}), 2, ""},
        {call_args({{"path", "/tmp/none.bin"}}, {{"size", 683}}), 2, ""},
        {call_args({{"path", "/tmp/dir.bin"}}, {{"size", 683}}), 2, ""},  // not a regular file
        {call_args({{"path", "tmp/pkg.bin"}}, {{"size", 683}}), 2, ""},   // relative
        {call_args({{"path", "/tmp/../tmp/pkg.bin"}}, {{"size", 683}}), 2, ""},
        {call_args({{"path", "/tmp/"}}, {{"size", 683}}), 2, ""},         // no base name
        {call_args({{"path", "/tmp/pkg.bin"}}), 2, ""},                    // no size
    };
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

// EC2x answers as the public DFOTA updater notes and the fact that names
// are listed with their storage prefix show them.
TEST_F(QuectelFileTest, FileListAnswers)
{
    const struct {
        const char *answer;
        int status;
        const char *reply;
    } rows[] = {
        // EC25, peer DFOTA updater notes: one package in UFS.
        {"\r\n+QFLST: \"dfota_update.bin\",683\r\n\r\nOK\r\n", 0,
         R"({"files":[{"name":"dfota_update.bin","size":683}]})"},
        // EC2x, peer EC2x module notes: RAM files carry their prefix; no blank
        // after the colon and a stray one before the size are read alike.
        {"\r\n+QFLST: \"a.txt\",12\r\n+QFLST:\"RAM:b.log\", 4096\r\n\r\nOK\r\n", 0,
         R"({"files":[{"name":"a.txt","size":12},{"name":"RAM:b.log","size":4096}]})"},
        // A size that is no number: the name alone.
        {"\r\n+QFLST: \"c\",-\r\n\r\nOK\r\n", 0, R"({"files":[{"name":"c"}]})"},
        // Nothing stored.
        {"\r\nOK\r\n", 0, R"({"files":[]})"},
        // The file asked for by name is not there.
        {"\r\n+CME ERROR: 405\r\n", 0, R"({"files":[]})"},
        {"\r\n+CME ERROR: 417\r\n", 5, ""},
        {"\r\nERROR\r\n", 5, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.answer);
        ASSERT_EQ(parse(get_file_list, r.answer), r.status);
        if (r.status == 0) {
            EXPECT_EQ(reply_json(), r.reply);
        }
    }
}

TEST_F(QuectelFileTest, StorageSpaceAnswers)
{
    const struct {
        const char *answer;
        int status;
        const char *reply;
    } rows[] = {
        // EC2x, peer EC2x module notes: free and total bytes.
        {"\r\n+QFLDS: 10240000,16777216\r\n\r\nOK\r\n", 0, R"({"free":10240000,"total":16777216})"},
        {"\r\n+qflds:52224, 2097152\r\n\r\nOK\r\n", 0, R"({"free":52224,"total":2097152})"},
        {"\r\n+QFLDS: 52224\r\n\r\nOK\r\n", 5, ""},
        {"\r\n+QFLDS: -,2097152\r\n\r\nOK\r\n", 5, ""},
        {"\r\nOK\r\n", 5, ""},
        {"\r\n+CME ERROR: 400\r\n", 5, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.answer);
        ASSERT_EQ(parse(get_storage_space, r.answer), r.status);
        if (r.status == 0) {
            EXPECT_EQ(reply_json(), r.reply);
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
    const struct {
        const char *what;
        size_t sent;       // bytes the channel got out
        const char *report; // the +QFUPL line, or none
        const char *answer;
        int status;
        const char *reply;
    } rows[] = {
        {"match", 683, "+QFUPL: 683,f6e", "\r\nOK\r\n", 0, R"({"name":"pkg.bin","size":683,"checksum":3950})"},
        {"upper-case hex, no blank", 683, "+QFUPL:683,F6E", "\r\nOK\r\n", 0,
         R"({"name":"pkg.bin","size":683,"checksum":3950})"},
        {"checksum differs", 683, "+QFUPL: 683,f6f", "\r\nOK\r\n", 5, ""},
        {"size differs", 683, "+QFUPL: 682,f6e", "\r\nOK\r\n", 5, ""},
        {"channel sent less", 600, "+QFUPL: 683,f6e", "\r\nOK\r\n", 5, ""},
        {"no report", 683, nullptr, "\r\nOK\r\n", 5, ""},
        {"error", 683, nullptr, "\r\n+CME ERROR: 421\r\n", 5, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        auto a = call_args({{"path", "/tmp/pkg.bin"}}, {{"size", 683}});
        ASSERT_EQ(build(upload_file, a.get()), 0);
        req.source.sent(data.data(), r.sent);
        if (r.report) {
            ASSERT_EQ(urc(urc_qfupl_hex, std::string("\r\n") + r.report + "\r\n"), 0);
        }
        ASSERT_EQ(parse(upload_file, r.answer), r.status);
        if (r.status == 0) {
            EXPECT_EQ(reply_json(), r.reply);
        }
    }
    // A report of an earlier upload does not count for the next one.
    ASSERT_EQ(urc(urc_qfupl_hex, "\r\n+QFUPL: 683,f6e\r\n"), 0);
    auto a = call_args({{"path", "/tmp/pkg.bin"}}, {{"size", 683}});
    ASSERT_EQ(build(upload_file, a.get()), 0);
    req.source.sent(data.data(), data.size());
    EXPECT_EQ(parse(upload_file, "\r\nOK\r\n"), 5);
}

TEST_F(QuectelFileTest, DeleteAndUpdateAnswerByTheirResult)
{
    const struct {
        act_func fn;
        const char *answer;
        int status;
    } rows[] = {
        {delete_file, "\r\nOK\r\n", 0},
        {delete_file, "\r\n+CME ERROR: 405\r\n", 5},
        {dfota_upgrade, "\r\nOK\r\n", 0},
        {dfota_upgrade, "\r\n+CME ERROR: 405\r\n", 5},
    };
    for (const auto &r : rows)
        EXPECT_EQ(parse(r.fn, r.answer), r.status) << r.answer;
}

} // namespace

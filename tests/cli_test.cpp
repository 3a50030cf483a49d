// The daemon's command line as a person or a service manager sees it:
// exact output on each stream and the exit status.
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

extern char **environ;

namespace
{

struct Result {
    std::string out, err;
    int status = -1;
};

std::string slurp(int fd)
{
    std::string s;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0)
        s.append(buf, n);
    return s;
}

// Runs the daemon with the given arguments; stdout and stderr go to files so
// neither can block the other.
Result run(std::vector<std::string> args)
{
    args.insert(args.begin(), WWANCTL_EXE);
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    FILE *out = tmpfile(), *err = tmpfile();
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fileno(out), 1);
    posix_spawn_file_actions_adddup2(&fa, fileno(err), 2);
    pid_t pid;
    Result r;
    if (posix_spawn(&pid, WWANCTL_EXE, &fa, nullptr, argv.data(), environ) == 0) {
        int st;
        waitpid(pid, &st, 0);
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }
    posix_spawn_file_actions_destroy(&fa);
    rewind(out);
    rewind(err);
    r.out = slurp(fileno(out));
    r.err = slurp(fileno(err));
    fclose(out);
    fclose(err);
    return r;
}

std::string golden(const char *name)
{
    std::ifstream f(std::string(WWANCTL_TEST_DATA) + "/" + name, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

const char *const usage = "Usage: wwanctl [options]\n"
                          "Options:\n"
                          "  -c | --compress    Enable log compressing\n"
                          "  -D | --debug       Enable debugging output\n"
                          "  -a | --analyze     Run driver analysis\n"
                          "  -h | --help        Print this message\n\n";

const char *const banner = "wwanctl init\n"
                           "wwanctl canary build git#807dd7cb552\n"
                           "\n"
                           "AT traffic support:  yes\n"
                           "Baseband feature support: no\n"
                           "\n";

// Help goes to standard error with status 0 whatever follows it; an unknown
// option is the parser's complaint and status 1. Nothing on standard output.
TEST(CliTest, HelpAndUnknownOptions)
{
    const struct {
        std::vector<std::string> args;
        int status;
    } rows[] = {
        {{"-h"}, 0},  {{"--help"}, 0}, {{"-D", "-h"}, 0}, {{"-h", "-D"}, 0}, {{"-h", "--bogus"}, 0},
        {{"-ah"}, 0}, {{"-x"}, 1},     {{"--bogus"}, 1},  {{"-D", "-q"}, 1}, {{"--debug=1"}, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        Result r = run(row.args);
        EXPECT_EQ(r.status, row.status);
        EXPECT_EQ(r.out, "");
        if (row.status == 0) {
            EXPECT_EQ(r.err, usage);
        } else {
            EXPECT_NE(r.err.find("wwanctl"), std::string::npos) << r.err;
            EXPECT_EQ(r.err.find("Usage:"), std::string::npos);
        }
    }
}

// The report of every linked driver: registration order, override chains and
// the supported actions.
TEST(CliTest, AnalysisReportMatchesGoldenFile)
{
    Result r = run({"-a"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, std::string(banner) + golden("analysis.txt"));
    EXPECT_EQ(run({"--analyze"}).out, r.out);

    // With debugging the driver list comes first; drivers are loaded before
    // main sees -D, so no [EARLY] lines appear.
    Result d = run({"-D", "-a"});
    EXPECT_EQ(d.status, 0);
    ASSERT_EQ(d.out.rfind(banner, 0), 0u) << d.out;
    std::string list = d.out.substr(strlen(banner));
    EXPECT_EQ(list.find("[EARLY]"), std::string::npos);
    EXPECT_NE(list.find("] debug: [MODEM_DRIVER] \tgeneric = Generic AT\n"), std::string::npos);
    EXPECT_NE(list.find("] debug: [MODEM_DRIVER] \tquectel,eg06,a = Quectel EG06-A AT\n" + golden("analysis.txt")),
              std::string::npos);
}

} // namespace

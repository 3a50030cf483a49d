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

namespace {

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

TEST(CliTest, HelpPrintsUsageOnStandardErrorOnly)
{
    for (auto args : std::vector<std::vector<std::string>>{
             {"-h"}, {"--help"}, {"-D", "-h"}, {"-h", "-D"}, {"-h", "--bogus"}, {"-ah"}}) {
        SCOPED_TRACE(testing::PrintToString(args));
        Result r = run(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, usage);
        EXPECT_EQ(r.out, "");
    }
}

TEST(CliTest, UnknownOptionsExitOneWithTheParsersComplaint)
{
    for (auto args : std::vector<std::vector<std::string>>{{"-x"}, {"--bogus"}, {"-D", "-q"}, {"--debug=1"}}) {
        SCOPED_TRACE(testing::PrintToString(args));
        Result r = run(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("wwanctl"), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("Usage:"), std::string::npos);
        EXPECT_EQ(r.out, "");
    }
}

TEST(CliTest, AnalysisReportMatchesGoldenFile)
{
    Result r = run({"-a"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, std::string(banner) + golden("analysis.txt"));
    EXPECT_EQ(r.out.find("] debug: "), std::string::npos);

    Result l = run({"--analyze"});
    EXPECT_EQ(l.out, r.out);
}

TEST(CliTest, DebugAnalysisAddsDriverLoadingAndListLines)
{
    Result r = run({"-D", "-a"});
    EXPECT_EQ(r.status, 0);
    std::string out = r.out;
    size_t pos = out.find(banner);
    ASSERT_NE(pos, std::string::npos);
    // Drivers are loaded before main sees -D, so no [EARLY] lines appear.
    EXPECT_EQ(out.find("[EARLY]"), std::string::npos);
    std::string list = out.substr(pos + strlen(banner));
    EXPECT_EQ(list.rfind("[", 0), 0u);
    EXPECT_NE(list.find("] debug: [MODEM_DRIVER] List of drivers:\n"), std::string::npos);
    EXPECT_NE(list.find("] debug: [MODEM_DRIVER] \tgeneric = Generic AT\n"), std::string::npos);
    EXPECT_NE(list.find("] debug: [MODEM_DRIVER] \tquectel,eg06,a = Quectel EG06-A AT\nRunning driver analysis"),
              std::string::npos);
    EXPECT_NE(list.find(golden("analysis.txt")), std::string::npos);
}

// Without a bus the manager cannot start: the daemon says so and exits 1,
// for the service manager to start it again.
TEST(CliTest, WithoutABusTheManagerFailsToInitialize)
{
    char dir[] = "/tmp/wwan-cli-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("WWANCTL_ROOT", dir, 1);
    Result quiet = run({"-c"});
    Result debug = run({"-c", "-D"});
    unsetenv("WWANCTL_ROOT");
    rmdir(dir);

    EXPECT_EQ(quiet.status, 1);
    EXPECT_EQ(quiet.out.rfind(std::string(banner) + "wwanctl running\n[", 0), 0u) << quiet.out;
    EXPECT_NE(quiet.out.find("] error: [MODEM_MANAGER] Failed to initialize ubus subsystem!\n"
                             "Unable to initialize modem manager!\n"),
              std::string::npos)
        << quiet.out;
    EXPECT_EQ(quiet.out.find("] debug: "), std::string::npos);
    EXPECT_EQ(debug.status, 1);
    size_t running = debug.out.find("wwanctl running\n");
    ASSERT_NE(running, std::string::npos) << debug.out;
    std::string next = debug.out.substr(running + 16);
    next = next.substr(0, next.find('\n') + 1);
    EXPECT_EQ(next.rfind("[main:", 0), 0u) << next;
    EXPECT_TRUE(next.ends_with("] debug: Compressed AT logging is enabled!\n")) << next;
}

} // namespace

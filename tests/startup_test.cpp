// Start-up of the real binary: command-line handling, test mode and the log.
#include "testSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace zqimtest;
using namespace std::chrono_literals;

static const std::string kStart = "ZQIMHelper starting...\n";
static const std::string kNoComm = "No comm dir (required). Exiting.\n";

TEST(Startup, EndsEarlyWithoutCommDirOrWithBadPid) {
    const struct {
        std::vector<std::string> args;
        std::string output;
        int code;  // -1: must not exit normally
    } cases[] = {
        {{}, "No PID passed in.\n" + kNoComm, 1},
        {{"-c"}, "No PID passed in.\n" + kNoComm, 1},
        {{"-c", "", "-v"}, "No PID passed in.\nVerbose output selected.\n" + kNoComm, 1},
        {{"-p", "123abc", "-p", "7", "-C", "/tmp"}, "PID was: 123\n" + kNoComm, 1},
        {{"-p", "abc"}, "", -1},
    };
    for (const auto& c : cases) {
        HelperProcess helper(c.args);
        ASSERT_TRUE(helper.wait(20s));
        EXPECT_EQ(helper.exitCode(), c.code) << c.output;
        if (c.code >= 0) {
            EXPECT_EQ(helper.output(), kStart + c.output);
        }
    }
}

TEST(Startup, TestModeOnlyCreatesTheDirectory) {
    TempDir dir;
    WriteFile(dir / "file", "");
    const std::string made = (dir / "a/b").string(), blocked = (dir / "file/sub").string();
    HelperProcess helper(
        {"-t", made, "-t", (dir / "other").string(), "-c", dir.path().string(), "-p", "abc", "-v"});
    // Failing to create the directory still exits 0, and its log line goes nowhere.
    HelperProcess failing({"-t", blocked, "-v"});
    ASSERT_TRUE(helper.wait(20s) && failing.wait(20s));
    EXPECT_EQ(helper.exitCode(), 0);
    EXPECT_EQ(helper.output(), kStart + "Testing Permissions: " + made + "\n");
    EXPECT_TRUE(fs::is_directory(made) && !fs::exists(dir / "other"));
    EXPECT_FALSE(fs::exists(dir / "ZQIMLog.txt"));
    EXPECT_EQ(failing.exitCode(), 0);
    EXPECT_EQ(failing.output(), kStart + "Testing Permissions: " + blocked + "\n");
}

// "-c -v" names the directory "-v" and also turns verbose on, which echoes the
// log line for line (every line stamped, as LogMessages requires). A live
// watched PID does not stop the helper.
TEST(Startup, VerboseEchoesTheLog) {
    TempDir cwd, other;
    fs::create_directory(cwd / "-v");
    Frontend(cwd / "-v").send(1, "exit\n");
    const std::string self = std::to_string(getpid());
    const fs::path oldCwd = fs::current_path();
    fs::current_path(cwd.path());
    HelperProcess helper({"-c", "-v", "-c", other.path().string(), "-p", self, "-p", "1"});
    fs::current_path(oldCwd);
    ASSERT_TRUE(helper.wait(20s));
    EXPECT_EQ(helper.exitCode(), 0);

    const std::string log = ReadFile(cwd / "-v/ZQIMLog.txt");
    EXPECT_EQ(helper.output(), kStart + "PID was: " + self +
                                   "\nVerbose output selected.\nCommunication dir was: -v\n" + log);
    EXPECT_EQ(LogMessages(log),
              (std::vector<std::string>{
                  "Opened Log at: -v/ZQIMLog.txt", "Found command file 1: -v/ZQCmd1.txt",
                  "ServiceCommandFile() - Servicing -v/ZQCmd1.txt.", "Closing log."}));
    EXPECT_FALSE(fs::exists(other / "ZQIMLog.txt"));
}

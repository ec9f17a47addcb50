// Watching a process: start-time records, PID reuse, and the helper ending
// (or waiting) when the watched process goes away.
#include "testSupport.h"

#include "macCommands.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <thread>

using namespace zqimtest;
using namespace std::chrono_literals;

namespace {

// A forked `sleep 1000`; end() (or the end of scope) kills and reaps it once,
// so that a number the system may have reused is never signalled.
struct Sleeper {
    pid_t pid = fork();
    Sleeper() {
        if (pid == 0)
            execlp("sleep", "sleep", "1000", nullptr), _exit(127);
    }
    void end() {
        if (pid > 0 && kill(pid, SIGKILL) == 0)
            waitpid(pid, nullptr, 0);
        pid = -pid;
    }
    ~Sleeper() { end(); }
};

long Count(const Frontend& frontend, const std::string& message) {
    const auto log = frontend.log();
    return std::count(log.begin(), log.end(), message);
}

// Above any Linux pid_max; the huge one also has our PID in its low 32 bits.
const unsigned long kNoSuchPid = 4194305, kHugePid = (1UL << 32) + getpid();

}  // namespace

TEST(Liveness, RecordsStartTimesAndDetectsReuse) {
    LogCapture capture;
    const unsigned long self = getpid();
    const std::string text = ReadProcessStartTime(self);
    EXPECT_TRUE(isProcessAlive(self) && isProcessAlive(self) && handles.at(self) == text);
    EXPECT_FALSE(isProcessAlive(kNoSuchPid) || isProcessAlive(kHugePid));
    EXPECT_EQ(handles.size(), 1u);
    handles.clear();
    EXPECT_TRUE(CheckPID(0) && handles.empty());

    // A later child: another start time, "<micros>-<seconds>" near the clock.
    // A zombie still counts as alive; once reaped it is gone and forgotten.
    std::this_thread::sleep_for(50ms);
    Sleeper child;
    const pid_t pid = child.pid;
    const std::string childText = ReadProcessStartTime(pid);
    EXPECT_TRUE(childText != text && std::stoll(childText) < 1000000) << childText;
    EXPECT_NEAR(std::stoll(childText.substr(childText.find('-') + 1)), std::time(nullptr), 3);
    siginfo_t info;
    kill(pid, SIGKILL);
    EXPECT_EQ(waitid(P_PID, pid, &info, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(isProcessAlive(pid));
    child.end();
    EXPECT_FALSE(isProcessAlive(pid) || handles.count(pid));

    EXPECT_TRUE(RecordProcessStartTime(kNoSuchPid, "5-100"));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(RecordProcessStartTime(kNoSuchPid, "7-200") || handles.count(kNoSuchPid));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "PID Conflict PID:4194305 org_time:5-100 new_time:7-200\n");
    EXPECT_TRUE(RecordProcessStartTime(kNoSuchPid, "7-200"));
}

TEST(LivenessEndToEnd, HelperEndsWhenWatchedProcessIsGone) {
    TempDir comm, comm2;
    Sleeper child;
    HelperProcess helper({"-c", comm.path().string(), "-p", std::to_string(child.pid)});
    HelperProcess never({"-c", comm2.path().string(), "-p", std::to_string(kNoSuchPid)});
    EXPECT_TRUE(never.wait(5s));
    EXPECT_FALSE(helper.wait(2500ms));  // still watching a live process
    child.end();
    ASSERT_TRUE(helper.wait(10s));
    EXPECT_TRUE(helper.exitCode() == 0 && never.exitCode() == 0);
    const auto log = Frontend(comm.path()).log(), log2 = Frontend(comm2.path()).log();
    const std::vector<std::string> tail{"PID is gone. Exiting.", "Closing log."};
    ASSERT_TRUE(log.size() > 2 && log2.size() == 3);
    EXPECT_EQ(std::vector<std::string>(log.end() - 2, log.end()), tail);
    EXPECT_EQ(std::vector<std::string>(log2.begin() + 1, log2.end()), tail);
}

TEST(LivenessEndToEnd, WaitForPidBlocksUntilWatchedProcessEnds) {
    TempDir comm, comm2;
    Frontend frontend(comm.path()), unwatched(comm2.path());
    Sleeper child;
    frontend.send(1, "waitForPID now\nexit\n");
    unwatched.send(1, "waitForPID\n");
    HelperProcess helper({"-c", comm.path().string(), "-p", std::to_string(child.pid)});
    HelperProcess parked({"-c", comm2.path().string()});
    EXPECT_FALSE(frontend.waitFinished(1, 8s));
    EXPECT_GE(Count(frontend, "ServiceCommand() - Waiting for PID: " +
                                  std::to_string(child.pid) + "."), 2);
    child.end();
    EXPECT_TRUE(frontend.waitFinished(1, 30s) && helper.wait(10s));
    EXPECT_EQ(frontend.log().back(), "Closing log.");

    // Without a watched PID the wait never ends (`parked` is killed at scope end).
    EXPECT_FALSE(parked.wait(0ms) || fs::exists(unwatched.file(1, ".zqfin")));
    EXPECT_GE(Count(unwatched, "ServiceCommand() - Waiting for PID: 0."), 2);
}

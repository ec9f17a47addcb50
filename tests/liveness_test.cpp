// Watching a process: start-time records, PID reuse, and the helper waiting
// for, then ending with, the process it watches.
#include "testSupport.h"

#include "liveness.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <regex>
#include <thread>

using namespace zqimtest;
using namespace std::chrono_literals;

// Above any Linux pid_max; the huge one also has our PID in its low 32 bits.
static const unsigned long kNoSuchPid = 4194305, kHugePid = (1UL << 32) + getpid();

// A helper without a usable comm dir polls until it is killed (and reaped,
// once), which makes it a convenient process to watch.
static std::vector<std::string> Idle() { return {"-c", "/nonexistent/zqim"}; }

TEST(Liveness, RecordsStartTimesAndDetectsReuse) {
    const unsigned long self = getpid();
    EXPECT_TRUE(isProcessAlive(self) && isProcessAlive(self));
    EXPECT_FALSE(isProcessAlive(kNoSuchPid) || isProcessAlive(kHugePid) ||
                 handles.count(kNoSuchPid) || handles.count(kHugePid));
    std::this_thread::sleep_for(50ms);  // so that the child starts in a later clock tick
    HelperProcess child(Idle());
    EXPECT_TRUE(isProcessAlive(child.pid()) && handles.at(child.pid()) != handles.at(self));
    child.kill();
    EXPECT_FALSE(isProcessAlive(child.pid()) || handles.count(child.pid()));

    // The same number with another start time: reported, forgotten, then new.
    EXPECT_TRUE(RecordProcessStartTime(kNoSuchPid, "5-100"));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(RecordProcessStartTime(kNoSuchPid, "7-200") || handles.count(kNoSuchPid));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "PID Conflict PID:4194305 org_time:5-100 new_time:7-200\n");
    EXPECT_TRUE(RecordProcessStartTime(kNoSuchPid, "7-200"));
}

// waitForPID outlasts its first 5-second pause while the watched process
// lives; once that is killed and reaped the file is answered and the next
// round ends the helper.
TEST(LivenessEndToEnd, HelperWaitsForTheWatchedProcessThenEnds) {
    TempDir comm;
    Frontend frontend(comm.path());
    frontend.send(1, "waitForPID\n");
    HelperProcess child(Idle());
    HelperProcess helper({"-c", comm.path().string(), "-p", std::to_string(child.pid())});
    EXPECT_FALSE(frontend.waitFinished(1, 7s) || helper.wait(0s));
    child.kill();
    EXPECT_TRUE(frontend.waitFinished(1, 20s) && helper.wait(10s));
    EXPECT_EQ(helper.exitCode(), 0);
    const std::regex tail("Z: PID is gone\\. Exiting\\.\n[^\n]*Z: Closing log\\.\n$");
    EXPECT_TRUE(std::regex_search(frontend.logText(), tail)) << frontend.logText();
}

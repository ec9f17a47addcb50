// The command-file exchange end to end: the real helper on a scratch
// communication directory, played against as the front-end does.
#include "testSupport.h"

#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <thread>

using namespace zqimtest;
using namespace std::chrono_literals;

TEST(Exchange, ServicesEachCommandFileOnceInNumberOrder) {
    TempDir comm;
    Frontend frontend(comm.path());
    WriteFile(comm / "ZQIMLog.txt", "2000-01-01T00:00:00Z: left by an earlier run\n");
    for (std::string ignored : {"ZQCmd0", "ZQCmd-2", "zqcmd1"}) {
        WriteFile(comm / (ignored + ".txt"), "exit\n");
        WriteFile(comm / (ignored + ".zqsig"), "");
    }
    frontend.send(2, "makeDir " + (comm / "two").string() + "\n");
    fs::create_directory(frontend.file(4, ".txt"));  // cannot be read, still answered
    WriteFile(frontend.file(4, ".zqsig"), "");
    WriteFile(comm / "ZQCmd5.backup.txt", "makeDir " + (comm / "five").string() + "\n");
    frontend.send(9, "exit");
    HelperProcess helper({"-c", comm.path().string()});

    // Command 5 has no signal file yet: the helper waits there, not looking past it.
    const std::string noSig =
        "GetNextCommand() - No sig file found (" + (comm / "ZQCmd5.backup.zqsig").string() + ").";
    auto log = frontend.log();
    for (int i = 0; i < 1000 && std::count(log.begin(), log.end(), noSig) < 2;
         ++i, log = frontend.log())
        std::this_thread::sleep_for(20ms);
    ASSERT_GE(std::count(log.begin(), log.end(), noSig), 2);
    EXPECT_FALSE(fs::exists(frontend.file(9, ".zqfin")));
    WriteFile(frontend.file(2, ".txt"), "exit\n");  // already serviced: never read again
    WriteFile(comm / "ZQCmd5.backup.zqsig", "");
    ASSERT_TRUE(helper.wait(20s));
    EXPECT_EQ(helper.exitCode(), 0);

    for (int n : {2, 4, 5, 9})
        EXPECT_EQ(ReadFile(frontend.file(n, ".zqfin")), "Finished.") << n;
    EXPECT_FALSE(fs::exists(frontend.file(0, ".zqfin")) || fs::exists(frontend.file(2, ".err")));
    EXPECT_TRUE(fs::is_directory(comm / "two") && fs::is_directory(comm / "five"));
    log = frontend.log();
    ASSERT_FALSE(log.empty());
    std::vector<std::string> found;
    std::copy_if(log.begin(), log.end(), std::back_inserter(found),
                 [](const std::string& m) { return m.rfind("Found command file ", 0) == 0; });
    EXPECT_EQ(found, (std::vector<std::string>{
                         "Found command file 2: " + frontend.file(2, ".txt").string(),
                         "Found command file 4: " + frontend.file(4, ".txt").string(),
                         "Found command file 5: " + (comm / "ZQCmd5.backup.txt").string(),
                         "Found command file 9: " + frontend.file(9, ".txt").string()}));
    EXPECT_EQ(log.front(), "Opened Log at: " + (comm / "ZQIMLog.txt").string());
    EXPECT_EQ(helper.output(),
              "ZQIMHelper starting...\nNo PID passed in.\nCommunication dir was: " +
                  comm.path().string() + "\n");
}

// Error codes pile up over the run, and each error file is complete before the
// finished file that tells the front-end to read it appears.
TEST(Exchange, ErrorFilesAccumulateAndComeBeforeFinishedFiles) {
    ScratchMount readOnly(64 * 1024, true);
    if (!readOnly.ok())
        GTEST_SKIP() << "needs the privilege to mount a tmpfs";
    TempDir comm;
    Frontend frontend(comm.path());
    const int watch = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(inotify_add_watch(watch, comm.path().c_str(), IN_CLOSE_WRITE), 0);
    frontend.send(1, "makeDir " + (readOnly.path() / "x").string() + "\n");
    frontend.send(2, "copyDest y\nmakeDir " + (comm / "never").string() + "\n");
    HelperProcess helper({"-c", comm.path().string()});
    ASSERT_TRUE(helper.wait(20s));
    EXPECT_EQ(helper.exitCode(), 0);
    EXPECT_EQ(ReadFile(frontend.file(1, ".err")), "2007\nend\n");
    EXPECT_EQ(ReadFile(frontend.file(2, ".err")), "2006\n2007\nend\n");
    EXPECT_FALSE(fs::exists(comm / "never"));

    std::string closed;  // files closed after writing, in order; one read holds them all
    alignas(inotify_event) char buffer[64 * 1024];
    const ssize_t size = read(watch, buffer, sizeof buffer);
    for (ssize_t at = 0; at < size;
         at += sizeof(inotify_event) + ((inotify_event*)&buffer[at])->len)
        closed += std::string(((inotify_event*)&buffer[at])->name) + "|";
    close(watch);
    const std::regex order(R"(ZQCmd1\.err\|.*ZQCmd1\.zqfin\|.*ZQCmd2\.err\|.*ZQCmd2\.zqfin\|)");
    EXPECT_TRUE(std::regex_search(closed, order)) << closed;
}

TEST(Exchange, KeepsPollingWithoutUsableCommDir) {
    TempDir dir;
    WriteFile(dir / "file", "");
    for (const char* name : {"none", "file"}) {
        HelperProcess helper({"-c", (dir / name).string()});
        EXPECT_FALSE(helper.wait(2s)) << name;
        helper.kill();  // still running: it dies of this signal, not of its own
        EXPECT_TRUE(WIFSIGNALED(helper.exitStatus()) && WTERMSIG(helper.exitStatus()) == SIGKILL);
    }
}

// A chain of folders deeper than any stack: walks keep their state on the
// heap, so it is handed over with the usual 8 MiB of stack in a few bytes per
// level, and deleted with a stack far too small for one frame per level.
// End-to-end through the real binary, on a scratch tmpfs that takes the
// chain with it when it goes, whatever happened.
#include "testSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

using namespace zqimtest;

namespace {

// Makes a chain of `levels` folders named "d" below `top`, through handles:
// its paths are far longer than any the system takes.
void MakeChain(const fs::path& top, int levels) {
    int dir = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(dir, 0);
    for (int level = 0; level < levels; ++level) {
        const int made = mkdirat(dir, "d", 0755) == 0 ? openat(dir, "d", O_RDONLY | O_DIRECTORY)
                                                      : -1;
        close(dir);
        ASSERT_GE(dir = made, 0) << "level " << level;
    }
    close(dir);
}

// The owner of the deepest folder of a chain, and how many levels it has.
std::pair<uid_t, int> Deepest(const fs::path& top) {
    int dir = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), levels = 0;
    for (int next; (next = openat(dir, "d", O_RDONLY | O_DIRECTORY)) >= 0; ++levels) {
        close(dir);
        dir = next;
    }
    struct stat st {};
    fstat(dir, &st);
    close(dir);
    return {st.st_uid, levels};
}

struct HelperRun {
    bool exited = false;
    int status = -1;
    long peakKiB = 0;
    std::string log;
};

// Services `lines` (which end the helper) with `stack` bytes of stack at
// most; the helper's peak resident size comes from the kernel.
HelperRun ServiceWithStack(const std::string& lines, rlim_t stack) {
    TempDir comm;
    Frontend frontend(comm.path());
    frontend.send(1, lines);
    const char* helper = std::getenv("ZQIM_HELPER") ? std::getenv("ZQIM_HELPER")
                                                    : ZQIM_HELPER_BINARY;
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        const rlimit limit{stack, stack};
        if (setrlimit(RLIMIT_STACK, &limit) != 0)
            _exit(126);
        execl(helper, helper, "-c", comm.path().c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    HelperRun run;
    struct rusage usage {};
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (wait4(child, &status, WNOHANG, &usage) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            wait4(child, &status, 0, &usage);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    run.exited = WIFEXITED(status);
    run.status = run.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    run.peakKiB = usage.ru_maxrss;
    run.log = frontend.logText();
    return run;
}

}  // namespace

TEST(DeepTree, ChainOf200000FoldersIsHandedOverAndDeletedWithoutRecursion) {
    constexpr int kLevels = 200000;
    ScratchMount scratch(64 << 20);
    if (!scratch.ok())
        GTEST_SKIP() << "mounting a scratch tmpfs needs root";
    const fs::path top = scratch.path() / "top";
    fs::create_directory(top);
    MakeChain(top, kLevels);
    if (HasFatalFailure())
        return;

    // 8 MiB held one frame per level for 60,000 levels or so.
    const HelperRun handed = ServiceWithStack(
        "setUserID 65534\nsetGroupID 65534\nfixPermsR " + top.string() + "\nexit\n", 8 << 20);
    ASSERT_TRUE(handed.exited) << "signal " << handed.status;
    EXPECT_EQ(handed.status, 0);
    EXPECT_NE(handed.log.find("DoFixPerms(recursive, uid=65534,gid=65534) - chown done on 0 "
                              "files and 200000 dirs with 0 errors."),
              std::string::npos);
    EXPECT_EQ(Deepest(top), std::make_pair(uid_t(65534), kLevels));
    // The whole peak, the helper's fixed cost included, over the levels.
    // AddressSanitizer's shadow memory and redzones are no measure of ours.
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LE(handed.peakKiB * 1024 / kLevels, 200) << handed.peakKiB << " KiB at the peak";
#endif

    // Every folder's path is logged when it is deleted, which for a chain
    // grows with the square of its depth: a chain deeper than 128 KiB of
    // stack held frames for (800 levels or so) keeps the log small.
    constexpr int kDeleted = 3000;
    const fs::path other = scratch.path() / "other";
    fs::create_directory(other);
    MakeChain(other, kDeleted);
    const HelperRun deleted =
        ServiceWithStack("delFolder " + (other / "d").string() + "\nexit\n", 128 << 10);
    ASSERT_TRUE(deleted.exited) << "signal " << deleted.status;
    EXPECT_EQ(deleted.status, 0);
    const std::string said = "DoDelFolder(" + (other / "d").string() + ") - ";
    EXPECT_NE(deleted.log.find(said + "deleting 0 files and " + std::to_string(2 * kDeleted - 1) +
                               " folders.\n"),
              std::string::npos);
    // Longest first: the deepest folder, named in full, comes first.
    std::string deepest = (other / "d").string();
    for (int level = 1; level < kDeleted; ++level)
        deepest += "/d";
    const std::string line = said + "deleting folder: \"" + deepest + "\"\n";
    const std::size_t first = deleted.log.find(said + "deleting folder: ");
    EXPECT_TRUE(first != std::string::npos && deleted.log.compare(first, line.size(), line) == 0);
    EXPECT_TRUE(fs::is_empty(other));
}

// The helper under faults and hostile input: full and read-only volumes, no
// rights, stale and rewritten files, awkward bytes in paths, very deep trees
// and very long command files. End-to-end through the real binary.
#include "deleteOps.h"
#include "installOps.h"
#include "interpreter.h"
#include "ownershipOps.h"
#include "testSupport.h"

#ifdef __linux__
#include <sys/mount.h>
#endif
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace zqimtest;
using namespace std::chrono_literals;

namespace {

std::size_t Count(const std::string& text, const std::string& piece) {
    std::size_t n = 0;
    for (auto at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        ++n;
    return n;
}

struct Answer {
    std::string err, log;  // the log's messages, one a line, without time stamps
};

// Services `lines` as the only command file; they must end the helper.
Answer Service(const std::string& lines, bool asNobody = false,
               std::chrono::seconds patience = 60s) {
    TempDir comm;
    // The helper's own private directory, whoever it runs as.
    if (asNobody && chown(comm.path().c_str(), 65534, 65534) != 0)
        ADD_FAILURE() << "cannot hand the communication directory to nobody";
    Frontend frontend(comm.path());
    frontend.send(1, lines);
    HelperProcess helper({"-c", comm.path().string()}, asNobody);
    EXPECT_TRUE(helper.wait(patience) && helper.exitCode() == 0) << helper.output();
    EXPECT_EQ(ReadFile(frontend.file(1, ".zqfin")), "Finished.");
    Answer answer{ReadFile(frontend.file(1, ".err")), ""};
    for (const std::string& message : frontend.log())
        answer.log += message + "\n";
    EXPECT_EQ(answer.log.rfind("Closing log.\n") + 13, answer.log.size());
    return answer;
}

}  // namespace

TEST(Faults, FullAndReadOnlyVolumesReportTheirCodes) {
    ScratchMount full(16 * 1024), readOnly(16 * 1024, true);
    if (!full.ok() || !readOnly.ok())
        GTEST_SKIP() << "mounting a scratch tmpfs needs root";
    TempDir src;
    WriteFile(src / "big", std::string(64 * 1024, 'x'));
    WriteFile(full.path() / "victim", "v");
    WriteFile(full.path() / "filler", std::string(64 * 1024, 'f'));  // stops when full
#ifdef __linux__  // the only place scratch volumes exist
    // A directory costs no data block on tmpfs: take away the free inodes too.
    struct statvfs vfs {};
    ASSERT_EQ(statvfs(full.path().c_str(), &vfs), 0);
    const std::string inodes = "nr_inodes=" + std::to_string(vfs.f_files - vfs.f_ffree);
    ASSERT_EQ(mount("tmpfs", full.path().c_str(), "tmpfs", MS_REMOUNT, inodes.c_str()), 0);
#endif

    const std::string f = full.path().string(), big = (src / "big").string();
    Answer a = Service("makeDir " + f + "/new/sub\nsetRoot " + f + "\ncopySrc " + big +
                       "\ncopyDest victim\nexit\n");
    EXPECT_EQ(a.err, "2001\nend\n");
    EXPECT_EQ(Count(a.log, "ZQIMCreateDirs() - No space to create dir \"\"" + f +
                               "/new/sub\"\": Error 28: "), 1u);
    EXPECT_EQ(Count(a.log, "ZQIMMoveOrCopyFile() - No space on device for \"\"" + f +
                               "/victim\"\": Error 28: "), 1u);
    EXPECT_EQ(Count(a.log, "Fatal error 2001: copyDest victim\nClosing log.\n"), 1u);

    a = Service("setRoot " + readOnly.path().string() + "\ncopySrc " + big +
                "\ncopyDest sub/f\nexit\n");
    EXPECT_EQ(a.err, "2007\nend\n");
    EXPECT_EQ(Count(a.log, "Fatal error 2007: copyDest sub/f\nClosing log.\n"), 1u);
}

TEST(Faults, UnprivilegedHelperIsDeniedAndSaysSo) {
    if (!IsRoot())
        GTEST_SKIP() << "running the helper as nobody needs root";
    TempDir root;
    fs::permissions(root.path(), fs::perms(0755));
    const std::string r = root.path().string();
    Answer a = Service("makeDir " + r + "/made\nsetRoot " + r +
                       "\ncopySrc /etc/hostname\ncopyDest sub/f\nexit\n", true);
    EXPECT_EQ(a.err, "2002\nend\n");
    EXPECT_EQ(Count(a.log, "ZQIMCreateDirs() - Permission denied creating dir \"\"" + r +
                               "/made\"\": Error 13: "), 1u);
    EXPECT_EQ(Count(a.log, "Fatal error 2002: copyDest sub/f\nClosing log.\n"), 1u);
}

TEST(Faults, EntryThatVanishedCountsAsDeleted) {
    LogCapture log;
    TempDir dir;
    EXPECT_FALSE(DeleteWithRetry(dir / "gone"));
    EXPECT_TRUE(log.messages().empty());  // no error, so no retry pause either
}

// Walks hold a few descriptors, not one per level: a tree 1,000 levels deep
// is copied, handed over and deleted with 64 descriptors allowed.
TEST(Faults, AwkwardBytesInPathsAndAThousandLevelTree) {
    TempDir root, src;
    const std::string name = "q\"uo\\te \x01\x1b\x7f\xff\xfe\tend", r = root.path().string();
    WriteFile(src / name, "data");
    fs::path deep = src.path();
    for (int level = 0; level < 1000; ++level)
        deep /= "d";
    fs::create_directories(deep);
    WriteFile(deep / "f", "x");
    const std::string ids = std::to_string(geteuid()) + ",gid=" + std::to_string(getegid());
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    const rlimit few{64, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    Answer a = Service("makeDir " + r + "/" + name + "/made\nsetRoot " + r + "\ncopySrc " +
                       src.path().string() + "\ncopyDest copy\ndelFile " + name + "/made\n" +
                       "setUserID " + std::to_string(geteuid()) + "\nsetGroupID " +
                       std::to_string(getegid()) + "\nfixPermsR " + r + "/copy\ndelFolder " +
                       r + "/copy\nexit\n");
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(a.err, "");
    EXPECT_FALSE(fs::exists(root / name));  // made, then deleted and pruned
    EXPECT_EQ(Count(a.log, "did not exist"), 0u);
    EXPECT_FALSE(fs::exists(root / "copy"));
    std::string quoted;
    for (char c : r + "/" + name + "/made")
        quoted += (c == '"' || c == '\\') ? std::string{'\\', c} : std::string{c};
    EXPECT_EQ(Count(a.log, "DoDelFile() - Deleting file: \"" + quoted + "\"\n"), 1u);
    EXPECT_EQ(Count(a.log, "DoFixPerms(recursive, uid=" + ids +
                               ") - chown done on 2 files and 1000 dirs with 0 errors."), 1u);
    EXPECT_EQ(Count(a.log, "DoDelFolder(" + r + "/copy) - deleting 2 files and 2001 folders."), 1u);
}

TEST(Faults, StaleRewrittenAndHugeCommandFiles) {
    TempDir comm;
    Frontend frontend(comm.path());
    for (int i = 1; i <= 2500; ++i) {  // 10,000 names that are no command file of ours
        const std::string n = std::to_string(i);
        for (const std::string& name : {"ZQCmd0." + n + ".txt", "zqcmd" + n + ".txt",
                                        "ZQCmd-" + n + ".txt", "ZQCmd" + n + ".txt.bak"})
            WriteFile(comm / name, "makeDir " + (comm / "stale").string() + "\n");
    }
    HelperProcess helper({"-c", comm.path().string()});
    frontend.send(1, "progress 7\n");
    ASSERT_TRUE(frontend.waitFinished(1, 10s));
    frontend.send(1, "makeDir " + (comm / "again").string() + "\n");  // already serviced

    std::string lines;
    for (int i = 0; i < 100000; ++i)
        lines += i % 2 ? "progress 2\n" : "progress 1\n";
    frontend.send(2, lines + "exit\n");
    ASSERT_TRUE(helper.wait(300s));
    EXPECT_EQ(ReadFile(frontend.file(2, ".zqfin")), "Finished.");
    EXPECT_EQ(ReadFile(frontend.file(2, ".progress")), "2 %\n");
    const std::string log = frontend.logText();
    EXPECT_EQ(Count(log, ": ServiceCommand() - progress is now: "), 100001u);
    EXPECT_EQ(Count(log, ": Found command file "), 2u);
    EXPECT_FALSE(fs::exists(comm / "stale"));
    EXPECT_FALSE(fs::exists(comm / "again"));
}

// No system call sees a path past a NUL byte. Today `fixPermsR <dir>\0x`
// lists <dir> again and again, one level "deeper" each time, and never ends.
TEST(Faults, NulByteInAValueDoesNotHangTheHelper) {
    TempDir root;
    fs::create_directory(root / "sub");
    Service("fixPermsR " + root.path().string() + std::string(1, '\0') + "x\nexit\n", false, 10s);
}

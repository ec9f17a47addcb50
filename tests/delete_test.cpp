// Deleting one file with pruning of the directories it empties, deleting whole
// folder trees, and repairing ownership, on real scratch trees. No walk ever
// follows a link.
#include "testSupport.h"

#include "deleteOps.h"
#include "ownershipOps.h"
#include "runState.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <thread>

using namespace zqimtest;
using Lines = std::vector<std::string>;
using Owner = std::pair<uid_t, gid_t>;

static std::string Q(const fs::path& p) { return "\"" + p.string() + "\""; }
static std::string Del(fs::path p) { return "DoDelFile() - Deleting file: " + Q(p); }
static std::string Prune(fs::path p) { return "DoDelFile() - Deleting empty folder: " + Q(p); }
static void Touch(const fs::path& p) { fs::create_directories(p.parent_path()); WriteFile(p, ""); }
static Owner OwnerOf(const fs::path& p) {
    struct stat st {};
    return lstat(p.c_str(), &st) == 0 ? Owner(st.st_uid, st.st_gid) : Owner(-1, -1);
}

// A file's emptied parents are pruned up to the root, which stays; but the
// root is compared only after a removal, so a root emptied by removing its
// own entry goes too and the climb goes on above it, and a root with a
// trailing separator never matches. A folder tree goes longest paths first,
// files before folders, a subfolder twice.
TEST(Delete, PrunesEmptiedParentsAndRemovesTreesDeepestFirstWithoutFollowingLinks) {
    TempDir tmp;
    LogCapture log;
    const fs::path r = tmp / "root", top = tmp / "top", missing = tmp / "missing";
    for (const char* f : {"root/a/b/f", "root/n/x", "slashed/a/f", "e/f", "top/sub/f", "out/f",
                          "p/kept/x/y/f"})
        Touch(tmp / f);
    fs::create_directories(tmp / "flat");
    fs::create_directory_symlink(tmp / "out", top / "link");
    EXPECT_EQ(DoDelFile(r.string(), "a/b/f"), 0);
    EXPECT_EQ(DoDelFile(r.string(), "gone/f"), 0);
    EXPECT_EQ(DoDelFile(r.string(), "n"), 2004);
    EXPECT_EQ(DoDelFile((tmp / "flat").string(), "missing"), 0);  // pruning needs no removal
    EXPECT_EQ(DoDelFile((tmp / "slashed").string() + "/", "a/f"), 0);
    EXPECT_EQ(DoDelFile((tmp / "p/kept").string(), "x/y/f"), 0);
    EXPECT_EQ(DoDelFile("", (tmp / "e/f").string()), 0);
    EXPECT_EQ(DoDelFolder(top.string()) + DoDelFolder(missing.string()), 0);
    const std::string t = "DoDelFolder(" + top.string() + ") - ";
    EXPECT_EQ(log.messages(), (Lines{
        Del(r / "a/b/f"), Prune(r / "a/b"), Prune(r / "a"), Del(r / "gone/f"),
        "DoDelFile(gone/f) - File did not exist.",
        "DoDelFile(" + Q(r / "gone") + ") - error determining empty dir: 0", Del(r / "n"),
        "DoDelFile(n) - error deleting file: generic:" + std::to_string(ENOTEMPTY),
        "DoDelFile(n) - File did not exist.",
        Del(tmp / "flat/missing"), "DoDelFile(missing) - File did not exist.", Prune(tmp / "flat"),
        Del(tmp / "slashed/a/f"), Prune(tmp / "slashed/a"), Prune(tmp / "slashed"),
        Del(tmp / "p/kept/x/y/f"), Prune(tmp / "p/kept/x/y"), Prune(tmp / "p/kept/x"),
        Del(tmp / "e/f"), "DoDelFolder() - Deleting folder:" + top.string(),
        t + "deleting 2 files and 3 folders.", t + "deleting folder: " + Q(top / "sub"),
        t + "deleting folder: " + Q(top / "sub"), t + "deleting folder: " + Q(top),
        "DoDelFolder() - Deleting folder:" + missing.string(),
        "FindFilesAndFolders(" + Q(missing) + ") - Error getting directory iterator. Not "
        "deleting. This can happen if the directory does not exist: Error 2: category=generic, "
        "message=No such file or directory",
        "DoDelFolder(" + missing.string() + ") - deleting 0 files and 0 folders."}));
    EXPECT_TRUE(!fs::exists(top) && fs::exists(tmp / "out/f") && fs::exists(tmp / "p/kept"));
    EXPECT_EQ(gErrors, std::set<int>{2004});
}

// A mount point cannot be removed, nor can anything on a read-only volume.
TEST(Delete, FailedRemovalsAreRetriedOnceAndAnEmptiedRootThatStaysGives6) {
    ScratchMount m(64 * 1024);
    if (!m.ok())
        GTEST_SKIP() << "mounting a tmpfs needs privilege";
    LogCapture log;
    const fs::path f = m.path() / "f";
    const std::string t = "DoDelFolder(" + m.path().string() + ") - ",
                      ro = "Error 30: category=generic, message=Read-only file system",
                      busy = "Error 16: category=generic, message=Device or resource busy";
    Touch(f);
    EXPECT_EQ(DoDelFile(m.path().string(), "f"), 6);
    Touch(f);
    ASSERT_TRUE(m.remountReadOnly());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(DoDelFolder(m.path().string()), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(log.messages(), (Lines{Del(f), Prune(m.path()), "DoDelFile(" + Q(m.path()) +
        ") - error cleaning empty dir: system:0", "DoDelFolder() - Deleting folder:" +
        m.path().string(), t + "deleting 1 files and 1 folders.",
        "DeleteWithRetry() - Error deleting:" + Q(f) + ": " + ro,
        "DeleteWithRetry() - Retrying deleting:" + Q(f), t + "error deleting file: " + ro,
        t + "deleting folder: " + Q(m.path()), "DeleteWithRetry() - Error deleting:" +
        Q(m.path()) + ": " + busy, "DeleteWithRetry() - Retrying deleting:" + Q(m.path()),
        t + "error deleting folder: " + busy}));
    EXPECT_TRUE(fs::exists(f) && gErrors.empty());
}

// A mount point cannot be removed until the mount goes, here as soon as the
// first removal has failed: the retry, a quarter second later, removes it.
TEST(Delete, RemovalThatFailsOnceSucceedsOnTheRetry) {
    ScratchMount m(64 * 1024);
    if (!m.ok())
        GTEST_SKIP() << "mounting a tmpfs needs privilege";
    LogCapture log;
    const fs::path top = m.path();
    const std::string t = "DoDelFolder(" + top.string() + ") - ",
                      failed = "DeleteWithRetry() - Error deleting:" + Q(top) +
                               ": Error 16: category=generic, message=Device or resource busy";
    Touch(top / "sub/f");
    std::atomic<bool> done{false};
    std::thread unmount([&] {
        while (!done && !log.has(failed))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        m.detach();
    });
    EXPECT_EQ(DoDelFolder(top.string()), 0);
    done = true;
    unmount.join();
    EXPECT_EQ(log.messages(), (Lines{"DoDelFolder() - Deleting folder:" + top.string(),
        t + "deleting 1 files and 3 folders.", t + "deleting folder: " + Q(top / "sub"),
        t + "deleting folder: " + Q(top / "sub"), t + "deleting folder: " + Q(top), failed,
        "DeleteWithRetry() - Retrying deleting:" + Q(top)}));
    EXPECT_FALSE(fs::exists(top));
    EXPECT_TRUE(gErrors.empty());
}

// A walk changes what lies below its start but not the start itself; links
// are changed themselves, in either mode.
TEST(FixPerms, ChangesLinksNotTheirTargetsAndNeverTheStartOfAWalk) {
    if (!IsRoot())
        GTEST_SKIP() << "giving files away needs root";
    TempDir tmp;
    LogCapture log;
    const fs::path start = tmp / "start", outside = tmp / "outside", link = start / "link";
    const std::string file = (start / "a/b/f").string(), missing = (tmp / "missing").string();
    Touch(file);
    Touch(outside / "in/g");
    fs::create_directory_symlink(outside, link);
    EXPECT_EQ(DoFixPerms("4321", "8765", start.string(), true, false), 0);
    EXPECT_EQ(DoFixPerms("4321", "8765", file, true, false), 1);
    for (const fs::path& p : {start / "a", start / "a/b", fs::path(file), link})
        EXPECT_EQ(OwnerOf(p), Owner(4321, 8765)) << p;
    EXPECT_EQ(DoFixPerms("5", "6", link.string(), false, true), 0);
    EXPECT_EQ(DoFixPerms("5", "6", missing, false, false), 0);
    EXPECT_EQ(OwnerOf(link), Owner(5, 6));
    for (const fs::path& p : {start, outside, outside / "in"})
        EXPECT_EQ(OwnerOf(p), Owner(0, 0)) << p;
    for (const std::string& m : {std::string("DoFixPerms(recursive, uid=4321,gid=8765) - "
             "chown done on 2 files and 2 dirs with 0 errors."), "DoFixPerms(uid=4321,gid=8765)"
             " - error on directory: " + file + ": Error 20: category=generic, message=Not a "
             "directory", "DoFixPerms(single, uid=5,gid=6) - chown done (-1, errno=2 (No such "
             "file or directory)) on: " + missing})
        EXPECT_TRUE(log.has(m)) << m;
}

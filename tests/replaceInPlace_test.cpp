// Installing over an earlier install: every file and link is replaced whole,
// links at the destination give way instead of being followed, a full disk
// or a killed helper leaves the old files intact, and data is cloned where
// the file system can.
#include "testSupport.h"

#include "installOps.h"
#include "runState.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>
#include <thread>

using namespace zqimtest;
using namespace std::chrono_literals;

namespace {

void Link(const fs::path& target, const fs::path& at) {
    fs::create_directories(at.parent_path());
    fs::create_symlink(target, at);
}

// Names the replacement left behind, which must be none after a success.
int Leftovers(const fs::path& dir) {
    int n = 0;
    for (auto& e : fs::recursive_directory_iterator(dir))
        n += e.path().filename().string().rfind(".zqim-tmp.", 0) == 0;
    return n;
}

// A framework-shaped bundle: versioned contents behind links.
void Bundle(const fs::path& app, const std::string& version, const std::string& body) {
    const fs::path fw = app / "Frame.framework";
    Put(fw / "Versions" / version / "Frame", body);
    Put(fw / "Versions" / version / "Headers/f.h", body + ".h");
    Link(version, fw / "Versions/Current");
    Link("Versions/Current/Frame", fw / "Frame");
    Link("Versions/Current/Headers", fw / "Headers");
    Put(app / "Resources/r.txt", body);
}

}  // namespace

// Re-installing over an earlier version replaces links, files and a link
// standing where the payload has a folder, keeps each replaced file's owner,
// never writes through a link, and leaves no temporary names.
TEST(Replace, ReinstallOverEarlierVersionReplacesLinksAndFilesKeepingOwners) {
    LogCapture log;
    TempDir tmp;
    const fs::path v1 = tmp / "v1/App", v2 = tmp / "v2/App", root = tmp / "root",
                   app = root / "App", victim = tmp / "victim";
    Bundle(v1, "A", "one");
    Bundle(v2, "B", "two");
    Put(victim / "r.txt", "precious");
    const std::string r = root.string();
    ASSERT_EQ(DoCmdCopy(v1.string(), "App", r, false, gMovedFiles, gRootIsCrossDevice), 0);
    // What an earlier install or its user left: a handed-over file, a link to
    // elsewhere where the payload has a folder, a dangling link in the way.
    if (IsRoot()) {
        ASSERT_EQ(lchown((app / "Frame.framework/Versions/A/Frame").c_str(), 1234, 5678), 0);
    }
    fs::remove_all(app / "Resources");
    Link(victim, app / "Resources");
    Link("nowhere", app / "Frame.framework/Versions/B");
    Put(app / "extra", "kept");

    EXPECT_EQ(DoCmdCopy(v2.string(), "App", r, false, gMovedFiles, gRootIsCrossDevice), 0);
    const fs::path fw = app / "Frame.framework";
    EXPECT_EQ(fs::read_symlink(fw / "Versions/Current"), "B");
    EXPECT_EQ(ReadFile(fw / "Frame") + ReadFile(fw / "Headers/f.h"), "twotwo.h");
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(fw / "Versions/B")));
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(app / "Resources")));
    EXPECT_EQ(ReadFile(app / "Resources/r.txt") + ReadFile(victim / "r.txt") +
                  ReadFile(app / "extra"), "twopreciouskept");
    EXPECT_EQ(Leftovers(root), 0);

    // The earlier version's file, copied again over itself: its owner stays,
    // its mode follows the source's; and a file onto itself is left alone.
    fs::permissions(v1 / "Frame.framework/Versions/A/Frame", fs::perms(0751));
    EXPECT_EQ(DoCmdCopy(v1.string(), "App", r, false, gMovedFiles, gRootIsCrossDevice), 0);
    struct stat st {};
    ASSERT_EQ(lstat((fw / "Versions/A/Frame").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0751u);
    if (IsRoot()) {
        EXPECT_TRUE(st.st_uid == 1234 && st.st_gid == 5678);
    }
    const std::string self = (fw / "Versions/A/Frame").string();
    EXPECT_EQ(DoCmdCopy(self, "App/Frame.framework/Versions/A/Frame", r, false, gMovedFiles, gRootIsCrossDevice), 4);
    EXPECT_EQ(ReadFile(self), "one");
    EXPECT_TRUE(gErrors.empty());
}

// A running program is replaced, not rewritten under its feet.
TEST(Replace, CopyOverARunningProgramLeavesItRunning) {
    LogCapture log;
    TempDir root;
    const std::string r = root.path().string();
    ASSERT_EQ(DoCmdCopy("/bin/sleep", "bin/prog", r, false, gMovedFiles, gRootIsCrossDevice), 0);
    const std::string prog = (root / "bin/prog").string();
    const pid_t running = fork();
    if (running == 0) {
        execl(prog.c_str(), "prog", "30", nullptr);
        _exit(127);
    }
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(DoCmdCopy("/usr/bin/true", "bin/prog", r, false, gMovedFiles, gRootIsCrossDevice), 0);
    EXPECT_EQ(ReadFile(prog), ReadFile("/usr/bin/true"));
    int status = 0;
    EXPECT_EQ(waitpid(running, &status, WNOHANG), 0);  // still running
    kill(running, SIGKILL);
    waitpid(running, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

// Out of space half way through a file: the old file is untouched.
TEST(Replace, FullDiskLeavesTheOldFileWhole) {
    ScratchMount disk(128 * 1024);
    if (!disk.ok())
        GTEST_SKIP() << "mounting a tmpfs needs privilege";
    LogCapture log;
    TempDir src;
    Put(src / "victim", std::string(96 * 1024, 'n'));
    const std::string old(8 * 1024, 'o');
    Put(disk.path() / "victim", old);
    Put(disk.path() / "filler", std::string(80 * 1024, 'f'));
    EXPECT_EQ(DoCmdCopy((src / "victim").string(), "victim", disk.path().string(), false,
                        gMovedFiles, gRootIsCrossDevice), 2001);
    EXPECT_EQ(ReadFile(disk.path() / "victim"), old);
    EXPECT_EQ(Leftovers(disk.path()), 0);
}

// A helper killed at any moment of a copy over an earlier tree leaves every
// file wholly old or wholly new, and none missing.
TEST(Replace, HelperKilledMidCopyLeavesNoTornOrMissingFile) {
    TempDir tmp;
    const int kFiles = 120;
    const std::size_t kSize = 192 * 1024;
    for (int i = 0; i < kFiles; ++i) {
        Put(tmp / "new" / std::to_string(i % 6) / std::to_string(i), std::string(kSize, 'n'));
        Put(tmp / "root/tree" / std::to_string(i % 6) / std::to_string(i), std::string(kSize, 'o'));
    }
    const std::string lines = "setRoot " + (tmp / "root").string() + "\ncopySrc " +
                              (tmp / "new").string() + "\ncopyDest tree\nexit\n";
    auto run = [&](std::chrono::microseconds killAfter) {
        TempDir comm;
        Frontend(comm.path()).send(1, lines);
        const auto start = std::chrono::steady_clock::now();
        HelperProcess helper({"-c", comm.path().string()});
        if (killAfter.count() > 0) {
            std::this_thread::sleep_for(killAfter);
            helper.kill();
        } else {
            EXPECT_TRUE(helper.wait(60s));
        }
        return std::chrono::steady_clock::now() - start;
    };
    auto old = [&] {
        for (int i = 0; i < kFiles; ++i)
            Put(tmp / "root/tree" / std::to_string(i % 6) / std::to_string(i),
                std::string(kSize, 'o'));
    };
    // The kills are drawn between a moment known too early (all old) and one
    // known too late (all new), narrowed after each trial, so that under any
    // load some land mid-copy.
    long long early = 0, late = std::chrono::duration_cast<std::chrono::microseconds>(
                                    run(std::chrono::microseconds(0)))
                                    .count();
    std::mt19937 random(7);
    int torn = 0, missing = 0, mixed = 0;
    for (int trial = 0; trial < 40 && (trial < 8 || mixed == 0); ++trial) {
        old();
        const long long span = std::max(1LL, late - early);
        const long long at = early + 1 + static_cast<long long>(random() % span);
        run(std::chrono::microseconds(at));
        int olds = 0;
        for (int i = 0; i < kFiles; ++i) {
            const std::string content =
                ReadFile(tmp / "root/tree" / std::to_string(i % 6) / std::to_string(i));
            missing += content.empty();
            olds += content == std::string(kSize, 'o');
            torn += !content.empty() && content != std::string(kSize, 'o') &&
                    content != std::string(kSize, 'n');
        }
        mixed += olds > 0 && olds < kFiles;
        // Timing is noisy: a bound moves only while the other stays beyond it.
        if (olds == kFiles && at < late)
            early = at;
        else if (olds == 0 && at > early)
            late = at;
    }
    EXPECT_EQ(torn + missing, 0);
    EXPECT_GT(mixed, 0) << "no kill landed mid-copy; the trial proves nothing";
}

// Reflinks, shown on a loop-mounted XFS image: Linux only.
#ifdef __linux__
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
namespace {

// A loop-mounted XFS image, whose files can share extents.
class XfsMount {
public:
    XfsMount() {
        if (!IsRoot())
            return;
        const std::string image = (tmp / "xfs.img").string(), dir = (tmp / "mnt").string();
        fs::create_directory(dir);
        mounted = std::system(("truncate -s 320M " + image + " && mkfs.xfs -q -m reflink=1 " +
                               image + " 2>/dev/null && mount -o loop " + image + " " + dir +
                               " 2>/dev/null").c_str()) == 0;
    }
    ~XfsMount() {
        if (mounted)
            umount2((tmp / "mnt").c_str(), MNT_DETACH);
    }
    bool ok() const { return mounted; }
    fs::path path() const { return tmp / "mnt"; }

private:
    TempDir tmp;
    bool mounted = false;
};

// Whether any extent of the file is shared with another file.
bool SharesExtents(const fs::path& file) {
    const int fd = open(file.c_str(), O_RDONLY);
    std::vector<char> buffer(sizeof(fiemap) + 64 * sizeof(fiemap_extent));
    auto* map = reinterpret_cast<fiemap*>(buffer.data());
    map->fm_length = FIEMAP_MAX_OFFSET;
    map->fm_flags = FIEMAP_FLAG_SYNC;
    map->fm_extent_count = 64;
    const bool asked = ioctl(fd, FS_IOC_FIEMAP, map) == 0;
    close(fd);
    for (unsigned i = 0; asked && i < map->fm_mapped_extents; ++i)
        if (map->fm_extents[i].fe_flags & FIEMAP_EXTENT_SHARED)
            return true;
    return false;
}

}  // namespace

TEST(Replace, CopyOnReflinkFileSystemSharesExtents) {
    XfsMount xfs;
    if (!xfs.ok())
        GTEST_SKIP() << "a loop-mounted XFS image needs root, mkfs.xfs and loop devices";
    LogCapture log;
    Put(xfs.path() / "src/big", std::string(8 << 20, 'x'));
    sync();
    ASSERT_EQ(DoCmdCopy((xfs.path() / "src").string(), "copy", xfs.path().string(), false,
                        gMovedFiles, gRootIsCrossDevice), 0);
    EXPECT_EQ(ReadFile(xfs.path() / "copy/big"), std::string(8 << 20, 'x'));
    EXPECT_TRUE(SharesExtents(xfs.path() / "copy/big"));
}
#endif  // __linux__

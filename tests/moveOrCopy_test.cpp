// Installing file trees under the root: moves followed through the map of
// moved files, copies over earlier installs, the switch to copying once a
// move crosses devices, and the codes and log lines of the failures.
#include "testSupport.h"

#include "ZQIMHelper.h"
#include "portableCommands.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace zqimtest;
using Moved = std::map<std::string, std::string>;

static int RunCommandFile(const TempDir& dir, const std::string& lines) {
    WriteFile(dir / "cmd.txt", lines);
    return ServiceCommandFile((dir / "cmd.txt").string());
}

TEST(MoveOrCopy, MovesOfOneCommandFileAreFollowedThroughTheMap) {
    LogCapture log;
    TempDir staging, root;
    const std::string a = (staging / "a").string(), r = root.path().string();
    WriteFile(a, "payload");
    // The second move of `a` is redirected once, the third twice.
    std::string lines = "setRoot " + r + "\n";
    for (const char* dest : {"one/a", "two/a", "three/a"})
        lines += "copySrc " + a + "\nmoveOrCopyDest " + dest + "\n";
    EXPECT_EQ(RunCommandFile(staging, lines), 0);
    EXPECT_EQ(ReadFile(root / "three/a"), "payload");
    EXPECT_EQ(gMovedFiles, (Moved{{a, r + "/one/a"}, {r + "/one/a", r + "/two/a"},
                                  {r + "/two/a", r + "/three/a"}}));
    EXPECT_EQ(log.text().find("Error"), std::string::npos) << log.text();

    // The next command file starts with an empty map: the same move misses.
    EXPECT_EQ(RunCommandFile(staging, "copySrc " + a + "\nmoveOrCopyDest four/a\n"), 1);
    EXPECT_TRUE(log.has("ZQIMMoveOrCopyFile(move=true, did not find in map) - Error - Source "
                        "file \"" + a + "\" not found: " +
                        PrintErrorCode({ENOENT, std::generic_category()})));
    EXPECT_EQ(gErrors, std::set<int>{2003});
}

TEST(MoveOrCopy, CycleInTheMapEndsAsSourceNotFoundAndEntriesAreReplaced) {
    LogCapture log;
    TempDir dir;
    const fs::path a = dir / "a", b = dir / "b", c = dir / "c";
    WriteFile(a, "x");
    Moved moved;
    ASSERT_EQ(ZQIMMoveOrCopyFile(a, b, true, moved), 0);
    ASSERT_EQ(ZQIMMoveOrCopyFile(b, a, true, moved), 0);
    fs::remove(a);
    EXPECT_EQ(ZQIMMoveOrCopyFile(a, c, true, moved), 2003);
    WriteFile(a, "y");
    EXPECT_EQ(ZQIMMoveOrCopyFile(a, c, true, moved), 0);
    EXPECT_EQ(moved, (Moved{{a.string(), c.string()}, {b.string(), a.string()}}));
}

TEST(MoveOrCopy, CopyOverwritesATreeKeepsLinksAsLinksAndReportsMisses) {
    LogCapture log;
    TempDir staging, root;
    const std::string r = root.path().string(), missing = (staging / "missing").string();
    fs::create_directories(staging / "app/sub");
    fs::create_directories(root / "dest/app/sub");
    WriteFile(staging / "app/sub/f", "new");
    WriteFile(root / "dest/app/sub/f", "old");
    fs::create_symlink("sub", staging / "app/l");
    EXPECT_EQ(DoCmdCopy((staging / "app").string(), "dest/app", r, false, gMovedFiles), 0);
    EXPECT_EQ(ReadFile(root / "dest/app/sub/f"), "new");
    EXPECT_EQ(fs::read_symlink(root / "dest/app/l"), "sub");
    // A file copied onto itself is the one EEXIST that overwriting leaves.
    EXPECT_EQ(DoCmdCopy(r + "/dest/app/sub/f", "dest/app/sub/f", r, false, gMovedFiles), 4);
    EXPECT_EQ(log.messages().back(), "ZQIMMoveOrCopyFile() - Error - File Exists.");
    EXPECT_EQ(DoCmdCopy(missing, "x", r, false, gMovedFiles), 2003);
    EXPECT_EQ(log.messages().back(),
              "ZQIMMoveOrCopyFile(move=false) - Error - Source file not found: " + missing);
    EXPECT_EQ(gErrors, std::set<int>{2003});
    EXPECT_TRUE(gMovedFiles.empty());
}

TEST(MoveOrCopy, CrossDeviceMoveTurnsTheRootsMovesIntoCopiesUntilSetRoot) {
    LogCapture log;
    TempDir far("/dev/shm"), near, root;
    const std::string f = (far / "f").string(), n = (near / "n").string();
    const std::string setRoot = "setRoot " + root.path().string() + "\n";
    WriteFile(f, "far");
    WriteFile(n, "near");
    const std::string moves = "copySrc " + f + "\nmoveOrCopyDest a/f\n";
    EXPECT_EQ(RunCommandFile(near, setRoot + moves + "copySrc " + n + "\nmoveOrCopyDest a/n"), 0);
    EXPECT_TRUE(gRootIsCrossDevice && fs::exists(f) && fs::exists(n) && gMovedFiles.empty());
    EXPECT_EQ(ReadFile(root / "a/f") + ReadFile(root / "a/n"), "farnear");
    // One switch line; the second move is a copy from the start and logs nothing.
    EXPECT_EQ(log.messages().size(), 3u);
    EXPECT_EQ(log.messages().back(), "ZQIMMoveOrCopyFile() - Cannot move cross-device. Setting "
                                     "flag and doing full copies for this root.");
    EXPECT_EQ(RunCommandFile(near, setRoot + "copySrc " + n + "\nmoveOrCopyDest b/n\n"), 0);
    EXPECT_FALSE(gRootIsCrossDevice || fs::exists(n));
    EXPECT_EQ(ReadFile(root / "b/n"), "near");
    EXPECT_TRUE(gErrors.empty());
}

TEST(MoveOrCopy, FullOrReadOnlyRootIsReportedAndCounted) {
    ScratchMount full(64 * 1024), readOnly(64 * 1024, true);
    if (!full.ok() || !readOnly.ok())
        GTEST_SKIP() << "mounting a tmpfs needs privilege";
    LogCapture log;
    TempDir staging;
    const std::string f = (staging / "f").string();
    WriteFile(f, std::string(256 * 1024, 'x'));  // four times the room there is
    std::ostringstream noSpace, readOnlyDir;
    noSpace << "ZQIMMoveOrCopyFile() - No space on device for \"" << full.path() / "d/f"
            << "\": Error 28: ";
    readOnlyDir << "ZQIMCreateDirs() - Error creating dir \"" << readOnly.path() / "d" << "\": "
                << PrintErrorCode(std::make_error_code(std::errc::read_only_file_system)) << ".";
    EXPECT_EQ(DoCmdCopy(f, "d/f", full.path().string(), false, gMovedFiles), 2001);
    EXPECT_EQ(log.messages().back().rfind(noSpace.str(), 0), 0u) << log.text();
    EXPECT_EQ(DoCmdCopy(f, "d/f", readOnly.path().string(), false, gMovedFiles), 2007);
    EXPECT_EQ(log.messages().back(), readOnlyDir.str());
    EXPECT_TRUE(fs::is_empty(readOnly.path()));
    EXPECT_EQ(gErrors, (std::set<int>{2001, 2007}));
}

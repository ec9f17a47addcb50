// Installing under the root: the map of moved files, copies over earlier
// installs, and symbolic links. Moves through command files are in the
// interpreter's tests.
#include "testSupport.h"

#include "deleteOps.h"
#include "installOps.h"
#include "linkOps.h"
#include "runState.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace zqimtest;
using Lines = std::vector<std::string>;

// A copy replaces what is there and copies links as links. A file moved away
// and back, then removed, leaves a cycle in the map that must end as a miss.
TEST(MoveOrCopy, CopiesOverwriteAndKeepLinksAndMissesEndAs2003EvenThroughACycle) {
    LogCapture log;
    TempDir staging, root;
    const std::string r = root.path().string(), missing = (staging / "missing").string(),
                      a = (staging / "a").string(), b = (staging / "b").string();
    fs::create_directories(staging / "app/sub");
    fs::create_directories(root / "dest/app/sub");
    WriteFile(staging / "app/sub/f", "new");
    WriteFile(root / "dest/app/sub/f", "old");
    fs::create_symlink("sub", staging / "app/l");
    EXPECT_EQ(DoCmdCopy((staging / "app").string(), "dest/app", r, false, gMovedFiles, gRootIsCrossDevice), 0);
    EXPECT_EQ(ReadFile(root / "dest/app/sub/f"), "new");
    EXPECT_EQ(fs::read_symlink(root / "dest/app/l"), "sub");
    // A file copied onto itself is the one EEXIST that overwriting leaves.
    EXPECT_EQ(DoCmdCopy(r + "/dest/app/sub/f", "dest/app/sub/f", r, false, gMovedFiles, gRootIsCrossDevice), 4);
    EXPECT_EQ(log.messages().back(), "ZQIMMoveOrCopyFile() - Error - File Exists.");
    EXPECT_EQ(DoCmdCopy(missing, "x", r, false, gMovedFiles, gRootIsCrossDevice), 2003);
    EXPECT_EQ(log.messages().back(),
              "ZQIMMoveOrCopyFile(move=false) - Error - Source file not found: " + missing);
    EXPECT_TRUE(gErrors == std::set<int>{2003} && gMovedFiles.empty());
    WriteFile(a, "x");
    ASSERT_EQ(DoCmdCopy(a, b, "", true, gMovedFiles, gRootIsCrossDevice) + DoCmdCopy(b, a, "", true, gMovedFiles, gRootIsCrossDevice), 0);
    fs::remove(a);
    EXPECT_EQ(DoCmdCopy(a, "c", r, true, gMovedFiles, gRootIsCrossDevice), 2003);
    WriteFile(a, "y");  // moved again, it gets a new entry
    EXPECT_EQ(DoCmdCopy(a, "c", r, true, gMovedFiles, gRootIsCrossDevice), 0);
    EXPECT_EQ(gMovedFiles, (std::map<std::string, std::string>{{a, r + "/c"}, {b, a}}));
    // No root and no folder: an empty path to create, logged as ever; the
    // copy lands in the working directory.
    const fs::path cwd = fs::current_path();
    fs::current_path(staging.path());
    EXPECT_EQ(DoCmdCopy(r + "/c", "here", "", false, gMovedFiles, gRootIsCrossDevice), 0);
    fs::current_path(cwd);
    EXPECT_TRUE(log.has("ZQIMCreateDirs() - Error creating dir \"\"\"\": Error 22: "
                        "category=generic, message=Invalid argument."));
    EXPECT_EQ(ReadFile(staging / "here"), "y");
}

// The link goes to the root text, "/" and the name. What is in its place is
// removed once and the link made again; a folder that cannot go counts 2004,
// but the result classifies the errno that the failed removal left.
TEST(Symlink, ReplacesWhatIsInTheWayOnceAndClassifiesFailures) {
    LogCapture log;
    TempDir root;
    const std::string r = root.path().string();
    fs::create_directories(root / "d/inside");
    EXPECT_EQ(DoCmdSymlink("../nowhere", r.substr(1) + "/l", gRoot), 0);  // gRoot is empty
    gRoot = r;
    EXPECT_EQ(DoCmdSymlink("new", "l", gRoot), 0);
    EXPECT_EQ(fs::read_symlink(root / "l"), "new");
    EXPECT_EQ(DoCmdSymlink("t", "d", gRoot), 2000);
    EXPECT_EQ(gErrors, (std::set<int>{2000, 2004}));
    auto create = [&r](const std::string& content, const std::string& name) {
        return "DoCmdSymlink() - Create Symlink existingFile:\n" + content +
               "\n... resultingLinkFile ...\n" + r + "/" + name;
    };
    const std::string replacing =
        "DoCmdSymlink() - Symlink already existed. Attempting to delete it.";
    EXPECT_EQ(log.messages(), (Lines{create("../nowhere", "l"), create("new", "l"), replacing,
        "DoCmdSymlink() - Attempting retry after deleting existing file.",
        "DoCmdSymlink() - Retry attempt succeeded.", create("t", "d"), replacing,
        "DoCmdSymlink() - error deleting existing file: generic:" + std::to_string(ENOTEMPTY),
        "DoDelFile() - File did not exist. Continuing.", "DoCmdSymlink() - Error - Unknown."}));
}

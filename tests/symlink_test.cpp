// Symbolic links under the root: creation, replacing what is in the way, and
// the codes and log lines when that fails.
#include "testSupport.h"

#include "ZQIMHelper.h"
#include "macCommands.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace zqimtest;
using Lines = std::vector<std::string>;

TEST(Symlink, CreatesThenReplacesLinkAtRootSlashName) {
    LogCapture log;
    TempDir root;
    const std::string r = root.path().string();
    gRoot = r;
    EXPECT_EQ(DoCmdSymlink("../nowhere", "l"), 0);
    EXPECT_EQ(log.messages().back(), "DoCmdSymlink() - Create Symlink existingFile:\n../nowhere\n"
                                     "... resultingLinkFile ...\n" + r + "/l");
    // The name is appended to the root text, so an empty root still gives "/name".
    gRoot.clear();
    EXPECT_EQ(DoCmdSymlink("new", r.substr(1) + "/l"), 0);
    EXPECT_EQ(fs::read_symlink(root / "l"), "new");
    const Lines m = log.messages();
    ASSERT_EQ(m.size(), 5u);
    EXPECT_EQ(Lines(m.begin() + 2, m.end()),
              (Lines{"DoCmdSymlink() - Symlink already existed. Attempting to delete it.",
                     "DoCmdSymlink() - Attempting retry after deleting existing file.",
                     "DoCmdSymlink() - Retry attempt succeeded."}));
    EXPECT_TRUE(gErrors.empty());
}

TEST(Symlink, FolderInTheWayOrMissingFolderFails) {
    LogCapture log;
    TempDir root;
    gRoot = root.path().string();
    fs::create_directories(root / "d/inside");
    EXPECT_EQ(DoCmdSymlink("t", "d"), 2000);
    const Lines m = log.messages();
    ASSERT_EQ(m.size(), 5u);
    EXPECT_EQ(Lines(m.begin() + 1, m.end()),
              (Lines{"DoCmdSymlink() - Symlink already existed. Attempting to delete it.",
                     std::string("DoCmdSymlink() - error deleting existing file: ") +
                         std::generic_category().name() + ":" + std::to_string(ENOTEMPTY),
                     "DoDelFile() - File did not exist. Continuing.",
                     "DoCmdSymlink() - Error - Unknown."}));
    EXPECT_EQ(gErrors, (std::set<int>{2000, 2004}));

    gErrors.clear();
    EXPECT_EQ(DoCmdSymlink("t", "missing/l"), 2000);
    EXPECT_EQ(log.messages().back(), "DoCmdSymlink() - Error - Unknown.");
    EXPECT_FALSE(fs::exists(root / "missing"));
    EXPECT_EQ(gErrors, std::set<int>{2000});
}

// Directory creation: result codes, the recorded error set and the log line.
#include "testSupport.h"

#include "ZQIMHelper.h"
#include "portableCommands.h"

#include <gtest/gtest.h>

#include <sys/mount.h>

using namespace zqimtest;

// The log shows a path quoted by the stream inside the message's own quotes.
static std::string Quoted(const fs::path& p) {
    return "\"\"" + p.string() + "\"\"";
}

TEST(CreateDirs, ExistingDirAndUnclassifiedFailureReportNothing) {
    TempDir dir;
    WriteFile(dir / "f", "");
    const std::string existing = dir.path().string(), blocked = (dir / "f/a\"b").string();
    LogCapture log;
    EXPECT_EQ(DoMakeDir(existing), 0);
    EXPECT_EQ(DoMakeDir(blocked), 0);
    EXPECT_EQ(
        log.messages(),
        (std::vector<std::string>{
            "DoMakeDir(" + existing + ") - starting", "DoMakeDir(" + existing + ") - Result was:0.",
            "DoMakeDir(" + blocked + ") - starting",
            "ZQIMCreateDirs() - Error creating dir " + Quoted(dir / "f/a\\\"b") +
                ": Error 20: category=generic, message=Not a directory.",
            "DoMakeDir(" + blocked + ") - Result was:0."}));
    EXPECT_TRUE(gErrors.empty());
}

TEST(CreateDirs, NoSpaceAndReadOnlyAreCounted) {
    ScratchMount full(64 * 1024), readOnly(64 * 1024, true);
    if (!full.ok() || !readOnly.ok())
        GTEST_SKIP() << "needs the privilege to mount a tmpfs";
    // Without a free inode a tmpfs refuses new directories; free bytes do not matter.
    ASSERT_EQ(mount("tmpfs", full.path().c_str(), "tmpfs", MS_REMOUNT, "nr_inodes=1"), 0);
    const fs::path noSpace = full.path() / "x/y", roPath = readOnly.path() / "x";
    LogCapture log;
    EXPECT_EQ(ZQIMCreateDirs(noSpace), 2001);
    EXPECT_EQ(gErrors, std::set<int>{2001});
    EXPECT_EQ(ZQIMCreateDirs(roPath), 2007);
    EXPECT_EQ(gErrors, (std::set<int>{2001, 2007}));
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{
                  "ZQIMCreateDirs() - No space to create dir " + Quoted(noSpace) +
                      ": Error 28: category=generic, message=No space left on device.",
                  "ZQIMCreateDirs() - Error creating dir " + Quoted(roPath) +
                      ": Error 30: category=generic, message=Read-only file system."}));
}

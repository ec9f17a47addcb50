// Ownership repair of one path, or of everything below a directory.
#include "testSupport.h"

#include "ZQIMHelper.h"
#include "macCommands.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>

using namespace zqimtest;
using Owner = std::pair<uid_t, gid_t>;

namespace {

// Owner of the path itself, never of a link's destination.
Owner OwnerOf(const fs::path& p) {
    struct stat st {};
    return lstat(p.c_str(), &st) == 0 ? Owner(st.st_uid, st.st_gid) : Owner(-1, -1);
}
const Owner kRoot{0, 0}, kGiven{4321, 8765};
const std::string kFixing = "DoFixPerms(uid=4321,gid=8765, recursive=";

}  // namespace

TEST(FixPerms, SingleModeChangesExactlyThePathAndEmptyIdsMeanRoot) {
    if (!IsRoot())
        GTEST_SKIP() << "giving files away needs root";
    TempDir tmp;
    LogCapture log;
    const std::string link = (tmp / "link").string(), missing = (tmp / "missing").string();
    WriteFile(tmp / "target", "x");
    fs::create_symlink(tmp / "target", link);
    EXPECT_EQ(DoFixPerms("4321", "8765", link, false, true), 0);
    EXPECT_EQ(DoFixPerms("4321", "8765", missing, false, false), 0);
    EXPECT_EQ(OwnerOf(link), kGiven);
    EXPECT_EQ(OwnerOf(tmp / "target"), kRoot);
    const auto m = log.messages();
    ASSERT_EQ(m.size(), 4u);
    EXPECT_EQ(m[0], kFixing + "0) - Fixing permissions for: " + link);
    // After a success errno is whatever it held before the call.
    const std::string done = "DoFixPerms(single, uid=4321,gid=8765) - chown done (";
    const std::string onLink = ")) on: " + link;
    EXPECT_EQ(m[1].rfind(done + "0, errno=", 0), 0u) << m[1];
    EXPECT_EQ(m[1].substr(m[1].size() - onLink.size()), onLink);
    EXPECT_EQ(m[3], done + "-1, errno=2 (No such file or directory)) on: " + missing);

    std::string prevCommand, prevValue;
    const std::string fix = "fixPerms " + link;
    for (const char* line : {"setUserID", "setGroupID 12ab", fix.c_str()})
        EXPECT_EQ(ServiceCommand(line, prevCommand, prevValue), 0) << line;
    EXPECT_EQ(OwnerOf(link), Owner(0, 12));
}

TEST(FixPerms, RecursiveModeChangesWhatLiesBelowButNeitherStartNorLinkTargets) {
    if (!IsRoot())
        GTEST_SKIP() << "giving files away needs root";
    TempDir tmp;
    LogCapture log;
    const fs::path start = tmp / "start", outside = tmp / "outside", empty = tmp / "empty";
    const std::string file = (start / "a/b/f").string();
    fs::create_directories(start / "a/b");
    fs::create_directories(outside / "in");
    fs::create_directory(empty);
    WriteFile(file, "x");
    fs::create_directory_symlink(outside, start / "link");
    EXPECT_EQ(DoFixPerms("4321", "8765", start.string(), true, false), 0);
    EXPECT_EQ(DoFixPerms("4321", "8765", empty.string(), true, false), 0);
    EXPECT_EQ(DoFixPerms("4321", "8765", file, true, false), 1);
    for (const fs::path& p : {start / "a", start / "a/b", fs::path(file), start / "link"})
        EXPECT_EQ(OwnerOf(p), kGiven) << p;
    for (const fs::path& p : {start, outside, outside / "in", empty})
        EXPECT_EQ(OwnerOf(p), kRoot) << p;
    const std::string done = "DoFixPerms(recursive, uid=4321,gid=8765) - chown done on ";
    EXPECT_EQ(log.messages(), (std::vector<std::string>{
        kFixing + "1) - Fixing permissions for: " + start.string(),
        done + "2 files and 2 dirs with 0 errors.",
        kFixing + "1) - Fixing permissions for: " + empty.string(),
        done + "0 files and 0 dirs with 0 errors.", kFixing + "1) - Fixing permissions for: " + file,
        "DoFixPerms(uid=4321,gid=8765) - error on directory: " + file + ": Error " +
            std::to_string(ENOTDIR) + ": category=generic, message=" + std::strerror(ENOTDIR)}));
}

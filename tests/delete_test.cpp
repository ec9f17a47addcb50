// Deleting one file with pruning of the directories it empties, and deleting
// whole folder trees, on real scratch trees.
#include "testSupport.h"

#include "ZQIMHelper.h"
#include "portableCommands.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

using namespace zqimtest;
using Messages = std::vector<std::string>;

namespace {

std::string Q(const fs::path& p) { return "\"" + p.string() + "\""; }
std::string Del(const fs::path& p) { return "DoDelFile() - Deleting file: " + Q(p); }
std::string Prune(const fs::path& p) { return "DoDelFile() - Deleting empty folder: " + Q(p); }
std::string ErrorText(int e) {
    return "Error " + std::to_string(e) + ": category=generic, message=" + std::strerror(e);
}
void Touch(const fs::path& p) { fs::create_directories(p.parent_path()); WriteFile(p, "x"); }

// Immutable while alive: removing the path, or an entry of the directory,
// fails even for root.
struct Immutable {
    std::string path;
    bool ok = IsRoot() && std::system(("chattr +i '" + path + "' 2>/dev/null").c_str()) == 0;
    ~Immutable() { ok && std::system(("chattr -i '" + path + "'").c_str()); }
};

}  // namespace

TEST(DelFile, PrunesEmptiedParentsUpToTheRootOrPastAnEmptiedRoot) {
    TempDir tmp;
    LogCapture log;
    const fs::path r = tmp / "root";
    for (const char* f : {"root/a/b/f", "root/n/x", "flat/f", "slashed/a/f", "e/f"})
        Touch(tmp / f);
    fs::create_directories(r / "c/d");
    EXPECT_EQ(DoDelFile(r.string(), "a/b/f"), 0);
    EXPECT_EQ(DoDelFile(r.string(), "c/d/missing"), 0);  // pruning needs no removal
    EXPECT_EQ(DoDelFile(r.string(), "gone/f"), 0);
    EXPECT_EQ(DoDelFile(r.string(), "n"), 2004);
    EXPECT_EQ(DoDelFile((tmp / "flat").string(), "f"), 0);
    EXPECT_EQ(DoDelFile((tmp / "slashed").string() + "/", "a/f"), 0);  // equals no parent
    EXPECT_EQ(DoDelFile("", (tmp / "e/f").string()), 0);
    EXPECT_EQ(log.messages(), (Messages{
        Del(r / "a/b/f"), Prune(r / "a/b"), Prune(r / "a"), Del(r / "c/d/missing"),
        "DoDelFile(c/d/missing) - File did not exist.", Prune(r / "c/d"), Prune(r / "c"),
        Del(r / "gone/f"), "DoDelFile(gone/f) - File did not exist.",
        "DoDelFile(" + Q(r / "gone") + ") - error determining empty dir: 0", Del(r / "n"),
        "DoDelFile(n) - error deleting file: generic:" + std::to_string(ENOTEMPTY),
        "DoDelFile(n) - File did not exist.", Del(tmp / "flat/f"), Prune(tmp / "flat"),
        Del(tmp / "slashed/a/f"), Prune(tmp / "slashed/a"), Prune(tmp / "slashed"),
        Del(tmp / "e/f")}));
    // A failed removal would have been logged; what must stay, stays.
    EXPECT_TRUE(fs::is_directory(r) && fs::exists(r / "n/x") && fs::is_directory(tmp / "e"));
    EXPECT_EQ(gErrors, std::set<int>{2004});
}

TEST(DelFile, EmptiedParentThatCannotGoGives6WithTheFileRemovalsCode) {
    TempDir tmp;
    Touch(tmp / "root/a/b/f");
    Immutable frozen{(tmp / "root/a").string()};
    if (!frozen.ok)
        GTEST_SKIP() << "cannot set the immutable attribute here";
    LogCapture log;
    EXPECT_EQ(DoDelFile((tmp / "root").string(), "a/b/f"), 6);
    EXPECT_EQ(log.messages(), (Messages{Del(tmp / "root/a/b/f"), Prune(tmp / "root/a/b"),
        "DoDelFile(" + Q(tmp / "root/a/b") + ") - error cleaning empty dir: system:0"}));
    EXPECT_TRUE(gErrors.empty());
}

TEST(DelFolder, RemovesTreesDeepestFirstWithoutFollowingLinks) {
    TempDir tmp;
    LogCapture log;
    const fs::path empty = tmp / "empty", top = tmp / "top", missing = tmp / "missing";
    fs::create_directories(empty);
    Touch(top / "sub/f");
    Touch(tmp / "outside/keep");
    fs::create_directory_symlink(tmp / "outside", top / "link");
    for (const fs::path& p : {empty, top, missing})
        EXPECT_EQ(DoDelFolder(p.string()), 0);
    const std::string e = "DoDelFolder(" + empty.string() + ") - ",
                      t = "DoDelFolder(" + top.string() + ") - ";
    EXPECT_EQ(log.messages(), (Messages{
        "DoDelFolder() - Deleting folder:" + empty.string(), e + "deleting 0 files and 1 folders.",
        e + "deleting folder: " + Q(empty), "DoDelFolder() - Deleting folder:" + top.string(),
        t + "deleting 2 files and 3 folders.", t + "deleting folder: " + Q(top / "sub"),
        t + "deleting folder: " + Q(top / "sub"), t + "deleting folder: " + Q(top),
        "DoDelFolder() - Deleting folder:" + missing.string(),
        "FindFilesAndFolders(" + Q(missing) + ") - Error getting directory iterator. Not "
            "deleting. This can happen if the directory does not exist: " + ErrorText(ENOENT),
        "DoDelFolder(" + missing.string() + ") - deleting 0 files and 0 folders."}));
    EXPECT_FALSE(fs::exists(empty) || fs::exists(top));
    EXPECT_TRUE(fs::exists(tmp / "outside/keep"));
}

TEST(DelFolder, UndeletableFileIsRetriedOnceAndEveryAncestorFails) {
    TempDir tmp;
    const fs::path top = tmp / "top", sub = top / "sub", f = sub / "f";
    Touch(f);
    Immutable frozen{f.string()};
    if (!frozen.ok)
        GTEST_SKIP() << "cannot set the immutable attribute here";
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(DoDelFolder(top.string()), 0);
    // Four failed entries, each retried after its own pause.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
    const std::string t = "DoDelFolder(" + top.string() + ") - ";
    Messages expected{"DoDelFolder() - Deleting folder:" + top.string(),
                      t + "deleting 1 files and 3 folders."};
    for (const fs::path& p : {f, sub, sub, top}) {
        if (p != f)
            expected.push_back(t + "deleting folder: " + Q(p));
        const std::string error = ErrorText(p == f ? EPERM : ENOTEMPTY);
        expected.insert(expected.end(), {"DeleteWithRetry() - Error deleting:" + Q(p) + ": " + error,
            "DeleteWithRetry() - Retrying deleting:" + Q(p),
            t + (p == f ? "error deleting file: " : "error deleting folder: ") + error});
    }
    EXPECT_EQ(log.messages(), expected);
    EXPECT_TRUE(fs::exists(f) && gErrors.empty());
}

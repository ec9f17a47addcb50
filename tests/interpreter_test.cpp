// The command language, one line or one file at a time, against a captured log.
#include "testSupport.h"

#include "ZQIMHelper.h"

#include <gtest/gtest.h>

using namespace zqimtest;

namespace {

const std::string kSaid = "ServiceCommand() - ";
const std::string kUnknown = kSaid + "Skipping unknown command: ";
const std::string kFatal = "ServiceCommandFile() - Fatal error 2006: ";

// Writes `lines` to a command file in `dir` and services it.
int RunFile(const TempDir& dir, const std::string& lines) {
    WriteFile(dir / "cmd.txt", lines);
    return ServiceCommandFile((dir / "cmd.txt").string());
}

}  // namespace

TEST(Interpreter, RecognisesKeywordsAndCutsValues) {
    LogCapture log;
    TempDir tmp;
    const std::string t = tmp.path().string(), dir = t + "/a b/c", src = t + "/src";
    WriteFile(src, "data");
    gRoot = t;
    gRootIsCrossDevice = true;
    gProgressFilepath = t + "/p.progress";
    // A line, what it logs, its result, then prevCommand and prevValue after it (and before it).
    struct Row { std::string line; std::vector<std::string> logged; int result;
                 std::string command, value, commandBefore = "none", valueBefore = "pv0"; };
    // Copying and linking happen under gRoot, so setRoot comes last.
    const Row rows[] = {
        {" copySrcX \t/a b \r", {}, 0, "copySrc", "X \t/a b"},
        {"copyDest:x", {}, 0, "copyDest", "x", "copySrc", src},
        {"moveOrCopyDest:y", {}, 0, "moveOrCopyDest", ":y", "copySrc", src},
        {"lnkContent:  y", {}, 0, "lnkContent", "y"},
        {"lnkResulting:link",
         {"DoCmdSymlink() - Create Symlink existingFile:\ny\n... resultingLinkFile ...\n" + t +
          "/link"}, 0, "lnkResulting", "link", "lnkContent", "y"},
        {"setUserID 501", {kSaid + "UserID is now: 501"}, 0, "setUserID", "501"},
        {"setGroupID\t20\t", {kSaid + "GroupID is now: 20"}, 0, "setGroupID", "20"},
        {"setPermsAccess Full", {kSaid + "Perms Full Access is: 0"}, 0, "setPermsAccess", "Full"},
        {"setPermsAccess full", {kSaid + "Perms Full Access is: 1"}, 0, "setPermsAccess", "full"},
        {"makeDir" + dir,
         {"DoMakeDir(" + dir + ") - starting", "DoMakeDir(" + dir + ") - Result was:0."}, 0,
         "makeDir", dir},
        {"fixPermsR" + dir,
         {"DoFixPerms(uid=501,gid=20, recursive=1) - Fixing permissions for: " + dir,
          "DoFixPerms(recursive, uid=501,gid=20) - chown done on 0 files and 0 dirs with 0 "
          "errors."},
         0, "fixPermsR", dir},
        {"exectrue", {"DoExec() - Executing: true", "DoExec() - Program result: 0"}, 0, "exec",
         "true"},
        {"plistPath  /p q ", {kSaid + "Got plistPath: /p q."}, 0, "plistPath", "pv0"},
        {"plistFoo 1", {kUnknown + "plistFoo 1."}, 0, "none", "pv0"},
        {"regFoo 1", {kUnknown + "regFoo 1."}, 0, "none", "pv0"},
        {"regGo x", {}, 0, "regGo", "pv0"},
        {"shortcutLocation Desktop",
         {kSaid + "Got shortcutLocation: Desktop.",
          kSaid + "ERROR: shortcutLocation should be \"desktop\" or \"startMenu\" but got "
                  "Desktop. Using startMenu."},
         0, "shortcutLocation", "pv0"},
        {"  # x", {}, 0, "none", "pv0"},
        {" \t\r\v\f", {}, 0, "none", "pv0"},
        {"x # y", {kUnknown + "x # y."}, 0, "none", "pv0"},
        {"exit now", {}, 1, "exit", ""},
        {"setRoot\t/r s \r", {kSaid + "Root is now: /r s"}, 0, "setRoot", "/r s"},
    };
    for (const Row& row : rows) {
        std::string command = row.commandBefore, value = row.valueBefore;
        const std::size_t from = log.messages().size();
        EXPECT_EQ(ServiceCommand(row.line, command, value), row.result) << row.line;
        const auto all = log.messages();
        EXPECT_EQ(std::vector<std::string>(all.begin() + from, all.end()), row.logged) << row.line;
        EXPECT_EQ(command + "|" + value, row.command + "|" + row.value) << row.line;
    }
    EXPECT_EQ(ReadFile(tmp / "x") + ReadFile(tmp / ":y"), "datadata");
    EXPECT_TRUE(fs::is_directory(dir) && fs::read_symlink(tmp / "link") == "y");
    EXPECT_EQ(gRoot + "|" + gUserID + "|" + gGroupID + "|" + gPlistPath + "|" + gShortcutLocation,
              "/r s|501|20|/p q|startMenu");
    EXPECT_TRUE(!gRootIsCrossDevice && gErrors.empty());
}

TEST(Interpreter, PairCommandsMustFollowTheirStart) {
    LogCapture log;
    TempDir tmp;
    WriteFile(tmp / "src", "data");
    gRoot = tmp.path().string();
    const std::string src = "copySrc " + (tmp / "src").string() + "\n";
    EXPECT_EQ(RunFile(tmp, src + "copyDest a\n\tcopyDest b  \nsetUserID 9\n"), 1);
    EXPECT_EQ(log.messages().back(), kFatal + "\tcopyDest b  ");
    EXPECT_TRUE(fs::exists(tmp / "a") && !fs::exists(tmp / "b") && gUserID == "0");
    EXPECT_EQ(gErrors, std::set<int>{2006});
    gErrors.clear();
    EXPECT_EQ(RunFile(tmp, src + "bogus\n# c\n\ncopyDest c\n"), 0);
    EXPECT_TRUE(log.has(kUnknown + "bogus.") && fs::exists(tmp / "c"));
    EXPECT_EQ(RunFile(tmp, src + "setRoot " + gRoot + "\nmoveOrCopyDest d\n"), 1);
    EXPECT_EQ(log.messages().back(), kFatal + "moveOrCopyDest d");
    // A source does not carry over into the next command file.
    EXPECT_EQ(RunFile(tmp, src) + RunFile(tmp, "copyDest e\n"), 1);
    EXPECT_FALSE(fs::exists(tmp / "d") || fs::exists(tmp / "e"));
    EXPECT_EQ(gErrors, std::set<int>{2006});
    gErrors.clear();
    EXPECT_EQ(RunFile(tmp, "lnkResulting l\nexit\n"), 1);
    EXPECT_EQ(log.messages().back(), kFatal + "lnkResulting l");
    EXPECT_TRUE(gErrors.empty());
}

TEST(Interpreter, RunStateOutlivesCommandFiles) {
    LogCapture log;
    TempDir tmp;
    const fs::path progress = tmp / "p.progress";
    gProgressFilepath = progress.string();
    RunFile(tmp, "setRoot /r\nsetUserID 501\nsetGroupID 20\nsetPermsAccess full\nregHive H\n"
                 "progress -1\n");
    EXPECT_FALSE(fs::exists(progress));
    gMovedFiles["/moved"] = "/to";
    RunFile(tmp, "progress 50\nprogress 50\nprogress 60%\n");
    EXPECT_TRUE(gMovedFiles.empty());
    RunFile(tmp, "progress abc\nprogress 0\n");
    EXPECT_EQ(ReadFile(progress), "0 %\n");
    std::string shown;  // every progress number that was logged (and written)
    for (const std::string& message : log.messages())
        if (message.rfind(kSaid + "progress is now: ", 0) == 0)
            shown += message.substr(kSaid.size() + 17) + " ";
    EXPECT_EQ(shown, "50 60 0 ");
    EXPECT_EQ(gRoot + gUserID + gGroupID + gRegHive, "/r50120H");
    EXPECT_TRUE(gPermsFullAccess);
}

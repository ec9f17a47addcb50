// The command language and the run state it keeps, one command file at a
// time, against a captured log.
#include "testSupport.h"

#include "interpreter.h"
#include "runState.h"

#include <gtest/gtest.h>

using namespace zqimtest;

static const std::string kSaid = "ServiceCommand() - ";

static int RunFile(const TempDir& dir, const std::string& lines) {
    WriteFile(dir / "cmd.txt", lines);
    return ServiceCommandFile((dir / "cmd.txt").string());
}

// The first keyword that prefixes the line wins, separator or not; copyDest,
// lnkContent and lnkResulting drop one character after it, whatever it is.
// Ids convert as far as they are digits, so an empty one means root.
TEST(Interpreter, MatchesKeywordsAsPrefixesAndCutsValues) {
    LogCapture log;
    TempDir tmp;
    const std::string t = tmp.path().string(), blocked = t + "/a b/q\"";
    WriteFile(tmp / "src", "data");
    gProgressFilepath = t + "/p";
    EXPECT_EQ(RunFile(tmp, "setRoot\t" + t + " \r\n copySrc" + t + "/src \t\ncopyDest:a b\n"
                           "copySrc " + t + "/src\nmoveOrCopyDest:y\nlnkContent:  tgt\n"
                           "lnkResulting:link\nsetUserID\nsetGroupID\t12ab\t\n"
                           "setPermsAccess Full\nfixPermsR" + t + "/a b\nmakeDir " + blocked +
                           "\nplistPath  /p q \nplistFoo 1\nregFoo 1\nshortcutLocation Desktop\n"
                           "  # x\n \t\v\f\nx # y\nprogress -1\nprogress 50\nprogress 50\n"
                           "progress 60%\nprogress abc\nexectrue\nexit now\nsetUserID 9\n"), 1);
    for (const std::string& m : std::vector<std::string>{kSaid + "Root is now: " + t,
         kSaid + "UserID is now: ", "DoExec() - Executing: true", "DoExec() - Program result: 0",
         kSaid + "GroupID is now: 12ab", kSaid + "Perms Full Access is: 0",
         "DoFixPerms(uid=0,gid=12, recursive=1) - Fixing permissions for: " + t + "/a b",
         "DoMakeDir(" + blocked + ") - starting", "DoMakeDir(" + blocked + ") - Result was:0.",
         "ZQIMCreateDirs() - Error creating dir \"\"" + t + "/a b/q\\\"\"\": Error 20: "
         "category=generic, message=Not a directory.", kSaid + "Got plistPath: /p q.",
         kSaid + "ERROR: shortcutLocation should be \"desktop\" or \"startMenu\" but got "
         "Desktop. Using startMenu."})
        EXPECT_TRUE(log.has(m)) << m;
    // Comments and blank lines are not unknown commands; a progress number is
    // logged and written only when it changes, and -1 equals the initial value.
    std::vector<std::string> picked;
    for (const std::string& m : log.messages())
        if (m.rfind(kSaid + "Skipping", 0) == 0 || m.rfind(kSaid + "progress", 0) == 0)
            picked.push_back(m.substr(kSaid.size()));
    EXPECT_EQ(picked, (std::vector<std::string>{"Skipping unknown command: plistFoo 1.",
        "Skipping unknown command: regFoo 1.", "Skipping unknown command: x # y.",
        "progress is now: 50", "progress is now: 60", "progress is now: 0"}));
    EXPECT_EQ(ReadFile(tmp / "p") + ReadFile(tmp / "a b") + ReadFile(tmp / ":y"), "0 %\ndatadata");
    EXPECT_EQ(fs::read_symlink(tmp / "link"), "tgt");
    EXPECT_EQ(gUserID + gGroupID + gPlistPath + gShortcutLocation, "12ab/p qstartMenu");
    EXPECT_TRUE(!gPermsFullAccess && gErrors.empty());
}

// A broken link pair is only returned, a broken copy pair also recorded.
TEST(Interpreter, PairCommandsMustFollowTheirStart) {
    LogCapture log;
    TempDir tmp;
    WriteFile(tmp / "src", "data");
    gRoot = tmp.path().string();
    const std::string src = "copySrc " + (tmp / "src").string() + "\n",
                      fatal = "ServiceCommandFile() - Fatal error 2006: ";
    EXPECT_EQ(RunFile(tmp, "lnkResulting l\nexit\n"), 1);
    EXPECT_EQ(log.messages().back(), fatal + "lnkResulting l");
    EXPECT_TRUE(gErrors.empty());
    EXPECT_EQ(RunFile(tmp, src + "copyDest a\n\tcopyDest b  \nsetUserID 9\n"), 1);
    EXPECT_EQ(log.messages().back(), fatal + "\tcopyDest b  ");
    EXPECT_EQ(RunFile(tmp, src + "bogus\n# c\n\ncopyDest c\nsetPermsAccess full\n"), 0);
    EXPECT_EQ(RunFile(tmp, src + "regGo\nmoveOrCopyDest d\n"), 1);
    // The line after a fatal one does not run; settings outlive their command file.
    EXPECT_TRUE(fs::exists(tmp / "a") && !fs::exists(tmp / "b") && fs::exists(tmp / "c") &&
                !fs::exists(tmp / "d") && gUserID == "0" && gPermsFullAccess);
    EXPECT_EQ(gErrors, std::set<int>{2006});
}

// A move whose source an earlier move of the same command file carried away
// follows it through the map; a move that crosses devices turns every later
// move under that root into a copy, until the next setRoot.
TEST(Interpreter, MovesFollowTheMapOfTheirFileAndCopyAcrossDevicesUntilSetRoot) {
    LogCapture log;
    TempDir staging, root, far("/dev/shm");
    const std::string a = (staging / "a").string(), r = root.path().string(),
                      f = (far / "f").string(), setRoot = "setRoot " + r + "\n";
    WriteFile(a, "payload");
    std::string lines = setRoot;  // the second move is redirected once, the third twice
    for (const char* dest : {"one/a", "two/a", "three/a"})
        lines += "copySrc " + a + "\nmoveOrCopyDest " + dest + "\n";
    EXPECT_EQ(RunFile(staging, lines), 0);
    EXPECT_EQ(ReadFile(root / "three/a"), "payload");
    EXPECT_EQ(gMovedFiles, (std::map<std::string, std::string>{{a, r + "/one/a"},
                               {r + "/one/a", r + "/two/a"}, {r + "/two/a", r + "/three/a"}}));
    EXPECT_EQ(RunFile(staging, "copySrc " + a + "\nmoveOrCopyDest four/a\n"), 1);  // map emptied
    EXPECT_TRUE(log.has("ZQIMMoveOrCopyFile(move=true, did not find in map) - Error - Source "
                        "file \"" + a + "\" not found: Error 2: category=generic, message=No "
                        "such file or directory"));
    WriteFile(a, "near");
    WriteFile(f, "far");
    EXPECT_EQ(RunFile(staging, setRoot + "copySrc " + f + "\nmoveOrCopyDest x/f\ncopySrc " + a +
                                   "\nmoveOrCopyDest x/a"), 0);
    EXPECT_EQ(log.messages().back(), "ZQIMMoveOrCopyFile() - Cannot move cross-device. Setting "
                                     "flag and doing full copies for this root.");
    EXPECT_TRUE(fs::exists(f) && fs::exists(a) && gMovedFiles.empty());
    EXPECT_EQ(ReadFile(root / "x/f") + ReadFile(root / "x/a"), "farnear");
    EXPECT_EQ(RunFile(staging, setRoot + "copySrc " + a + "\nmoveOrCopyDest y/a\n"), 0);
    EXPECT_FALSE(fs::exists(a));
}

// End-to-end: command files read and run by the real helper, including the
// inputs it answers, the ones that stop it and the ones it dies on.
#include "testSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstdlib>

using namespace zqimtest;
using namespace std::chrono_literals;

TEST(CommandFile, PreferencesReachTheShellAsComposed) {
    TempDir comm, bin;
    // Stand-ins that record their arguments and fail, which must not count as an error.
    for (const char* tool : {"defaults", "sudo"}) {
        WriteFile(bin / tool, "#!/bin/sh\n{ printf %s \"${0##*/}\"; for a; do printf ' [%s]' "
                              "\"$a\"; done; echo; } >> '" + (bin / "calls.txt").string() +
                                  "'\nexit 5\n");
        fs::permissions(bin / tool, fs::perms::owner_all);
    }
    Frontend frontend(comm.path());
    frontend.send(1, "setUserID 501\nplistLoc user\nplistPath dom.x\nplistValueName Recent Files\n"
                     "plistValueType array\nplistValueData a b\nplistGo\nplistDel\n"
                     "plistLoc User\nplistValueType bool\nplistGo\nexit\n");
    const std::string path = std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin";
    setenv("PATH", (bin.path().string() + ":" + path).c_str(), 1);
    HelperProcess helper({"-c", comm.path().string()});
    setenv("PATH", path.c_str(), 1);
    ASSERT_TRUE(helper.wait(30s));
    EXPECT_EQ(helper.exitCode(), 0);
    EXPECT_FALSE(fs::exists(frontend.file(1, ".err")));
    std::vector<std::string> ran;  // what the operations logged, without the stored arguments
    for (const std::string& message : frontend.log())
        if (message.rfind("Do", 0) == 0)
            ran.push_back(message);
    const std::string set = "DoSetPlist(location=", del = "DoDelPlist(location=",
                      args = ",valueName=Recent Files,valueType=", sudo = "sudo -u \\#501 ";
    const std::vector<std::string> expected{
        set + "user,path=dom.x" + args + "array,value=a b,uid=501) - command is: " + sudo +
            "defaults write dom.x \"Recent Files\" -array \"a b\"",
        "DoSetPlist: Result was 1280",
        del + "user,path=dom.x,uid=501) - command is: " + sudo + "defaults delete dom.x",
        "DoDelPlist: Result was 1280",
        set + "User,path=dom.x" + args + "bool,value=a b,uid=501) - command is: " +
            "defaults write dom.x \"Recent Files\" \"a b\"",
        "DoSetPlist: Result was 1280"};
    EXPECT_EQ(ran, expected);
    EXPECT_EQ(ReadFile(bin / "calls.txt"),
              "sudo [-u] [#501] [defaults] [write] [dom.x] [Recent Files] [-array] [a b]\n"
              "sudo [-u] [#501] [defaults] [delete] [dom.x]\n"
              "defaults [write] [dom.x] [Recent Files] [a b]\n");
}

TEST(CommandFile, EndsAnsweredStoppedOrAborted) {
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);  // the aborts below must leave no core file
    std::string binary(1024, '\0');
    for (std::size_t i = 0; i < binary.size(); ++i)
        binary[i] = static_cast<char>(i);
    const std::string kSaid = "ServiceCommand() - ";
    // Command files, whether the helper aborts, how many get a finished file, the log's end.
    struct Case {
        std::vector<std::string> files;
        bool aborts;
        std::size_t answered;
        std::vector<std::string> logTail;
    };
    const Case cases[] = {
        {{"copySrc /nowhere\nnote\ncopyDest\nsetUserID 7\n"}, true, 0,
         {kSaid + "Skipping unknown command: note."}},
        {{"setUserID 5\nlnkContent\nsetUserID 6\n"}, true, 0, {kSaid + "UserID is now: 5"}},
        {{"setUserID 11\r\n# c\r\nsetGroupID 12\r\nexit\r\nsetUserID 99\r\n", "setUserID 42\n"},
         false, 1, {kSaid + "UserID is now: 11", kSaid + "GroupID is now: 12", "Closing log."}},
        {{"exec sh -c 'exit 3'\nexec\nsetUserID 8\nexit"}, false, 1,
         {"DoExec() - Executing: sh -c 'exit 3'", "DoExec() - Program result: 768",
          "DoExec() - Executing: ", "DoExec() - Program result: 0", kSaid + "UserID is now: 8",
          "Closing log."}},
        // Garbage is answered like any other file, and the helper goes on.
        {{binary, std::string(5 << 20, 'z') + "\n \n\t\t\n\r\n\v\f\n",
          "setUserID 3\nsetRoot /r\xff\xfe\n\xc3\x28 x\nexit"},
         false, 3,
         {kSaid + "UserID is now: 3", kSaid + "Root is now: /r\xff\xfe",
          kSaid + "Skipping unknown command: \xc3\x28 x.", "Closing log."}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        TempDir comm;
        Frontend frontend(comm.path());
        for (std::size_t n = 1; n <= c.files.size(); ++n)
            frontend.send(n, c.files[n - 1]);
        HelperProcess helper({"-c", comm.path().string()});
        ASSERT_TRUE(helper.wait(60s));
        const int status = helper.exitStatus();
        EXPECT_EQ(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT, c.aborts);
        EXPECT_EQ(helper.exitCode(), c.aborts ? -1 : 0);
        for (std::size_t n = 1; n <= c.files.size(); ++n) {
            EXPECT_EQ(fs::exists(frontend.file(n, ".zqfin")), n <= c.answered) << n;
            EXPECT_FALSE(fs::exists(frontend.file(n, ".err"))) << n;
        }
        const auto log = frontend.log();
        ASSERT_GE(log.size(), c.logTail.size());
        EXPECT_EQ(std::vector<std::string>(log.end() - c.logTail.size(), log.end()), c.logTail);
    }
}

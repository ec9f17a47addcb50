// The real helper binary end to end: its command line and log, then command
// files on a scratch communication directory, played against as the front-end
// does: the order they are taken in, their answers, the programs they start,
// the garbage the helper answers and the inputs it dies on.
#include "testSupport.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <thread>

using namespace zqimtest;
using namespace std::chrono_literals;

// Some cases below make the helper abort; none may leave a core file behind.
static const rlimit kNoCore{0, 0};
static const int kNoCoreFiles = setrlimit(RLIMIT_CORE, &kNoCore);

static const std::string kStart = "ZQIMHelper starting...\n";
static const std::string kNoComm = "No comm dir (required). Exiting.\n";

TEST(Startup, CommandLineDecidesOutputAndExitStatus) {
    TempDir dir;
    ScratchMount readOnly(4096, true);  // making a directory there fails with a reported code
    const std::string made = (dir / "a/b").string(),
                      blocked = readOnly.ok() ? (readOnly.path() / "x").string() : "/dev/null/sub";
    const struct { std::vector<std::string> args; std::string output; int code; } cases[] = {
        {{"-c"}, "No PID passed in.\n" + kNoComm, 1},
        // The first of a repeated option wins, a PID's leading digits are taken,
        // an empty value counts as none and "-C" is not "-c".
        {{"-p", "123abc", "-p", "7", "-c", "", "-v", "-C", "/tmp"},
         "PID was: 123\nVerbose output selected.\n" + kNoComm, 1},
        {{"-p", "abc"}, "", -1},  // ends abnormally
        // Test mode looks at nothing else, so there is no log; it exits 0 even
        // when the directory cannot be made, and that failure's log line goes nowhere.
        {{"-t", made, "-t", dir.path() / "other", "-c", dir.path(), "-p", "abc", "-v"},
         "Testing Permissions: " + made + "\n", 0},
        {{"-t", blocked, "-v"}, "Testing Permissions: " + blocked + "\n", 0},
    };
    for (const auto& c : cases) {
        HelperProcess helper(c.args);
        ASSERT_TRUE(helper.wait(20s));
        EXPECT_EQ(helper.exitCode(), c.code) << c.output;
        if (c.code >= 0) {
            EXPECT_EQ(helper.output(), kStart + c.output);
        }
    }
    // The version alone, whatever else is given: nothing starts, no
    // directory is made, no log opened.
    HelperProcess version({"-t", dir.path() / "other", "-c", dir.path(), "--version", "-v"});
    ASSERT_TRUE(version.wait(20s));
    EXPECT_EQ(version.exitCode(), 0);
    EXPECT_EQ(version.output(), "ZQIMHelper " ZQIM_PROJECT_VERSION "\n");
    EXPECT_TRUE(fs::is_directory(made));
    EXPECT_FALSE(fs::exists(dir / "other") || fs::exists(dir / "ZQIMLog.txt"));
}

// "-c -v" names the directory "-v" and also turns verbose on, which echoes the
// log exactly: every line stamped, "Opened Log" first and "Closing log." last.
TEST(Startup, VerboseEchoesTheLog) {
    TempDir cwd;
    fs::create_directory(cwd / "-v");
    Frontend(cwd / "-v").send(1, "exit\n");
    const fs::path oldCwd = fs::current_path();
    fs::current_path(cwd.path());
    HelperProcess helper({"-c", "-v"});
    fs::current_path(oldCwd);
    ASSERT_TRUE(helper.wait(20s));
    const std::string log = ReadFile(cwd / "-v/ZQIMLog.txt");
    EXPECT_EQ(helper.output(), kStart + "No PID passed in.\nVerbose output selected.\n"
                                        "Communication dir was: -v\n" + log);
    const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ: )";
    EXPECT_TRUE(std::regex_match(log, std::regex(stamp + "Opened Log at: -v/ZQIMLog\\.txt\n(" +
                                                 stamp + ".*\n)*" + stamp + "Closing log\\.\n")))
        << log;
}

// One run shows which files are taken and in what order, the wait for a
// signal file, and the answers with the error codes they carry.
TEST(Exchange, ServicesEachCommandFileOnceInNumberOrder) {
    ScratchMount readOnly(64 * 1024, true);
    if (!readOnly.ok())
        GTEST_SKIP() << "needs the privilege to mount a tmpfs";
    TempDir comm;
    Frontend frontend(comm.path());
    WriteFile(comm / "ZQIMLog.txt", "2000-01-01T00:00:00Z: left by an earlier run\n");
    for (std::string ignored : {"ZQCmd0", "ZQCmd-2", "zqcmd1"}) {
        WriteFile(comm / (ignored + ".txt"), "exit\n");
        WriteFile(comm / (ignored + ".zqsig"), "");
    }
    // 2 records 2007 without stopping; the dangling link 4 cannot be opened; 5's
    // only line has no newline; 9's out-of-order copyDest (2006) is fatal, so
    // "never" is not made.
    frontend.send(2, "makeDir " + (readOnly.path() / "x").string() + "\nmakeDir " +
                         (comm / "two").string() + "\n");
    fs::create_symlink(comm / "missing", frontend.file(4, ".txt"));
    WriteFile(frontend.file(4, ".zqsig"), "");
    WriteFile(comm / "ZQCmd5.backup.txt", "makeDir " + (comm / "five").string());
    frontend.send(9, "copyDest y\nmakeDir " + (comm / "never").string());
    CloseOrder closed(comm.path());  // seen on Linux only
#ifdef __linux__
    ASSERT_TRUE(closed.ok());
#endif
    HelperProcess helper({"-c", comm.path().string()});

    // Command 5 has no signal file yet: the helper waits there, not looking past it.
    const auto noSig = "No sig file found (" + (comm / "ZQCmd5.backup.zqsig").string() + ").";
    std::string log;  // until the line came on two polls
    for (int i = 0; i < 999 && (log = frontend.logText(), log.find(noSig) == log.rfind(noSig)); ++i)
        std::this_thread::sleep_for(20ms);
    ASSERT_NE(log.find(noSig), log.rfind(noSig));
    EXPECT_FALSE(fs::exists(frontend.file(9, ".zqfin")));
    WriteFile(frontend.file(2, ".txt"), "exit\n");  // already serviced: never read again
    WriteFile(comm / "ZQCmd5.backup.zqsig", "");
    ASSERT_TRUE(helper.wait(20s));
    EXPECT_EQ(helper.exitCode(), 0);

    // Codes are never forgotten: every later error file repeats them, ascending.
    for (int n : {2, 4, 5, 9}) {
        EXPECT_EQ(ReadFile(frontend.file(n, ".zqfin")), "Finished.") << n;
        EXPECT_EQ(ReadFile(frontend.file(n, ".err")),
                  n == 9 ? "2006\n2007\nend\n" : "2007\nend\n");
    }
    EXPECT_TRUE(fs::is_directory(comm / "two") && fs::is_directory(comm / "five") &&
                !fs::exists(comm / "never"));
    EXPECT_EQ(frontend.log().at(0), "Opened Log at: " + (comm / "ZQIMLog.txt").string());
    EXPECT_EQ(helper.output(),
              kStart + "No PID passed in.\nCommunication dir was: " + comm.path().string() + "\n");

    if (closed.ok()) {  // the error file is complete before the finished file
        const std::string order = closed.Read();
        EXPECT_LT(order.find("ZQCmd9.err|"), order.find("ZQCmd9.zqfin|")) << order;
    }
}

TEST(Exchange, KeepsPollingWithoutUsableCommDir) {
    HelperProcess missing({"-c", "/nonexistent/zqim"}), notDir({"-c", "/dev/null"});
    EXPECT_FALSE(missing.wait(2s) || notDir.wait(0s));  // both are killed at the end of scope
}

// Garbage first (every byte value, a 5 MiB line): answered, and the helper goes
// on. Then programs exit 8, a raw status of 2048 that would stop the file were
// it taken for the line's result; stand-ins for defaults and sudo, first on
// PATH, record what the shell hands them.
TEST(CommandFile, AnswersGarbageAndRunsProgramsAsComposed) {
    TempDir comm, bin;
    WriteFile(bin / "defaults", "#!/bin/sh\n{ printf %s \"${0##*/}\"; for a; do printf ' [%s]' "
                                "\"$a\"; done; echo; } >> '" + (bin / "calls.txt").string() +
                                    "'\nexit 8\n");
    fs::permissions(bin / "defaults", fs::perms::owner_all);
    fs::create_symlink("defaults", bin / "sudo");
    std::string garbage(1024, '\0');
    for (std::size_t i = 0; i < garbage.size(); ++i)
        garbage[i] = static_cast<char>(i);
    Frontend frontend(comm.path());
    frontend.send(1, garbage + std::string(5 << 20, 'z'));
    frontend.send(2, "exec sh -c 'exit 8'\nsetUserID 501\nplistLoc user\nplistPath dom.x\n"
                     "plistValueName Recent Files\nplistValueType array\nplistValueData a b\n"
                     "plistGo\nplistDel\nplistLoc User\nplistValueType bool\nplistGo\nexit\n");
    const std::string path = std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin";
    setenv("PATH", (bin.path().string() + ":" + path).c_str(), 1);
    HelperProcess helper({"-c", comm.path().string()});
    setenv("PATH", path.c_str(), 1);
    ASSERT_TRUE(helper.wait(30s));
    EXPECT_EQ(helper.exitCode(), 0);
    EXPECT_TRUE(fs::exists(frontend.file(1, ".zqfin")) && !fs::exists(frontend.file(2, ".err")));
    EXPECT_NE(frontend.logText().find(": DoExec() - Program result: 2048\n"), std::string::npos);
    EXPECT_EQ(ReadFile(bin / "calls.txt"),
              "sudo [-u] [#501] [defaults] [write] [dom.x] [Recent Files] [-array] [a b]\n"
              "sudo [-u] [#501] [defaults] [delete] [dom.x]\n"
              "defaults [write] [dom.x] [Recent Files] [a b]\n");
}

// A bare copyDest after its copySrc, or a bare lnkContent, has no value to cut
// and ends the process on the spot, unanswered.
TEST(CommandFile, DiesOnBareValues) {
    for (const char* lines : {"copySrc /nowhere\ncopyDest\n", "lnkContent\n"}) {
        TempDir comm;
        Frontend frontend(comm.path());
        frontend.send(1, lines);
        HelperProcess helper({"-c", comm.path().string()});
        ASSERT_TRUE(helper.wait(20s));
        EXPECT_FALSE(helper.exitedNormally() || fs::exists(frontend.file(1, ".zqfin"))) << lines;
    }
}

// The front-end's side end to end with the real helper: the client library
// (progress, codes that add up over a run, a helper that dies, the order a
// command file is put in place and announced) and the zqim tool's run.
#include "testSupport.h"

#include "zqimClient.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef __linux__
#include <sys/inotify.h>
#endif

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <thread>

using namespace zqimtest;
using namespace std::chrono_literals;

namespace {

zqim::Session Start(const std::string& dir = "") {
    zqim::Session::Options options;
    options.helper = ZQIM_HELPER_BINARY;
    options.commDir = dir;
    return zqim::Session::Start(options);
}

// Runs the zqim tool; returns its exit status and, in `output`, what it printed
// (on standard output alone, without `withErrors`).
int Tool(const std::string& args, std::string& output, bool withErrors = true) {
    TempDir out;
    const std::string command = std::string(ZQIM_TOOL_BINARY) + " " + args + " >" +
                                (out / "out").string() + (withErrors ? " 2>&1" : " 2>/dev/null");
    const int status = std::system(command.c_str());
    output = ReadFile(out / "out");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

// Progress and log lines are followed; the error file's codes add up over a
// run, and each answer names only those its file added. The private
// directory goes with Stop().
TEST(Client, FollowsProgressAndReportsOnlyTheCodesAFileAdded) {
    // A folder that cannot be made records a code and the file goes on: on a
    // read-only volume as root, at the top of the tree as anyone else.
    ScratchMount readOnly(64 * 1024, true);
    if (IsRoot() && !readOnly.ok())
        GTEST_SKIP() << "root needs a read-only volume to be refused a folder";
    TempDir work;
    const std::string blocked =
        readOnly.ok() ? (readOnly.path() / "x").string() : "/zqim-test-not-allowed/x";
    zqim::Session helper = Start();
    const std::string dir = helper.CommDir();
    const int first = helper.Send("progress 10\nmakeDir " + (work / "made").string() +
                                  "\nprogress 60\nmakeDir " + blocked + "\nprogress 100\n");
    std::vector<int> seen;
    std::vector<std::string> lines;
    const zqim::Answer a = helper.Wait(
        first, [&](int p) { seen.push_back(p); },
        [&](const std::string& line) { lines.push_back(line); });
    ASSERT_TRUE(a.finished && !a.died);
    EXPECT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), 100);
    EXPECT_TRUE(fs::is_directory(work / "made"));
    EXPECT_NE(lines.at(lines.size() - 2).find("DoMakeDir(" + blocked + ") - Result was:"),
              std::string::npos);
    ASSERT_EQ(a.codes.size(), 1u) << "makeDir on a read-only volume records a code";
    EXPECT_EQ(a.newCodes, a.codes);
    EXPECT_FALSE(fs::exists(dir + "/ZQCmd1.txt") || fs::exists(dir + "/ZQCmd1.zqfin"));

    // The second file adds 2006 (and stops the helper); the first code comes
    // again in its error file but is not new.
    const zqim::Answer b = helper.Wait(helper.Send("copyDest x\n"));
    ASSERT_TRUE(b.finished);
    EXPECT_EQ(b.newCodes, std::vector<int>{2006});
    EXPECT_EQ(b.codes.size(), 2u);
    EXPECT_EQ(zqim::CodeName(2006), "pair command out of order");
    EXPECT_EQ(helper.Stop(), "exit status 0");
    EXPECT_FALSE(fs::exists(dir));
}

// A helper killed while it works on a file is reported as having died on
// that file, and how. The log followed in a given directory is this run's,
// not an earlier one's.
TEST(Client, HelperKilledMidFileIsReportedAsDiedOnIt) {
    TempDir comm;
    WriteFile(comm / "ZQIMLog.txt", std::string(100, '\n') + "an earlier run\n");
    zqim::Session helper = Start(comm.path().string());
    std::string lines;
    ASSERT_TRUE(helper.Wait(helper.Send("progress 1\n"), {}, [&](const std::string& line) {
        lines += line + "\n";
    }).finished);
    EXPECT_EQ(lines.find("earlier"), std::string::npos) << lines;
    EXPECT_NE(lines.find("Z: Found command file 1: "), std::string::npos) << lines;
    const int number = helper.Send("exec sleep 30\n");
    std::thread killer([&] {
        for (int i = 0; i < 200 && !fs::exists(comm / "ZQIMLog.txt"); ++i)
            std::this_thread::sleep_for(10ms);
        while (ReadFile(comm / "ZQIMLog.txt").find("Executing: sleep") == std::string::npos)
            std::this_thread::sleep_for(10ms);
        kill(helper.Pid(), SIGKILL);
    });
    const zqim::Answer a = helper.Wait(number, {}, {}, 20s);
    killer.join();
    EXPECT_TRUE(a.died && !a.finished && a.number == 2);
    EXPECT_EQ(a.how.rfind("killed by signal 9", 0), 0u) << a.how;
}

// A given directory is refused while others may write to it, or while it
// holds a command file of an earlier run, which a new helper would run.
TEST(Client, GivenDirectoryMustBePrivateAndHoldNoEarlierRun) {
    TempDir comm;
    auto refusal = [&] {
        try {
            Start(comm.path().string());
        } catch (const std::system_error& e) {
            return e.code().value();
        }
        return 0;
    };
    fs::permissions(comm.path(), fs::perms::others_write, fs::perm_options::add);
    EXPECT_EQ(refusal(), EPERM);
    fs::permissions(comm.path(), fs::perms::others_write, fs::perm_options::remove);
    WriteFile(comm / "ZQCmd3.zqfin", "Finished.");
    EXPECT_EQ(refusal(), EEXIST);
}

// A command file is complete under its own name before its signal file
// appears: it is written under another name and renamed into place.
TEST(Client, CommandFileIsInPlaceWholeBeforeItsSignal) {
#ifdef __linux__
    TempDir comm;
    zqim::Session::Options options;
    options.helper = "/nonexistent/helper";  // nothing reads the files here
    options.commDir = comm.path().string();
    zqim::Session session = zqim::Session::Start(options);
    const int watch = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(inotify_add_watch(watch, comm.path().c_str(),
                                IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_MODIFY),
              0);
    session.Send(std::string(1 << 20, '#') + "\nexit\n");
    std::string events;
    alignas(inotify_event) char raw[64 * 1024];
    const ssize_t size = read(watch, raw, sizeof raw);
    for (ssize_t at = 0; at < size; at += sizeof(inotify_event) + ((inotify_event*)&raw[at])->len) {
        const inotify_event* e = (inotify_event*)&raw[at];
        const std::string name = e->len ? e->name : "";
        if (name.rfind("ZQCmd1.", 0) == 0)
            events += name + ((e->mask & IN_MOVED_TO) ? ":moved|" : (e->mask & IN_CREATE) ? ":created|" : ":written|");
    }
    close(watch);
    EXPECT_EQ(events.substr(0, events.find("ZQCmd1.zqsig")), "ZQCmd1.txt:moved|") << events;
    EXPECT_NE(events.find("ZQCmd1.zqsig:created|"), std::string::npos) << events;
    EXPECT_EQ(ReadFile(comm / "ZQCmd1.txt").size(), (1u << 20) + 6);
#else
    GTEST_SKIP() << "the order of file events is watched with inotify";
#endif
}

// zqim run sends each file in turn and sums up; the exit status says
// whether any file recorded an error. With --check, a file with an error is
// refused before anything runs; zqim check gives 0, 1 or 2.
TEST(ZqimTool, RunsFilesSumsUpAndChecksFirst) {
    TempDir work;
    WriteFile(work / "one.txt", "progress 50\nmakeDir " + (work / "made").string() + "\n");
    WriteFile(work / "two.txt",
              "setRoot " + work.path().string() + "\ncopySrc /nowhere\ncopyDest x\nexit\n");
    WriteFile(work / "bad.txt", "copySrc /a\nsetRoot /r\ncopyDest b\nexit\n");
    const std::string helper = " --helper " + std::string(ZQIM_HELPER_BINARY) + " ";
    std::string out;
    EXPECT_EQ(Tool("run -v" + helper + (work / "one.txt").string() + " " +
                       (work / "two.txt").string(), out), 1) << out;
    EXPECT_NE(out.find("Z: ServiceCommand() - progress is now: 50\n"), std::string::npos) << out;
    EXPECT_NE(out.find("ran 2 of 2 command files"), std::string::npos) << out;
    EXPECT_NE(out.find("one.txt (ZQCmd1): "), std::string::npos) << out;
    EXPECT_NE(out.find("no new error"), std::string::npos) << out;
    EXPECT_NE(out.find("new errors: 2003 source not found"), std::string::npos) << out;
    EXPECT_NE(out.find("helper ended: exit status 0"), std::string::npos) << out;
    EXPECT_TRUE(fs::is_directory(work / "made"));

    EXPECT_EQ(Tool("run --check" + helper + (work / "bad.txt").string(), out), 2);
    EXPECT_NE(out.find("bad.txt:3:1: error: 'copyDest' must directly follow 'copySrc'"),
              std::string::npos) << out;
    EXPECT_EQ(Tool("check " + (work / "one.txt").string(), out), 1) << out;
    EXPECT_EQ(Tool("check " + (work / "two.txt").string(), out), 0) << out;
    // JSON keeps UTF-8 as it is; other bytes become code points.
    WriteFile(work / "typo.txt", "d\xc3\xa9lFile /a\xff\nexit\n");
    EXPECT_EQ(Tool("check --format=json " + (work / "typo.txt").string(), out), 1) << out;
    EXPECT_NE(out.find("\"unknown command 'd\xc3\xa9lFile /a\\u00ff' is skipped; did you mean "
                       "'delFile'?\""), std::string::npos) << out;
}

// Asked for, the usage (a line per option) and the version go to standard
// output with success; a wrong command line still gets the short usage on
// standard error, with 64.
TEST(ZqimTool, HelpAndVersionAnswerOnStandardOutput) {
    std::string out;
    EXPECT_EQ(Tool("--help", out, false), 0);
    for (const char* option : {"--no-pid", "--format=json", "--comm DIR", "--helper PATH", "--keep",
                               "-v", "--check", "--help", "--version"})
        EXPECT_NE(out.find("\n  " + std::string(option) + " "), std::string::npos) << option;
    EXPECT_EQ(Tool("--version", out, false), 0);
    EXPECT_EQ(out, "zqim " ZQIM_PROJECT_VERSION "\n");
    EXPECT_EQ(Tool("frobnicate", out, false), 64);
    EXPECT_EQ(out, "");
    EXPECT_EQ(Tool("check", out), 64);
    EXPECT_EQ(out.rfind("usage: zqim check", 0), 0u) << out;
}

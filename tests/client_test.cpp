// The front-end's side end to end with the real helper: the client library
// (progress, codes that add up over a run, each file's own failed lines, a
// helper that dies or ends, the order a command file is put in place and
// announced, the command builder, waiting by events) and the zqim tool's
// run and check.
#include "testSupport.h"

#include "zqimClient.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef __linux__
#include <sys/inotify.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
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

// Runs the zqim tool through the shell (in `dir`, if given); returns its
// exit status, and what it printed on standard output and standard error.
int Tool(const std::string& args, std::string& out, std::string& err,
         const fs::path& dir = fs::path()) {
    TempDir files;
    const std::string command = (dir.empty() ? "" : "cd '" + dir.string() + "' && ") +
                                std::string(ZQIM_TOOL_BINARY) + " " + args + " >" +
                                (files / "out").string() + " 2>" + (files / "err").string();
    const int status = std::system(command.c_str());
    out = ReadFile(files / "out");
    err = ReadFile(files / "err");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A stand-in for the helper that answers nothing: it notes its arguments in
// `args` (whole, by a rename) and sleeps until killed.
fs::path SilentHelper(const TempDir& dir) {
    const fs::path script = dir / "silent-helper";
    const std::string args = (dir / "args").string();
    WriteFile(script, "#!/bin/sh\nprintf '%s\\n' \"$@\" >" + args + ".new && mv " + args +
                          ".new " + args + "\nexec sleep 60\n");
    fs::permissions(script, fs::perms::owner_all);
    return script;
}

// The arguments SilentHelper noted, once it has.
std::string NotedArguments(const TempDir& dir) {
    for (int i = 0; i < 2000 && !fs::exists(dir / "args"); ++i)
        std::this_thread::sleep_for(5ms);
    return ReadFile(dir / "args");
}

// A folder that cannot be made: makeDir records a code for it and the file
// goes on. On a read-only volume as root, at the top of the tree as anyone
// else; empty where root has no read-only volume.
std::string BlockedFolder(const ScratchMount& readOnly) {
    if (readOnly.ok())
        return (readOnly.path() / "x").string();
    return IsRoot() ? "" : "/zqim-test-not-allowed/x";
}

}  // namespace

// Progress and log lines are followed; the error file's codes add up over a
// run, and each answer names only those its file added. The private
// directory goes with Stop().
TEST(Client, FollowsProgressAndReportsOnlyTheCodesAFileAdded) {
    // A folder that cannot be made records a code and the file goes on: on a
    // read-only volume as root, at the top of the tree as anyone else.
    ScratchMount readOnly(64 * 1024, true);
    const std::string blocked = BlockedFolder(readOnly);
    if (blocked.empty())
        GTEST_SKIP() << "root needs a read-only volume to be refused a folder";
    TempDir work;
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

// A given directory is refused while others may write to it or to a folder
// above it, when it is a link, or while it holds a command file of an
// earlier run, which a new helper would run.
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
    fs::remove(comm / "ZQCmd3.zqfin");

    // The directory itself, never a link to it, and the folders above it:
    // root's private directory in another user's folder is that user's to
    // swap, for the library and for zqim run alike.
    TempDir work;
    const fs::path link = work / "link", theirs = work / "theirs";
    fs::create_directory_symlink(comm.path(), link);
    EXPECT_THROW(Start(link.string()), std::system_error);
    if (!IsRoot())
        return;
    fs::permissions(work.path(), fs::perms(0755));
    fs::create_directories(theirs / "comm");
    fs::permissions(theirs / "comm", fs::perms::owner_all);
    ASSERT_EQ(chown(theirs.c_str(), 65534, 65534), 0);
    try {
        Start((theirs / "comm").string());
        ADD_FAILURE() << "a directory in another user's folder was accepted";
    } catch (const std::system_error& e) {
        EXPECT_EQ(e.code().value(), EPERM);
        EXPECT_NE(std::string(e.what()).find("(" + theirs.string() + " is owned by uid 65534)"),
                  std::string::npos) << e.what();
    }
    WriteFile(work / "one.txt", "exit\n");
    std::string out, err;
    EXPECT_EQ(Tool("run --helper " + std::string(ZQIM_HELPER_BINARY) + " --comm " +
                       (theirs / "comm").string() + " " + (work / "one.txt").string(), out, err),
              69);
    EXPECT_NE(err.find("must be owned by this user or root"), std::string::npos) << err;
    EXPECT_FALSE(fs::exists(theirs / "comm/ZQCmd1.txt"));
}

// A command file is complete under its own name before its signal file
// appears: it is written under another name and renamed into place.
TEST(Client, CommandFileIsInPlaceWholeBeforeItsSignal) {
#ifdef __linux__
    TempDir comm, bin;
    zqim::Session::Options options;
    options.helper = SilentHelper(bin).string();  // nothing reads the files here
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

// Each answer names its file's own failed lines, with the line, its text,
// the code and what the helper logged, also when an earlier file recorded
// the same code (the error file's codes only grow). A folder that cannot be
// made fails its makeDir line though the file goes on; of two identical
// lines, the one that ran into the error is named.
TEST(Client, FailuresAreTheFilesOwnLinesEvenWithCodesSeenBefore) {
    ScratchMount readOnly(64 * 1024, true);
    const std::string blocked = BlockedFolder(readOnly);
    if (blocked.empty())
        GTEST_SKIP() << "root needs a read-only volume to be refused a folder";
    TempDir work;
    zqim::Session helper = Start();
    const zqim::Answer first = helper.Wait(helper.Send("makeDir " + blocked + "\n"));
    ASSERT_TRUE(first.finished);
    ASSERT_EQ(first.failures.size(), 1u);
    const int code = first.failures[0].code;
    EXPECT_EQ(first.newCodes, std::vector<int>{code});

    // The payload is there for the first copy and gone for the second. A
    // delFile that succeeds says nothing: the failure after it is still the
    // line whose text the log names.
    const std::string made = (work / "made").string(), payload = (work / "payload").string();
    const std::string other = (work / "other").string();
    WriteFile(payload, "data");
    WriteFile(other, "");
    const std::string second = "progress 5\n  makeDir " + made + "\nmakeDir " + blocked +
                               "\r\nmakeDir " + made + "\nsetRoot " + work.path().string() +
                               "\ncopySrc " + payload + "\ncopyDest x\nexec rm " + payload +
                               "\ndelFile " + other + "\n# the same lines again\ncopySrc " +
                               payload + "\ncopyDest x\n";
    const zqim::Answer a = helper.Wait(helper.Send(second));
    ASSERT_TRUE(a.finished && a.helperEnded);
    EXPECT_EQ(a.newCodes, std::vector<int>{2003}) << "the makeDir code was seen before";
    ASSERT_EQ(a.failures.size(), 2u);
    EXPECT_EQ(a.failures[0].line, 3);
    EXPECT_EQ(a.failures[0].text, "makeDir " + blocked + "\r");
    EXPECT_EQ(a.failures[0].code, code);
    EXPECT_NE(a.failures[0].message.find("creating dir \"\"" + blocked + "\"\": Error "),
              std::string::npos) << a.failures[0].message;
    EXPECT_EQ(a.failures[1].line, 12);
    EXPECT_EQ(a.failures[1].text, "copyDest x");
    EXPECT_EQ(a.failures[1].code, 2003);
    EXPECT_EQ(a.failures[1].message,
              "ZQIMMoveOrCopyFile(move=false) - Error - Source file not found: " + payload);
    EXPECT_EQ(ReadFile(work / "x"), "data");
    EXPECT_FALSE(fs::exists(other));
}

// A broken pair is named by its line and what it needed; a file that fails
// nothing has no failures, whatever the error file holds.
TEST(Client, BrokenPairAndCleanFileAfterAnError) {
    ScratchMount readOnly(64 * 1024, true);
    const std::string blocked = BlockedFolder(readOnly);
    if (blocked.empty())
        GTEST_SKIP() << "root needs a read-only volume to be refused a folder";
    TempDir work;
    WriteFile(work / "payload", "data");
    zqim::Session helper = Start();
    ASSERT_EQ(helper.Wait(helper.Send("makeDir " + blocked + "\n")).failures.size(), 1u);
    const zqim::Answer clean = helper.Wait(helper.Send("progress 1\n"));
    EXPECT_TRUE(clean.finished && clean.failures.empty() && clean.codes.size() == 1);
    const zqim::Answer broken = helper.Wait(
        helper.Send("setRoot " + work.path().string() + "\ncopySrc " +
                    (work / "payload").string() + "\ncopyDest b\ncopyDest b\ncopyDest c\n"));
    ASSERT_EQ(broken.failures.size(), 1u);
    EXPECT_EQ(broken.failures[0].line, 4);
    EXPECT_EQ(broken.failures[0].code, 2006);
    EXPECT_EQ(broken.failures[0].message,
              "'copyDest' must directly follow 'copySrc' (comments and unknown lines aside)");
}

// Start throws when the helper cannot be started, with the exec's own
// error; nothing is left behind.
TEST(Client, StartThrowsWhenTheHelperCannotRun) {
    TempDir bin;
    const fs::path notExecutable = bin / "helper";
    WriteFile(notExecutable, "#!/bin/sh\n");
    fs::permissions(notExecutable, fs::perms::owner_read | fs::perms::owner_write);
    for (const auto& [helper, error] :
         {std::pair<std::string, int>{"/nonexistent/helper", ENOENT},
          {"zqim-no-such-helper-on-path", ENOENT},
          {notExecutable.string(), EACCES}}) {
        zqim::Session::Options options;
        options.helper = helper;
        int got = 0;
        try {
            zqim::Session::Start(options);
        } catch (const std::system_error& e) {
            got = e.code().value();
        }
        EXPECT_EQ(got, error) << helper;
    }
}

// A file that ends with exit ends the helper: its answer says so (not a
// death), and Send refuses the next file, which nothing would answer.
TEST(Client, AHelperEndedByExitIsNoDeathAndTakesNoMoreFiles) {
    zqim::Session helper = Start();
    const zqim::Answer a = helper.Wait(helper.Send("progress 1\nexit\n"));
    EXPECT_TRUE(a.finished && a.helperEnded && !a.died);
    EXPECT_TRUE(a.failures.empty());
    EXPECT_EQ(a.how, "exit status 0");
    EXPECT_FALSE(helper.Running());
    int error = 0;
    try {
        helper.Send("progress 2\n");
    } catch (const std::system_error& e) {
        error = e.code().value();
        EXPECT_NE(std::string(e.what()).find("ended after command file 1"), std::string::npos)
            << e.what();
    }
    EXPECT_EQ(error, ESRCH);
    EXPECT_EQ(helper.Stop(), "exit status 0");
}

// The builder writes one line per keyword and refuses, whole, a value the
// helper would not take as given; what it builds runs.
TEST(Client, CommandBuilderRefusesWhatTheHelperWouldMisread) {
    TempDir work;
    WriteFile(work / "payload", "data");
    zqim::Commands built;
    built.setRoot(work.path().string()).copy((work / "payload").string(), "d/copied").progress(40);
    EXPECT_EQ(built.str(), "setRoot " + work.path().string() + "\ncopySrc " +
                               (work / "payload").string() + "\ncopyDest d/copied\nprogress 40\n");
    const std::string before = built.str();
    for (const std::string& bad : {std::string("a\nexec rm -rf /"), std::string("a\rb"),
                                   std::string("a\0b", 3), std::string(" a"), std::string("a\t"),
                                   std::string()}) {
        EXPECT_THROW(built.copy("/src", bad), std::invalid_argument) << bad;
        EXPECT_THROW(built.copy(bad, "dest"), std::invalid_argument) << bad;
    }
    EXPECT_THROW(built.progress(101), std::invalid_argument);
    EXPECT_THROW(built.line("copySource", "/x"), std::invalid_argument);
    EXPECT_THROW(built.line("lnkContent"), std::invalid_argument) << "a bare one ends the helper";
    EXPECT_EQ(built.str(), before);
    EXPECT_EQ(zqim::Commands().line("regPath", "a b").exit().str(), "regPath a b\nexit\n");

    zqim::Session helper = Start();
    const zqim::Answer a = helper.Wait(helper.Send(built));
    EXPECT_TRUE(a.finished && a.failures.empty());
    EXPECT_EQ(ReadFile(work / "d/copied"), "data");
}

// The client passes -w (a helper that does not know it ignores it) unless
// told not to, and waits by events: while nothing happens it does not look
// again (it reads the log once per wake, and nothing wakes it), and it
// wakes for an answer and for the helper's end. A loop that looks every
// 50 ms would read the log some ten times in the half second waited here.
TEST(Client, PassesWakeAndWaitsByEvents) {
    TempDir comm, bin;
    zqim::Session::Options options;
    options.helper = SilentHelper(bin).string();
    options.commDir = comm.path().string();
    {
        options.wake = false;
        zqim::Session quiet = zqim::Session::Start(options);
        const std::string args = NotedArguments(bin);
        EXPECT_NE(args.find("\n-p\n"), std::string::npos) << args;
        EXPECT_EQ(args.find("\n-w\n"), std::string::npos) << args;
    }
    fs::remove(bin / "args");
    fs::remove(comm / "helper-output.log");
    options.wake = true;
    zqim::Session helper = zqim::Session::Start(options);
    EXPECT_NE(NotedArguments(bin).find("\n-w\n"), std::string::npos) << NotedArguments(bin);
#ifdef __linux__
    WriteFile(comm / "ZQIMLog.txt", "");  // as the helper's own
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    // Closes too: the kernel folds an event into an identical one before it.
    ASSERT_GE(inotify_add_watch(watch, comm.path().c_str(), IN_OPEN | IN_CLOSE_NOWRITE), 0);
    // How often the log was opened since the last call.
    auto logReads = [&] {
        int count = 0;
        alignas(inotify_event) char raw[16 * 1024];
        for (ssize_t size; (size = read(watch, raw, sizeof raw)) > 0;)
            for (ssize_t at = 0; at < size;) {
                const inotify_event* e = reinterpret_cast<const inotify_event*>(&raw[at]);
                count += (e->mask & IN_OPEN) && e->len && std::string(e->name) == "ZQIMLog.txt";
                at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            }
        return count;
    };
    const auto ignore = [](const std::string&) {};

    const int number = helper.Send("progress 1\n");
    const zqim::Answer idle = helper.Wait(number, {}, ignore, 500ms);
    EXPECT_FALSE(idle.finished || idle.died);
    // Once before sleeping, once after the wake for its own new files,
    // once at the time-out, once for the answer.
    EXPECT_LE(logReads(), 4) << "looked again while nothing changed";

    std::thread answer([&] {
        std::this_thread::sleep_for(100ms);
        WriteFile(comm / ("ZQCmd" + std::to_string(number) + ".zqfin"), "Finished.");
    });
    EXPECT_TRUE(helper.Wait(number, {}, ignore, 20s).finished);
    answer.join();
    logReads();

    const int last = helper.Send("progress 2\n");
    std::thread killer([&] {
        std::this_thread::sleep_for(500ms);
        kill(helper.Pid(), SIGKILL);
    });
    const zqim::Answer a = helper.Wait(last, {}, ignore, 20s);
    killer.join();
    EXPECT_TRUE(a.died);
    EXPECT_LE(logReads(), 4) << "looked again before the helper ended";
    close(watch);
#endif
}

namespace {

// Command files for zqim run, in a scratch directory.
struct RunFiles {
    TempDir work;
    std::string Write(const std::string& name, const std::string& text) {
        WriteFile(work / name, text);
        return (work / name).string();
    }
};

const std::string kHelper = " --helper " + std::string(ZQIM_HELPER_BINARY) + " ";

}  // namespace

// zqim run checks every file first by default and sends none with errors
// (--no-check sends them); warnings are shown on standard error, with the
// value a glued keyword yields. After each file it prints its time and each
// failed line as FILE:LINE: code NAME: message, and stops there.
TEST(ZqimTool, RunChecksFirstAndPrintsEachFailedLine) {
    RunFiles f;
    const std::string one = f.Write("one.txt", "progress 50\nmakeDir " +
                                                   (f.work / "made").string() + "\n");
    const std::string two = f.Write("two.txt", "setRoot " + f.work.path().string() +
                                                   "\ncopySrc /nowhere\ncopyDest x\n");
    const std::string three = f.Write("three.txt", "progress 1\n");
    const std::string bad = f.Write("bad.txt", "copySrc /a\nsetRoot /r\ncopyDest b\n");
    const std::string glued = f.Write("glued.txt", "setRoot " + f.work.path().string() +
                                                       "\ncopySrc " + one +
                                                       "\ncopyDestversions/1.0\n");
    std::string out, err;
    EXPECT_EQ(Tool("run -v" + kHelper + one + " " + two + " " + three, out, err), 1) << out << err;
    EXPECT_NE(out.find("Z: ServiceCommand() - progress is now: 50\n"), std::string::npos) << out;
    EXPECT_NE(out.find(one + " (ZQCmd1): "), std::string::npos) << out;
    EXPECT_NE(out.find(" s, no failed line\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" s, 1 failed line; new codes: 2003 source not found\n" + two +
                       ":3: 2003 source not found: ZQIMMoveOrCopyFile(move=false) - Error - "
                       "Source file not found: /nowhere\n"),
              std::string::npos) << out;
    EXPECT_NE(out.find("ran 2 of 3 command files"), std::string::npos) << out;
    EXPECT_NE(out.find("helper ended: exit status 0, after a fatal error in file 2"),
              std::string::npos) << out;
    EXPECT_TRUE(fs::is_directory(f.work / "made"));

    EXPECT_EQ(Tool("run" + kHelper + bad, out, err), 2);
    EXPECT_NE(err.find("bad.txt:3:1: error: 'copyDest' must directly follow 'copySrc'"),
              std::string::npos) << err;
    EXPECT_NE(err.find("zqim: not run"), std::string::npos) << err;
    EXPECT_EQ(out, "");
    EXPECT_EQ(Tool("run --no-check" + kHelper + bad, out, err), 1) << out << err;
    EXPECT_NE(out.find("bad.txt:3: 2006 pair command out of order"), std::string::npos) << out;

    EXPECT_EQ(Tool("run" + kHelper + glued, out, err), 0) << out << err;
    EXPECT_NE(err.find("glued.txt:3:9: warning: the character after 'copyDest' is dropped, "
                       "whatever it is: 'v' is not part of the value, which is 'ersions/1.0'"),
              std::string::npos) << err;
    EXPECT_EQ(err.find("no exit"), std::string::npos) << "zqim run sends the exit itself";
}

// The helper ending after an exit in a file is told apart from its death;
// either way the files after it are not sent, and the status is 3.
TEST(ZqimTool, RunTellsAnExitBeforeTheLastFileFromADeath) {
    RunFiles f;
    const std::string ends = f.Write("ends.txt", "progress 1\nexit\n");
    const std::string dies = f.Write("dies.txt", "progress 1\nlnkContent\n");
    const std::string after = f.Write("after.txt", "progress 2\n");
    std::string out, err;
    EXPECT_EQ(Tool("run --no-check" + kHelper + ends + " " + after, out, err), 3) << out << err;
    EXPECT_NE(out.find("helper ended: exit status 0, after exit in file 1 (" + ends + ")"),
              std::string::npos) << out;
    EXPECT_NE(err.find("zqim: the helper ended after exit in file 1 (" + ends +
                       "); not sent: 1 file"),
              std::string::npos) << err;
    EXPECT_EQ(out.find("died"), std::string::npos) << out;
    EXPECT_EQ(Tool("run --no-check" + kHelper + dies + " " + after, out, err), 3) << out << err;
    EXPECT_NE(out.find("the helper died on it: killed by signal 6"), std::string::npos) << out;
    EXPECT_NE(err.find("zqim: the helper died on file 1 (" + dies + "): killed by signal 6"),
              std::string::npos) << err;
}

// --format=json: one object per line on standard output, for progress, the
// log, each answer (with its failures) and the helper's end; nothing else.
TEST(ZqimTool, RunWritesJsonEvents) {
    RunFiles f;
    const std::string file = f.Write("a\"b.txt", "progress 40\ncopySrc /nowhere\ncopyDest x\n");
    std::string out, err;
    EXPECT_EQ(Tool("run --format json" + kHelper + "'" + file + "'", out, err), 1) << out << err;
    std::istringstream lines(out);
    std::vector<std::string> events;
    for (std::string line; std::getline(lines, line);) {
        ASSERT_TRUE(line.front() == '{' && line.back() == '}') << line;
        events.push_back(line.substr(0, line.find(',')));
    }
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back(), "{\"event\": \"ended\"");
    for (const char* event : {"progress", "log", "answer"})
        EXPECT_NE(std::find(events.begin(), events.end(),
                            "{\"event\": \"" + std::string(event) + "\""),
                  events.end()) << event;
    const std::string shown = "\"file\": \"" + (f.work / "a\\\"b.txt").string() + "\"";
    EXPECT_NE(out.find("{\"event\": \"progress\", " + shown + ", \"number\": 1, \"percent\": 40}"),
              std::string::npos) << out;
    EXPECT_NE(out.find("\"codes\": [2003], \"newCodes\": [2003], \"failures\": [{\"line\": 3, "
                       "\"text\": \"copyDest x\", \"code\": 2003, \"name\": \"source not "
                       "found\", \"message\": \"ZQIMMoveOrCopyFile(move=false) - Error - Source "
                       "file not found: /nowhere\"}]}"),
              std::string::npos) << out;
    EXPECT_NE(out.find("{\"event\": \"ended\", \"how\": \"exit status 0\", \"cause\": \"fatal\", " +
                       shown + ", \"number\": 1}"),
              std::string::npos) << out;
}

// Both verbs take --opt=value and --opt value, "-" for standard input and
// "--" before files that begin with "-"; wrong command lines give 64.
TEST(ZqimTool, OptionsTakeBothFormsStandardInputAndDoubleDash) {
    RunFiles f;
    const std::string ok = f.Write("ok.txt", "progress 1\nexit\n");
    f.Write("-odd.txt", "progress 1\n");
    std::string out, err;
    EXPECT_EQ(Tool("run --helper=" + std::string(ZQIM_HELPER_BINARY) + " " + ok, out, err), 0)
        << out << err;
    EXPECT_EQ(Tool("check --format json " + ok, out, err), 0) << out << err;
    EXPECT_EQ(out, "[\n]\n");
    EXPECT_EQ(Tool("check --format=json - <" + ok, out, err), 0) << out << err;
    EXPECT_EQ(Tool("check - <" + f.Write("typo.txt", "d\xc3\xa9lFile /a\xff\nexit\n"), out, err),
              1);
    EXPECT_EQ(out, "<stdin>:1:1: warning: unknown command 'd\xc3\xa9lFile /a\xff' is skipped; "
                   "did you mean 'delFile'?\n");
    EXPECT_EQ(Tool("check --format=json " + (f.work / "typo.txt").string(), out, err), 1);
    EXPECT_NE(out.find("\"unknown command 'd\xc3\xa9lFile /a\\u00ff' is skipped; did you mean "
                       "'delFile'?\""), std::string::npos) << out;
    EXPECT_EQ(Tool("check -- -odd.txt", out, err, f.work.path()), 1) << out << err;
    EXPECT_EQ(out, "-odd.txt:1:1: warning: no exit: after the last file the helper goes on "
                   "polling until its front-end is gone\n");
    EXPECT_EQ(Tool("check -- -missing.txt", out, err, f.work.path()), 2);
    EXPECT_EQ(out, "-missing.txt:0:0: error: cannot read the file: No such file or directory\n");
    for (const char* wrong : {"frobnicate", "check --format=xml x", "check --no-pid=1 x",
                              "run --helper", "check", "run --bogus x"}) {
        EXPECT_EQ(Tool(wrong, out, err), 64) << wrong;
        EXPECT_NE(err.find("usage: zqim check"), std::string::npos) << wrong << err;
        EXPECT_EQ(out, "") << wrong;
    }
    EXPECT_EQ(Tool("run --help", out, err), 0);
    EXPECT_NE(out.find("usage: zqim check"), std::string::npos);
}

// Asked for, the usage (a line per option) and the version go to standard
// output with success.
TEST(ZqimTool, HelpAndVersionAnswerOnStandardOutput) {
    std::string out, err;
    EXPECT_EQ(Tool("--help", out, err), 0);
    for (const char* option : {"--no-pid", "--format=json", "--comm DIR", "--helper PATH", "--keep",
                               "-v", "--no-check", "--help", "--version"})
        EXPECT_NE(out.find("\n  " + std::string(option) + " "), std::string::npos) << option;
    EXPECT_EQ(Tool("--version", out, err), 0);
    EXPECT_EQ(out, "zqim " ZQIM_PROJECT_VERSION "\n");
    EXPECT_EQ(err, "");
}

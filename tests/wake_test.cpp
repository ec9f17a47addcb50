// The helper started with -w, end to end: the same answers in the same order
// as the polling helper, with no second's sleep; a file sent while another
// runs; the end of the front-end seen through a handle on its process (a
// zombie included, a reused PID never passing); and the 50 ms poll where the
// system gives no handle or no directory events.
#include "testSupport.h"

#include <gtest/gtest.h>

#ifdef __linux__
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#endif
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <optional>
#include <regex>
#include <thread>

using namespace zqimtest;
using namespace std::chrono_literals;

namespace {

// A helper polling a missing directory: a process to watch, until killed.
std::vector<std::string> Idle() { return {"-c", "/nonexistent/zqim"}; }

std::vector<std::string> Wake(const fs::path& comm, std::vector<std::string> more = {}) {
    std::vector<std::string> args{"-c", comm.string(), "-w"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

// The numbers of the "Found command file" lines, in order.
std::vector<int> Found(const Frontend& frontend) {
    std::vector<int> found;
    for (const std::string& message : frontend.log())
        if (message.rfind("Found command file ", 0) == 0)
            found.push_back(std::stoi(message.substr(19)));
    return found;
}

std::size_t Count(const std::vector<std::string>& messages, const std::string& prefix) {
    return std::count_if(messages.begin(), messages.end(),
                         [&](const std::string& m) { return m.rfind(prefix, 0) == 0; });
}

// Waits until the log holds a message starting with `prefix`.
bool WaitForLog(const Frontend& frontend, const std::string& prefix,
                std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (Count(frontend.log(), prefix) > 0)
            return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

const std::string kNoSig = "GetNextCommand() - No sig file found (";

// Writes `content` under a temporary name and renames it into place, as the
// client library writes its command files.
void RenameInto(const fs::path& path, const std::string& content) {
    const fs::path partial = path.parent_path() / ("." + path.filename().string() + ".partial");
    WriteFile(partial, content);
    fs::rename(partial, path);
}

}  // namespace

TEST(Wake, StartsWithTheLineThatSaysSo) {
    TempDir comm;
    Frontend(comm.path()).send(1, "exit\n");
    HelperProcess helper(Wake(comm.path()));
    ASSERT_TRUE(helper.wait(20s));
    EXPECT_EQ(helper.output(), "ZQIMHelper starting...\nNo PID passed in.\nWake on change selected.\n"
                               "Communication dir was: " + comm.path().string() + "\n");
}

// The polling exchange's run, with -w: ignored names, a file that cannot be
// opened, a lower number holding the helper until its signal comes (reported
// once, however much else happens meanwhile), a fatal end, and the error file
// complete before its finished file.
TEST(Wake, SameAnswersInTheSameOrderAndAWaitingFileReportedOnce) {
    TempDir comm;
    Frontend frontend(comm.path());
    for (std::string ignored : {"ZQCmd0", "ZQCmd-2", "zqcmd1"}) {
        WriteFile(comm / (ignored + ".txt"), "exit\n");
        WriteFile(comm / (ignored + ".zqsig"), "");
    }
    frontend.send(2, "makeDir " + (comm / "two").string() + "\n");
    fs::create_symlink(comm / "missing", frontend.file(4, ".txt"));
    WriteFile(frontend.file(4, ".zqsig"), "");
    WriteFile(comm / "ZQCmd5.backup.txt", "makeDir " + (comm / "five").string());
    frontend.send(9, "copyDest y\nmakeDir " + (comm / "never").string());
    CloseOrder closed(comm.path());  // seen on Linux only
#ifdef __linux__
    ASSERT_TRUE(closed.ok());
#endif
    HelperProcess helper(Wake(comm.path()));

    const std::string noSig = kNoSig + (comm / "ZQCmd5.backup.zqsig").string() + ").";
    ASSERT_TRUE(WaitForLog(frontend, noSig, 20s)) << frontend.logText();
    // Each of these wakes the helper to look again; 5 is still waiting.
    frontend.send(7, "makeDir " + (comm / "seven").string() + "\n");
    for (int i = 0; i < 10; ++i) {
        WriteFile(frontend.file(9, ".zqsig"), "again");
        std::this_thread::sleep_for(20ms);
    }
    WriteFile(frontend.file(2, ".txt"), "exit\n");  // already serviced: never read again
    EXPECT_FALSE(fs::exists(frontend.file(7, ".zqfin")) || helper.wait(0s));
    RenameInto(comm / "ZQCmd5.backup.zqsig", "");
    ASSERT_TRUE(helper.wait(20s));
    EXPECT_EQ(helper.exitCode(), 0);

    EXPECT_EQ(Found(frontend), (std::vector<int>{2, 4, 5, 7, 9}));
    const auto log = frontend.log();
    EXPECT_EQ(Count(log, kNoSig), 1u) << frontend.logText();
    for (int n : {2, 4, 5, 7, 9})
        EXPECT_EQ(ReadFile(frontend.file(n, ".zqfin")), "Finished.") << n;
    EXPECT_EQ(ReadFile(frontend.file(9, ".err")), "2006\nend\n");
    EXPECT_FALSE(fs::exists(frontend.file(7, ".err")) || fs::exists(comm / "never"));
    EXPECT_TRUE(fs::is_directory(comm / "two") && fs::is_directory(comm / "five") &&
                fs::is_directory(comm / "seven"));
    EXPECT_EQ(log.back(), "Closing log.");

    if (closed.ok()) {  // the error file is complete before the finished file
        const std::string order = closed.Read();
        EXPECT_LT(order.find("ZQCmd9.err|"), order.find("ZQCmd9.zqfin|")) << order;
    }
}

// A front-end that waits for each answer before it sends the next file, as an
// installer does: twenty files take a small part of the twenty seconds the
// polling helper needs, and no file is ever reported waiting for its signal
// (one is reported only when it holds back a later, complete file). Files
// are written in place or renamed into place, signals either way.
TEST(Wake, FilesSentOneAfterAnotherAreAnsweredAtOnce) {
    TempDir comm;
    Frontend frontend(comm.path());
    HelperProcess helper(Wake(comm.path()));
    const auto start = std::chrono::steady_clock::now();
    for (int n = 1; n <= 20; ++n) {
        const std::string lines = "progress " + std::to_string(n) + "\n";
        if (n % 2)
            WriteFile(frontend.file(n, ".txt"), lines);
        else
            RenameInto(frontend.file(n, ".txt"), lines);
        if (n % 4 < 2)
            WriteFile(frontend.file(n, ".zqsig"), "");
        else
            RenameInto(frontend.file(n, ".zqsig"), "");
        ASSERT_TRUE(frontend.waitFinished(n, 20s)) << n << "\n" << frontend.logText();
    }
    const auto took = std::chrono::steady_clock::now() - start;
    frontend.send(21, "exit\n");
    ASSERT_TRUE(helper.wait(20s));
    EXPECT_LT(took, 10s);  // polling: at least 19 s
    std::vector<int> expected(21);
    for (int n = 1; n <= 21; ++n)
        expected[n - 1] = n;
    EXPECT_EQ(Found(frontend), expected);
    EXPECT_EQ(Count(frontend.log(), kNoSig), 0u) << frontend.logText();
    for (int n = 1; n <= 20; ++n)
        EXPECT_EQ(ReadFile(frontend.file(n, ".progress")), std::to_string(n) + " %\n");
}

// A file sent while another runs is taken up when that one is answered, with
// nothing else happening afterwards to wake the helper.
TEST(Wake, FileSentDuringAnotherIsTakenUpWhenThatOneIsAnswered) {
    TempDir comm;
    Frontend frontend(comm.path());
    const fs::path go = comm / "go";
    frontend.send(1, "exec while [ ! -e '" + go.string() + "' ]; do sleep 0.01; done\n");
    HelperProcess helper(Wake(comm.path()));
    ASSERT_TRUE(WaitForLog(frontend, "ServiceCommandFile() - Servicing", 20s));
    frontend.send(2, "progress 2\n");
    frontend.send(3, "exit\n");
    WriteFile(go, "");
    ASSERT_TRUE(helper.wait(20s)) << frontend.logText();
    EXPECT_EQ(Found(frontend), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(ReadFile(frontend.file(2, ".progress")), "2 %\n");
    EXPECT_EQ(Count(frontend.log(), kNoSig), 0u) << frontend.logText();
}

// The helper ends as soon as the front-end has ended: there is no timer to
// wake it, only the process handle. A front-end not yet reaped (a zombie) has
// ended too; a PID no process can have ends it at once.
TEST(Wake, EndsWhenTheFrontEndEndsWithoutBeingReaped) {
    TempDir comm;
    Frontend frontend(comm.path());
    HelperProcess frontEnd(Idle());
    HelperProcess helper(Wake(comm.path(), {"-p", std::to_string(frontEnd.pid())}));
    frontend.send(1, "progress 1\n");
    ASSERT_TRUE(frontend.waitFinished(1, 20s));
    EXPECT_FALSE(helper.wait(100ms));
    ::kill(frontEnd.pid(), SIGKILL);  // not reaped until the end of the test
    ASSERT_TRUE(helper.wait(20s)) << frontend.logText();
    EXPECT_EQ(helper.exitCode(), 0);
    const std::regex tail("Z: PID is gone\\. Exiting\\.\n[^\n]*Z: Closing log\\.\n$");
    EXPECT_TRUE(std::regex_search(frontend.logText(), tail)) << frontend.logText();
    EXPECT_EQ(Count(frontend.log(), "WakeMainLoop()"), 0u) << frontend.logText();

    // Above any pid_max; the huge one has our PID in its low 32 bits.
    for (unsigned long long pid : {4194305ULL, (1ULL << 32) + getpid()}) {
        TempDir other;
        Frontend late(other.path());
        late.send(1, "exit\n");
        HelperProcess lateHelper(Wake(other.path(), {"-p", std::to_string(pid)}));
        ASSERT_TRUE(lateHelper.wait(20s)) << pid;
        EXPECT_FALSE(fs::exists(late.file(1, ".zqfin"))) << pid;
        EXPECT_EQ(late.log().at(1), "PID is gone. Exiting.") << pid;
    }
}

#ifdef __linux__

namespace {

// The kernel hands out the PID after ns_last_pid next, if it is free.
bool ForkWithPid(pid_t wanted, std::optional<HelperProcess>& process) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        std::ofstream last("/proc/sys/kernel/ns_last_pid");
        if (!(last << wanted - 1 << std::flush))
            return false;
        last.close();
        process.emplace(Idle());
        if (process->pid() == wanted)
            return true;
        process.reset();
    }
    return false;
}

// Starts a helper that cannot make the system call `number`: it fails with
// ENOSYS, as on a kernel that does not know it. The filter is installed in a
// thread of its own, which forks the helper and ends; the test keeps its calls.
bool StartWithout(long number, const std::vector<std::string>& args,
                  std::optional<HelperProcess>& helper) {
    bool filtered = false;
    std::thread([&] {
#if defined(__x86_64__)
        const unsigned arch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
        const unsigned arch = AUDIT_ARCH_AARCH64;
#else
        return;
#endif
        sock_filter code[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, arch, 1, 0),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        sock_fprog program{static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) != 0)
            return;
        filtered = true;
        helper.emplace(args);
    }).join();
    return filtered;
}

}  // namespace

// A PID reused by a new process cannot pass for the front-end: the helper
// holds a handle on the process itself. waitForPID still waits in 5-second
// steps, ends once the front-end has ended (its number now another
// process's), and the helper ends without the start-time record being asked
// (it would print "PID Conflict").
TEST(WakeLinux, ReusedPidCannotPassForTheFrontEnd) {
    if (!IsRoot() || access("/proc/sys/kernel/ns_last_pid", W_OK) != 0)
        GTEST_SKIP() << "needs root to choose the next PID";
    TempDir comm;
    Frontend frontend(comm.path());
    std::optional<HelperProcess> frontEnd(std::in_place, Idle());
    const pid_t number = frontEnd->pid();
    frontend.send(1, "waitForPID\n");
    HelperProcess helper(Wake(comm.path(), {"-p", std::to_string(number)}));
    ASSERT_TRUE(WaitForLog(frontend, "ServiceCommand() - Waiting for PID", 20s));
    const auto ended = std::chrono::steady_clock::now();
    frontEnd.reset();  // killed and reaped
    std::optional<HelperProcess> newcomer;
    if (!ForkWithPid(number, newcomer))
        GTEST_SKIP() << "another process took PID " << number;
    ASSERT_TRUE(helper.wait(30s)) << frontend.logText();
    EXPECT_EQ(helper.exitCode(), 0);
    EXPECT_FALSE(newcomer->wait(0ms));  // the number was the newcomer's all along
    EXPECT_EQ(ReadFile(frontend.file(1, ".zqfin")), "Finished.");
    EXPECT_GE(std::chrono::steady_clock::now() - ended, 5s);  // its last 5-second step
    const auto log = frontend.log();
    EXPECT_EQ(log.at(log.size() - 2), "PID is gone. Exiting.");
    EXPECT_EQ(helper.output().find("PID Conflict"), std::string::npos) << helper.output();
}

// Without a process handle (pidfd_open unknown) the helper checks the PID
// every 50 ms and says so once; without directory events (inotify unknown)
// it looks every 50 ms and says so once, and a file holding back a later one
// while it waits for its signal is still reported once.
TEST(WakeLinux, FallsBackToAShortPollAndSaysSoOnce) {
    {
        TempDir comm;
        Frontend frontend(comm.path());
        HelperProcess frontEnd(Idle());
        std::optional<HelperProcess> helper;
        if (!StartWithout(SYS_pidfd_open, Wake(comm.path(), {"-p", std::to_string(frontEnd.pid())}),
                          helper))
            GTEST_SKIP() << "no seccomp filter can be installed here";
        frontend.send(1, "progress 1\n");
        ASSERT_TRUE(frontend.waitFinished(1, 20s));
        std::this_thread::sleep_for(200ms);
        frontEnd.kill();
        ASSERT_TRUE(helper->wait(20s)) << frontend.logText();
        const auto log = frontend.log();
        EXPECT_EQ(Count(log, "WakeMainLoop() - No handle on PID " + std::to_string(frontEnd.pid()) +
                                 ": Error 38: category=generic, message=Function not implemented. "
                                 "Checking it every 50 ms."),
                  1u)
            << frontend.logText();
        EXPECT_EQ(log.at(log.size() - 2), "PID is gone. Exiting.");
    }
    {
        TempDir comm;
        Frontend frontend(comm.path());
        frontend.send(1, "progress 1\n");
        std::optional<HelperProcess> helper;
        ASSERT_TRUE(StartWithout(SYS_inotify_init1, Wake(comm.path()), helper));
        ASSERT_TRUE(frontend.waitFinished(1, 20s));
        WriteFile(frontend.file(2, ".txt"), "progress 2\n");
        frontend.send(3, "progress 3\n");
        ASSERT_TRUE(WaitForLog(frontend, kNoSig, 20s));
        std::this_thread::sleep_for(300ms);  // several looks
        WriteFile(frontend.file(2, ".zqsig"), "");
        ASSERT_TRUE(frontend.waitFinished(3, 20s));
        frontend.send(4, "exit\n");
        ASSERT_TRUE(helper->wait(20s));
        const auto log = frontend.log();
        EXPECT_EQ(Count(log, "WakeMainLoop() - Cannot watch " + comm.path().string() +
                                 ": Error 38: category=generic, message=Function not "
                                 "implemented. Looking every 50 ms."),
                  1u)
            << frontend.logText();
        EXPECT_EQ(Count(log, kNoSig + (comm / "ZQCmd2.zqsig").string()), 1u) << frontend.logText();
        EXPECT_EQ(Found(frontend), (std::vector<int>{1, 2, 3, 4}));
    }
}

// More changes than the event queue holds arrive while a file runs: the
// events are lost, and the helper lists the directory to find what came.
TEST(WakeLinux, LostEventsAreMadeUpForByAListing) {
    int queued = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queued;
    if (queued <= 0 || queued > 100000)
        GTEST_SKIP() << "the event queue holds " << queued << " events";
    TempDir comm(fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path());
    Frontend frontend(comm.path());
    const fs::path go = comm / "go";
    frontend.send(1, "exec while [ ! -e '" + go.string() + "' ]; do sleep 0.01; done\n");
    HelperProcess helper(Wake(comm.path()));
    ASSERT_TRUE(WaitForLog(frontend, "ServiceCommandFile() - Servicing", 20s));
    for (int i = 0; i <= queued / 2; ++i)  // two events each: created, closed
        WriteFile(comm / ("other" + std::to_string(i)), "");
    frontend.send(2, "progress 2\n");
    frontend.send(3, "exit\n");
    WriteFile(go, "");
    ASSERT_TRUE(helper.wait(20s)) << frontend.logText();
    EXPECT_EQ(Found(frontend), (std::vector<int>{1, 2, 3}));
}

// The directory watch's teardown is left to a child, which must end by
// itself: a helper as root that ends leaves no process behind. The test
// adopts the helper's orphans (a subreaper) to see them end.
TEST(WakeLinux, EndsWithoutLeavingAProcessBehind) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    TempDir comm;
    Frontend frontend(comm.path());
    frontend.send(1, "exit\n");
    {
        HelperProcess helper(Wake(comm.path()));
        ASSERT_TRUE(helper.wait(20s)) << frontend.logText();
    }
    int adopted = 0;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    pid_t ended;
    while ((ended = waitpid(-1, nullptr, WNOHANG)) >= 0 &&
           std::chrono::steady_clock::now() < deadline) {
        if (ended > 0)
            ++adopted;
        else
            std::this_thread::sleep_for(1ms);
    }
    const int left = errno;
    if (ended >= 0) {  // the fault's process is not left running: it is ours now
        for (const auto& entry : fs::directory_iterator("/proc")) {
            std::ifstream status(entry.path() / "status");
            std::string line;
            while (std::getline(status, line))
                if (line == "PPid:\t" + std::to_string(getpid()))
                    ::kill(std::stoi(entry.path().filename().string()), SIGKILL);
        }
        while (waitpid(-1, nullptr, 0) > 0) {
        }
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    EXPECT_EQ(ended, -1) << "a process of the helper's still runs";
    EXPECT_EQ(left, ECHILD);
    EXPECT_LE(adopted, 1);
}

#endif  // __linux__

// Who may drive the helper: only root, the helper's own user and the user of
// the front-end it watches. Played end to end against the real binary, with
// another user (nobody, uid 65534) trying each way in that once worked: a
// communication directory others can write to or swap, links, hard links and
// fifos where the helper writes, a umask of 000, descriptors handed to the
// programs it runs, and a log others can read.
#include "testSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

using namespace zqimtest;
using namespace std::chrono_literals;

namespace {

// A front-end running as nobody, until the end of the scope.
class NobodyFrontEnd {
public:
    NobodyFrontEnd() {
        int ready[2];
        if (pipe(ready) != 0)
            return;
        pid = fork();
        if (pid == 0) {
            if (!BecomeNobody())
                _exit(2);
            const char up = 1;
            if (write(ready[1], &up, 1) != 1)
                _exit(3);
            for (;;)
                pause();
        }
        close(ready[1]);
        char up = 0;
        if (pid < 0 || read(ready[0], &up, 1) != 1)
            ADD_FAILURE() << "the front-end did not become nobody";
        close(ready[0]);
    }
    ~NobodyFrontEnd() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    std::string Pid() const { return std::to_string(pid); }

private:
    pid_t pid = -1;
};


struct Status {
    uid_t owner;
    mode_t mode;
    nlink_t links;
    bool regular;
};

Status StatusOf(const fs::path& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0)
        return Status{static_cast<uid_t>(-1), 0, 0, false};
    return Status{st.st_uid, static_cast<mode_t>(st.st_mode & 07777), st.st_nlink,
                  S_ISREG(st.st_mode)};
}

// A scratch folder everyone can pass through (the one TempDir makes is
// root's 0700), with `Dir` making folders in it of a given owner and mode.
class Scene {
public:
    Scene() { fs::permissions(tmp.path(), fs::perms(0755)); }
    // The folder appears with its owner and mode, never as root's 0755
    // first: a helper waiting for it must not catch it in between.
    fs::path Dir(const std::string& name, uid_t owner, mode_t mode) const {
        const fs::path dir = tmp / name, made = tmp / ".making";
        fs::create_directories(dir.parent_path());
        fs::create_directory(made);
        EXPECT_EQ(chown(made.c_str(), owner, owner), 0);
        EXPECT_EQ(chmod(made.c_str(), mode), 0);
        fs::rename(made, dir);
        return dir;
    }
    fs::path operator/(const std::string& name) const { return tmp / name; }

private:
    TempDir tmp;
};

const std::string kStart = "ZQIMHelper starting...\nNo PID passed in.\n";

std::string Refusal(const fs::path& dir, const std::string& reason) {
    return kStart + "Communication dir was: " + dir.string() +
           "\nCommunication dir is not private: " + dir.string() + " (" + reason +
           "). Exiting.\n";
}

// The command a user other than the front-end's would have root run.
std::string Attack(const fs::path& marker) {
    return "exec touch '" + marker.string() + "'\nexit\n";
}

bool SendAsNobody(const fs::path& comm, const std::string& lines) {
    return AsNobody([&] {
        Frontend(comm).send(1, lines);
        return fs::exists(comm / "ZQCmd1.zqsig");
    });
}

}  // namespace

// A directory someone else could write to, or put another in the place of,
// is refused before anything in it is read, whatever that user planted or
// swaps in: one line, no log, exit status 1. So is one that appears so
// after the helper started waiting for it.
TEST(FrontDoor, DirectoryOthersCouldWriteOrSwapIsRefusedUnread) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene scene;
    const fs::path marker = scene / "ran";
    const fs::path open = scene.Dir("open", 0, 01777);
    const fs::path theirs = scene.Dir("theirs", kNobody, 0700);
    const fs::path userFolder = scene.Dir("user", kNobody, 0755);
    const fs::path inTheirs = scene.Dir("user/comm", 0, 0700);
    const fs::path groupWritable = scene.Dir("group", 0, 0775);
    const fs::path belowGroup = scene.Dir("group/comm", 0, 0700);
    const fs::path real = scene.Dir("real", 0, 0755);
    scene.Dir("real/comm", 0, 0700);
    fs::create_directory_symlink(real / "comm", scene / "linked");
    fs::create_directory_symlink(real, scene / "theirLink");
    ASSERT_EQ(lchown((scene / "theirLink").c_str(), kNobody, kNobody), 0);
    ASSERT_TRUE(SendAsNobody(open, Attack(marker)));
    ASSERT_TRUE(SendAsNobody(theirs, Attack(marker)));

    const struct { fs::path dir; std::string reason; } cases[] = {
        {open, "writable by group or others"},
        {theirs, "owned by uid 65534"},
        {inTheirs, userFolder.string() + " is owned by uid 65534"},
        {belowGroup, groupWritable.string() + " is writable by group or others and not sticky"},
        {scene / "linked", "a symbolic link"},
        {scene / "theirLink/comm", (scene / "theirLink").string() + " is a link owned by uid 65534"},
    };
    for (const auto& c : cases) {
        HelperProcess helper({"-c", c.dir.string()});
        if (c.dir == inTheirs) {  // the user renames root's directory away and puts theirs there
            ASSERT_TRUE(AsNobody([&] {
                std::error_code ec;
                fs::rename(inTheirs, userFolder / "away", ec);
                fs::create_directory(inTheirs, ec);
                Frontend(inTheirs).send(1, Attack(marker));
                return !ec;
            }));
        }
        ASSERT_TRUE(helper.wait(30s)) << c.dir;
        EXPECT_EQ(helper.exitCode(), 1) << c.dir;
        EXPECT_EQ(helper.output(), Refusal(c.dir, c.reason));
        EXPECT_FALSE(fs::exists(c.dir / "ZQIMLog.txt")) << c.dir;
    }

    // Not there at start-up: the helper waits for it as ever, and checks it
    // when it appears.
    const fs::path late = scene / "late";
    HelperProcess helper({"-c", late.string()});
    std::this_thread::sleep_for(1500ms);
    EXPECT_FALSE(helper.wait(0s));
    scene.Dir("late", 0, 01777);
    ASSERT_TRUE(SendAsNobody(late, Attack(marker)));
    ASSERT_TRUE(helper.wait(30s));
    EXPECT_EQ(helper.exitCode(), 1);
    EXPECT_EQ(helper.output(), Refusal(late, "writable by group or others"));
    EXPECT_FALSE(fs::exists(late / "ZQIMLog.txt") || fs::exists(late / "ZQCmd1.zqfin"));
    EXPECT_FALSE(fs::exists(marker));
}

// Once checked, the directory is held: renamed away and replaced, it is
// still the one served, under the name it had. A link of root's on the way
// is followed, and /tmp above it is fine.
TEST(FrontDoor, HeldDirectoryIsServedAfterItIsSwapped) {
    if (!IsRoot())
        GTEST_SKIP() << "root's links and folders need root";
    Scene scene;
    scene.Dir("real/comm", 0, 0700);
    fs::create_directory_symlink(scene / "real", scene / "rootsLink");
    const fs::path comm = scene / "rootsLink/comm", away = scene / "real/away";
    HelperProcess helper({"-c", comm.string()});
    const auto until = std::chrono::steady_clock::now() + 30s;
    while (!fs::exists(comm / "ZQIMLog.txt") && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(fs::exists(comm / "ZQIMLog.txt")) << helper.output();

    fs::rename(scene / "real/comm", away);
    scene.Dir("real/comm", 0, 0700);
    Frontend(comm).send(1, Attack(scene / "new"));
    Frontend(away).send(1, Attack(scene / "held"));
    ASSERT_TRUE(helper.wait(30s));
    EXPECT_EQ(helper.exitCode(), 0);
    EXPECT_TRUE(fs::exists(scene / "held") && !fs::exists(scene / "new"));
    EXPECT_EQ(ReadFile(away / "ZQCmd1.zqfin"), "Finished.");
    EXPECT_FALSE(fs::exists(comm / "ZQCmd1.zqfin") || fs::exists(comm / "ZQIMLog.txt"));
    EXPECT_NE(Frontend(away).logText().find(": Found command file 1: " + comm.string() +
                                            "/ZQCmd1.txt\n"), std::string::npos);
}

// Whatever takes the name of a file the helper writes (a link, a hard link
// to root's file, a fifo) is replaced, never written through or blocked on;
// a command file that is not a plain file of a trusted user, with one name,
// is not read and still answered. The front-end here is nobody's, so nobody
// may plant all of it, and gets each file as their own, 0600.
TEST(FrontDoor, PlantedEntriesAreReplacedNeverWrittenThrough) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    ProtectionsOff off;
    if (!off.ok())
        GTEST_SKIP() << "cannot switch fs.protected_* off";
    Scene scene;
    NobodyFrontEnd frontEnd;
    const fs::path marker = scene / "ran";
    auto victim = [&](const std::string& name) {
        const fs::path v = scene / name;
        WriteFile(v, "precious");
        fs::permissions(v, fs::perms::owner_read | fs::perms::owner_write);
        return v;
    };
    const fs::path vLog = victim("vLog"), vProgress = victim("vProgress"), vErr = victim("vErr"),
                   vFin = victim("vFin"), vHard = victim("vHard"), commands = victim("commands");
    WriteFile(commands, Attack(marker));
    auto run = [&](const fs::path& comm, int files) {
        HelperProcess helper({"-c", comm.string(), "-p", frontEnd.Pid()});
        const bool ended = helper.wait(std::chrono::seconds(30 + 2 * files));
        EXPECT_TRUE(ended && helper.exitCode() == 0) << comm << helper.output();
    };
    auto expectOwnFile = [&](const fs::path& file, const std::string& content) {
        const Status st = StatusOf(file);
        // Never read what is not a plain file: a fifo left there would block.
        ASSERT_TRUE(st.regular) << file;
        EXPECT_TRUE(st.owner == kNobody && st.mode == 0600 && st.links == 1)
            << file << " " << st.owner << " " << std::oct << st.mode;
        if (content.empty()) {
            EXPECT_NE(ReadFile(file).find(": Opened Log at: "), std::string::npos) << file;
        } else {
            EXPECT_EQ(ReadFile(file), content) << file;
        }
    };

    // Links to root's files where every file of the exchange goes.
    const fs::path links = scene.Dir("links", kNobody, 0700);
    ASSERT_TRUE(AsNobody([&] {
        fs::create_symlink(vLog, links / "ZQIMLog.txt");
        fs::create_symlink(vProgress, links / "ZQCmd1.progress");
        fs::create_symlink(vErr, links / "ZQCmd1.err");
        fs::create_symlink(vFin, links / "ZQCmd1.zqfin");
        Frontend(links).send(1, "progress 5\ncopySrc /nowhere\ncopyDest x\n");
        return true;
    }));
    run(links, 1);
    expectOwnFile(links / "ZQIMLog.txt", "");
    expectOwnFile(links / "ZQCmd1.progress", "5 %\n");
    expectOwnFile(links / "ZQCmd1.err", "2003\nend\n");
    expectOwnFile(links / "ZQCmd1.zqfin", "Finished.");

    // A hard link to root's file as the log and as command 1, a link to one
    // and a fifo as commands 2 and 3, and one of a third user as command 4.
    const fs::path hard = scene.Dir("hard", kNobody, 0700);
    ASSERT_TRUE(AsNobody([&] {
        const Frontend f(hard);
        bool ok = link(vHard.c_str(), (hard / "ZQIMLog.txt").c_str()) == 0 &&
                  link(commands.c_str(), (hard / "ZQCmd1.txt").c_str()) == 0 &&
                  mkfifo((hard / "ZQCmd3.txt").c_str(), 0600) == 0 &&
                  mkfifo((hard / "ZQCmd2.zqfin").c_str(), 0600) == 0;
        fs::create_symlink(commands, hard / "ZQCmd2.txt");
        for (int n : {1, 2, 3, 4})
            WriteFile(f.file(n, ".zqsig"), "");
        f.send(5, "exit\n");
        return ok;
    }));
    WriteFile(hard / "ZQCmd4.txt", Attack(marker));
    ASSERT_EQ(chown((hard / "ZQCmd4.txt").c_str(), 4321, 4321), 0);
    run(hard, 5);
    expectOwnFile(hard / "ZQIMLog.txt", "");
    for (int n : {1, 2, 3, 4, 5})
        expectOwnFile(Frontend(hard).file(n, ".zqfin"), "Finished.");
    const std::string log = ReadFile(hard / "ZQIMLog.txt");
    std::size_t refused = 0;
    for (auto at = log.find(": Unable to open file!\n"); at != std::string::npos;
         at = log.find(": Unable to open file!\n", at + 1))
        ++refused;
    EXPECT_EQ(refused, 4u) << log;

    // A fifo as the log.
    const fs::path fifo = scene.Dir("fifo", kNobody, 0700);
    ASSERT_TRUE(AsNobody([&] {
        Frontend(fifo).send(1, "exit\n");
        return mkfifo((fifo / "ZQIMLog.txt").c_str(), 0600) == 0;
    }));
    run(fifo, 1);
    expectOwnFile(fifo / "ZQIMLog.txt", "");

    for (const fs::path& v : {vLog, vProgress, vErr, vFin, vHard})
        EXPECT_EQ(ReadFile(v), "precious") << v;
    EXPECT_EQ(StatusOf(vHard).links, 1u);  // nobody's link is gone, root's file is whole
    EXPECT_FALSE(fs::exists(marker));
}

// Started with a umask of 000, the helper still makes nothing others may
// write to; the programs it runs start with descriptors 0, 1 and 2 only,
// none of the log, the command file or what the helper itself inherited.
TEST(FrontDoor, UmaskAndDescriptorsDoNotLeak) {
    TempDir work, comm;
    const fs::path root = work / "root", fds = work / "fds", inherited = work / "inherited";
    WriteFile(work / "staged", "payload");
    WriteFile(inherited, "");
    const int leaked = open(inherited.c_str(), O_RDONLY);  // not close-on-exec
    ASSERT_GE(leaked, 3);
    const mode_t saved = umask(0);
    HelperProcess tester({"-t", (work / "tested/sub").string()});
    Frontend(comm.path()).send(1, "makeDir " + (root / "made/sub").string() + "\nsetRoot " +
                                      root.string() + "\ncopySrc " + (work / "staged").string() +
                                      "\ncopyDest new/dir/f\nexec ls /proc/self/fd > '" +
                                      fds.string() + "'\nexit\n");
    HelperProcess helper({"-c", comm.path().string()});
    umask(saved);
    close(leaked);
    ASSERT_TRUE(tester.wait(30s) && helper.wait(30s));
    EXPECT_EQ(helper.exitCode(), 0) << helper.output();
    for (const fs::path& dir : {work / "tested", work / "tested/sub", root / "made",
                                root / "made/sub", root / "new", root / "new/dir"})
        EXPECT_EQ(StatusOf(dir).mode, 0755u) << dir;
    for (const char* name : {"ZQIMLog.txt", "ZQCmd1.zqfin"})
        EXPECT_EQ(StatusOf(comm / name).mode, 0600u) << name;
#ifdef __linux__
    // ls's own descriptor on the listing is the fourth.
    EXPECT_EQ(ReadFile(fds), "0\n1\n2\n3\n");
#endif
}

// The files for the front-end are its own and no one else's: without a
// front-end's user they are root's, 0600, and nobody cannot read the log
// (which shows every exec line) even in a directory others may list. With
// one, they are handed to it, and a link that user made below the root is
// followed as the front-end would expect.
TEST(FrontDoor, FilesAndLinksAreTheFrontEndUsersAlone) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene scene;
    NobodyFrontEnd frontEnd;
    const fs::path root = scene.Dir("root", 0, 0755), real = scene.Dir("root/real", 0, 0755);
    fs::create_directory_symlink(real, root / "theirs");
    ASSERT_EQ(lchown((root / "theirs").c_str(), kNobody, kNobody), 0);
    WriteFile(scene / "staged", "payload");
    const std::string lines = "exec echo secret-word\nprogress 3\nsetRoot " + root.string() +
                              "\ncopySrc " + (scene / "staged").string() +
                              "\ncopyDest theirs/f\nexit\n";

    const fs::path listed = scene.Dir("listed", 0, 0755);
    Frontend(listed).send(1, lines);
    HelperProcess alone({"-c", listed.string()});
    ASSERT_TRUE(alone.wait(30s));
    EXPECT_EQ(ReadFile(listed / "ZQCmd1.err"), "2002\nend\n");
    EXPECT_FALSE(fs::exists(real / "f"));
    for (const char* name : {"ZQIMLog.txt", "ZQCmd1.progress", "ZQCmd1.err", "ZQCmd1.zqfin"}) {
        const Status st = StatusOf(listed / name);
        EXPECT_TRUE(st.owner == 0 && st.mode == 0600) << name << " " << std::oct << st.mode;
    }
    EXPECT_NE(ReadFile(listed / "ZQIMLog.txt").find("secret-word"), std::string::npos);
    EXPECT_TRUE(AsNobody([&] {
        return open((listed / "ZQIMLog.txt").c_str(), O_RDONLY) < 0 && errno == EACCES;
    }));

    const fs::path own = scene.Dir("own", kNobody, 0700);
    Frontend(own).send(1, lines);
    HelperProcess served({"-c", own.string(), "-p", frontEnd.Pid()});
    ASSERT_TRUE(served.wait(30s));
    EXPECT_FALSE(fs::exists(own / "ZQCmd1.err"));
    EXPECT_EQ(ReadFile(real / "f"), "payload");
    for (const char* name : {"ZQIMLog.txt", "ZQCmd1.progress", "ZQCmd1.zqfin"}) {
        const Status st = StatusOf(own / name);
        EXPECT_TRUE(st.owner == kNobody && st.mode == 0600) << name << " " << std::oct << st.mode;
    }
    EXPECT_TRUE(AsNobody([&] {
        return ReadFile(own / "ZQIMLog.txt").find("secret-word") != std::string::npos;
    }));
}

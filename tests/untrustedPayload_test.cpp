// A payload that a user the helper does not trust (uid 65534) can write, and
// a destination folder that user owns: nothing the user puts there, or does
// there while the copy runs, makes root read, grant, follow or stop where
// it should not. End-to-end through the real binary.
#include "testSupport.h"

#include "installOps.h"
#include "runState.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/inotify.h>
#include <sys/syscall.h>
#endif

#include <algorithm>
#include <functional>
#include <thread>

using namespace zqimtest;
using namespace std::chrono_literals;

namespace {

struct stat Lstat(const fs::path& p) {
    struct stat st {};
    lstat(p.c_str(), &st);
    return st;
}

// A tree everyone may pass through: the user's staging folder (theirs),
// the install root and a folder of root's the user must never reach.
struct Scene {
    TempDir tmp;
    fs::path stage = tmp / "stage", root = tmp / "root", victim = tmp / "victim";
    Scene() {
        fs::permissions(tmp.path(), fs::perms(0755));
        for (const fs::path& p : {stage, root, victim})
            fs::create_directories(p);
        EXPECT_EQ(lchown(stage.c_str(), kNobody, kNobody), 0);
        Put(victim / "secret", "root's secret");
        fs::permissions(victim / "secret", fs::perms(0600));
    }
    // The user fills their payload with what `make` makes.
    void Payload(const std::function<bool()>& make) { ASSERT_TRUE(AsNobody(make)); }
};

struct Answer {
    bool finished = false;
    std::string err, log;  // the log's messages, one a line
};

// Services `lines` and then `exit` as the only command file of a fresh
// helper; `ready` runs once the helper runs and before the file is sent.
Answer Service(const std::string& lines, const std::function<void(pid_t)>& ready = {},
               std::chrono::seconds patience = 30s) {
    TempDir comm;
    Frontend frontend(comm.path());
    HelperProcess helper({"-c", comm.path().string()});
    if (ready)
        ready(helper.pid());
    frontend.send(1, lines + "exit\n");
    Answer answer;
    answer.finished = helper.wait(patience);
    helper.kill();
    answer.err = ReadFile(frontend.file(1, ".err"));
    for (const std::string& message : frontend.log())
        answer.log += message + "\n";
    return answer;
}

std::string Copy(const fs::path& source, const std::string& dest) {
    return "copySrc " + source.string() + "\ncopyDest " + dest + "\n";
}

const std::string kDenied = "ZQIMMoveOrCopyFile() - Error - Permission denied.\n";
const std::string kChanged =
    "ZQIMMoveOrCopyFile() - Error - Error 1: category=copy, message=The source changed while "
    "it was copied.\n";

}  // namespace

// The user links root's 0600 file into their payload: the copy refuses to
// read it (2002, the copy's permission-denied line), where before it
// installed a copy that the next fixPermsR handed to the user. A file with
// two names in a folder only root can write is copied as ever.
TEST(UntrustedPayload, HardLinkToRootsFileIsNeverRead) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene scene;
    const fs::path payload = scene.stage / "payload", trusted = scene.tmp / "trusted";
    {
        ProtectionsOff unprotected({"hardlinks"});
        if (!unprotected.ok())
            GTEST_SKIP() << "fs.protected_hardlinks cannot be switched off here";
        scene.Payload([&] {
            fs::create_directories(payload / "doc");
            WriteFile(payload / "doc/readme", "docs");
            return link((scene.victim / "secret").c_str(), (payload / "doc/notes").c_str()) == 0;
        });
    }
    Put(trusted / "a", "shared");
    fs::create_hard_link(trusted / "a", trusted / "b");

    const Answer answer = Service("setRoot " + scene.root.string() + "\n" +
                                  Copy(trusted, "kept") + Copy(payload, "app"));
    EXPECT_TRUE(answer.finished);
    EXPECT_EQ(answer.err, "2002\nend\n");
    EXPECT_NE(answer.log.find(kDenied), std::string::npos) << answer.log;
    EXPECT_FALSE(fs::exists(scene.root / "app/doc/notes"));
    EXPECT_EQ(ReadFile(scene.root / "kept/a") + ReadFile(scene.root / "kept/b"), "sharedshared");
}

// Set-id programs from the user's payload lose their set-id bits, as cp -p
// drops them when it cannot keep the owner; root's own keep them.
TEST(UntrustedPayload, SetIdBitsOnlyFromATrustedOwner) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene scene;
    const fs::path payload = scene.stage / "payload", own = scene.tmp / "own";
    const std::string id = ReadFile("/usr/bin/id");
    scene.Payload([&] {
        fs::create_directories(payload);
        WriteFile(payload / "uid", id);
        WriteFile(payload / "gid", id);
        return chmod((payload / "uid").c_str(), 04755) == 0 &&
               chmod((payload / "gid").c_str(), 02755) == 0;
    });
    Put(own / "uid", id);
    ASSERT_EQ(chmod((own / "uid").c_str(), 06755), 0);

    const Answer answer = Service("setRoot " + scene.root.string() + "\n" +
                                  Copy(payload, "bin") + Copy(own, "own"));
    EXPECT_TRUE(answer.finished);
    EXPECT_EQ(answer.err, "");
    for (const char* name : {"bin/uid", "bin/gid"}) {
        const struct stat st = Lstat(scene.root / name);
        EXPECT_EQ(st.st_mode & 07777, 0755u) << name;
        EXPECT_EQ(st.st_uid, 0u) << name;
    }
    EXPECT_EQ(Lstat(scene.root / "own/uid").st_mode & 07777, 06755u);
}

// The user's link to a folder of root's is copied as the user's link, so
// that the next line's destination through it is refused instead of
// followed into root's folder.
TEST(UntrustedPayload, CopiedLinkKeepsItsUntrustedOwner) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene scene;
    const fs::path payload = scene.stage / "payload";
    Put(scene.tmp / "sudoers", "user ALL=(ALL) ALL");
    scene.Payload([&] {
        fs::create_directories(payload);
        return symlink(scene.victim.c_str(), (payload / "data").c_str()) == 0;
    });

    const Answer answer =
        Service("setRoot " + scene.root.string() + "\n" + Copy(payload, "app") +
                Copy(scene.tmp / "sudoers", "app/data/secret"));
    EXPECT_TRUE(answer.finished);
    EXPECT_EQ(answer.err, "2002\nend\n");
    const struct stat link = Lstat(scene.root / "app/data");
    EXPECT_TRUE(S_ISLNK(link.st_mode));
    EXPECT_EQ(link.st_uid, kNobody);
    EXPECT_EQ(ReadFile(scene.victim / "secret"), "root's secret");
}

// While the copy runs, the user exchanges the payload's file with a fifo of
// theirs every millisecond, and each time the helper reads the destination
// folder (which it does between its first look at the source and the open:
// a folder of many entries makes that take a while). The helper never blocks on the fifo:
// each copy either copies the file, or stops with 2000 and says the source
// changed (or, when it met the fifo first, that a fifo is not copied).
TEST(UntrustedPayload, SourceSwappedForAFifoNeverBlocks) {
#ifndef __linux__
    GTEST_SKIP() << "the user watches the folder with inotify: Linux only";
#else
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene scene;
    const fs::path payload = scene.stage / "payload", spare = scene.stage / "spare";
    const std::string content(64 * 1024, 'f');
    scene.Payload([&] {
        fs::create_directories(payload);
        fs::create_directories(spare);
        WriteFile(payload / "file", content);
        return mkfifo((spare / "file").c_str(), 0644) == 0;
    });
    for (int i = 0; i < 10000; ++i)
        close(open((scene.root / ("pad" + std::to_string(i))).c_str(), O_WRONLY | O_CREAT, 0644));
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t swapper = fork();
    if (swapper == 0) {
        const int watch = inotify_init1(0);
        if (!BecomeNobody() ||
            inotify_add_watch(watch, scene.root.c_str(), IN_ACCESS) < 0)
            _exit(1);
        close(ready[1]);
        const std::string a = (payload / "file").string(), b = (spare / "file").string();
        // At each read of the folder, and every millisecond besides.
        char events[4096];
        for (struct pollfd wait = {watch, POLLIN, 0};;) {
            if (poll(&wait, 1, 1) > 0 && read(watch, events, sizeof events) <= 0)
                _exit(1);
            syscall(SYS_renameat2, AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), 2 /* exchange */);
        }
    }
    close(ready[1]);
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 0);  // the watch is set
    close(ready[0]);
    int copied = 0, changed = 0, refused = 0, other = 0, hung = 0;
    const auto until = std::chrono::steady_clock::now() + 30s;
    for (int run = 0; run < 400 && (changed == 0 || run < 10) &&
                      std::chrono::steady_clock::now() < until;
         ++run) {
        const Answer answer = Service("setRoot " + scene.root.string() + "\n" +
                                          Copy(payload / "file", "file" + std::to_string(run)),
                                      {}, 10s);
        if (!answer.finished) {
            ++hung;
            break;
        }
        if (answer.err.empty()) {
            ++copied;
            EXPECT_EQ(ReadFile(scene.root / ("file" + std::to_string(run))), content);
        } else if (answer.log.find(kChanged) != std::string::npos)
            ++changed;
        else if (answer.log.find("message=Invalid argument.") != std::string::npos)
            ++refused;
        else
            ++other;
    }
    kill(swapper, SIGKILL);
    waitpid(swapper, nullptr, 0);
    EXPECT_EQ(hung + other, 0) << "hung " << hung << ", other " << other;
    EXPECT_GT(changed, 0) << "no run met the swap; the test proves nothing";
    for (const auto& entry : fs::directory_iterator(scene.root))
        EXPECT_NE(entry.path().filename().string().rfind(".zqim-tmp.", 0), 0u);
    std::cout << "copied " << copied << ", source changed " << changed << ", fifo met " << refused
              << "\n";
#endif
}

// Sparse files from the user's payload take the space their data takes, on
// a small tmpfs (copied through a buffer: another file system) and on the
// payload's own disk (in the kernel), where they used to take their size or
// fill the volume.
TEST(UntrustedPayload, HolesStayHoles) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    ScratchMount small(64 << 20);
    if (!small.ok())
        GTEST_SKIP() << "mounting a tmpfs needs privilege";
    Scene scene;
    const fs::path payload = scene.stage / "payload";
    const off_t kBig = off_t(1) << 30, kSmall = 32 << 20;
    scene.Payload([&] {
        fs::create_directories(payload);
        const int big = open((payload / "big").c_str(), O_WRONLY | O_CREAT, 0644);
        const int part = open((payload / "part").c_str(), O_WRONLY | O_CREAT, 0644);
        // Data at the start, in the middle and at the very end.
        const bool written = pwrite(big, "head", 4, 0) == 4 && pwrite(big, "mid", 3, kBig / 2) == 3 &&
                             pwrite(big, "tail", 4, kBig - 4) == 4 && pwrite(part, "p", 1, kSmall / 2) == 1 &&
                             ftruncate(part, kSmall) == 0;
        return close(big) == 0 && close(part) == 0 && written;
    });
    const Answer answer = Service("setRoot " + small.path().string() + "\n" + Copy(payload, "app") +
                                  "setRoot " + scene.root.string() + "\n" +
                                  Copy(payload / "part", "part"));
    EXPECT_TRUE(answer.finished);
    EXPECT_EQ(answer.err, "");
    for (const fs::path& copy : {small.path() / "app/big", small.path() / "app/part", scene.root / "part"}) {
        const struct stat st = Lstat(copy), original = Lstat(payload / copy.filename());
        EXPECT_EQ(st.st_size, original.st_size) << copy;
        EXPECT_LE(st.st_blocks, original.st_blocks + 64) << copy;  // a few pages of slack
    }
    const int big = open((small.path() / "app/big").c_str(), O_RDONLY);
    char bytes[12] = {};
    EXPECT_TRUE(pread(big, bytes, 4, 0) == 4 && pread(big, bytes + 4, 3, kBig / 2) == 3 &&
                pread(big, bytes + 7, 4, kBig - 4) == 4);
    close(big);
    EXPECT_STREQ(bytes, "headmidtail");
}

// The user fills their folder in the root with links at the names the
// running helper's temporaries used to get: the update goes on (random
// names), and the planted links stay as they were.
TEST(UntrustedPayload, PlantedTemporaryNamesDoNotStopTheCopy) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene scene;
    const fs::path app = scene.root / "app", payload = scene.tmp / "payload";
    Put(payload / "file", "new");
    fs::create_symlink("file", payload / "link");
    Put(app / "file", "old");
    ASSERT_EQ(lchown(app.c_str(), kNobody, kNobody), 0);

    const Answer answer = Service(
        "setRoot " + scene.root.string() + "\n" + Copy(payload, "app"), [&](pid_t pid) {
            EXPECT_TRUE(AsNobody([&] {
                for (int n = 1; n <= 300; ++n) {
                    const std::string name = ".zqim-tmp." + std::to_string(pid) + "." + std::to_string(n);
                    if (symlink((scene.victim / "secret").c_str(), (app / name).c_str()) != 0)
                        return false;
                }
                return true;
            }));
        });
    EXPECT_TRUE(answer.finished);
    EXPECT_EQ(answer.err, "");
    EXPECT_EQ(ReadFile(app / "file"), "new");
    EXPECT_EQ(fs::read_symlink(app / "link"), "file");
    int planted = 0;
    for (const auto& entry : fs::directory_iterator(app))
        planted += entry.is_symlink() && fs::read_symlink(entry.path()) == scene.victim / "secret";
    EXPECT_EQ(planted, 300);
    EXPECT_EQ(ReadFile(scene.victim / "secret"), "root's secret");
}

// What a killed helper left in a destination folder goes with the next
// copy there: only entries of the temporaries' pattern, of a helper that
// no longer runs, owned by a trusted user.
TEST(UntrustedPayload, NextCopySweepsOnlyADeadHelpersTrustedLeftovers) {
    if (!IsRoot())
        GTEST_SKIP() << "planting another user's files needs root";
    Scene scene;
    const fs::path app = scene.root / "app";
    Put(scene.tmp / "payload/file", "new");
    const pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    waitpid(gone, nullptr, 0);
    const std::string dead = ".zqim-tmp." + std::to_string(gone) + ".",
                      live = ".zqim-tmp." + std::to_string(getpid()) + ".";
    for (const std::string& name : {dead + "1", dead + "2", dead + "3", dead + "4", live + "1",
                                    std::string(".zqim-tmp.x.1"), dead + "a-b"})
        Put(app / name, "left");
    fs::create_symlink("anywhere", app / (dead + "5"));
    ASSERT_EQ(lchown((app / (dead + "2")).c_str(), kNobody, kNobody), 0);
    fs::remove(app / (dead + "3"));
    fs::create_directory(app / (dead + "3"));

    const Answer answer = Service("setRoot " + scene.root.string() + "\n" +
                                  Copy(scene.tmp / "payload", "app"));
    EXPECT_TRUE(answer.finished);
    EXPECT_EQ(answer.err, "");
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(app))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    std::vector<std::string> kept{dead + "2", dead + "3", dead + "a-b", ".zqim-tmp.x.1", live + "1", "file"};
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(names, kept);
}

// ---------------------------------------------- no temporary name at all

#ifdef __linux__

namespace {
bool gNamesTaken = false;
}  // namespace

// Every link this program makes under a temporary name finds the name
// taken while gNamesTaken holds: a folder filled faster than names are drawn.
extern "C" int symlinkat(const char* target, int dir, const char* name) {
    if (gNamesTaken && std::string(name).rfind(".zqim-tmp.", 0) == 0) {
        errno = EEXIST;
        return -1;
    }
    return static_cast<int>(syscall(SYS_symlinkat, target, dir, name));
}

// When no free temporary name can be had, the copy fails as an other error
// (2000, counted), never as "File Exists" (4, a success that stopped the
// update half-way).
TEST(UntrustedPayload, NoFreeTemporaryNameIsAnOtherError) {
    LogCapture log;
    TempDir tmp;
    fs::create_symlink("target", tmp / "link");
    gNamesTaken = true;
    const int result = DoCmdCopy((tmp / "link").string(), "link", (tmp / "root").string(), false,
                                 gMovedFiles, gRootIsCrossDevice);
    gNamesTaken = false;
    EXPECT_EQ(result, 2000);
    EXPECT_TRUE(log.has("ZQIMMoveOrCopyFile() - Error - Error 2: category=copy, message=No "
                        "temporary name could be made."));
    EXPECT_EQ(gErrors, std::set<int>{2000});
    EXPECT_FALSE(fs::exists(fs::symlink_status(tmp / "root/link")));
}
#endif  // __linux__: standing in for symlinkat

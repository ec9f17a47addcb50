// Every path a command names is reached by handle, and another user's link
// anywhere on it is refused: the top of a folder to delete or hand over, a
// directory to make, a copy's source, the root and what lies above it. A file
// with a second name is never handed over, and the examples hand over no
// folder root keeps working in. End-to-end through the real binary, with the
// other user played by uid 65534.
#include "testSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/inotify.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>

using namespace zqimtest;

namespace {

const std::string kIds = "uid=65534,gid=65534";
const std::string kDenied = "Error 13: category=generic, message=Permission denied";

// What the helper answered to one command file, which ends it.
struct Answer {
    std::string err;
    std::vector<std::string> log;
    bool has(const std::string& message) const {
        return std::find(log.begin(), log.end(), message) != log.end();
    }
    // The index of the first message that starts with `prefix`.
    std::size_t first(const std::string& prefix) const {
        std::size_t at = 0;
        while (at < log.size() && log[at].rfind(prefix, 0) != 0)
            ++at;
        return at;
    }
};

Answer Service(const std::string& lines) {
    TempDir comm;
    Frontend frontend(comm.path());
    frontend.send(1, lines);
    HelperProcess helper({"-c", comm.path().string()});
    EXPECT_TRUE(helper.wait(std::chrono::seconds(60)) && helper.exitCode() == 0)
        << helper.output();
    EXPECT_EQ(ReadFile(frontend.file(1, ".zqfin")), "Finished.");
    return Answer{ReadFile(frontend.file(1, ".err")), frontend.log()};
}

uid_t OwnerOf(const fs::path& p) {
    struct stat st {};
    return lstat(p.c_str(), &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
}

void Touch(const fs::path& p, const std::string& content = "x", mode_t mode = 0644) {
    fs::create_directories(p.parent_path());
    WriteFile(p, content);
    chmod(p.c_str(), mode);
}

// owner:content of every entry below `dir`, links as their text.
std::map<std::string, std::string> Snapshot(const fs::path& dir) {
    std::map<std::string, std::string> seen;
    for (auto it = fs::recursive_directory_iterator(dir); it != fs::end(it); ++it) {
        std::string what = std::to_string(OwnerOf(it->path())) + ":";
        what += it->is_symlink()        ? fs::read_symlink(it->path()).string()
                : it->is_regular_file() ? ReadFile(it->path())
                                        : "dir";
        seen[fs::relative(it->path(), dir).string()] = what;
    }
    return seen;
}

// Everything at and below `p` becomes the other user's, as after an earlier
// hand-over.
void GiveAway(const fs::path& p) {
    ASSERT_EQ(lchown(p.c_str(), kNobody, kNobody), 0);
    if (!fs::is_directory(fs::symlink_status(p)))
        return;
    for (auto it = fs::recursive_directory_iterator(p); it != fs::end(it); ++it)
        ASSERT_EQ(lchown(it->path().c_str(), kNobody, kNobody), 0);
}

// As the other user: `name` in `dir` becomes a link to `to`; what stood
// there moves aside. The result is the errno of the first refusal.
int PlantLink(const fs::path& dir, const std::string& name, const fs::path& to) {
    return AsOtherUser([&] {
        const fs::path at = dir / name, aside = dir / (name + ".old");
        if ((rename(at.c_str(), aside.c_str()) != 0 && errno != ENOENT) ||
            symlink(to.c_str(), at.c_str()) != 0)
            return errno;
        return 0;
    });
}

// `tmp`, which the other user may look into, holds `victim`, root's folder
// of files no one else may read, and `sys`, root's link to `real`, which
// stands for a system link such as macOS's /tmp.
struct Scene {
    TempDir tmp;
    fs::path victim = tmp / "victim", real = tmp / "real", sys = tmp / "sys",
             root = tmp / "root";
    Scene() {
        fs::permissions(tmp.path(), fs::perms(0755));
        for (const char* name : {"v0", "sub/v1", "doc/secret"})
            Touch(victim / name, "root's", 0600);
        fs::create_directories(real);
        fs::create_directories(root);
        fs::create_directory_symlink(real, sys);
    }
};


}  // namespace

// Row: the user owns the root and made root/share a link to root's folder.
// delFolder refuses it at the top and in the middle; a root reached through
// the link is refused to delFile, and so is the climb above it. Root's own
// links are followed all the same.
TEST(PathTrust, DeletionRefusesAnotherUsersLinkOnThePathItNames) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene s;
    Touch(s.root / "share/doc/x");
    GiveAway(s.root);
    ASSERT_EQ(PlantLink(s.root, "share", s.victim), 0);
    Touch(s.real / "sub/f");
    Touch(s.real / "app/g");
    Touch(s.real / "keep");
    const auto before = Snapshot(s.victim);
    const std::string r = s.root.string(), sys = s.sys.string();

    const Answer a = Service("delFolder " + r + "/share\ndelFolder " + r + "/share/sub\n" +
                             "delFolder " + sys + "/sub\nsetRoot " + sys + "/app\ndelFile g\n" +
                             "setRoot " + r + "/share/sub\ndelFile v1\nexit\n");
    EXPECT_EQ(Snapshot(s.victim), before);
    for (const std::string& top : {r + "/share", r + "/share/sub"}) {
        EXPECT_TRUE(a.has("FindFilesAndFolders(\"" + top + "\") - Error getting directory "
                          "iterator. Not deleting. This can happen if the directory does not "
                          "exist: " + kDenied)) << top;
        EXPECT_TRUE(a.has("DoDelFolder(" + top + ") - deleting 0 files and 0 folders.")) << top;
    }
    EXPECT_TRUE(a.has("DoDelFile(v1) - error deleting file: generic:13"));
    EXPECT_TRUE(a.has("DoDelFile(\"" + r + "/share/sub\") - error determining empty dir: 0"));
    EXPECT_EQ(a.err, "2004\nend\n");
    // Through root's link: the folder, and the file with its emptied root.
    EXPECT_FALSE(fs::exists(s.real / "sub"));
    EXPECT_FALSE(fs::exists(s.real / "app"));
    EXPECT_TRUE(fs::exists(s.real / "keep") && fs::is_symlink(s.sys));
}

// Row: root/lib and root/var became the user's links to root's folder.
// Neither fixPermsR, fixPerms (in the middle, or at the end written with a
// separator) nor makeDir follows them; through root's link both work.
TEST(PathTrust, OwnershipAndMakeDirRefuseAnotherUsersLinkOnTheirPath) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene s;
    Touch(s.root / "lib/x");
    GiveAway(s.root);
    ASSERT_EQ(PlantLink(s.root, "lib", s.victim), 0);
    ASSERT_EQ(PlantLink(s.root, "var", s.victim), 0);
    Touch(s.real / "f");
    const auto before = Snapshot(s.victim);
    const std::string r = s.root.string(), sys = s.sys.string();

    const Answer a = Service("setUserID 65534\nsetGroupID 65534\nfixPermsR " + r + "/lib\n" +
                             "fixPerms " + r + "/lib/v0\nfixPerms " + r + "/lib/\nmakeDir " + r +
                             "/var/cache\nfixPerms " + sys + "/f\nmakeDir " + sys +
                             "/made/sub\nexit\n");
    EXPECT_EQ(Snapshot(s.victim), before);
    EXPECT_EQ(OwnerOf(s.victim), 0u);
    const std::string single = "DoFixPerms(single, " + kIds +
                               ") - chown done (-1, errno=13 (Permission denied)) on: ";
    for (const std::string& m :
         {"DoFixPerms(" + kIds + ") - error on directory: " + r + "/lib: " + kDenied,
          single + r + "/lib/v0", single + r + "/lib/",
          "ZQIMCreateDirs() - Permission denied creating dir \"\"" + r + "/var/cache\"\": " +
              kDenied + ".",
          "DoMakeDir(" + r + "/var/cache) - Result was:2002."})
        EXPECT_TRUE(a.has(m)) << m;
    EXPECT_EQ(a.err, "2002\nend\n");
    EXPECT_EQ(OwnerOf(s.real / "f"), kNobody);
    EXPECT_TRUE(fs::is_directory(s.real / "made/sub"));
}

// Row: the user owns the staging folder and made stage/payload a link to
// root's folder. Neither a copy of what lies below it (handed over after)
// nor a move takes root's file; a source through root's link is copied.
TEST(PathTrust, SourceReachedThroughAnotherUsersLinkIsNeitherCopiedNorMoved) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene s;
    const fs::path stage = s.tmp / "stage";
    Touch(stage / "payload/doc/readme");
    GiveAway(stage);
    ASSERT_EQ(PlantLink(stage, "payload", s.victim), 0);
    Touch(s.real / "doc/manual", "manual");
    const auto before = Snapshot(s.victim);
    const std::string r = s.root.string(), st = stage.string();

    const Answer copied = Service("setRoot " + r + "\ncopySrc " + s.sys.string() + "/doc\n" +
                                  "copyDest share/manual\ncopySrc " + st + "/payload/doc\n" +
                                  "copyDest share/doc\nsetUserID 65534\nsetGroupID 65534\n" +
                                  "fixPermsR " + r + "\nexit\n");
    const Answer moved = Service("setRoot " + r + "\ncopySrc " + st + "/payload/doc/secret\n" +
                                 "moveOrCopyDest share/secret\nexit\n");
    EXPECT_EQ(Snapshot(s.victim), before);
    EXPECT_FALSE(fs::exists(s.root / "share/doc") || fs::exists(s.root / "share/secret"));
    EXPECT_EQ(ReadFile(s.root / "share/manual/manual"), "manual");
    for (const Answer* a : {&copied, &moved}) {
        EXPECT_TRUE(a->has("ZQIMMoveOrCopyFile() - Error - Permission denied."));
        EXPECT_EQ(a->err, "2002\nend\n");
    }
    EXPECT_TRUE(copied.has("ServiceCommandFile() - Fatal error 2002: copyDest share/doc"));
}

// Row (ownership): the user, owning root/lib, gave root's secret file a
// second name there. fixPermsR and fixPerms leave it root's, each with a
// line of its own and an error counted; single names are handed over.
TEST(PathTrust, FileWithASecondNameIsNeverHandedOver) {
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Scene s;
    const fs::path lib = s.root / "lib", secret = s.victim / "doc/secret";
    Touch(lib / "mine");
    GiveAway(lib);
    Touch(lib / "plain");
    {
        ProtectionsOff unprotected({"hardlinks"});
        ASSERT_TRUE(unprotected.ok()) << "fs.protected_hardlinks cannot be switched off";
        ASSERT_EQ(AsOtherUser([&] {
                      return link(secret.c_str(), (lib / "hl").c_str()) == 0 ? 0 : errno;
                  }), 0);
    }
    const std::string r = s.root.string(), hl = r + "/lib/hl";

    const Answer a = Service("setUserID 65534\nsetGroupID 65534\nfixPermsR " + r +
                             "\nfixPerms " + hl + "\nexit\n");
    struct stat st {};
    ASSERT_EQ(stat(secret.c_str(), &st), 0);
    EXPECT_TRUE(st.st_uid == 0 && st.st_gid == 0 && st.st_nlink == 2);
    EXPECT_EQ(OwnerOf(lib / "plain"), kNobody);
    const std::string refused = "(-1, errno=" + std::to_string(EMLINK) + " (" +
                                std::strerror(EMLINK) + ")) on: " + hl;
    for (const std::string& m :
         {"DoFixPerms(recursive, " + kIds + ") - chown error " + refused,
          "DoFixPerms(recursive, " + kIds + ") - chown done on 3 files and 1 dirs with 1 errors.",
          "DoFixPerms(single, " + kIds + ") - chown done " + refused})
        EXPECT_TRUE(a.has(m)) << m;
    EXPECT_EQ(a.err, "");
}

namespace {

// The examples, filled in as a front-end fills them, with a payload like the
// demo's, for the other user. The staging folder is the front-end's alone,
// and on a volume of its own: moves copy, so that installing again over an
// earlier install merges into its folders.
struct Install {
    ScratchMount volume{16 << 20};
    TempDir tmp;
    fs::path stage = volume.path() / "stage", root = tmp / "root", user = tmp / "user";
    Install() {
        if (!volume.ok())
            return;
        fs::permissions(tmp.path(), fs::perms(0755));
        Stage();
        fs::permissions(stage, fs::perms(0700));
        fs::create_directories(user);
        GiveAway(user);
    }
    void Stage() {
        Touch(stage / "payload/bin/zqdemo",
              "#!/bin/sh\ntop=$(cd \"$(dirname \"$0\")/..\" && pwd)\n"
              "[ \"$1\" = --post-install ] && echo installed >\"$top/var/cache/installed-at\"\n",
              0755);
        for (const char* f : {"lib/zqdemo-1.0/messages.txt", "lib/zqdemo-1.0/plugins/hello.sh",
                              "doc/README.txt", "doc/LICENSE.txt"})
            Touch(stage / "payload" / f);
    }
    Answer Run(const std::string& example) const {
        std::string text = ReadFile(fs::path(ZQIM_EXAMPLES_DIR) / example);
        for (const auto& [from, to] : std::map<std::string, std::string>{
                 {"@ROOT@", root.string()}, {"@STAGE@", stage.string()}, {"@UID@", "65534"},
                 {"@GID@", "65534"}, {"@PREFLOC@", "own"}})
            for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at))
                text.replace(at, from.size(), to);
        return Service(text);
    }
};

}  // namespace

// Rows: a re-run of install.txt, while the user who got the earlier install
// waits to swap the program's folder for their own as soon as the program
// is moved in, runs the install's program; and uninstall.txt, after the
// user tried to make root/share a link to root's folder, removes the install
// and nothing else. Nothing handed over is the root itself, and the program
// runs before anything is handed over.
TEST(Examples, ReRunAndUninstallCannotBeLedToAnotherUsersProgramOrRootsFiles) {
#ifndef __linux__
    GTEST_SKIP() << "the waiting user watches with inotify";
#else
    if (!IsRoot())
        GTEST_SKIP() << "playing another user needs root";
    Install in;
    if (!in.volume.ok())
        GTEST_SKIP() << "mounting a scratch tmpfs needs root";
    const Answer first = in.Run("install.txt");
    EXPECT_EQ(first.err, "");
    EXPECT_EQ(OwnerOf(in.root), 0u);
    EXPECT_EQ(OwnerOf(in.root / "bin"), kNobody);
    EXPECT_LT(first.first("DoExec() - Executing: "), first.first("DoFixPerms("));
    EXPECT_EQ(ReadFile(in.root / "var/cache/installed-at"), "installed\n");

    Touch(in.user / "bin/zqdemo", "#!/bin/sh\ntouch " + (in.user / "ran").string() + "\n", 0755);
    GiveAway(in.user / "bin");
    in.Stage();
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t swapper = fork();
    if (swapper == 0) {
        close(ready[0]);
        if (!BecomeNobody())
            _exit(126);
        const int watch = inotify_init1(IN_CLOEXEC);
        if (inotify_add_watch(watch, (in.root / "bin").c_str(), IN_MOVED_TO | IN_CREATE) < 0)
            _exit(125);
        (void)!write(ready[1], "r", 1);
        alignas(struct inotify_event) char events[4096];
        for (pollfd p{watch, POLLIN, 0}; poll(&p, 1, 30000) == 1;) {
            const ssize_t n = read(watch, events, sizeof events);
            for (ssize_t at = 0; at < n;) {
                const auto* e = reinterpret_cast<const struct inotify_event*>(events + at);
                if (e->len && std::strcmp(e->name, "zqdemo") == 0)
                    _exit(renameat2(AT_FDCWD, (in.root / "bin").c_str(), AT_FDCWD,
                                    (in.user / "bin").c_str(), RENAME_EXCHANGE) == 0 ? 0 : 1);
                at += sizeof *e + e->len;
            }
        }
        _exit(2);
    }
    close(ready[1]);
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    const Answer again = in.Run("install.txt");
    int status = -1;
    waitpid(swapper, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << "swapper: " << status;
    EXPECT_FALSE(fs::exists(in.user / "ran"));
    EXPECT_EQ(again.err, "");

    TempDir victimDir;
    fs::permissions(victimDir.path(), fs::perms(0755));
    Touch(victimDir / "keep", "root's", 0600);
    EXPECT_NE(PlantLink(in.root, "share", victimDir.path()), 0);
    const Answer removed = in.Run("uninstall.txt");
    EXPECT_EQ(removed.err, "");
    EXPECT_EQ(ReadFile(victimDir / "keep"), "root's");
    EXPECT_FALSE(fs::exists(fs::symlink_status(in.root)));
#endif
}

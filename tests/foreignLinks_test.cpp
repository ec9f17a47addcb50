// A user who owns part of a tree, or of the install root, must not be able to
// steer a root operation outside it: neither with a link planted ahead of
// time nor by swapping a directory for a link while the helper works.
#include "testSupport.h"

#include "deleteOps.h"
#include "installOps.h"
#include "linkOps.h"
#include "ownershipOps.h"
#include "runState.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

using namespace zqimtest;

namespace {

// Another user, who need not have a name: root can be anyone.
constexpr uid_t kNobody = 65534;

// Name -> owner and content of every entry below `dir`, links as their text.
std::map<std::string, std::string> Snapshot(const fs::path& dir) {
    std::map<std::string, std::string> seen;
    for (auto it = fs::recursive_directory_iterator(dir); it != fs::end(it); ++it) {
        struct stat st {};
        lstat(it->path().c_str(), &st);
        std::string what = std::to_string(st.st_uid) + ":" + std::to_string(st.st_gid) + ":";
        what += it->is_symlink() ? fs::read_symlink(it->path()).string()
                : it->is_regular_file() ? ReadFile(it->path()) : "dir";
        seen[fs::relative(it->path(), dir).string()] = what;
    }
    return seen;
}

void Touch(const fs::path& p, const std::string& content = "x") {
    fs::create_directories(p.parent_path());
    WriteFile(p, content);
}

// As `nobody`, swaps each pair d<i> <-> l<i> in `dir` for as long as it lives:
// the real directory and a link to the victim trade names atomically, so
// both names exist at every instant.
class Swapper {
public:
    Swapper(const fs::path& dir, int pairs) {
        const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
        child = fork();
        if (child != 0) {
            close(fd);
            return;
        }
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0)
            _exit(1);
        for (;;)
            for (int i = 0; i < pairs; ++i) {
                const std::string d = "d" + std::to_string(i), l = "l" + std::to_string(i);
#ifdef __APPLE__
                renameatx_np(fd, d.c_str(), fd, l.c_str(), RENAME_SWAP);
#else
                renameat2(fd, d.c_str(), fd, l.c_str(), RENAME_EXCHANGE);
#endif
            }
    }
    ~Swapper() {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }

private:
    pid_t child;
};

// A victim no user may touch, and a tree whose folder `u` the user owns:
// u/d<i> are the user's directories, u/l<i> the user's links to the victim,
// and u/keep is a directory the user leaves alone.
struct RaceScene {
    static constexpr int kPairs = 8;
    TempDir tmp;
    fs::path victim = tmp / "victim", tree = tmp / "tree", u = tree / "u";

    RaceScene() {
        for (int i = 0; i < 40; ++i)
            Touch(victim / ("v" + std::to_string(i)), "precious");
        Touch(victim / "sub/v", "precious");
        Build();
    }
    void Build() {
        for (int i = 0; i < kPairs; ++i) {
            const std::string n = std::to_string(i);
            for (int f = 0; f < 5; ++f)
                Touch(u / ("d" + n) / ("f" + std::to_string(f)));
            fs::create_directory_symlink(victim, u / ("l" + n));
        }
        for (auto it = fs::recursive_directory_iterator(u); it != fs::end(it); ++it)
            EXPECT_EQ(lchown(it->path().c_str(), kNobody, kNobody), 0);
        EXPECT_EQ(lchown(u.c_str(), kNobody, kNobody), 0);
        for (int i = 0; i < 5; ++i)
            Touch(u / "keep" / ("k" + std::to_string(i)));
    }
};

bool CanRace() {
    return IsRoot();
}

}  // namespace

// A link the user planted below the root is refused, with each operation's
// own permission-denied line and code; a link root owns is still followed.
TEST(ForeignLinks, PlantedUserLinkBelowTheRootIsRefusedAndRootsLinkFollowed) {
    if (!IsRoot())
        GTEST_SKIP() << "planting another user's link needs root";
    LogCapture log;
    TempDir tmp;
    const fs::path root = tmp / "root", victim = tmp / "victim", real = tmp / "real";
    Touch(victim / "keep");
    Touch(tmp / "staged", "payload");
    fs::create_directories(root);
    fs::create_directories(real);
    fs::create_directory_symlink(victim, root / "evil");
    fs::create_directory_symlink(real, root / "good");
    ASSERT_EQ(lchown((root / "evil").c_str(), kNobody, kNobody), 0);
    const auto before = Snapshot(victim);
    const std::string r = root.string(), staged = (tmp / "staged").string();

    EXPECT_EQ(DoDelFile(r, "evil/keep"), 2004);
    gRoot = r;
    EXPECT_EQ(DoCmdSymlink("anywhere", "evil/l", gRoot), 2002);
    // The parent folder is reached first, and refused there.
    EXPECT_EQ(DoCmdCopy(staged, "evil/f", r, true, gMovedFiles, gRootIsCrossDevice), 2002);
    EXPECT_EQ(DoCmdCopy(staged, "evil/sub/f", r, false, gMovedFiles, gRootIsCrossDevice), 2002);
    EXPECT_EQ(Snapshot(victim), before);
    EXPECT_TRUE(fs::exists(tmp / "staged"));
    for (const std::string& m : {std::string("DoDelFile(evil/keep) - error deleting file: generic:13"),
                                 std::string("DoCmdSymlink() - Error - Permission denied."),
                                 "ZQIMCreateDirs() - Permission denied creating dir \"\"" + r +
                                     "/evil\"\": Error 13: category=generic, "
                                     "message=Permission denied.",
                                 "ZQIMCreateDirs() - Permission denied creating dir \"\"" + r +
                                     "/evil/sub\"\": Error 13: category=generic, "
                                     "message=Permission denied."})
        EXPECT_TRUE(log.has(m)) << m;

    EXPECT_EQ(DoCmdCopy(staged, "good/sub/f", r, true, gMovedFiles, gRootIsCrossDevice), 0);
    EXPECT_EQ(DoCmdSymlink("target", "good/sub/l", gRoot), 0);
    EXPECT_EQ(ReadFile(real / "sub/f"), "payload");
    EXPECT_EQ(fs::read_symlink(real / "sub/l"), "target");
    EXPECT_EQ(DoDelFile(r, "good/sub/f"), 0);
    EXPECT_FALSE(fs::exists(real / "sub/f"));
    // Under the root "/", the folders a removal empties are pruned too.
    Touch(tmp / "top/a/b/f");
    Touch(tmp / "top/keep");
    EXPECT_EQ(DoDelFile("/", (tmp / "top/a/b/f").string().substr(1)), 0);
    EXPECT_TRUE(fs::exists(tmp / "top") && !fs::exists(tmp / "top/a"));
    EXPECT_EQ(gErrors, (std::set<int>{2002, 2004}));
}

// While the user keeps swapping their directories for links to the victim,
// the helper removes the tree, hands it over and installs into it, round
// after round. The victim is never touched, and what the user left alone
// is fully done.
TEST(ForeignLinks, RacingUserCannotRedirectDeleteOwnershipOrInstall) {
    if (!CanRace())
        GTEST_SKIP() << "racing as another user needs root";
    LogCapture log;
    RaceScene scene;
    const auto before = Snapshot(scene.victim);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    int rounds = 0;
    while (std::chrono::steady_clock::now() < until || rounds < 3) {
        ++rounds;
        {
            Swapper swapper(scene.u, RaceScene::kPairs);
            EXPECT_EQ(DoFixPerms("65534", "65534", scene.tree.string(), true, false), 0);
            for (int f = 0; f < 5; ++f) {
                EXPECT_EQ(Snapshot(scene.u / "keep")["k" + std::to_string(f)], "65534:65534:x");
                TempDir staging;
                Touch(staging / "f", "new");
                const std::string dest = "d" + std::to_string(f) + "/new";
                const int moved =
                    DoCmdCopy((staging / "f").string(), dest, scene.u.string(), true, gMovedFiles, gRootIsCrossDevice);
                EXPECT_EQ(moved == 2002, fs::exists(staging / "f")) << moved;
                EXPECT_TRUE(moved == 0 || moved == 2002) << moved;
            }
            EXPECT_EQ(DoDelFolder(scene.u.string()), 0);
        }
        EXPECT_EQ(Snapshot(scene.victim), before) << "round " << rounds;
        EXPECT_FALSE(fs::exists(scene.u / "keep")) << "round " << rounds;
        DoDelFolder(scene.u.string());  // what the racing user kept from us
        ASSERT_FALSE(fs::exists(scene.u));
        scene.Build();
    }
}

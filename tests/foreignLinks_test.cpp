// A user who owns part of a tree, or of the install root, must not be able to
// steer a root operation outside it: neither with a link planted ahead of
// time nor by swapping a directory for a link while the helper works.
//
// This file stands in for openat (below), to play a user who wins every race
// for the name of a copy's temporary file. The checked inline wrapper of
// openat would clash with that definition.
#undef _FORTIFY_SOURCE
#include "testSupport.h"

#include "deleteOps.h"
#include "installOps.h"
#include "linkOps.h"
#include "ownershipOps.h"
#include "runState.h"
#include "treeWalk.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#ifdef __linux__
#include <sys/syscall.h>
#endif
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <map>

using namespace zqimtest;

namespace {

#ifdef __linux__
// The folder in which a file is to be waiting at every name a file is
// created under, and what: a hard link to `hardTo`, then a symbolic link to
// `softTo`, one per name, until both are used.
struct Ambush {
    dev_t dev = 0;
    ino_t ino = 0;
    fs::path hardTo, softTo;
    std::vector<std::string> planted;
} gAmbush;

void Plant(int dir, const char* name, int flags) {
    struct stat st;
    if (!(flags & O_CREAT) || gAmbush.ino == 0 || std::strchr(name, '/') ||
        gAmbush.planted.size() >= 2 || fstat(dir, &st) != 0 || st.st_dev != gAmbush.dev ||
        st.st_ino != gAmbush.ino)
        return;
    const int made = gAmbush.planted.empty()
                         ? linkat(AT_FDCWD, gAmbush.hardTo.c_str(), dir, name, 0)
                         : symlinkat(gAmbush.softTo.c_str(), dir, name);
    if (made == 0)
        gAmbush.planted.push_back(name);
}
#endif

}  // namespace

#ifdef __linux__
// Every openat of this program, the helper's code linked into it included.
extern "C" int openat(int dir, const char* name, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, int));
        va_end(args);
    }
    const int saved = errno;
    Plant(dir, name, flags);
    errno = saved;
    return static_cast<int>(syscall(SYS_openat, dir, name, flags, mode));
}
#endif

namespace {

// Another user, who need not have a name: root can be anyone.

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
        if (!BecomeNobody())
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

// A user who plants a hard link to a file of root's, or a link, at the name a
// copy's temporary file gets (whatever that name is) sees it stay as it was:
// the copy takes another name and both planted files keep their content.
// Replacing a file and copying a new large one both name their temporaries.
TEST(ForeignLinks, FilePlantedAtATemporaryNameIsNeverWrittenThrough) {
#ifndef __linux__
    GTEST_SKIP() << "standing in for openat is done on Linux";
#else
    LogCapture log;
    TempDir tmp;
    const fs::path root = tmp / "root", hard = tmp / "shadow", soft = tmp / "passwd";
    Touch(hard, "root's secret");
    Touch(soft, "root's list");
    Touch(root / "app/old", "old");
    Touch(tmp / "staged/old", "new");
    Touch(tmp / "staged/big", std::string((1 << 20) + 1, 'b'));
    struct stat dir {};
    ASSERT_EQ(stat((root / "app").c_str(), &dir), 0);
    for (const char* name : {"old", "big"}) {
        gAmbush = Ambush{dir.st_dev, dir.st_ino, hard, soft, {}};
        const int result = DoCmdCopy((tmp / "staged" / name).string(), std::string("app/") + name,
                                     root.string(), false, gMovedFiles, gRootIsCrossDevice);
        const Ambush done = gAmbush;
        gAmbush = Ambush{};
        EXPECT_EQ(ReadFile(hard), "root's secret") << name;
        EXPECT_EQ(ReadFile(soft), "root's list") << name;
        EXPECT_EQ(result, 0) << name;
        EXPECT_EQ(ReadFile(root / "app" / name), ReadFile(tmp / "staged" / name));
        ASSERT_EQ(done.planted.size(), 2u) << name;
        EXPECT_TRUE(fs::equivalent(root / "app" / done.planted[0], hard));
        EXPECT_EQ(fs::read_symlink(root / "app" / done.planted[1]), soft);
        fs::remove(root / "app" / done.planted[0]);
        fs::remove(root / "app" / done.planted[1]);
    }
    EXPECT_TRUE(gErrors.empty());
#endif
}

// A folder moved elsewhere while a walk is deeper below it than the walk
// holds handles for: climbing back through ".." would come out in the
// folder's new parent, so the walk stops with ESTALE there.
TEST(ForeignLinks, FolderMovedAboveADeepWalkStopsItAsStale) {
    TempDir tmp;
    const std::size_t depth = 64;
    fs::path deep = tmp / "top";
    for (std::size_t level = 0; level < depth; ++level)
        deep /= "d";
    Touch(deep / "f");

    // At the bottom, moves the second folder of the chain out of the tree.
    class MoveAway : public TreeVisitor {
    public:
        MoveAway(std::size_t at, fs::path from, fs::path to) : at(at), from(from), to(to) {}
        Next visit(DirChain& dir, const DirEntry& entry) override {
            if (dir.depth() == at && !moved)
                moved = ::rename(from.c_str(), to.c_str()) == 0;
            return entry.type == EntryType::Directory ? Next::Enter : Next::Skip;
        }
        bool cannotEnter(DirChain&, const std::string&, std::error_code) override { return false; }
        bool listingFailed(DirChain&, std::error_code) override { return false; }
        std::size_t at;
        fs::path from, to;
        bool moved = false;
    } mover(depth, tmp / "top/d/d", tmp / "away");

    UniqueFd top;
    ASSERT_FALSE(OpenDirAt(AT_FDCWD, (tmp / "top").c_str(), top));
    DirChain chain(std::move(top), (tmp / "top").string());
    std::error_code ec;
    EXPECT_FALSE(WalkTree(chain, mover, WalkOrder::AsMet, ec));
    EXPECT_TRUE(mover.moved);
    EXPECT_EQ(ec, std::error_code(ESTALE, std::generic_category())) << ec.message();
}

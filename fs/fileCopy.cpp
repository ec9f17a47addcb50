#include "fileCopy.h"

#include "fileHandles.h"
#include "treeWalk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __APPLE__
#include <copyfile.h>
#include <sys/clonefile.h>
#else
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

#include <cerrno>
#include <algorithm>
#include <climits>
#include <filesystem>
#include <memory>
#include <set>
#include <utility>
#include <vector>

namespace {

// Devices, fifos and sockets are not copied, nor copied over.
bool IsOther(mode_t mode) {
    return !S_ISREG(mode) && !S_ISDIR(mode) && !S_ISLNK(mode);
}

bool SameEntry(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The status of `name` in `dir` itself; `exists` is false where nothing is.
std::error_code StatAt(int dir, const char* name, struct stat& st, bool& exists) {
    exists = ::fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists || errno == ENOENT || errno == ENOTDIR)
        return {};
    return LastError();
}

// Runs `make` on fresh hidden names in the destination's directory until one
// is free. The names are recognisable, so that what a killed helper left
// behind can be told from the payload.
template <typename Make>
std::error_code MakeTemporary(std::string& name, Make make) {
    static const std::string prefix = ".zqim-tmp." + std::to_string(::getpid()) + ".";
    static unsigned counter = 0;
    for (int attempt = 0; attempt < 100; ++attempt) {
        name = prefix + std::to_string(++counter);
        if (make(name.c_str()) == 0)
            return {};
        if (errno != EEXIST)
            return LastError();
    }
    return ErrorOf(EEXIST);
}

// A call that says the file system (or kernel) cannot do it, so the next,
// plainer way is to be tried.
bool Unsupported(int error) {
    return error == EXDEV || error == EOPNOTSUPP || error == ENOTSUP || error == EINVAL ||
           error == ENOSYS || error == ENOTTY || error == EPERM;
}

// The process's umask, read once (reading it means setting it).
mode_t Umask() {
    static const mode_t mask = [] {
        const mode_t current = ::umask(0);
        ::umask(current);
        return current;
    }();
    return mask;
}

// A new file of `mode` could be created with it directly: the umask takes
// nothing away and there are no set-id or sticky bits, which only a change
// of mode after the creation sets.
bool CreatableWith(mode_t mode) {
    return (mode & 07000) == 0 && (mode & ~Umask()) == mode;
}

// Opens a new temporary file beside the destination.
std::error_code CreateTemporary(int dir, mode_t mode, std::string& name, UniqueFd& out) {
    return MakeTemporary(name, [&](const char* candidate) {
        out = UniqueFd(::openat(dir, candidate,
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        return out.valid() ? 0 : -1;
    });
}

#ifdef __APPLE__

// A temporary copy of `in` (of `source`'s status) beside the destination:
// an APFS clone when the volume can (new blocks only as either side
// changes), else the data. `modeSet` says whether it has `source`'s mode.
std::error_code MakeTemporaryCopy(int in, const struct stat& source, int dir, std::string& name,
                                  UniqueFd& out, bool& modeSet) {
    modeSet = false;
    // The clone is owned as a file the helper creates, like a plain copy.
    std::error_code ec = MakeTemporary(name, [&](const char* candidate) {
        return ::fclonefileat(in, dir, candidate, CLONE_NOOWNERCOPY);
    });
    if (!ec) {
        out = UniqueFd(::openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (out.valid())
            return {};
        ec = LastError();
        ::unlinkat(dir, name.c_str(), 0);
        return ec;
    }
    if (!Unsupported(ec.value()))
        return ec;
    const mode_t mode = source.st_mode & 07777;
    modeSet = CreatableWith(mode);
    if ((ec = CreateTemporary(dir, modeSet ? mode : 0600, name, out)))
        return ec;
    if (::fcopyfile(in, out.get(), nullptr, COPYFILE_DATA) != 0) {
        ec = LastError();
        out.reset();
        ::unlinkat(dir, name.c_str(), 0);
    }
    return ec;
}

#else

// Devices between which a clone was refused: not asked again.
std::set<std::pair<dev_t, dev_t>> gNoClone;

// Copies `size` bytes of `in` to `out`: a reflink where the file system
// shares blocks (XFS, btrfs), else in the kernel, else through a buffer.
std::error_code CopyData(int in, const struct stat& source, int out, dev_t outDev) {
    const auto devices = std::make_pair(source.st_dev, outDev);
    if (outDev == 0 || !gNoClone.count(devices)) {
        if (::ioctl(out, FICLONE, in) == 0)
            return {};
        if (!Unsupported(errno))
            return LastError();
        if (outDev != 0)
            gNoClone.insert(devices);
    }
    // Read-ahead pays off for large files only.
    if (source.st_size >= (1 << 17))
        ::posix_fadvise(in, 0, 0, POSIX_FADV_SEQUENTIAL);
    off_t left = source.st_size;
    bool copied = false;
    while (left > 0) {
        const ssize_t n = ::copy_file_range(in, nullptr, out, nullptr,
                                            static_cast<std::size_t>(std::min<off_t>(left, 1 << 30)), 0);
        if (n == 0)  // the file was shorter than it said
            return {};
        if (n > 0) {
            copied = true;
            left -= n;
            continue;
        }
        if (errno == EINTR)
            continue;
        if (copied || !Unsupported(errno))
            return LastError();
        break;
    }
    if (left == 0)
        return {};
    static const std::unique_ptr<char[]> buffer(new char[1 << 17]);
    while (true) {
        const ssize_t n = ::read(in, buffer.get(), 1 << 17);
        if (n == 0)
            return {};
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return LastError();
        }
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(out, buffer.get() + done, static_cast<std::size_t>(n - done));
            if (w < 0 && errno == EINTR)
                continue;
            if (w < 0)
                return LastError();
            if (w == 0)  // a write that takes nothing: the disk is full
                return ErrorOf(ENOSPC);
            done += w;
        }
    }
}

// A temporary copy of `in` (of `source`'s status) beside the destination.
// Where nothing is to be replaced (`unnamed`), the file gets no name at all
// (`name` is left empty) until it is complete: a helper killed meanwhile
// leaves nothing behind. `modeSet` says whether it has `source`'s mode.
std::error_code MakeTemporaryCopy(int in, const struct stat& source, int dir, dev_t dirDev,
                                  bool unnamed, std::string& name, UniqueFd& out,
                                  bool& modeSet) {
    const mode_t mode = source.st_mode & 07777;
    modeSet = CreatableWith(mode);
    const mode_t createMode = modeSet ? mode : 0600;
    name.clear();
    if (unnamed)
        out = UniqueFd(::openat(dir, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, createMode));
    std::error_code ec;
    if (!out.valid() && (!unnamed || Unsupported(errno) || errno == EISDIR))
        ec = CreateTemporary(dir, createMode, name, out);
    else if (!out.valid())
        ec = LastError();
    if (ec)
        return ec;
    if ((ec = CopyData(in, source, out.get(), dirDev))) {
        out.reset();
        if (!name.empty())
            ::unlinkat(dir, name.c_str(), 0);
    }
    return ec;
}

// Gives the open, unnamed file `fd` the name `name` in `dir`.
int LinkAt(int fd, int dir, const char* name) {
    if (::linkat(fd, "", dir, name, AT_EMPTY_PATH) == 0)
        return 0;
    if (errno != ENOENT && errno != EPERM)
        return -1;
    // Naming a file by its descriptor alone takes a privilege; through
    // /proc it takes none.
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    return ::linkat(AT_FDCWD, self.c_str(), dir, name, AT_SYMLINK_FOLLOW);
}

#endif

// Renames the temporary entry, once `prepared`, over `name`; on any failure
// the temporary entry goes and the failure is returned.
std::error_code PutInPlace(bool prepared, int dir, const std::string& temporary,
                           const std::string& name) {
    if (prepared && ::renameat(dir, temporary.c_str(), dir, name.c_str()) == 0)
        return {};
    const std::error_code ec = LastError();
    ::unlinkat(dir, temporary.c_str(), 0);
    return ec;
}

// Puts a copy of the file `srcName` in `srcDir` at `dstName` in `dstDir`,
// replacing what is there (whose owner the copy takes over, `old`).
std::error_code InstallFile(int srcDir, const char* srcName, int dstDir, dev_t dstDev,
                            const std::string& dstName, const struct stat* old) {
    // A source swapped for a link since it was looked at is not followed.
    UniqueFd in(::openat(srcDir, srcName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat source;
    if (!in.valid() || ::fstat(in.get(), &source) != 0)
        return LastError();
    std::string temporary;
    UniqueFd out;
    bool modeSet;
#ifdef __APPLE__
    (void)dstDev;
    std::error_code ec = MakeTemporaryCopy(in.get(), source, dstDir, temporary, out, modeSet);
#else
    // Unnamed files save small files a rename, but ext4 copies into them in
    // the kernel many times slower than into a named file: large files get
    // a temporary name.
    const bool unnamed = !old && source.st_size < (1 << 20);
    std::error_code ec = MakeTemporaryCopy(in.get(), source, dstDir, dstDev, unnamed, temporary,
                                           out, modeSet);
#endif
    if (ec)
        return ec;
    // The owner first: a change of owner clears the set-id bits of the mode.
    const bool prepared = (!old || ::fchown(out.get(), old->st_uid, old->st_gid) == 0) &&
                          (modeSet || ::fchmod(out.get(), source.st_mode & 07777) == 0);
#ifndef __APPLE__
    if (temporary.empty()) {
        // Unnamed: it appears under its name whole, or not at all. Should
        // something have taken the name meanwhile, it is replaced.
        if (!prepared)
            return LastError();
        if (LinkAt(out.get(), dstDir, dstName.c_str()) == 0)
            return {};
        if (errno != EEXIST)
            return LastError();
        if ((ec = MakeTemporary(temporary, [&](const char* candidate) {
                 return LinkAt(out.get(), dstDir, candidate);
             })))
            return ec;
    }
#endif
    return PutInPlace(prepared && ::close(out.release()) == 0, dstDir, temporary, dstName);
}

// Puts a copy of the link `srcName` at `dstName`, replacing what is there.
std::error_code InstallLink(int srcDir, const char* srcName, int dstDir, const std::string& dstName,
                            const struct stat* old) {
    char target[PATH_MAX];
    const ssize_t length = ::readlinkat(srcDir, srcName, target, sizeof target - 1);
    if (length < 0)
        return LastError();
    target[length] = '\0';
    std::string temporary;
    if (std::error_code ec = MakeTemporary(temporary, [&](const char* candidate) {
            return ::symlinkat(target, dstDir, candidate);
        }))
        return ec;
    const bool prepared = !old || ::fchownat(dstDir, temporary.c_str(), old->st_uid,
                                             old->st_gid, AT_SYMLINK_NOFOLLOW) == 0;
    return PutInPlace(prepared, dstDir, temporary, dstName);
}

// Copies a file or link to `dstName` in `dstDir` (on the device `dstDev`).
// `fileName` is the source's own name, under which a file goes into a folder
// that stands at its place.
std::error_code CopyNonDirectory(int srcDir, const char* srcName, const struct stat& src,
                                 const std::string& fileName, int dstDir, dev_t dstDev,
                                 const std::string& dstName) {
    struct stat to;
    bool exists;
    if (std::error_code ec = StatAt(dstDir, dstName.c_str(), to, exists))
        return ec;
    if (exists && SameEntry(src, to))
        return ErrorOf(EEXIST);
    if (IsOther(src.st_mode) || (exists && IsOther(to.st_mode)))
        return ErrorOf(EINVAL);
    if (S_ISLNK(src.st_mode))
        return exists && S_ISDIR(to.st_mode) ? ErrorOf(EINVAL)
                                             : InstallLink(srcDir, srcName, dstDir, dstName,
                                                           exists ? &to : nullptr);
    if (!exists || !S_ISDIR(to.st_mode))
        return InstallFile(srcDir, srcName, dstDir, dstDev, dstName, exists ? &to : nullptr);

    const dev_t intoDev = to.st_dev;
    UniqueFd into = OpenDirAt(dstDir, dstName.c_str());
    if (!into.valid())
        return LastError();
    if (std::error_code ec = StatAt(into.get(), fileName.c_str(), to, exists))
        return ec;
    if (exists && SameEntry(src, to))
        return ErrorOf(EEXIST);
    if (exists && !S_ISREG(to.st_mode) && !S_ISLNK(to.st_mode))
        return ErrorOf(ENOTSUP);
    return InstallFile(srcDir, srcName, into.get(), intoDev, fileName, exists ? &to : nullptr);
}

// Makes `name` in `dir` (on `dirDev`) a real folder for the source folder
// `src` to merge into: an existing folder stays, a link gives way, a new one
// gets the source's mode. `made` is set when the folder is new; `dev` is the
// device the folder is on.
std::error_code PrepareFolder(const struct stat& src, int dir, dev_t dirDev,
                              const std::string& name, bool& made, dev_t& dev) {
    made = false;
    dev = dirDev;
    struct stat to;
    bool exists;
    if (std::error_code ec = StatAt(dir, name.c_str(), to, exists))
        return ec;
    if (exists) {
        if (SameEntry(src, to))
            return ErrorOf(EEXIST);
        if (IsOther(to.st_mode))
            return ErrorOf(EINVAL);
        if (S_ISREG(to.st_mode))
            return ErrorOf(EISDIR);
        if (S_ISDIR(to.st_mode)) {
            dev = to.st_dev;  // a folder may be another file system's top
            return {};
        }
        if (::unlinkat(dir, name.c_str(), 0) != 0)
            return LastError();
    }
    if (::mkdirat(dir, name.c_str(), src.st_mode & 07777) != 0)
        return LastError();
    made = true;
    return {};
}

// Copies everything below a source folder into the destination folder that
// `dest` holds, level by level in step with the source's walk.
class TreeCopy : public TreeVisitor {
public:
    TreeCopy(DirChain& dest, dev_t destDev) : dest(dest), devices{destDev} {}

    // Remembers a folder this copy made, so that a copy into its own source
    // stops at the first level it would copy again, instead of for ever.
    std::error_code RememberMade() {
        struct stat st;
        if (::fstat(dest.fd(), &st) != 0)
            return LastError();
        made.emplace(st.st_dev, st.st_ino);
        return {};
    }

    Next visit(DirChain& src, const DirEntry& entry) override {
        const std::string& name = entry.name;
        struct stat st;
        if (::fstatat(src.fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            return Fail(LastError());
        if (!S_ISDIR(st.st_mode))
            return Fail(CopyNonDirectory(src.fd(), name.c_str(), st, name, dest.fd(),
                                         devices.back(), name));
        if (made.count({st.st_dev, st.st_ino}))
            return Fail(ErrorOf(EINVAL));
        bool isNew;
        dev_t dev;
        if (std::error_code ec = PrepareFolder(st, dest.fd(), devices.back(), name, isNew, dev))
            return Fail(ec);
        if (std::error_code ec = dest.descend(name))
            return Fail(ec);
        devices.push_back(dev);
        if (std::error_code ec = isNew ? RememberMade() : std::error_code())
            return Fail(ec);
        return Next::Enter;
    }

    bool cannotEnter(DirChain&, const std::string&, std::error_code ec) override {
        error = ec;
        return false;
    }

    void left(DirChain&, const std::string&) override {
        devices.pop_back();
        if (std::error_code ec = dest.ascend())
            error = ec;
    }

    bool listingFailed(DirChain&, std::error_code ec) override {
        error = ec;
        return false;
    }

    std::error_code error;

private:
    Next Fail(std::error_code ec) {
        if (!ec && !error)
            return Next::Skip;
        if (!error)
            error = ec;
        return Next::Stop;
    }

    DirChain& dest;
    std::vector<dev_t> devices;  // of each folder of `dest`, for the clone cache
    std::set<std::pair<dev_t, ino_t>> made;
};

}  // namespace

std::error_code CopyIntoPlace(const std::string& source, int parent, const std::string& leaf) {
    struct stat src, place;
    if (::lstat(source.c_str(), &src) != 0 || ::fstat(parent, &place) != 0)
        return LastError();
    if (!S_ISDIR(src.st_mode))
        return CopyNonDirectory(AT_FDCWD, source.c_str(), src,
                                std::filesystem::path(source).filename().string(), parent,
                                place.st_dev, leaf);

    bool isNew;
    dev_t dev;
    if (std::error_code ec = PrepareFolder(src, parent, place.st_dev, leaf, isNew, dev))
        return ec;
    UniqueFd from = OpenDirAt(AT_FDCWD, source.c_str());
    UniqueFd to = OpenDirAt(parent, leaf.c_str());
    if (!from.valid() || !to.valid())
        return LastError();
    DirChain sourceChain(std::move(from), source), destChain(std::move(to), leaf);
    TreeCopy copy(destChain, dev);
    if (std::error_code ec = isNew ? copy.RememberMade() : std::error_code())
        return ec;
    std::error_code lost;
    WalkTree(sourceChain, copy, WalkOrder::AsMet, lost);
    return copy.error ? copy.error : lost;
}

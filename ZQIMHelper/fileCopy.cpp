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
#include <climits>
#include <filesystem>
#include <memory>
#include <set>
#include <utility>

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
    static unsigned counter = 0;
    for (int attempt = 0; attempt < 100; ++attempt) {
        name = ".zqim-tmp." + std::to_string(::getpid()) + "." + std::to_string(++counter);
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

#ifdef __APPLE__

// A temporary copy of `in` beside the destination: an APFS clone when the
// volume can (new blocks only as either side changes), else the data.
std::error_code MakeTemporaryCopy(int in, int dir, std::string& name, UniqueFd& out) {
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
    ec = MakeTemporary(name, [&](const char* candidate) {
        out = UniqueFd(::openat(dir, candidate,
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        return out.valid() ? 0 : -1;
    });
    if (ec)
        return ec;
    if (::fcopyfile(in, out.get(), nullptr, COPYFILE_DATA) != 0) {
        ec = LastError();
        ::unlinkat(dir, name.c_str(), 0);
    }
    return ec;
}

#else

// Copies the rest of `in` to `out`: a reflink where the file system shares
// blocks (XFS, btrfs), else in the kernel, else through a buffer.
std::error_code CopyData(int in, int out) {
    if (::ioctl(out, FICLONE, in) == 0)
        return {};
    if (!Unsupported(errno))
        return LastError();
    ::posix_fadvise(in, 0, 0, POSIX_FADV_SEQUENTIAL);
    bool copied = false;
    while (true) {
        const ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
        if (n == 0)
            return {};
        if (n > 0) {
            copied = true;
            continue;
        }
        if (errno == EINTR)
            continue;
        if (copied || !Unsupported(errno))
            return LastError();
        break;
    }
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

std::error_code MakeTemporaryCopy(int in, int dir, std::string& name, UniqueFd& out) {
    std::error_code ec = MakeTemporary(name, [&](const char* candidate) {
        out = UniqueFd(::openat(dir, candidate,
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        return out.valid() ? 0 : -1;
    });
    if (ec)
        return ec;
    if ((ec = CopyData(in, out.get()))) {
        out.reset();
        ::unlinkat(dir, name.c_str(), 0);
    }
    return ec;
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
std::error_code InstallFile(int srcDir, const char* srcName, int dstDir, const std::string& dstName,
                            const struct stat* old) {
    // A source swapped for a link since it was looked at is not followed.
    UniqueFd in(::openat(srcDir, srcName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat source;
    if (!in.valid() || ::fstat(in.get(), &source) != 0)
        return LastError();
    std::string temporary;
    UniqueFd out;
    if (std::error_code ec = MakeTemporaryCopy(in.get(), dstDir, temporary, out))
        return ec;
    // The owner first: a change of owner clears the set-id bits of the mode.
    const bool prepared = (!old || ::fchown(out.get(), old->st_uid, old->st_gid) == 0) &&
                          ::fchmod(out.get(), source.st_mode & 07777) == 0 &&
                          ::close(out.release()) == 0;
    return PutInPlace(prepared, dstDir, temporary, dstName);
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

// Copies a file or link to `dstName` in `dstDir`. `fileName` is the source's
// own name, under which a file goes into a folder that stands at its place.
std::error_code CopyNonDirectory(int srcDir, const char* srcName, const struct stat& src,
                                 const std::string& fileName, int dstDir,
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
        return InstallFile(srcDir, srcName, dstDir, dstName, exists ? &to : nullptr);

    UniqueFd into = OpenDirAt(dstDir, dstName.c_str());
    if (!into.valid())
        return LastError();
    if (std::error_code ec = StatAt(into.get(), fileName.c_str(), to, exists))
        return ec;
    if (exists && SameEntry(src, to))
        return ErrorOf(EEXIST);
    if (exists && !S_ISREG(to.st_mode) && !S_ISLNK(to.st_mode))
        return ErrorOf(ENOTSUP);
    return InstallFile(srcDir, srcName, into.get(), fileName, exists ? &to : nullptr);
}

// Makes `name` in `dir` a real folder for the source folder `src` to merge
// into: an existing folder stays, a link gives way, a new one gets the
// source's mode. `made` is set when the folder is new.
std::error_code PrepareFolder(const struct stat& src, int dir, const std::string& name,
                              bool& made) {
    made = false;
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
        if (S_ISDIR(to.st_mode))
            return {};
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
    explicit TreeCopy(DirChain& dest) : dest(dest) {}

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
            return Fail(CopyNonDirectory(src.fd(), name.c_str(), st, name, dest.fd(), name));
        if (made.count({st.st_dev, st.st_ino}))
            return Fail(ErrorOf(EINVAL));
        bool isNew;
        if (std::error_code ec = PrepareFolder(st, dest.fd(), name, isNew))
            return Fail(ec);
        if (std::error_code ec = dest.descend(name))
            return Fail(ec);
        if (std::error_code ec = isNew ? RememberMade() : std::error_code())
            return Fail(ec);
        return Next::Enter;
    }

    bool cannotEnter(DirChain&, const std::string&, std::error_code ec) override {
        error = ec;
        return false;
    }

    void left(DirChain&, const std::string&) override {
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
    std::set<std::pair<dev_t, ino_t>> made;
};

}  // namespace

std::error_code CopyIntoPlace(const std::string& source, int parent, const std::string& leaf) {
    struct stat src;
    if (::lstat(source.c_str(), &src) != 0)
        return LastError();
    if (!S_ISDIR(src.st_mode))
        return CopyNonDirectory(AT_FDCWD, source.c_str(), src,
                                std::filesystem::path(source).filename().string(), parent, leaf);

    bool isNew;
    if (std::error_code ec = PrepareFolder(src, parent, leaf, isNew))
        return ec;
    UniqueFd from = OpenDirAt(AT_FDCWD, source.c_str());
    UniqueFd to = OpenDirAt(parent, leaf.c_str());
    if (!from.valid() || !to.valid())
        return LastError();
    DirChain sourceChain(std::move(from), source), destChain(std::move(to), leaf);
    TreeCopy copy(destChain);
    if (std::error_code ec = isNew ? copy.RememberMade() : std::error_code())
        return ec;
    std::error_code lost;
    WalkTree(sourceChain, copy, WalkOrder::AsMet, lost);
    return copy.error ? copy.error : lost;
}

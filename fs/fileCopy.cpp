#include "fileCopy.h"

#include "copySupport.h"
#include "fileHandles.h"
#include "platform.h"
#include "treeWalk.h"
#include "underRoot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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
std::error_code StatIfThere(int dir, const char* name, struct stat& st, bool& exists) {
    const std::error_code ec = StatAt(dir, name, st);
    exists = !ec;
    if (exists || ec == std::errc::no_such_file_or_directory || ec == std::errc::not_a_directory)
        return {};
    return ec;
}

// The error of a call on a handle that returns 0 or -1 with errno.
std::error_code Outcome(int returned) {
    return returned == 0 ? std::error_code() : LastError();
}

// Renames the temporary entry over `name` unless preparing it failed
// (`prepared` holds that failure); on any failure the temporary entry goes
// and the failure is returned.
std::error_code PutInPlace(std::error_code prepared, int dir, const std::string& temporary,
                           const std::string& name) {
    const std::error_code ec =
        prepared ? prepared : RenameAt(dir, temporary.c_str(), dir, name.c_str());
    if (ec)
        RemoveFileAt(dir, temporary.c_str());
    return ec;
}

// Puts a copy of the file `srcName` in `srcDir` at `dstName` in `dstDir`,
// replacing what is there (whose owner the copy takes over, `old`).
std::error_code InstallFile(int srcDir, const char* srcName, int dstDir, dev_t dstDev,
                            const std::string& dstName, const struct stat* old) {
    // A source swapped for a link since it was looked at is not followed.
    UniqueFd in;
    struct stat source;
    if (std::error_code ec = OpenFileAt(srcDir, srcName, O_RDONLY | O_NOFOLLOW, in))
        return ec;
    if (::fstat(in.get(), &source) != 0)
        return LastError();
    std::string temporary;
    UniqueFd out;
    bool modeSet;
    // Unnamed files save small files a rename, but ext4 copies into them in
    // the kernel many times slower than into a named file: large files get
    // a temporary name.
    const bool unnamed = !old && source.st_size < (1 << 20);
    std::error_code ec = MakeTemporaryCopy(in.get(), source, dstDir, dstDev, unnamed, temporary,
                                           out, modeSet);
    if (ec)
        return ec;
    // The owner first: a change of owner clears the set-id bits of the mode.
    std::error_code prepared;
    if (old)
        prepared = Outcome(::fchown(out.get(), old->st_uid, old->st_gid));
    if (!prepared && !modeSet)
        prepared = Outcome(::fchmod(out.get(), source.st_mode & 07777));
    if (temporary.empty()) {
        // Unnamed: it appears under its name whole, or not at all. Should
        // something have taken the name meanwhile, it is replaced.
        if (prepared)
            return prepared;
        ec = NameUnnamedFile(out.get(), dstDir, dstName.c_str());
        if (ec != std::errc::file_exists)
            return ec;
        if ((ec = MakeTemporary(temporary, [&](const char* candidate) {
                 return NameUnnamedFile(out.get(), dstDir, candidate);
             })))
            return ec;
    }
    if (!prepared)
        prepared = Outcome(::close(out.release()));
    return PutInPlace(prepared, dstDir, temporary, dstName);
}

// Puts a copy of the link `srcName` at `dstName`, replacing what is there.
std::error_code InstallLink(int srcDir, const char* srcName, int dstDir, const std::string& dstName,
                            const struct stat* old) {
    std::string target;
    if (std::error_code ec = ReadLinkAt(srcDir, srcName, target))
        return ec;
    std::string temporary;
    if (std::error_code ec = MakeTemporary(temporary, [&](const char* candidate) {
            return MakeLinkAt(target.c_str(), dstDir, candidate);
        }))
        return ec;
    const std::error_code prepared =
        old ? ChangeOwnerAt(dstDir, temporary.c_str(), old->st_uid, old->st_gid)
            : std::error_code();
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
    if (std::error_code ec = StatIfThere(dstDir, dstName.c_str(), to, exists))
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
    UniqueFd into;
    if (std::error_code ec = OpenDirAt(dstDir, dstName.c_str(), into))
        return ec;
    if (std::error_code ec = StatIfThere(into.get(), fileName.c_str(), to, exists))
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
    if (std::error_code ec = StatIfThere(dir, name.c_str(), to, exists))
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
        if (std::error_code ec = RemoveFileAt(dir, name.c_str()))
            return ec;
    }
    if (std::error_code ec = MakeDirAt(dir, name.c_str(), src.st_mode & 07777))
        return ec;
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
        if (std::error_code ec = StatAt(src.fd(), name.c_str(), st))
            return Fail(ec);
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
    // The source is reached as every path a command names: a folder on its
    // way that someone else swapped for a link is refused, not followed.
    UniqueFd srcDir;
    std::string srcName;
    if (std::error_code ec = OpenEntryParent(source, srcDir, srcName))
        return ec;
    struct stat src, place;
    if (::fstatat(srcDir.get(), srcName.c_str(), &src, AT_SYMLINK_NOFOLLOW) != 0 ||
        ::fstat(parent, &place) != 0)
        return LastError();
    if (!S_ISDIR(src.st_mode))
        return CopyNonDirectory(srcDir.get(), srcName.c_str(), src, srcName, parent,
                                place.st_dev, leaf);

    bool isNew;
    dev_t dev;
    if (std::error_code ec = PrepareFolder(src, parent, place.st_dev, leaf, isNew, dev))
        return ec;
    UniqueFd from, to;
    if (std::error_code ec = OpenDirAt(srcDir.get(), srcName.c_str(), from))
        return ec;
    if (std::error_code ec = OpenDirAt(parent, leaf.c_str(), to))
        return ec;
    DirChain sourceChain(std::move(from), source), destChain(std::move(to), leaf);
    TreeCopy copy(destChain, dev);
    if (std::error_code ec = isNew ? copy.RememberMade() : std::error_code())
        return ec;
    std::error_code lost;
    WalkTree(sourceChain, copy, WalkOrder::AsMet, lost);
    return copy.error ? copy.error : lost;
}

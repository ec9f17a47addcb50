#include "fileCopy.h"

#include "copySupport.h"
#include "fileHandles.h"
#include "platform.h"
#include "treeWalk.h"
#include "trust.h"
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

// Opens the source file `srcName` in `srcDir`, which the walk saw as `seen`,
// as what it must be: the same regular file. A link is not followed and a
// fifo does not block the open; either, or another file, is a changed
// source. `status` is the file's own.
std::error_code OpenSourceFile(int srcDir, const char* srcName, const struct stat& seen,
                               UniqueFd& in, struct stat& status) {
    std::error_code ec =
        OpenFileAt(srcDir, srcName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, in);
    if (ec == std::errc::too_many_symbolic_link_levels || ec == std::errc::no_such_device_or_address)
        return ErrorOf(CopyError::SourceChanged);  // a link; a socket
    if (ec)
        return ec;
    if (::fstat(in.get(), &status) != 0)
        return LastError();
    if (!S_ISREG(status.st_mode) || !SameEntry(status, seen))
        return ErrorOf(CopyError::SourceChanged);
    // A file with more than one name may be anyone's file that a user who
    // can write the source folder linked into it: never read from there.
    if (seen.st_nlink > 1 || status.st_nlink > 1) {
        struct stat folder;
        if (::fstat(srcDir, &folder) != 0)
            return LastError();
        if (OthersMayWrite(folder))
            return ErrorOf(EACCES);
    }
    return {};
}

// Puts a copy of the file `srcName` in `srcDir` (seen by the walk as `seen`)
// at `dstName` in `dstDir`, replacing what is there (whose owner the copy
// takes over, `old`).
std::error_code InstallFile(int srcDir, const char* srcName, const struct stat& seen, int dstDir,
                            dev_t dstDev, const std::string& dstName, const struct stat* old) {
    UniqueFd in;
    struct stat source;
    if (std::error_code ec = OpenSourceFile(srcDir, srcName, seen, in, source))
        return ec;
    const bool trusted = IsTrustedOwner(source.st_uid);
    struct stat copied = source;
    copied.st_mode = (source.st_mode & ~mode_t(07777)) | CopiedMode(source);
    std::string temporary;
    UniqueFd out;
    bool modeSet, carried;
    // Unnamed files save small files a rename, but ext4 copies into them in
    // the kernel many times slower than into a named file: large files get
    // a temporary name.
    const bool unnamed = !old && source.st_size < (1 << 20);
    std::error_code ec = MakeTemporaryCopy(in.get(), copied, dstDir, dstDev, unnamed, temporary,
                                           out, modeSet, carried);
    if (ec)
        return ec;
    // The owner first: a change of owner clears the set-id bits of the mode
    // and a file's capabilities. The times last: nothing may touch them after.
    std::error_code prepared;
    if (old)
        prepared = Outcome(::fchown(out.get(), old->st_uid, old->st_gid));
    if (!prepared && !modeSet)
        prepared = Outcome(::fchmod(out.get(), copied.st_mode & 07777));
    if (!prepared)
        prepared = CopyAttributes(in.get(), source, out.get(), Held::File, trusted, carried);
    if (!prepared && !carried)
        prepared = CopyTimes(out.get(), Held::File, source);
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

// Gives the new link `temporary` in `dir` the owner, attributes and times
// it is to have, through a handle on it: whatever may have taken its name
// meanwhile is not touched.
std::error_code PrepareLink(int source, const struct stat& link, uid_t linkOwner, int dir,
                            const std::string& temporary, const struct stat* old) {
    UniqueFd made;
    struct stat st;
    if (std::error_code ec = OpenLinkItself(dir, temporary.c_str(), made))
        return ec;
    if (::fstat(made.get(), &st) != 0)
        return LastError();
    if (!S_ISLNK(st.st_mode))
        return ErrorOf(CopyError::TemporaryReplaced);
    // A link of anyone else's stays theirs, so that no walk or path below
    // the root ever follows it; otherwise it is the helper's, or keeps the
    // owner of the link it replaces.
    const bool trusted = IsTrustedOwner(linkOwner);
    std::error_code ec;
    if (!trusted)
        ec = ChangeHeldLinkOwner(made.get(), linkOwner, link.st_gid);
    else if (old)
        ec = ChangeHeldLinkOwner(made.get(), old->st_uid, old->st_gid);
    if (!ec)
        ec = CopyAttributes(source, link, made.get(), Held::Link, trusted, false);
    if (!ec)
        ec = CopyTimes(made.get(), Held::Link, link);
    return ec;
}

// Puts a copy of the link `srcName` (seen by the walk as `seen`) at
// `dstName`, replacing what is there. The link is read through a handle on
// it, which must hold the link the walk saw.
std::error_code InstallLink(int srcDir, const char* srcName, const struct stat& seen, int dstDir,
                            const std::string& dstName, const struct stat* old) {
    UniqueFd source;
    struct stat link;
    if (std::error_code ec = OpenLinkItself(srcDir, srcName, source))
        return ec;
    if (::fstat(source.get(), &link) != 0)
        return LastError();
    if (!S_ISLNK(link.st_mode) || !SameEntry(link, seen))
        return ErrorOf(CopyError::SourceChanged);
    std::string target;
    uid_t owner;
    if (std::error_code ec = ReadHeldLink(source.get(), srcDir, srcName, link, target, owner))
        return ec;
    std::string temporary;
    if (std::error_code ec = MakeTemporary(temporary, [&](const char* candidate) {
            return MakeLinkAt(target.c_str(), dstDir, candidate);
        }))
        return ec;
    return PutInPlace(PrepareLink(source.get(), link, owner, dstDir, temporary, old), dstDir,
                      temporary, dstName);
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
                                             : InstallLink(srcDir, srcName, src, dstDir, dstName,
                                                           exists ? &to : nullptr);
    if (!exists || !S_ISDIR(to.st_mode))
        return InstallFile(srcDir, srcName, src, dstDir, dstDev, dstName, exists ? &to : nullptr);

    const dev_t intoDev = to.st_dev;
    UniqueFd into;
    if (std::error_code ec = OpenDirAt(dstDir, dstName.c_str(), into))
        return ec;
    SweepLeftovers(into.get());
    if (std::error_code ec = StatIfThere(into.get(), fileName.c_str(), to, exists))
        return ec;
    if (exists && SameEntry(src, to))
        return ErrorOf(EEXIST);
    if (exists && !S_ISREG(to.st_mode) && !S_ISLNK(to.st_mode))
        return ErrorOf(ENOTSUP);
    return InstallFile(srcDir, srcName, src, into.get(), intoDev, fileName,
                       exists ? &to : nullptr);
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

// Gives the folder `to`, which the copy made for the source folder `name` in
// `srcDir` (seen by the walk as `seen`), that folder's attributes and times,
// once its contents are in place: the times last, as nothing may change
// them after. The source folder is opened once more and must be the one
// seen.
std::error_code FinishFolder(int srcDir, const std::string& name, const struct stat& seen,
                             int to) {
    UniqueFd from;
    struct stat st;
    if (std::error_code ec = OpenDirAt(srcDir, name.c_str(), from))
        return ec == std::errc::not_a_directory || ec == std::errc::too_many_symbolic_link_levels
                   ? ErrorOf(CopyError::SourceChanged)
                   : ec;
    if (::fstat(from.get(), &st) != 0)
        return LastError();
    if (!SameEntry(st, seen))
        return ErrorOf(CopyError::SourceChanged);
    if (std::error_code ec =
            CopyAttributes(from.get(), st, to, Held::Folder, IsTrustedOwner(st.st_uid), false))
        return ec;
    // The times the walk saw, before its listing touched the access time.
    return CopyTimes(to, Held::Folder, seen);
}

// Copies everything below a source folder into the destination folder that
// `dest` holds, level by level in step with the source's walk.
class TreeCopy : public TreeVisitor {
public:
    TreeCopy(DirChain& dest, dev_t destDev) : dest(dest), levels{Level{destDev, false, {}}} {}

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
        if (error)
            return Next::Stop;
        const std::string& name = entry.name;
        struct stat st;
        if (std::error_code ec = StatAt(src.fd(), name.c_str(), st))
            return Fail(ec);
        if (!S_ISDIR(st.st_mode))
            return Fail(CopyNonDirectory(src.fd(), name.c_str(), st, name, dest.fd(),
                                         levels.back().dev, name));
        if (made.count({st.st_dev, st.st_ino}))
            return Fail(ErrorOf(EINVAL));
        bool isNew;
        dev_t dev;
        if (std::error_code ec = PrepareFolder(st, dest.fd(), levels.back().dev, name, isNew, dev))
            return Fail(ec);
        if (std::error_code ec = dest.descend(name))
            return Fail(ec);
        levels.push_back(Level{dev, isNew, st});
        if (!isNew)
            SweepLeftovers(dest.fd());
        if (std::error_code ec = isNew ? RememberMade() : std::error_code())
            return Fail(ec);
        return Next::Enter;
    }

    bool cannotEnter(DirChain&, const std::string&, std::error_code ec) override {
        error = ec;
        return false;
    }

    void left(DirChain& src, const std::string& name) override {
        const Level level = levels.back();
        levels.pop_back();
        // Only a folder the copy made takes the source's attributes: one
        // that was there keeps its own, as it keeps its owner and mode.
        if (level.made && !error)
            error = FinishFolder(src.fd(), name, level.source, dest.fd());
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

    // A folder of `dest`: its device (for the clone cache), whether the copy
    // made it, and its source as the walk saw it.
    struct Level {
        dev_t dev;
        bool made;
        struct stat source;
    };

    DirChain& dest;
    std::vector<Level> levels;
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
    SweepLeftovers(parent);
    // A file is read through the handle of its folder, where it must be what
    // was seen.
    if (!S_ISDIR(src.st_mode))
        return CopyNonDirectory(srcDir.get(), srcName.c_str(), src, srcName, parent,
                                place.st_dev, leaf);

    bool isNew;
    dev_t dev;
    if (std::error_code ec = PrepareFolder(src, parent, place.st_dev, leaf, isNew, dev))
        return ec;
    UniqueFd from, to;
    struct stat seen;
    if (std::error_code ec = OpenDirAt(srcDir.get(), srcName.c_str(), from))
        return ec;
    if (::fstat(from.get(), &seen) != 0)
        return LastError();
    if (!SameEntry(seen, src))
        return ErrorOf(CopyError::SourceChanged);
    if (std::error_code ec = OpenDirAt(parent, leaf.c_str(), to))
        return ec;
    if (!isNew)
        SweepLeftovers(to.get());
    DirChain sourceChain(std::move(from), source), destChain(std::move(to), leaf);
    TreeCopy copy(destChain, dev);
    if (std::error_code ec = isNew ? copy.RememberMade() : std::error_code())
        return ec;
    std::error_code lost;
    WalkTree(sourceChain, copy, WalkOrder::AsMet, lost);
    if (copy.error || lost)
        return copy.error ? copy.error : lost;
    if (!isNew)
        return {};
    if (std::error_code ec = CopyAttributes(sourceChain.fd(), seen, destChain.fd(), Held::Folder,
                                            IsTrustedOwner(seen.st_uid), false))
        return ec;
    return CopyTimes(destChain.fd(), Held::Folder, seen);
}

#include "fileHandles.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

void UniqueFd::reset(int fd) {
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = fd;
}

std::error_code ErrorOf(int error) {
    return std::error_code(error, std::generic_category());
}

std::error_code LastError() {
    return ErrorOf(errno);
}

// The result of a call that returns 0 or -1 with errno.
static std::error_code Outcome(int returned) {
    return returned == 0 ? std::error_code() : LastError();
}

std::error_code OpenFileAt(int dir, const char* name, int flags, UniqueFd& out, mode_t mode) {
    out = UniqueFd(::openat(dir, name, flags | O_CLOEXEC, mode));
    return out.valid() ? std::error_code() : LastError();
}

std::error_code OpenDirAt(int dir, const char* name, UniqueFd& out, bool follow) {
    return OpenFileAt(dir, name, O_RDONLY | O_DIRECTORY | (follow ? 0 : O_NOFOLLOW), out);
}

std::error_code StatAt(int dir, const char* name, struct stat& st, bool follow) {
    return Outcome(::fstatat(dir, name, &st, follow ? 0 : AT_SYMLINK_NOFOLLOW));
}

std::error_code RemoveFileAt(int dir, const char* name) {
    return Outcome(::unlinkat(dir, name, 0));
}

std::error_code RemoveDirAt(int dir, const char* name) {
    return Outcome(::unlinkat(dir, name, AT_REMOVEDIR));
}

std::error_code MakeDirAt(int dir, const char* name, mode_t mode) {
    return Outcome(::mkdirat(dir, name, mode));
}

std::error_code MakeLinkAt(const char* target, int dir, const char* name) {
    return Outcome(::symlinkat(target, dir, name));
}

std::error_code ReadLinkAt(int dir, const char* name, std::string& target) {
    char text[PATH_MAX];
    const ssize_t length = ::readlinkat(dir, name, text, sizeof text - 1);
    if (length < 0)
        return LastError();
    target.assign(text, static_cast<std::size_t>(length));
    return {};
}

std::error_code RenameAt(int fromDir, const char* from, int toDir, const char* to) {
    return Outcome(::renameat(fromDir, from, toDir, to));
}

std::error_code ChangeOwnerAt(int dir, const char* name, uid_t user, gid_t group) {
    return Outcome(::fchownat(dir, name, user, group, AT_SYMLINK_NOFOLLOW));
}

std::error_code MarkCloseOnExec(int fd) {
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0)
        return LastError();
    return (flags & FD_CLOEXEC) ? std::error_code() : Outcome(::fcntl(fd, F_SETFD, flags | FD_CLOEXEC));
}

std::error_code WriteAll(int fd, const std::string& data) {
    for (std::size_t done = 0; done < data.size();) {
        const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return LastError();
        if (n == 0)  // a write that takes nothing: the disk is full
            return ErrorOf(ENOSPC);
        done += static_cast<std::size_t>(n);
    }
    return {};
}

std::error_code ReadSome(int fd, char* buffer, std::size_t size, std::size_t& got) {
    got = 0;
    while (true) {
        const ssize_t n = ::read(fd, buffer, size);
        if (n >= 0) {
            got = static_cast<std::size_t>(n);
            return {};
        }
        if (errno != EINTR)
            return LastError();
    }
}

std::error_code ChangeOwnerOf(int fd, uid_t user, gid_t group) {
    return Outcome(::fchown(fd, user, group));
}

static EntryType TypeOfMode(mode_t mode) {
    if (S_ISDIR(mode))
        return EntryType::Directory;
    return S_ISLNK(mode) ? EntryType::Link : EntryType::Other;
}

static bool IsDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// A listing of `dir` on a descriptor of its own: closedir() closes that one,
// and the caller keeps using `dir` to act on what was listed.
static DIR* OpenListing(int dir) {
    const int listing = ::fcntl(dir, F_DUPFD_CLOEXEC, 0);
    if (listing < 0)
        return nullptr;
    DIR* stream = ::fdopendir(listing);
    if (!stream) {
        const int error = errno;
        ::close(listing);
        errno = error;
        return nullptr;
    }
    // A duplicate shares the offset of `dir`, which is fresh: the walks list
    // each handle they open once.
    return stream;
}

std::error_code DirIsEmpty(int dir, bool& empty) {
    empty = false;
    DIR* stream = OpenListing(dir);
    if (!stream)
        return LastError();
    std::error_code ec;
    const struct dirent* entry;
    do {
        errno = 0;
        entry = ::readdir(stream);
    } while (entry && IsDotOrDotDot(entry->d_name));
    if (!entry && errno != 0)
        ec = LastError();
    else
        empty = !entry;
    ::closedir(stream);
    return ec;
}

std::error_code ReadEntries(int dir, std::vector<DirEntry>& entries) {
    DIR* stream = OpenListing(dir);
    if (!stream)
        return LastError();
    std::error_code ec;
    while (true) {
        errno = 0;
        const struct dirent* entry = ::readdir(stream);
        if (!entry) {
            if (errno != 0)
                ec = LastError();
            break;
        }
        const char* name = entry->d_name;
        if (IsDotOrDotDot(name))
            continue;
        EntryType type = EntryType::Other;
        switch (entry->d_type) {
        case DT_DIR:
            type = EntryType::Directory;
            break;
        case DT_LNK:
            type = EntryType::Link;
            break;
        case DT_UNKNOWN: {
            struct stat st;
            type = ::fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) == 0 ? TypeOfMode(st.st_mode)
                                                                      : EntryType::Unknown;
            break;
        }
        default:
            break;
        }
        entries.push_back(DirEntry{name, type});
    }
    ::closedir(stream);
    return ec;
}

std::error_code RemoveEntryAt(int dir, const char* name, bool& removed) {
    removed = false;
    // Unlink first, as remove(3) does: most entries are files. A directory
    // is refused with EISDIR (Linux) or EPERM (macOS), and then rmdir'd.
    if (::unlinkat(dir, name, 0) == 0) {
        removed = true;
        return {};
    }
    int error = errno;
    if (error == EISDIR || error == EPERM) {
        if (::unlinkat(dir, name, AT_REMOVEDIR) == 0) {
            removed = true;
            return {};
        }
        // EPERM may be a real refusal of a file: keep that, not "not a dir".
        if (errno != ENOTDIR)
            error = errno;
    }
    if (error == ENOENT)
        return {};
    return ErrorOf(error);
}

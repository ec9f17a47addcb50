#include "fileHandles.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
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

UniqueFd OpenDirAt(int dir, const char* name, bool follow) {
    return UniqueFd(
        ::openat(dir, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW)));
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
        if (errno == ENOTDIR)
            errno = error;
        error = errno;
    }
    if (error == ENOENT)
        return {};
    return ErrorOf(error);
}

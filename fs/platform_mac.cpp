// The platform calls on macOS: sysctl for a process's start time and user,
// proc_pidinfo for its open descriptors, O_SYMLINK and freadlink for a link
// itself, APFS clones and fcopyfile for file data and extended attributes,
// the acl(3) calls and fchflags for what else a copy keeps, arc4random for
// temporary names. There are no unnamed files: every temporary file has a
// name.

#include "platform.h"

#include "copySupport.h"

#include <Availability.h>
#include <copyfile.h>
#include <fcntl.h>
#include <libproc.h>
#include <stdlib.h>
#include <sys/acl.h>
#include <sys/clonefile.h>
#include <sys/stat.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <sstream>
#include <vector>

// ------------------------------------------------------------ processes

// The kernel's record of `pid`, or false when there is no such process.
static bool ReadProcessRecord(unsigned long pid, struct kinfo_proc& info) {
    // The kernel takes an int: a larger number is no process, not an alias
    // of the small one its low bits happen to spell.
    if (pid > static_cast<unsigned long>(INT_MAX))
        return false;
    std::memset(&info, 0, sizeof info);
    size_t size = sizeof info;
    int name[4] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, static_cast<int>(pid)};
    // A PID without a process still succeeds but fills nothing: a zero
    // start time means "no such process".
    return sysctl(name, 4, &info, &size, nullptr, 0) == 0 && info.kp_proc.p_starttime.tv_sec != 0;
}

std::string ReadProcessStartTime(unsigned long pid) {
    struct kinfo_proc info;
    if (!ReadProcessRecord(pid, info))
        return "";
    std::ostringstream text;
    text << info.kp_proc.p_starttime.tv_usec << "-" << info.kp_proc.p_starttime.tv_sec;
    return text.str();
}

bool ReadProcessRealUser(unsigned long pid, uid_t& user) {
    struct kinfo_proc info;
    if (!ReadProcessRecord(pid, info))
        return false;
    user = info.kp_eproc.e_pcred.p_ruid;
    return true;
}

void MarkDescriptorsCloseOnExec(int from) {
    // The kernel's own list of the descriptors, sockets and pipes included.
    // Asked without a buffer, it says how much room the list needs; a few
    // more entries leave room for any opened in between.
    const int needed = ::proc_pidinfo(::getpid(), PROC_PIDLISTFDS, 0, nullptr, 0);
    if (needed > 0) {
        std::vector<struct proc_fdinfo> open(static_cast<std::size_t>(needed) / PROC_PIDLISTFD_SIZE + 16);
        const int filled = ::proc_pidinfo(::getpid(), PROC_PIDLISTFDS, 0, open.data(),
                                          static_cast<int>(open.size() * PROC_PIDLISTFD_SIZE));
        if (filled > 0) {
            const std::size_t count = static_cast<std::size_t>(filled) / PROC_PIDLISTFD_SIZE;
            for (std::size_t i = 0; i < count; ++i)
                if (open[i].proc_fd >= from)
                    MarkCloseOnExec(open[i].proc_fd);
            return;
        }
    }
    // Every number the process may hold.
    const long limit = ::sysconf(_SC_OPEN_MAX);
    for (int fd = from; fd < (limit > 0 && limit < INT_MAX ? limit : OPEN_MAX); ++fd)
        MarkCloseOnExec(fd);
}

// ------------------------------------------------------ symbolic links

std::error_code OpenLinkItself(int dir, const char* name, UniqueFd& out) {
    // O_SYMLINK opens the link itself; O_NONBLOCK keeps a fifo that took the
    // name from blocking the open.
    return OpenFileAt(dir, name, O_RDONLY | O_SYMLINK | O_NONBLOCK, out);
}

std::error_code ChangeOwnerOfHeld(int entry, uid_t user, gid_t group) {
    // A handle opened with O_SYMLINK is the link's own: fchown changes it.
    return ::fchown(entry, user, group) == 0 ? std::error_code() : LastError();
}

std::error_code ReadHeldLink(int link, int dir, const char* name, const struct stat& st,
                             std::string& target, uid_t& owner) {
    owner = st.st_uid;
    char text[PATH_MAX];
    ssize_t length;
#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 130000
    if (__builtin_available(macOS 13.0, *)) {
        length = ::freadlink(link, text, sizeof text);
    } else
#endif
    {
        (void)link;
        // Before freadlink, read by name and make sure the name still holds
        // the link that was judged.
        length = ::readlinkat(dir, name, text, sizeof text);
        struct stat again;
        if (length >= 0) {
            if (::fstatat(dir, name, &again, AT_SYMLINK_NOFOLLOW) != 0 ||
                again.st_dev != st.st_dev || again.st_ino != st.st_ino)
                return ErrorOf(EACCES);
            owner = again.st_uid;
        }
    }
    if (length < 0)
        return LastError();
    if (static_cast<std::size_t>(length) >= sizeof text)
        return ErrorOf(ENAMETOOLONG);
    target.assign(text, static_cast<std::size_t>(length));
    return {};
}

// ------------------------------------------------------ copying file data

// Flags a copy never takes over: the system flags, which root must not copy
// blindly (they claim the system's protection or make the copy immutable),
// and the owner's immutable and append-only flags, under which the copy
// could neither be renamed into place nor replaced by the next update.
static constexpr uint32_t kFlagsNotKept = SF_SETTABLE | UF_IMMUTABLE | UF_APPEND;
// The owner's flags a copy keeps (UF_HIDDEN, UF_NODUMP, ...): not those that
// only the file system sets (a compressed file's, a tracked file's, the data
// vault's).
static constexpr uint32_t kFlagsKept =
    UF_SETTABLE & ~(kFlagsNotKept | UF_COMPRESSED | UF_TRACKED | UF_DATAVAULT);

#ifdef COPYFILE_DATA_SPARSE
// Holes stay holes where both volumes have them.
static constexpr copyfile_flags_t kCopyData = COPYFILE_DATA | COPYFILE_DATA_SPARSE;
#else
static constexpr copyfile_flags_t kCopyData = COPYFILE_DATA;
#endif

// The volume offers no such attribute: skipped, as cp -a skips it.
static bool NotOffered(int error) {
    return error == ENOTSUP || error == EOPNOTSUPP;
}

// A clone carries every flag of its source: those a copy does not keep go
// before anything else is done to it (an immutable file takes no new owner
// or mode, nor a rename).
static std::error_code ClearFlagsNotKept(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0)
        return LastError();
    if ((st.st_flags & kFlagsNotKept) == 0 || ::fchflags(fd, st.st_flags & ~kFlagsNotKept) == 0)
        return {};
    return LastError();
}

// An APFS clone where the volume can (new blocks only as either side
// changes), else the data; the file always gets a temporary name.
std::error_code MakeTemporaryCopy(int in, const struct stat& source, int dir, dev_t,
                                  bool, std::string& name, UniqueFd& out, bool& modeSet,
                                  bool& carried) {
    modeSet = false;
    carried = false;
    // The clone is owned as a file the helper creates, like a plain copy.
    std::error_code ec = MakeTemporary(name, [&](const char* candidate) {
        return ::fclonefileat(in, dir, candidate, CLONE_NOOWNERCOPY) == 0 ? std::error_code()
                                                                          : LastError();
    });
    if (!ec) {
        if (!(ec = OpenFileAt(dir, name.c_str(), O_RDONLY | O_NOFOLLOW, out)) &&
            !(ec = ClearFlagsNotKept(out.get()))) {
            carried = true;
            return {};
        }
        out.reset();
        RemoveFileAt(dir, name.c_str());
        return ec;
    }
    if (!Unsupported(ec.value()))
        return ec;
    const mode_t mode = source.st_mode & 07777;
    modeSet = CreatableWith(mode);
    if ((ec = CreateTemporary(dir, modeSet ? mode : 0600, name, out)))
        return ec;
    if (::fcopyfile(in, out.get(), nullptr, kCopyData) != 0) {
        ec = LastError();
        out.reset();
        RemoveFileAt(dir, name.c_str());
    }
    return ec;
}

std::error_code NameUnnamedFile(int, int, const char*) {
    return ErrorOf(ENOTSUP);  // never asked: MakeTemporaryCopy always names the file
}

std::error_code FillRandom(unsigned char* bytes, std::size_t size) {
    ::arc4random_buf(bytes, size);
    return {};
}

// --------------------------------------- what a copy keeps besides data

// Gives `to` the ACL of `from` (the same handle, for a clone's own) without
// the entries that allow anything: what is left only denies.
static std::error_code CopyDenyingEntries(int from, int to) {
    acl_t acl = ::acl_get_fd_np(from, ACL_TYPE_EXTENDED);
    if (!acl)  // ENOENT: it has none
        return errno == ENOENT || NotOffered(errno) ? std::error_code() : LastError();
    bool dropped = false;
    std::error_code ec;
    for (bool found = true; found && !ec;) {
        found = false;
        acl_entry_t entry;
        for (int id = ACL_FIRST_ENTRY; ::acl_get_entry(acl, id, &entry) == 0; id = ACL_NEXT_ENTRY) {
            acl_tag_t tag;
            if (::acl_get_tag_type(entry, &tag) == 0 && tag == ACL_EXTENDED_ALLOW) {
                found = true;
                break;
            }
        }
        if (found && ::acl_delete_entry(acl, entry) != 0)
            ec = LastError();
        dropped = dropped || found;
    }
    if (!ec && (from != to || dropped) && ::acl_set_fd_np(to, acl, ACL_TYPE_EXTENDED) != 0 &&
        !NotOffered(errno))
        ec = LastError();
    ::acl_free(acl);
    return ec;
}

// Extended attributes grant nothing by themselves on macOS: every one is
// kept (com.apple.quarantine as the source has it). The ACL and the flags
// are the owner's to give: a trusted owner's are kept, anyone else's ACL
// only where it denies. fcopyfile's COPYFILE_STAT is not used: it would set
// the source's owner, and its flags and times before the helper's own.
std::error_code CopyAttributes(int from, const struct stat& source, int to, Held,
                               bool trusted, bool carried) {
    if (!carried) {
        if (::fcopyfile(from, to, nullptr, COPYFILE_XATTR | (trusted ? COPYFILE_ACL : 0)) != 0 &&
            !NotOffered(errno))
            return LastError();
        const uint32_t flags = source.st_flags & kFlagsKept;
        if (flags != 0 && ::fchflags(to, flags) != 0 && !NotOffered(errno))
            return LastError();
    }
    return trusted ? std::error_code() : CopyDenyingEntries(carried ? to : from, to);
}

std::error_code CopyTimes(int to, Held, const struct stat& source) {
    // A link is held open itself (O_SYMLINK): its own times are set.
    const struct timespec times[2] = {source.st_atimespec, source.st_mtimespec};
    return ::futimens(to, times) == 0 ? std::error_code() : LastError();
}

std::error_code ChangeHeldLinkOwner(int link, uid_t user, gid_t group) {
    return ::fchown(link, user, group) == 0 ? std::error_code() : LastError();
}

// The platform calls on macOS: sysctl for a process's start time and user,
// proc_pidinfo for its open descriptors, O_SYMLINK and freadlink for a link
// itself, APFS clones and fcopyfile for file data.
// There are no unnamed files: every temporary file has a name.

#include "platform.h"

#include "copySupport.h"

#include <Availability.h>
#include <copyfile.h>
#include <fcntl.h>
#include <libproc.h>
#include <sys/clonefile.h>
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

// An APFS clone where the volume can (new blocks only as either side
// changes), else the data; the file always gets a temporary name.
std::error_code MakeTemporaryCopy(int in, const struct stat& source, int dir, dev_t,
                                  bool, std::string& name, UniqueFd& out, bool& modeSet) {
    modeSet = false;
    // The clone is owned as a file the helper creates, like a plain copy.
    std::error_code ec = MakeTemporary(name, [&](const char* candidate) {
        return ::fclonefileat(in, dir, candidate, CLONE_NOOWNERCOPY) == 0 ? std::error_code()
                                                                          : LastError();
    });
    if (!ec) {
        if (!(ec = OpenFileAt(dir, name.c_str(), O_RDONLY | O_NOFOLLOW, out)))
            return {};
        RemoveFileAt(dir, name.c_str());
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
        RemoveFileAt(dir, name.c_str());
    }
    return ec;
}

std::error_code NameUnnamedFile(int, int, const char*) {
    return ErrorOf(ENOTSUP);  // never asked: MakeTemporaryCopy always names the file
}

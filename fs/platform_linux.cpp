// The platform calls on Linux: /proc for a process's start time, user and
// open descriptors, O_PATH for a link itself, reflinks and copy_file_range
// for file data, O_TMPFILE for an unnamed file.

#include "platform.h"

#include "copySupport.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <limits>
#include <memory>
#include <set>
#include <sstream>
#include <utility>

// ------------------------------------------------------------ processes

// The whole of a small file such as those under /proc, read through a
// descriptor of our own (close-on-exec, like every other); empty when it
// cannot be read.
static std::string ReadSmallFile(const std::string& path) {
    UniqueFd file;
    std::string text;
    if (OpenFileAt(AT_FDCWD, path.c_str(), O_RDONLY, file))
        return text;
    char buffer[4096];
    std::size_t got;
    while (!ReadSome(file.get(), buffer, sizeof buffer, got) && got > 0)
        text.append(buffer, got);
    return text;
}

// Seconds since the epoch at which the kernel booted ("btime" of /proc/stat).
static long long BootTime() {
    std::istringstream stat(ReadSmallFile("/proc/stat"));
    std::string key;
    long long value = 0;
    while (stat >> key) {
        if (key == "btime" && stat >> value)
            return value;
        stat.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return 0;
}

std::string ReadProcessStartTime(unsigned long pid) {
    const std::string record = ReadSmallFile("/proc/" + std::to_string(pid) + "/stat");
    // The command name (field 2) may hold blanks and parentheses; the fields
    // after its closing parenthesis start with field 3, the state. The start
    // time, in clock ticks since boot, is field 22.
    const std::size_t close = record.rfind(')');
    if (close == std::string::npos)
        return "";
    std::istringstream fields(record.substr(close + 1));
    std::string field;
    for (int i = 3; i <= 22 && fields >> field; ++i) {
    }
    if (!fields)
        return "";
    static const long long bootTime = BootTime();
    static const long long ticksPerSecond = sysconf(_SC_CLK_TCK);
    const unsigned long long ticks = std::strtoull(field.c_str(), nullptr, 10);
    const long long seconds = bootTime + static_cast<long long>(ticks / ticksPerSecond);
    const long long micros =
        static_cast<long long>(ticks % ticksPerSecond) * (1000000 / ticksPerSecond);
    if (seconds == 0)
        return "";
    return std::to_string(micros) + "-" + std::to_string(seconds);
}

bool ReadProcessRealUser(unsigned long pid, uid_t& user) {
    // "Uid:" is followed by the real, effective, saved and file-system ids.
    std::istringstream status(ReadSmallFile("/proc/" + std::to_string(pid) + "/status"));
    for (std::string key; status >> key;) {
        if (key != "Uid:") {
            status.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
            continue;
        }
        unsigned long long id;
        if (!(status >> id))
            return false;
        user = static_cast<uid_t>(id);
        return true;
    }
    return false;
}

void MarkDescriptorsCloseOnExec(int from) {
    UniqueFd listing;
    std::vector<DirEntry> open;
    if (!OpenDirAt(AT_FDCWD, "/proc/self/fd", listing, true) &&
        !ReadEntries(listing.get(), open)) {
        for (const DirEntry& entry : open) {
            const int fd = std::atoi(entry.name.c_str());
            if (fd >= from)
                MarkCloseOnExec(fd);
        }
        return;
    }
    // Without /proc: every number the process may hold.
    const long limit = ::sysconf(_SC_OPEN_MAX);
    for (int fd = from; fd < (limit > 0 ? limit : 1024); ++fd)
        MarkCloseOnExec(fd);
}

// ------------------------------------------------------ symbolic links

std::error_code OpenLinkItself(int dir, const char* name, UniqueFd& out) {
    return OpenFileAt(dir, name, O_PATH | O_NOFOLLOW, out);
}

std::error_code ReadHeldLink(int link, int, const char*, const struct stat& st,
                             std::string& target, uid_t& owner) {
    owner = st.st_uid;
    char text[PATH_MAX];
    const ssize_t length = ::readlinkat(link, "", text, sizeof text);
    if (length < 0)
        return LastError();
    if (static_cast<std::size_t>(length) >= sizeof text)
        return ErrorOf(ENAMETOOLONG);
    target.assign(text, static_cast<std::size_t>(length));
    return {};
}

// ------------------------------------------------------ copying file data

// Pairs of devices between which a clone was refused: not asked again.
static std::set<std::pair<dev_t, dev_t>> refusedClones;

// Copies `size` bytes of `in` to `out`: a reflink where the file system
// shares blocks (XFS, btrfs), else in the kernel, else through a buffer.
static std::error_code CopyData(int in, const struct stat& source, int out, dev_t outDev) {
    const auto devices = std::make_pair(source.st_dev, outDev);
    if (outDev == 0 || !refusedClones.count(devices)) {
        if (::ioctl(out, FICLONE, in) == 0)
            return {};
        if (!Unsupported(errno))
            return LastError();
        if (outDev != 0)
            refusedClones.insert(devices);
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

std::error_code MakeTemporaryCopy(int in, const struct stat& source, int dir, dev_t dirDev,
                                  bool unnamed, std::string& name, UniqueFd& out,
                                  bool& modeSet) {
    const mode_t mode = source.st_mode & 07777;
    modeSet = CreatableWith(mode);
    const mode_t createMode = modeSet ? mode : 0600;
    name.clear();
    std::error_code ec;
    if (unnamed)
        ec = OpenFileAt(dir, ".", O_TMPFILE | O_WRONLY, out, createMode);
    if (!unnamed || Unsupported(ec.value()) || ec == std::errc::is_a_directory)
        ec = CreateTemporary(dir, createMode, name, out);
    if (ec)
        return ec;
    if ((ec = CopyData(in, source, out.get(), dirDev))) {
        out.reset();
        if (!name.empty())
            RemoveFileAt(dir, name.c_str());
    }
    return ec;
}

std::error_code NameUnnamedFile(int fd, int dir, const char* name) {
    if (::linkat(fd, "", dir, name, AT_EMPTY_PATH) == 0)
        return {};
    if (errno != ENOENT && errno != EPERM)
        return LastError();
    // Naming a file by its descriptor alone takes a privilege; through
    // /proc it takes none.
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    return ::linkat(AT_FDCWD, self.c_str(), dir, name, AT_SYMLINK_FOLLOW) == 0 ? std::error_code()
                                                                              : LastError();
}

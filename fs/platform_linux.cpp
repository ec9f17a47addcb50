// The platform calls on Linux: /proc for a process's start time, user and
// open descriptors, O_PATH for a link itself, reflinks and copy_file_range
// for file data, O_TMPFILE for an unnamed file, getrandom for temporary
// names, the *xattr calls for what a copy keeps besides data.

#include "platform.h"

#include "copySupport.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
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

std::error_code ChangeOwnerOfHeld(int entry, uid_t user, gid_t group) {
    // An O_PATH handle cannot be fchown'ed; named by the empty path it can,
    // and a link's handle changes the link.
    return ::fchownat(entry, "", user, group, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) == 0
               ? std::error_code()
               : LastError();
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

namespace {

// Copies ranges of one file into the same places of another: in the kernel
// while it can, else through a buffer.
class RangeCopy {
public:
    RangeCopy(int in, int out) : in(in), out(out) {}

    // Copies `length` bytes at `offset`; a file that ends earlier than that
    // is copied to its end.
    std::error_code copy(off_t offset, off_t length) {
        off_t inAt = offset, outAt = offset;
        while (length > 0 && inKernel) {
            const ssize_t n = ::copy_file_range(
                in, &inAt, out, &outAt, static_cast<std::size_t>(std::min<off_t>(length, 1 << 30)), 0);
            if (n == 0)  // the file was shorter than it said
                return {};
            if (n > 0) {
                kernelWorked = true;
                length -= n;
                continue;
            }
            if (errno == EINTR)
                continue;
            if (kernelWorked || !Unsupported(errno))
                return LastError();
            inKernel = false;
        }
        static const std::unique_ptr<char[]> buffer(new char[kBuffer]);
        while (length > 0) {
            const ssize_t n = ::pread(in, buffer.get(), static_cast<std::size_t>(std::min<off_t>(length, kBuffer)), inAt);
            if (n == 0)
                return {};
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                return LastError();
            }
            for (ssize_t done = 0; done < n;) {
                const ssize_t w = ::pwrite(out, buffer.get() + done, static_cast<std::size_t>(n - done), outAt);
                if (w < 0 && errno == EINTR)
                    continue;
                if (w < 0)
                    return LastError();
                if (w == 0)  // a write that takes nothing: the disk is full
                    return ErrorOf(ENOSPC);
                done += w;
                outAt += w;
            }
            inAt += n;
            length -= n;
        }
        return {};
    }

private:
    static constexpr off_t kBuffer = 1 << 17;
    int in, out;
    bool inKernel = true;       // copy_file_range still to be tried
    bool kernelWorked = false;  // and it copied something: a failure now is real
};

}  // namespace

// Copies the data of `in` to `out`: a reflink where the file system shares
// blocks (XFS, btrfs), else in the kernel, else through a buffer. A file
// with holes has only its data copied (copy_file_range would write its
// holes out as zeros), and the holes come back as the size is set.
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
    RangeCopy data(in, out);
    const off_t size = source.st_size;
    if (static_cast<off_t>(source.st_blocks) * 512 >= size)
        return data.copy(0, size);
    for (off_t at = 0; at < size;) {
        const off_t start = ::lseek(in, at, SEEK_DATA);
        if (start < 0 && errno == ENXIO)  // nothing but a hole up to the end
            break;
        if (start < 0 && !Unsupported(errno))
            return LastError();
        if (start < 0)  // no holes to be found here: all of it is data
            return data.copy(at, size - at);
        const off_t end = ::lseek(in, start, SEEK_HOLE);
        if (end < 0)
            return LastError();
        if (start >= size)
            break;
        if (std::error_code ec = data.copy(start, std::min(end, size) - start))
            return ec;
        at = end;
    }
    return ::ftruncate(out, size) == 0 ? std::error_code() : LastError();
}

std::error_code MakeTemporaryCopy(int in, const struct stat& source, int dir, dev_t dirDev,
                                  bool unnamed, std::string& name, UniqueFd& out,
                                  bool& modeSet, bool& carried) {
    carried = false;  // a reflink shares the data only
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

std::error_code FillRandom(unsigned char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::getrandom(bytes, size, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return LastError();
        bytes += n;
        size -= static_cast<std::size_t>(n);
    }
    return {};
}

// --------------------------------------- what a copy keeps besides data

namespace {

// The extended-attribute calls on what a handle holds. A link is held with
// O_PATH, which the f*xattr calls refuse; its /proc/self/fd entry, followed,
// reaches the link itself (and never what it points to).
class Attributes {
public:
    Attributes(int fd, Held kind)
        : fd(fd), path(kind == Held::Link ? "/proc/self/fd/" + std::to_string(fd) : "") {}

    std::error_code list(std::string& names) const {
        return Read(names, [&](char* buffer, std::size_t size) {
            return path.empty() ? ::flistxattr(fd, buffer, size)
                                : ::listxattr(path.c_str(), buffer, size);
        });
    }
    std::error_code get(const char* name, std::string& value) const {
        return Read(value, [&](char* buffer, std::size_t size) {
            return path.empty() ? ::fgetxattr(fd, name, buffer, size)
                                : ::getxattr(path.c_str(), name, buffer, size);
        });
    }
    std::error_code set(const char* name, const std::string& value) const {
        const int done = path.empty()
                             ? ::fsetxattr(fd, name, value.data(), value.size(), 0)
                             : ::setxattr(path.c_str(), name, value.data(), value.size(), 0);
        return done == 0 ? std::error_code() : LastError();
    }

private:
    // Reads a name list or a value, however long it is (it may grow while
    // it is read).
    template <typename Call>
    static std::error_code Read(std::string& out, Call call) {
        char small[1024];
        ssize_t n = call(small, sizeof small);
        if (n >= 0) {
            out.assign(small, static_cast<std::size_t>(n));
            return {};
        }
        while (errno == ERANGE) {
            if ((n = call(nullptr, 0)) < 0)
                return LastError();
            out.resize(static_cast<std::size_t>(n));
            if ((n = call(&out[0], out.size())) >= 0) {
                out.resize(static_cast<std::size_t>(n));
                return {};
            }
        }
        return LastError();
    }

    int fd;
    std::string path;
};

// The file system offers no such attribute (or, for a link, /proc is not
// there to reach it through): skipped, as cp -a skips it.
bool NotOffered(const std::error_code& ec, Held kind) {
    return ec.value() == ENOTSUP || ec.value() == EOPNOTSUPP ||
           (kind == Held::Link && ec.value() == ENOENT);
}

constexpr char kAccessAcl[] = "system.posix_acl_access";
constexpr char kDefaultAcl[] = "system.posix_acl_default";

// A POSIX ACL as the system.posix_acl_* attributes hold it: a 4-byte header,
// then 8-byte entries of tag, permissions (2 bytes each) and id (4),
// little-endian. Returns it without the entries for a named user or group
// that grant more than `mode` gives everyone else (through the mask).
std::string WithoutGrantingEntries(const std::string& acl, mode_t mode) {
    constexpr unsigned kUser = 0x02, kGroup = 0x08, kMask = 0x10;
    if (acl.size() < 4 || (acl.size() - 4) % 8 != 0)
        return {};
    auto field = [&](std::size_t at) {
        return static_cast<unsigned>(static_cast<unsigned char>(acl[at])) |
               static_cast<unsigned>(static_cast<unsigned char>(acl[at + 1])) << 8;
    };
    unsigned mask = 7;
    for (std::size_t at = 4; at < acl.size(); at += 8)
        if (field(at) == kMask)
            mask = field(at + 2);
    const unsigned everyone = mode & 7;
    std::string kept = acl.substr(0, 4);
    for (std::size_t at = 4; at < acl.size(); at += 8) {
        const unsigned tag = field(at), granted = field(at + 2) & mask;
        if ((tag == kUser || tag == kGroup) && (granted & ~everyone) != 0)
            continue;
        kept.append(acl, at, 8);
    }
    return kept;
}

}  // namespace

// Linux's namespaces: user.* is anyone's to set on their own files; trusted.*
// and security.* (file capabilities among them) take privilege; the ACLs
// are system.posix_acl_*. Reflinks carry none of them, so `carried` is never
// set here.
std::error_code CopyAttributes(int from, const struct stat& source, int to, Held kind,
                               bool trusted, bool) {
    const Attributes in(from, kind), out(to, kind);
    std::string names;
    if (std::error_code ec = in.list(names))
        return NotOffered(ec, kind) ? std::error_code() : ec;
    std::string value;
    for (std::size_t at = 0; at < names.size(); at += std::strlen(names.c_str() + at) + 1) {
        const char* name = names.c_str() + at;
        const bool acl = !std::strcmp(name, kAccessAcl) || !std::strcmp(name, kDefaultAcl);
        if (!trusted && !acl && std::strncmp(name, "user.", 5) != 0)
            continue;
        if (std::error_code ec = in.get(name, value)) {
            if (ec.value() == ENODATA)  // removed since it was listed
                continue;
            return NotOffered(ec, kind) ? std::error_code() : ec;
        }
        if (!trusted && acl && (value = WithoutGrantingEntries(value, source.st_mode)).empty())
            continue;
        if (std::error_code ec = out.set(name, value))
            if (!NotOffered(ec, kind))
                return ec;
    }
    return {};
}

std::error_code CopyTimes(int to, Held kind, const struct stat& source) {
    const struct timespec times[2] = {source.st_atim, source.st_mtim};
    if (kind != Held::Link)
        return ::futimens(to, times) == 0 ? std::error_code() : LastError();
    const std::string path = "/proc/self/fd/" + std::to_string(to);
    if (::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0 || errno == ENOENT)
        return {};
    return LastError();
}

std::error_code ChangeHeldLinkOwner(int link, uid_t user, gid_t group) {
    return ::fchownat(link, "", user, group, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) == 0
               ? std::error_code()
               : LastError();
}

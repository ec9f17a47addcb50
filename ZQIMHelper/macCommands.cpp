// Operations tied to the host system. The only code that differs between
// macOS and Linux is how a process's start time is read.

#include "macCommands.h"

#include "helperLog.h"
#include "runState.h"
#include "portableCommands.h"
#include "treeWalk.h"
#include "underRoot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sstream>

#ifdef __APPLE__
#include <sys/sysctl.h>
#else
#include <fstream>
#include <iterator>
#include <limits>
#endif

namespace fs = std::filesystem;

// ------------------------------------------------------------ process liveness

std::map<unsigned long long, std::string> handles;

#ifdef __APPLE__

std::string ReadProcessStartTime(unsigned long pid) {
    // The kernel takes an int: a larger number is no process, not an alias
    // of the small one its low bits happen to spell.
    if (pid > static_cast<unsigned long>(INT_MAX))
        return "";
    struct kinfo_proc info;
    std::memset(&info, 0, sizeof info);
    size_t size = sizeof info;
    int name[4] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, static_cast<int>(pid)};
    // A PID without a process still succeeds but fills nothing: a zero
    // start time means "no such process".
    if (sysctl(name, 4, &info, &size, nullptr, 0) != 0 || info.kp_proc.p_starttime.tv_sec == 0)
        return "";
    std::ostringstream text;
    text << info.kp_proc.p_starttime.tv_usec << "-" << info.kp_proc.p_starttime.tv_sec;
    return text.str();
}

#else

// Seconds since the epoch at which the kernel booted ("btime" of /proc/stat).
static long long BootTime() {
    std::ifstream stat("/proc/stat");
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
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    const std::string record((std::istreambuf_iterator<char>(stat)),
                             std::istreambuf_iterator<char>());
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

#endif

bool RecordProcessStartTime(unsigned long pid, const std::string& startTime) {
    if (startTime.empty()) {
        handles.erase(pid);
        return false;
    }
    auto known = handles.find(pid);
    if (known == handles.end()) {
        handles[pid] = startTime;
        return true;
    }
    if (known->second == startTime)
        return true;
    // Same number, different start time: the PID was reused by a new process.
    std::cout << "PID Conflict PID:" << pid << " org_time:" << known->second
              << " new_time:" << startTime << std::endl;
    handles.erase(known);
    return false;
}

bool isProcessAlive(unsigned long pid) {
    return RecordProcessStartTime(pid, ReadProcessStartTime(pid));
}

bool CheckPID(unsigned long pid) {
    return pid == 0 || isProcessAlive(pid);
}

// ------------------------------------------------------------ symbolic links

int DoCmdSymlink(std::string existingFile, std::string resultingLinkFile) {
    const std::string linkPath = gRoot + "/" + resultingLinkFile;
    ZQIMLog("DoCmdSymlink() - Create Symlink existingFile:\n" + existingFile +
            "\n... resultingLinkFile ...\n" + linkPath);

    // The link's place is the root text, "/" and the name: the name is always
    // below the root (an empty root is "/"), however it is written.
    const std::string root = gRoot.empty() ? "/" : gRoot;
    const std::size_t skip = resultingLinkFile.find_first_not_of('/');
    const std::string rel = skip == std::string::npos ? "" : resultingLinkFile.substr(skip);
    UniqueFd parent;
    std::string leaf;
    int result = 0;
    int error = 0;
    if (std::error_code ec = OpenParentUnderRoot(root, rel, parent, leaf))
        error = ec.value();
    else if (leaf.empty())
        leaf = ".";  // the root itself: always in the way
    auto makeLink = [&] {
        return ::symlinkat(existingFile.c_str(), parent.get(), leaf.c_str()) == 0 ? 0 : errno;
    };
    if (error == 0) {
        error = makeLink();
        if (error == 0)
            return 0;
    }

    if (error == EEXIST) {
        ZQIMLog("DoCmdSymlink() - Symlink already existed. Attempting to delete it.");
        bool removed;
        const std::error_code ec = RemoveEntryAt(parent.get(), leaf.c_str(), removed);
        error = errno;
        if (ec) {
            std::ostringstream msg;
            msg << "DoCmdSymlink() - error deleting existing file: " << ec.category().name()
                << ":" << ec.value();
            ZQIMLog(msg.str());
            result = 2004;
            gErrors.insert(2004);
        }
        if (!removed)
            ZQIMLog("DoDelFile() - File did not exist. Continuing.");
        if (result == 0) {
            ZQIMLog("DoCmdSymlink() - Attempting retry after deleting existing file.");
            error = makeLink();
            if (error == 0) {
                ZQIMLog("DoCmdSymlink() - Retry attempt succeeded.");
                return 0;
            }
        }
    }

    // Raw errno values, as the system reported them for the last attempt.
    if (error == EACCES) {
        ZQIMLog("DoCmdSymlink() - Error - Permission denied.");
        result = 2002;
    } else if (error == EEXIST) {
        ZQIMLog("DoCmdSymlink() - Error - Symlink already existed.");
        result = 4;
    } else if (error == ENOSPC) {
        ZQIMLog("DoCmdSymlink() - No space on device.");
        result = 2001;
    } else {
        ZQIMLog("DoCmdSymlink() - Error - Unknown.");
        result = 2000;
    }
    if (result >= 2000)
        gErrors.insert(result);
    return result;
}

// ------------------------------------------------------------ ownership repair

static std::string ChownOutcome(int returned, int error) {
    std::ostringstream text;
    text << returned << ", errno=" << error << " (" << std::strerror(error) << ")";
    return text.str();
}

namespace {

// Hands every entry below the top to the new owner, each through the handle
// of the directory it was listed from and never through a link: a directory
// swapped for a link after it was listed has the link itself changed.
class OwnershipRepair : public TreeVisitor {
public:
    OwnershipRepair(uid_t user, gid_t group) : user(user), group(group) {}

    Next visit(DirChain& dir, const DirEntry& entry) override {
        switch (entry.type) {
        case EntryType::Directory:
            ++dirs;
            break;
        case EntryType::Unknown:
            ZQIMLog("DoFixPerms(recursive): Error checking for symlink or dir for: " +
                    dir.pathOf(entry.name));
            break;
        default:
            ++files;
        }
        Change(dir, entry.name);
        return entry.type == EntryType::Directory ? Next::Enter : Next::Skip;
    }

    // Judged by the open's own error: a second look at the name would see
    // whatever a racing user put back in between.
    bool cannotEnter(DirChain& dir, const std::string& name, std::error_code ec) override {
        if (ec == std::errc::too_many_symbolic_link_levels || ec == std::errc::not_a_directory) {
            // A link (or a file) took the folder's place since it was
            // listed: what stands there is handed over itself, never followed.
            Change(dir, name);
            return true;
        }
        if (ec == std::errc::no_such_file_or_directory)
            return true;
        ReportUnopened(dir.pathOf(name), ec);
        return false;
    }

    // A listing that fails midway leaves ownership half repaired; that is not
    // summed up as done: the failure ends the process, as a throwing
    // directory iterator would.
    bool listingFailed(DirChain& dir, std::error_code ec) override {
        throw fs::filesystem_error("directory iterator cannot advance", fs::path(dir.path()), ec);
    }

    void ReportUnopened(const std::string& path, std::error_code ec) const {
        std::ostringstream msg;
        msg << "DoFixPerms(uid=" << user << ",gid=" << group << ") - error on directory: " << path
            << ": " << PrintErrorCode(ec);
        ZQIMLog(msg.str());
    }

    int files = 0, dirs = 0, errors = 0;

private:
    void Change(DirChain& dir, const std::string& name) {
        const int returned = ::fchownat(dir.fd(), name.c_str(), user, group, AT_SYMLINK_NOFOLLOW);
        if (returned == 0)
            return;
        const int error = errno;
        std::ostringstream msg;
        msg << "DoFixPerms(recursive, uid=" << user << ",gid=" << group << ") - chown error ("
            << ChownOutcome(returned, error) << ") on: " << dir.pathOf(name);
        ZQIMLog(msg.str());
        ++errors;
    }

    uid_t user;
    gid_t group;
};

}  // namespace

int DoFixPerms(std::string uid, std::string gid, std::string path, bool recursive,
               bool /*fullAccess: ownership only, permission bits are never touched*/) {
    const uid_t user = static_cast<uint32_t>(std::strtoul(uid.c_str(), nullptr, 10));
    const gid_t group = static_cast<uint32_t>(std::strtoul(gid.c_str(), nullptr, 10));
    {
        std::ostringstream msg;
        msg << "DoFixPerms(uid=" << user << ",gid=" << group << ", recursive=" << recursive
            << ") - Fixing permissions for: " << path;
        ZQIMLog(msg.str());
    }

    if (!recursive) {
        const int returned = lchown(path.c_str(), user, group);
        const int error = errno;
        std::ostringstream msg;
        msg << "DoFixPerms(single, uid=" << user << ",gid=" << group << ") - chown done ("
            << ChownOutcome(returned, error) << ") on: " << path;
        ZQIMLog(msg.str());
        return 0;
    }

    // The top is the front-end's and is opened as the system resolves it; it
    // keeps its owner, only what lies below it changes.
    OwnershipRepair repair(user, group);
    UniqueFd top = OpenDirAt(AT_FDCWD, path.c_str(), true);
    if (!top.valid()) {
        repair.ReportUnopened(path, LastError());
        return 1;
    }
    DirChain chain(std::move(top), path);
    std::error_code lost;
    if (!WalkTree(chain, repair, WalkOrder::AfterListingLastFirst, lost)) {
        if (lost)
            repair.ReportUnopened(chain.path(), lost);
        return 1;
    }

    std::ostringstream msg;
    msg << "DoFixPerms(recursive, uid=" << user << ",gid=" << group << ") - chown done on "
        << repair.files << " files and " << repair.dirs << " dirs with " << repair.errors
        << " errors.";
    ZQIMLog(msg.str());
    return 0;
}

// ------------------------------------------------------------ preferences

// Preferences of the logged-in user must be written as that user, or they
// would land in root's domain. The backslash hands the number sign through
// the shell, so that sudo reads the id as numeric.
static std::string RunAsPrefix(const std::string& location, const std::string& uid) {
    return location == "user" ? "sudo -u \\#" + uid + " " : "";
}

static int RunPlistCommand(const std::string& command) {
    std::cout.flush();
    return std::system(command.c_str());
}

int DoSetPlist(std::string location, std::string path, std::string valueName,
               std::string valueType, std::string value, std::string uid) {
    const std::string typeFlag = valueType == "array" ? "-array " : "";
    const std::string command = RunAsPrefix(location, uid) + "defaults write " + path + " \"" +
                                valueName + "\" " + typeFlag + "\"" + value + "\"";
    ZQIMLog("DoSetPlist(location=" + location + ",path=" + path + ",valueName=" + valueName +
            ",valueType=" + valueType + ",value=" + value + ",uid=" + uid +
            ") - command is: " + command);
    const int status = RunPlistCommand(command);
    ZQIMLog("DoSetPlist: Result was " + std::to_string(status));
    return 0;
}

int DoDelPlist(std::string location, std::string path, std::string uid) {
    const std::string command = RunAsPrefix(location, uid) + "defaults delete " + path;
    ZQIMLog("DoDelPlist(location=" + location + ",path=" + path + ",uid=" + uid +
            ") - command is: " + command);
    const int status = RunPlistCommand(command);
    ZQIMLog("DoDelPlist: Result was " + std::to_string(status));
    return 0;
}

// ------------------------------------------------ the other platform's commands

// Registry keys and shortcuts only mean something to the other platform's
// installer; here they are accepted and do nothing.
int DoSetRegKey(std::string, std::string, std::string, std::string, std::string) { return 0; }
int DoDelRegKey(std::string, std::string) { return 0; }
int DoCreateShortcut(std::string, std::string, std::string, std::string, std::string) {
    return 0;
}
int DoRemoveShortcuts(std::string, std::string, std::string) { return 0; }

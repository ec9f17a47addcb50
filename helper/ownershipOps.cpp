// Ownership repair: a path, or every entry below a folder, handed to a user
// and group. Permission bits are never touched.

#include "ownershipOps.h"

#include "fileHandles.h"
#include "helperLog.h"
#include "platform.h"
#include "treeWalk.h"
#include "underRoot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;

static std::string ChownOutcome(int returned, int error) {
    std::ostringstream text;
    text << returned << ", errno=" << error << " (" << std::strerror(error) << ")";
    return text.str();
}

// Hands the entry `name` in `dir` to the user, judged and changed through one
// handle on the entry itself: a link is changed itself, and what is changed
// is what was judged, whatever takes the name meanwhile. A file with another
// name is refused (EMLINK): that name may be anywhere, a file of root's among
// them, linked into the tree by whoever can write to it.
static std::error_code HandOver(int dir, const char* name, uid_t user, gid_t group) {
    UniqueFd entry;
    if (std::error_code ec = OpenLinkItself(dir, name, entry))
        return ec;
    struct stat st;
    if (::fstat(entry.get(), &st) != 0)
        return LastError();
    if (!S_ISDIR(st.st_mode) && st.st_nlink > 1)
        return ErrorOf(EMLINK);
    return ChangeOwnerOfHeld(entry.get(), user, group);
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
        ZQIMLog("DoFixPerms(uid=", user, ",gid=", group, ") - error on directory: ", path, ": ",
                PrintErrorCode(ec));
    }

    int files = 0, dirs = 0, errors = 0;

private:
    void Change(DirChain& dir, const std::string& name) {
        const std::error_code ec = HandOver(dir.fd(), name.c_str(), user, group);
        if (!ec)
            return;
        ZQIMLog("DoFixPerms(recursive, uid=", user, ",gid=", group, ") - chown error (",
                ChownOutcome(-1, ec.value()), ") on: ", dir.pathOf(name));
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
    ZQIMLog("DoFixPerms(uid=", user, ",gid=", group, ", recursive=", recursive,
            ") - Fixing permissions for: ", path);

    if (!recursive) {
        // The line shows errno whatever the change returned, as it always
        // has (after a success, whatever an earlier call left there).
        const int before = errno;
        UniqueFd dir;
        std::string name;
        std::error_code ec = OpenEntryParent(path, dir, name);
        if (!ec)
            ec = HandOver(dir.get(), name.c_str(), user, group);
        ZQIMLog("DoFixPerms(single, uid=", user, ",gid=", group, ") - chown done (",
                ChownOutcome(ec ? -1 : 0, ec ? ec.value() : before), ") on: ", path);
        return 0;
    }

    // The top keeps its owner, only what lies below it changes.
    OwnershipRepair repair(user, group);
    UniqueFd top;
    if (std::error_code ec = OpenDirAtPath(path, top)) {
        repair.ReportUnopened(path, ec);
        return 1;
    }
    DirChain chain(std::move(top), path);
    std::error_code lost;
    if (!WalkTree(chain, repair, WalkOrder::AfterListingLastFirst, lost)) {
        if (lost)
            repair.ReportUnopened(chain.path(), lost);
        return 1;
    }

    ZQIMLog("DoFixPerms(recursive, uid=", user, ",gid=", group, ") - chown done on ",
            repair.files, " files and ", repair.dirs, " dirs with ", repair.errors, " errors.");
    return 0;
}

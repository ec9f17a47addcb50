// Putting things in place: directories (the makeDir command, and the
// folders that hold a destination) and moving or copying below the root.

#include "installOps.h"

#include "fileCopy.h"
#include "fileHandles.h"
#include "helperLog.h"
#include "underRoot.h"
#include "zqimProtocol.h"

#include <fcntl.h>

#include <cerrno>

namespace fs = std::filesystem;

// ------------------------------------------------------------ directories

// Logs a failure to create `dir` and turns it into a result code.
static int ReportCreateDirsFailure(const fs::path& dir, std::error_code ec) {
    int result = 0;
    if (ec == std::errc::no_space_on_device) {
        ZQIMLog("ZQIMCreateDirs() - No space to create dir \"", dir, "\": ", PrintErrorCode(ec),
                ".");
        result = zqim::kNoSpace;
    } else if (ec == std::errc::permission_denied) {
        ZQIMLog("ZQIMCreateDirs() - Permission denied creating dir \"", dir, "\": ",
                PrintErrorCode(ec), ".");
        result = zqim::kPermissionDenied;
    } else {
        ZQIMLog("ZQIMCreateDirs() - Error creating dir \"", dir, "\": ", PrintErrorCode(ec), ".");
        // Unclassified failures are logged but deliberately not reported:
        // the caller goes on and the next operation reports its own error.
        if (ec == std::errc::operation_not_permitted)
            result = zqim::kNotPermitted;
        else if (ec == std::errc::read_only_file_system)
            result = zqim::kReadOnly;
    }
    if (result != 0)
        gErrors.insert(result);
    return result;
}

// The directory and its parents are made one component at a time through
// handles, following only trusted links, as every path below the root is.
int ZQIMCreateDirs(fs::path dir) {
    UniqueFd made;
    const std::error_code ec = MakeDirsAtPath(dir.native(), made);
    return ec ? ReportCreateDirsFailure(dir, ec) : 0;
}

int DoMakeDir(std::string dir) {
    ZQIMLog("DoMakeDir(" + dir + ") - starting");
    const int result = ZQIMCreateDirs(fs::path(dir));
    ZQIMLog("DoMakeDir(", dir, ") - Result was:", result, ".");
    return result;
}

// ------------------------------------------------------------ move or copy

// Creates the folders that hold `destination` under `root`, the root too
// where it is missing; only trusted links are followed on the way.
static int CreateParentsUnderRoot(const std::string& root, const std::string& destination) {
    const fs::path relParent = fs::path(destination).parent_path();
    const fs::path shown = fs::path(root) / relParent;
    // No root and no folder: an empty path, which is no directory to make
    // (logged, and not counted, as it always was).
    if (shown.empty())
        return ReportCreateDirsFailure(shown, ErrorOf(EINVAL));
    UniqueFd base, made;
    std::error_code ec = OpenRootFor(root, relParent.native(), base);
    if (ec == std::errc::no_such_file_or_directory && !root.empty())
        ec = MakeDirsAtPath(root, base);
    if (!ec)
        ec = MakeDirsBelow(base.get(), relParent.native(), made);
    return ec ? ReportCreateDirsFailure(shown, ec) : 0;
}

namespace {

// Where a move or copy lands: `rel` under `root`, and the path text that
// messages and the moved-files map use for it.
struct Target {
    std::string root;
    std::string rel;
    fs::path shown;
};

// The handle of the folder that holds the target, and the target's name in
// it (".", the folder itself, when `rel` names the root).
std::error_code OpenTargetParent(const Target& target, UniqueFd& parent, std::string& leaf) {
    std::error_code ec = OpenParentUnderRoot(target.root, target.rel, parent, leaf);
    if (leaf.empty())
        leaf = ".";
    return ec;
}

}  // namespace

static int MoveOrCopy(const fs::path& source, const Target& target, bool move,
                      std::map<std::string, std::string>& movedFiles, bool& rootIsCrossDevice,
                      std::size_t hopsLeft);

int DoCmdCopy(std::string source, std::string destination, std::string root, bool move,
              std::map<std::string, std::string>& movedFiles, bool& rootIsCrossDevice) {
    const int created = CreateParentsUnderRoot(root, destination);
    if (created >= zqim::kFatalFrom)
        return created;
    const Target target{root, destination, fs::path(root) / destination};
    return MoveOrCopy(fs::path(source), target, move, movedFiles, rootIsCrossDevice,
                      movedFiles.size());
}

// `hopsLeft` bounds the walk through the moved-files map: a chain longer than
// the map can only be a cycle (a moved file brought back and then deleted),
// which would otherwise recurse until the stack runs out.
static int MoveOrCopy(const fs::path& source, const Target& target, bool move,
                      std::map<std::string, std::string>& movedFiles, bool& rootIsCrossDevice,
                      std::size_t hopsLeft) {
    const fs::path& destination = target.shown;
    const bool doMove = move && !rootIsCrossDevice;
    // The target is reached through the handle of the folder that holds it;
    // the source, the front-end's staged payload, as every path is: a folder
    // on its way that someone else swapped for a link is refused.
    UniqueFd parent;
    std::string leaf;
    std::error_code error = OpenTargetParent(target, parent, leaf);
    if (!error && doMove) {
        UniqueFd from;
        std::string name;
        error = source.empty() ? ErrorOf(ENOENT)
                               : OpenParentUnderRoot(std::string(), source.native(), from, name);
        if (!error)
            error = RenameAt(from.get(), name.empty() ? "." : name.c_str(), parent.get(),
                             leaf.c_str());
    } else if (!error) {
        error = CopyIntoPlace(source.string(), parent.get(), leaf);
    }

    if (!error) {
        if (doMove)
            movedFiles[source.string()] = destination.string();
        return 0;
    }

    int result;
    if (error == std::errc::no_such_file_or_directory) {
        if (!doMove) {
            ZQIMLog("ZQIMMoveOrCopyFile(move=false) - Error - Source file not found: ",
                    source.string());
            result = zqim::kSourceNotFound;
        } else {
            auto moved = movedFiles.find(source.string());
            if (moved != movedFiles.end() && hopsLeft > 0)
                return MoveOrCopy(fs::path(moved->second), target, move, movedFiles,
                                  rootIsCrossDevice, hopsLeft - 1);
            ZQIMLog("ZQIMMoveOrCopyFile(move=true, did not find in map) - Error - Source file \"",
                    source.string(), "\" not found: ", PrintErrorCode(error));
            result = zqim::kSourceNotFound;
        }
    } else if (error == std::errc::file_exists) {
        ZQIMLog("ZQIMMoveOrCopyFile() - Error - File Exists.");
        result = zqim::kAlreadyExists;
    } else if (error == std::errc::permission_denied) {
        ZQIMLog("ZQIMMoveOrCopyFile() - Error - Permission denied.");
        result = zqim::kPermissionDenied;
    } else if (error == std::errc::no_space_on_device) {
        ZQIMLog("ZQIMMoveOrCopyFile() - No space on device for \"", destination, "\": ",
                PrintErrorCode(error), ".");
        result = zqim::kNoSpace;
    } else if (error == std::errc::cross_device_link) {
        if (!rootIsCrossDevice) {
            ZQIMLog("ZQIMMoveOrCopyFile() - Cannot move cross-device. Setting flag and doing "
                    "full copies for this root.");
            rootIsCrossDevice = true;
            return MoveOrCopy(source, target, move, movedFiles, rootIsCrossDevice, hopsLeft);
        }
        // A result of 1 stops the command file and the helper, like `exit`.
        ZQIMLog("ZQIMMoveOrCopyFile() - Copy is is cross-device. This should not happen..");
        result = zqim::kStop;
    } else {
        ZQIMLog("ZQIMMoveOrCopyFile() - Error - ", PrintErrorCode(error), ".");
        result = zqim::kOtherError;
    }

    if (result >= zqim::kFatalFrom)
        gErrors.insert(result);
    return result;
}

// Given only full paths, the destination's folder stands for the root: it
// is the caller's choice, and only the destination itself lies below it.
int ZQIMMoveOrCopyFile(fs::path source, fs::path destination, bool move,
                       std::map<std::string, std::string>& movedFiles, bool& rootIsCrossDevice) {
    const Target target{destination.parent_path().string(), destination.filename().string(),
                        destination};
    return MoveOrCopy(source, target, move, movedFiles, rootIsCrossDevice, movedFiles.size());
}

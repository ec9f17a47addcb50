// Symbolic links below the install root.

#include "linkOps.h"

#include "fileHandles.h"
#include "helperLog.h"
#include "underRoot.h"
#include "zqimProtocol.h"

#include <cerrno>

int DoCmdSymlink(std::string existingFile, std::string resultingLinkFile, std::string root) {
    const std::string linkPath = root + "/" + resultingLinkFile;
    ZQIMLog("DoCmdSymlink() - Create Symlink existingFile:\n" + existingFile +
            "\n... resultingLinkFile ...\n" + linkPath);

    // The link's place is the root text, "/" and the name: the name is always
    // below the root (an empty root is "/"), however it is written.
    const std::string top = root.empty() ? "/" : root;
    const std::size_t skip = resultingLinkFile.find_first_not_of('/');
    const std::string rel = skip == std::string::npos ? "" : resultingLinkFile.substr(skip);
    UniqueFd parent;
    std::string leaf;
    int result = 0;
    int error = 0;
    if (std::error_code ec = OpenParentUnderRoot(top, rel, parent, leaf))
        error = ec.value();
    else if (leaf.empty())
        leaf = ".";  // the root itself: always in the way
    auto makeLink = [&] {
        return MakeLinkAt(existingFile.c_str(), parent.get(), leaf.c_str()).value();
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
        error = ec.value();
        if (ec) {
            ZQIMLog("DoCmdSymlink() - error deleting existing file: ", ec.category().name(), ":",
                    ec.value());
            result = zqim::kNotDeleted;
            gErrors.insert(zqim::kNotDeleted);
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
        result = zqim::kPermissionDenied;
    } else if (error == EEXIST) {
        ZQIMLog("DoCmdSymlink() - Error - Symlink already existed.");
        result = zqim::kAlreadyExists;
    } else if (error == ENOSPC) {
        ZQIMLog("DoCmdSymlink() - No space on device.");
        result = zqim::kNoSpace;
    } else {
        ZQIMLog("DoCmdSymlink() - Error - Unknown.");
        result = zqim::kOtherError;
    }
    if (result >= zqim::kFatalFrom)
        gErrors.insert(result);
    return result;
}

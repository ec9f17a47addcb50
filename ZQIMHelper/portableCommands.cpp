// Platform-neutral file operations. Every file-system call uses the
// non-throwing error-code form: failures become result codes and one log line.

#include "portableCommands.h"

#include "helperLog.h"
#include "runState.h"
#include "fileCopy.h"
#include "fileHandles.h"
#include "treeWalk.h"
#include "underRoot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

// ------------------------------------------------ directories and errors

std::string PrintErrorCode(std::error_code ec) {
    std::ostringstream text;
    text << "Error " << ec.value() << ": category=" << ec.category().name()
         << ", message=" << ec.message();
    return text.str();
}

// Logs a failure to create `dir` and turns it into a result code.
static int ReportCreateDirsFailure(const fs::path& dir, std::error_code ec) {
    std::ostringstream msg;
    int result = 0;
    if (ec == std::errc::no_space_on_device) {
        msg << "ZQIMCreateDirs() - No space to create dir \"" << dir << "\": "
            << PrintErrorCode(ec) << ".";
        result = 2001;
    } else if (ec == std::errc::permission_denied) {
        msg << "ZQIMCreateDirs() - Permission denied creating dir \"" << dir << "\": "
            << PrintErrorCode(ec) << ".";
        result = 2002;
    } else {
        msg << "ZQIMCreateDirs() - Error creating dir \"" << dir << "\": " << PrintErrorCode(ec)
            << ".";
        // Unclassified failures are logged but deliberately not reported:
        // the caller goes on and the next operation reports its own error.
        if (ec.message() == "Operation not permitted")
            result = 2008;
        else if (ec.value() == 30)
            result = 2007;
    }
    ZQIMLog(msg.str());
    if (result != 0)
        gErrors.insert(result);
    return result;
}

int ZQIMCreateDirs(fs::path dir) {
    std::error_code ec;
    fs::create_directories(dir, ec);
    return ec ? ReportCreateDirsFailure(dir, ec) : 0;
}

int DoMakeDir(std::string dir) {
    ZQIMLog("DoMakeDir(" + dir + ") - starting");
    const int result = ZQIMCreateDirs(fs::path(dir));
    std::ostringstream msg;
    msg << "DoMakeDir(" << dir << ") - Result was:" << result << ".";
    ZQIMLog(msg.str());
    return result;
}

// ------------------------------------------------------------ move or copy

// Creates the folders that hold `destination` under `root`. The root is the
// front-end's and is made as the system resolves it; below it, only links
// that root or the helper's user own are followed.
static int CreateParentsUnderRoot(const std::string& root, const std::string& destination) {
    const fs::path relParent = fs::path(destination).parent_path();
    const fs::path shown = fs::path(root) / relParent;
    // No root and no folder: an empty path, which is no directory to make
    // (logged, and not counted, as it always was).
    if (shown.empty())
        return ReportCreateDirsFailure(shown, ErrorOf(EINVAL));
    UniqueFd base, made;
    std::error_code ec = OpenRootFor(root, relParent.native(), base);
    if (ec == std::errc::no_such_file_or_directory && !root.empty()) {
        fs::create_directories(fs::path(root), ec);
        if (!ec)
            ec = OpenRootFor(root, relParent.native(), base);
    }
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
                      std::map<std::string, std::string>& movedFiles, std::size_t hopsLeft);

int DoCmdCopy(std::string source, std::string destination, std::string root, bool move,
              std::map<std::string, std::string>& movedFiles) {
    const int created = CreateParentsUnderRoot(root, destination);
    if (created >= 2000)
        return created;
    const Target target{root, destination, fs::path(root) / destination};
    return MoveOrCopy(fs::path(source), target, move, movedFiles, movedFiles.size());
}

// `hopsLeft` bounds the walk through the moved-files map: a chain longer than
// the map can only be a cycle (a moved file brought back and then deleted),
// which would otherwise recurse until the stack runs out.
static int MoveOrCopy(const fs::path& source, const Target& target, bool move,
                      std::map<std::string, std::string>& movedFiles, std::size_t hopsLeft) {
    const fs::path& destination = target.shown;
    const bool doMove = move && !gRootIsCrossDevice;
    // The source is the front-end's staged payload, taken as given; the
    // target is reached through the handle of the folder that holds it.
    UniqueFd parent;
    std::string leaf;
    std::error_code error = OpenTargetParent(target, parent, leaf);
    if (!error && doMove) {
        if (::renameat(AT_FDCWD, source.c_str(), parent.get(), leaf.c_str()) != 0)
            error = LastError();
    } else if (!error) {
        error = CopyIntoPlace(source.string(), parent.get(), leaf);
    }

    if (!error) {
        if (doMove)
            movedFiles[source.string()] = destination.string();
        return 0;
    }

    std::ostringstream msg;
    int result;
    if (error == std::errc::no_such_file_or_directory) {
        if (!doMove) {
            msg << "ZQIMMoveOrCopyFile(move=false) - Error - Source file not found: "
                << source.string();
            result = 2003;
        } else {
            auto moved = movedFiles.find(source.string());
            if (moved != movedFiles.end() && hopsLeft > 0)
                return MoveOrCopy(fs::path(moved->second), target, move, movedFiles,
                                  hopsLeft - 1);
            msg << "ZQIMMoveOrCopyFile(move=true, did not find in map) - Error - Source file \""
                << source.string() << "\" not found: " << PrintErrorCode(error);
            result = 2003;
        }
    } else if (error == std::errc::file_exists) {
        msg << "ZQIMMoveOrCopyFile() - Error - File Exists.";
        result = 4;
    } else if (error == std::errc::permission_denied) {
        msg << "ZQIMMoveOrCopyFile() - Error - Permission denied.";
        result = 2002;
    } else if (error == std::errc::no_space_on_device) {
        msg << "ZQIMMoveOrCopyFile() - No space on device for \"" << destination
            << "\": " << PrintErrorCode(error) << ".";
        result = 2001;
    } else if (error == std::errc::cross_device_link) {
        if (!gRootIsCrossDevice) {
            ZQIMLog("ZQIMMoveOrCopyFile() - Cannot move cross-device. Setting flag and doing "
                    "full copies for this root.");
            gRootIsCrossDevice = true;
            return MoveOrCopy(source, target, move, movedFiles, hopsLeft);
        }
        // A result of 1 stops the command file and the helper, like `exit`.
        msg << "ZQIMMoveOrCopyFile() - Copy is is cross-device. This should not happen..";
        result = 1;
    } else {
        msg << "ZQIMMoveOrCopyFile() - Error - " << PrintErrorCode(error) << ".";
        result = 2000;
    }

    ZQIMLog(msg.str());
    if (result >= 2000)
        gErrors.insert(result);
    return result;
}

// Given only full paths, the destination's folder stands for the root: it
// is the caller's choice, and only the destination itself lies below it.
int ZQIMMoveOrCopyFile(fs::path source, fs::path destination, bool move,
                       std::map<std::string, std::string>& movedFiles) {
    const Target target{destination.parent_path().string(), destination.filename().string(),
                        destination};
    return MoveOrCopy(source, target, move, movedFiles, movedFiles.size());
}

// ------------------------------------------------------------ deleting files

// A folder climbed to while pruning: the handle of the folder that holds it
// and its name there. Below the root it is reached as every path under the
// root is; the root and what lies above it are the front-end's, as given.
static std::error_code OpenPruneStep(const std::string& root, const fs::path& dir,
                                     UniqueFd& parent, std::string& name) {
    std::string base = root;
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    const std::string& text = dir.native();
    const std::size_t cut = base.back() == '/' ? base.size() : base.size() + 1;
    const bool below = text.size() > cut && text.compare(0, base.size(), base) == 0 &&
                       text[cut - 1] == '/';
    if (below)
        return OpenParentUnderRoot(root, std::string_view(text).substr(cut), parent, name);
    name = dir.filename().string();
    parent = OpenDirAt(AT_FDCWD, dir.has_relative_path() && dir.parent_path().empty()
                                     ? "."
                                     : dir.parent_path().c_str(),
                       true);
    return parent.valid() ? std::error_code() : LastError();
}

// What the library's is_empty says of `name` in `dir`: a directory without
// entries, or a file of no bytes.
static std::error_code IsEmptyAt(int dir, const std::string& name, bool& empty) {
    UniqueFd folder;
    std::error_code ec = OpenDirBelow(dir, name, folder);
    if (!ec)
        return DirIsEmpty(folder.get(), empty);
    struct stat st;
    if (ec == std::errc::not_a_directory && ::fstatat(dir, name.c_str(), &st, 0) == 0 &&
        S_ISREG(st.st_mode)) {
        empty = st.st_size == 0;
        return {};
    }
    return ec;
}

int DoDelFile(std::string root, std::string file) {
    const fs::path target = root.empty() ? fs::path(file) : fs::path(root) / file;
    {
        std::ostringstream msg;
        msg << "DoDelFile() - Deleting file: " << target;
        ZQIMLog(msg.str());
    }

    int result = 0;
    std::error_code removeEc(0, std::system_category());
    bool removed = false;
    {
        UniqueFd parent;
        std::string leaf;
        removeEc = OpenParentUnderRoot(root, file, parent, leaf);
        if (!removeEc)
            removeEc = RemoveEntryAt(parent.get(), leaf.empty() ? "." : leaf.c_str(), removed);
        else if (removeEc == std::errc::no_such_file_or_directory)
            removeEc.clear();  // nothing there to remove
    }
    if (removeEc) {
        std::ostringstream msg;
        msg << "DoDelFile(" << file << ") - error deleting file: " << removeEc.category().name()
            << ":" << removeEc.value();
        ZQIMLog(msg.str());
        result = 2004;
        gErrors.insert(2004);
    }
    if (!removed)
        ZQIMLog("DoDelFile(" + file + ") - File did not exist.");

    if (root.empty())
        return result;

    // Prune the directories the removal left empty. The root is compared only
    // after a removal, so a root emptied by removing its last entry goes too.
    const fs::path rootPath(root);
    fs::path dir = target.parent_path();
    while (true) {
        UniqueFd parent;
        std::string name;
        bool isEmpty = false;
        std::error_code emptyEc = OpenPruneStep(root, dir, parent, name);
        if (!emptyEc)
            emptyEc = IsEmptyAt(parent.get(), name.empty() ? "." : name, isEmpty);
        if (emptyEc) {
            std::ostringstream msg;
            msg << "DoDelFile(" << dir << ") - error determining empty dir: " << isEmpty;
            ZQIMLog(msg.str());
            break;
        }
        if (!isEmpty)
            break;
        {
            std::ostringstream msg;
            msg << "DoDelFile() - Deleting empty folder: " << dir;
            ZQIMLog(msg.str());
        }
        bool gone;
        if (RemoveEntryAt(parent.get(), name.empty() ? "." : name.c_str(), gone)) {
            // The file removal's code is reported here, not the directory's.
            std::ostringstream msg;
            msg << "DoDelFile(" << dir << ") - error cleaning empty dir: "
                << removeEc.category().name() << ":" << removeEc.value();
            ZQIMLog(msg.str());
            result = 6;
            break;
        }
        dir = dir.parent_path();
        if (dir == rootPath)
            break;
    }
    return result;
}

// ---------------------------------------------------------- deleting folders

namespace {

// A folder met by the walk. Its path text is rebuilt from its parent's only
// when it is logged, and the files are not kept at all: a tree of 100,000
// entries costs its folders' names, not every path.
struct Folder {
    std::uint32_t parent;
    std::uint32_t length;  // of its path text, the sort key
    std::string name;
    std::uint8_t entries;  // listed by its parent, and again by its own walk
    bool removed;
};

// A file whose first removal failed, to be retried once the walk is done.
struct FailedFile {
    std::uint32_t folder;
    std::string name;
    std::error_code first;
    std::string text;  // filled in once the walk is done
};

// Lists the tree below the folder given, and removes what it can on the way
// (each file as it is met, each folder once its walk is done), each through
// the handle of the folder it was listed from. Failures are kept, with the
// order and the log lines of a walk that removes nothing until it has listed
// everything, then retries each failure once, longest paths first.
class FolderDeletion : public TreeVisitor {
public:
    explicit FolderDeletion(std::string topText) {
        folders.push_back(Folder{0, static_cast<std::uint32_t>(topText.size()),
                                 std::move(topText), 1, false});
    }

    Next visit(DirChain& dir, const DirEntry& entry) override {
        if (entry.type == EntryType::Directory) {
            const std::string text = dir.pathOf(entry.name);
            folders.push_back(Folder{current, static_cast<std::uint32_t>(text.size()), entry.name,
                                     1, false});
            pending = static_cast<std::uint32_t>(folders.size() - 1);
            return Next::Enter;
        }
        ++files;
        bool removed;
        if (std::error_code ec = RemoveEntryAt(dir.fd(), entry.name.c_str(), removed))
            failed.push_back(FailedFile{current, entry.name, ec, {}});
        return Next::Skip;
    }

    // Judged by the open's own error: a second look at the name would see
    // whatever a racing user put back in between.
    bool cannotEnter(DirChain& dir, const std::string& name, std::error_code ec) override {
        if (ec == std::errc::too_many_symbolic_link_levels || ec == std::errc::not_a_directory) {
            // Swapped for a link (or a file) since it was listed: the entry
            // itself goes. A folder put back by now is not walked: its removal
            // fails, and is retried once, as any other.
            bool removed;
            folders[pending].removed = !RemoveEntryAt(dir.fd(), name.c_str(), removed);
            return true;
        }
        if (ec == std::errc::no_such_file_or_directory) {
            folders[pending].removed = true;
            return true;
        }
        std::ostringstream msg;
        msg << "FindFilesAndFolders(" << fs::path(dir.pathOf(name))
            << ") - Error getting directory iterator. Not deleting. This can happen if the "
               "directory does not exist: "
            << PrintErrorCode(ec);
        ZQIMLog(msg.str());
        return true;
    }

    // Walking into the folder just listed: it is listed a second time.
    void entered(DirChain&, const std::string&) override {
        folders[pending].entries = 2;
        parents.push_back(current);
        current = pending;
    }

    void left(DirChain& dir, const std::string& name) override {
        const std::uint32_t done = current;
        current = parents.back();
        parents.pop_back();
        folders[done].removed = ::unlinkat(dir.fd(), name.c_str(), AT_REMOVEDIR) == 0;
    }

    bool listingFailed(DirChain& dir, std::error_code) override {
        // The text names the listing's opening code, which was clear.
        std::ostringstream msg;
        msg << "FindFilesAndFolders(" << fs::path(dir.path())
            << ") - Error incrementing directory iterator. Stopping iteration. "
            << PrintErrorCode(std::error_code());
        ZQIMLog(msg.str());
        return true;
    }

    std::string pathOf(std::uint32_t folder) const {
        if (folder == 0)
            return folders[0].name;
        std::string text = pathOf(folders[folder].parent);
        if (text.back() != '/')
            text += '/';
        return text + folders[folder].name;
    }

    std::vector<Folder> folders;
    std::vector<FailedFile> failed;
    std::size_t files = 0;
    std::uint32_t current = 0, pending = 0;
    std::vector<std::uint32_t> parents;
};

// Opens the folder `index` of the walk again from the top, by name and never
// through a link, to retry a removal in it.
std::error_code OpenFolder(int top, const std::vector<Folder>& folders, std::uint32_t index,
                           UniqueFd& out) {
    std::vector<const std::string*> names;
    for (std::uint32_t at = index; at != 0; at = folders[at].parent)
        names.push_back(&folders[at].name);
    out = OpenDirAt(top, ".");
    for (auto name = names.rbegin(); out.valid() && name != names.rend(); ++name)
        out = OpenDirAt(out.get(), (*name)->c_str());
    return out.valid() ? std::error_code() : LastError();
}

}  // namespace
// Logs the failed first removal of `p`, waits, logs the retry and makes it.
static std::error_code RetryRemoval(const fs::path& p, std::error_code first,
                                    const std::function<std::error_code()>& again) {
    {
        std::ostringstream msg;
        msg << "DeleteWithRetry() - Error deleting:" << p << ": " << PrintErrorCode(first);
        ZQIMLog(msg.str());
    }
    std::this_thread::sleep_for(std::chrono::nanoseconds(250000000));
    {
        std::ostringstream msg;
        msg << "DeleteWithRetry() - Retrying deleting:" << p;
        ZQIMLog(msg.str());
    }
    return again();
}

std::error_code DeleteWithRetry(fs::path p) {
    auto attempt = [&p] {
        bool removed;
        return RemoveEntryAt(AT_FDCWD, p.c_str(), removed);
    };
    const std::error_code ec = attempt();
    return ec ? RetryRemoval(p, ec, attempt) : ec;
}

// Longer paths are deeper: contents go before the folders holding them.
// Paths of one length keep no particular order.
template <typename T, typename Length>
static void SortLongestFirst(std::vector<T>& items, Length length) {
    std::sort(items.begin(), items.end(),
              [&length](const T& a, const T& b) { return length(a) > length(b); });
}

int DoDelFolder(std::string folder) {
    ZQIMLog("DoDelFolder() - Deleting folder:" + folder);
    // The folder named is the front-end's and is opened as the system
    // resolves it; everything below it only through the handles of the walk.
    UniqueFd top = OpenDirAt(AT_FDCWD, folder.c_str(), true);
    FolderDeletion deletion(folder);
    if (!top.valid()) {
        std::ostringstream msg;
        msg << "FindFilesAndFolders(" << fs::path(folder)
            << ") - Error getting directory iterator. Not deleting. This can happen if the "
               "directory does not exist: "
            << PrintErrorCode(LastError());
        ZQIMLog(msg.str());
        deletion.folders.clear();
    } else {
        DirChain chain(OpenDirAt(top.get(), "."), folder);
        std::error_code lost;
        if (!WalkTree(chain, deletion, WalkOrder::AsMet, lost) && lost)
            deletion.listingFailed(chain, lost);
    }

    std::vector<std::uint32_t> order(deletion.folders.size());
    std::size_t folderEntries = 0;
    for (std::uint32_t i = 0; i < order.size(); ++i) {
        order[i] = i;
        folderEntries += deletion.folders[i].entries;
    }
    SortLongestFirst(order, [&](std::uint32_t i) { return deletion.folders[i].length; });
    for (FailedFile& f : deletion.failed)
        f.text = deletion.pathOf(f.folder) + "/" + f.name;
    SortLongestFirst(deletion.failed, [](const FailedFile& f) { return f.text.size(); });
    {
        std::ostringstream msg;
        msg << "DoDelFolder(" << folder << ") - deleting " << deletion.files << " files and "
            << folderEntries << " folders.";
        ZQIMLog(msg.str());
    }

    // Removes `name` again from the walk's folder `parent`, reached anew.
    auto removeIn = [&](std::uint32_t parent, const std::string& name) {
        UniqueFd dir;
        bool removed;
        const std::error_code ec = OpenFolder(top.get(), deletion.folders, parent, dir);
        if (ec)
            return ec == std::errc::no_such_file_or_directory ? std::error_code() : ec;
        return RemoveEntryAt(dir.get(), name.c_str(), removed);
    };
    for (const FailedFile& f : deletion.failed) {
        const std::error_code ec =
            RetryRemoval(fs::path(f.text), f.first, [&] { return removeIn(f.folder, f.name); });
        if (ec)
            ZQIMLog("DoDelFolder(" + folder + ") - error deleting file: " + PrintErrorCode(ec));
    }
    for (std::uint32_t i : order) {
        Folder& f = deletion.folders[i];
        const fs::path p(deletion.pathOf(i));
        for (int entry = 0; entry < f.entries; ++entry) {
            std::ostringstream msg;
            msg << "DoDelFolder(" << folder << ") - deleting folder: " << p;
            ZQIMLog(msg.str());
            if (f.removed)
                continue;  // gone already, and a missing folder is no error
            const std::error_code ec = i == 0 ? DeleteWithRetry(p) : [&] {
                auto attempt = [&] { return removeIn(f.parent, f.name); };
                const std::error_code first = attempt();
                return first ? RetryRemoval(p, first, attempt) : first;
            }();
            if (ec)
                ZQIMLog("DoDelFolder(" + folder + ") - error deleting folder: " +
                        PrintErrorCode(ec));
            else
                f.removed = true;
        }
    }
    return 0;
}

// ---------------------------------------------------------- running programs

int DoExec(std::string command) {
    ZQIMLog("DoExec() - Executing: " + command);
    // Our own buffered output must come before anything the child prints.
    std::cout.flush();
    const int status = std::system(command.c_str());
    std::ostringstream msg;
    msg << "DoExec() - Program result: " << status;
    ZQIMLog(msg.str());
    return 0;
}

// Deleting: a file below the root, with the folders its removal left empty,
// and whole folder trees, each failure retried once.

#include "deleteOps.h"

#include "fileHandles.h"
#include "helperLog.h"
#include "treeWalk.h"
#include "underRoot.h"
#include "zqimProtocol.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <iomanip>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

// ------------------------------------------------------------ deleting files

// A folder climbed to while pruning: the handle of the folder that holds it
// and its name there. Below the root it is reached through the root, the root
// and what lies above it from "/" (or the working directory); trusted links
// only, either way.
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
    if (text.empty())
        return ErrorOf(ENOENT);  // climbed past a relative root's first folder
    return OpenParentUnderRoot(std::string(), text, parent, name);
}

// What the library's is_empty says of `name` in `dir`: a directory without
// entries, or a file of no bytes.
static std::error_code IsEmptyAt(int dir, const std::string& name, bool& empty) {
    UniqueFd folder;
    std::error_code ec = OpenDirBelow(dir, name, folder);
    if (!ec)
        return DirIsEmpty(folder.get(), empty);
    struct stat st;
    if (ec == std::errc::not_a_directory && !StatAt(dir, name.c_str(), st, true) &&
        S_ISREG(st.st_mode)) {
        empty = st.st_size == 0;
        return {};
    }
    return ec;
}

int DoDelFile(std::string root, std::string file) {
    const fs::path target = root.empty() ? fs::path(file) : fs::path(root) / file;
    ZQIMLog("DoDelFile() - Deleting file: ", target);

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
        ZQIMLog("DoDelFile(", file, ") - error deleting file: ", removeEc.category().name(), ":",
                removeEc.value());
        result = zqim::kNotDeleted;
        gErrors.insert(zqim::kNotDeleted);
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
            ZQIMLog("DoDelFile(", dir, ") - error determining empty dir: ", isEmpty);
            break;
        }
        if (!isEmpty)
            break;
        ZQIMLog("DoDelFile() - Deleting empty folder: ", dir);
        bool gone;
        if (RemoveEntryAt(parent.get(), name.empty() ? "." : name.c_str(), gone)) {
            // The file removal's code is reported here, not the directory's.
            ZQIMLog("DoDelFile(", dir, ") - error cleaning empty dir: ", removeEc.category().name(),
                    ":", removeEc.value());
            result = zqim::kEmptiedParentKept;
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
            folders.push_back(Folder{current, static_cast<std::uint32_t>(dir.lengthOf(entry.name)),
                                     entry.name, 1, false});
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
        ZQIMLog("FindFilesAndFolders(", fs::path(dir.pathOf(name)),
                ") - Error getting directory iterator. Not deleting. This can happen if the "
                "directory does not exist: ",
                PrintErrorCode(ec));
        return true;
    }

    // Walking into the folder just listed: it is listed a second time.
    void entered(DirChain&, const std::string&) override {
        folders[pending].entries = 2;
        current = pending;
    }

    void left(DirChain& dir, const std::string& name) override {
        const std::uint32_t done = current;
        current = folders[done].parent;
        folders[done].removed = !RemoveDirAt(dir.fd(), name.c_str());
    }

    bool listingFailed(DirChain& dir, std::error_code) override {
        // The text names the listing's opening code, which was clear.
        ZQIMLog("FindFilesAndFolders(", fs::path(dir.path()),
                ") - Error incrementing directory iterator. Stopping iteration. ",
                PrintErrorCode(std::error_code()));
        return true;
    }

    // Climbs to the top and back down without recursion: a chain of folders
    // may be deeper than any stack.
    std::string pathOf(std::uint32_t folder) const {
        std::vector<std::uint32_t> below;
        for (std::uint32_t at = folder; at != 0; at = folders[at].parent)
            below.push_back(at);
        std::string text = folders[0].name;
        text.reserve(folders[folder].length);
        for (auto at = below.rbegin(); at != below.rend(); ++at) {
            if (!text.empty() && text.back() != '/')
                text += '/';
            text += folders[*at].name;
        }
        return text;
    }

    // A deque grows without copying what it holds: no moment holds the
    // folders twice.
    std::deque<Folder> folders;
    std::vector<FailedFile> failed;
    std::size_t files = 0;
    std::uint32_t current = 0, pending = 0;
};

// Opens the folder `index` of the walk again from the top, by name and never
// through a link, to retry a removal in it.
std::error_code OpenFolder(int top, const std::deque<Folder>& folders, std::uint32_t index,
                           UniqueFd& out) {
    std::vector<const std::string*> names;
    for (std::uint32_t at = index; at != 0; at = folders[at].parent)
        names.push_back(&folders[at].name);
    std::error_code ec = OpenDirAt(top, ".", out);
    for (auto name = names.rbegin(); !ec && name != names.rend(); ++name) {
        UniqueFd next;
        ec = OpenDirAt(out.get(), (*name)->c_str(), next);
        out = std::move(next);
    }
    return ec;
}

}  // namespace
// Logs the failed first removal of `p`, waits, logs the retry and makes it.
static std::error_code RetryRemoval(const fs::path& p, std::error_code first,
                                    const std::function<std::error_code()>& again) {
    ZQIMLog("DeleteWithRetry() - Error deleting:", p, ": ", PrintErrorCode(first));
    std::this_thread::sleep_for(std::chrono::nanoseconds(250000000));
    ZQIMLog("DeleteWithRetry() - Retrying deleting:", p);
    return again();
}

std::error_code DeleteWithRetry(fs::path p) {
    auto attempt = [&p] {
        // Through the handle of the folder that holds it, reached as every
        // path is; a path that leads nowhere has nothing to remove.
        if (p.empty())
            return std::error_code();
        UniqueFd parent;
        std::string name;
        std::error_code ec = OpenParentUnderRoot(std::string(), p.native(), parent, name);
        if (ec == std::errc::no_such_file_or_directory)
            return std::error_code();
        bool removed;
        return ec ? ec : RemoveEntryAt(parent.get(), name.empty() ? "." : name.c_str(), removed);
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
    // The folder named is reached from "/" through trusted links only, and
    // everything below it only through the handles of the walk.
    UniqueFd top;
    const std::error_code topEc = OpenDirAtPath(folder, top);
    FolderDeletion deletion(folder);
    if (topEc) {
        ZQIMLog("FindFilesAndFolders(", fs::path(folder),
                ") - Error getting directory iterator. Not deleting. This can happen if the "
                "directory does not exist: ",
                PrintErrorCode(topEc));
        deletion.folders.clear();
    } else {
        UniqueFd walked;
        OpenDirAt(top.get(), ".", walked);
        DirChain chain(std::move(walked), folder);
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
    ZQIMLog("DoDelFolder(", folder, ") - deleting ", deletion.files, " files and ",
            folderEntries, " folders.");

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
        // Quoted as a path is, without splitting a path of a deep chain into
        // as many components as it has levels.
        const std::string text = deletion.pathOf(i);
        for (int entry = 0; entry < f.entries; ++entry) {
            ZQIMLog("DoDelFolder(", folder, ") - deleting folder: ", std::quoted(text));
            if (f.removed)
                continue;  // gone already, and a missing folder is no error
            const std::error_code ec = i == 0 ? DeleteWithRetry(fs::path(text)) : [&] {
                auto attempt = [&] { return removeIn(f.parent, f.name); };
                const std::error_code first = attempt();
                return first ? RetryRemoval(fs::path(text), first, attempt) : first;
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

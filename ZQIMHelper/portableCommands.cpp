// Platform-neutral file operations. Every file-system call uses the
// non-throwing error-code form: failures become result codes and one log line.

#include "portableCommands.h"

#include "ZQIMHelper.h"

#include <algorithm>
#include <chrono>
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

int ZQIMCreateDirs(fs::path dir) {
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (!ec)
        return 0;

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

int DoMakeDir(std::string dir) {
    ZQIMLog("DoMakeDir(" + dir + ") - starting");
    const int result = ZQIMCreateDirs(fs::path(dir));
    std::ostringstream msg;
    msg << "DoMakeDir(" << dir << ") - Result was:" << result << ".";
    ZQIMLog(msg.str());
    return result;
}

// ------------------------------------------------------------ move or copy

int DoCmdCopy(std::string source, std::string destination, std::string root, bool move,
              std::map<std::string, std::string>& movedFiles) {
    const fs::path rootPath(root);
    const int created = ZQIMCreateDirs(rootPath / fs::path(destination).parent_path());
    if (created >= 2000)
        return created;
    return ZQIMMoveOrCopyFile(fs::path(source), rootPath / destination, move, movedFiles);
}

// Some standard libraries report a file copy cut short by a full disk as an
// I/O error, without retrying the write that would have said ENOSPC. When the
// destination's file system has no room left, that is what happened.
static bool NoRoomLeft(const fs::path& destination) {
    std::error_code ec;
    const fs::space_info space = fs::space(destination.parent_path(), ec);
    return !ec && space.available == 0;
}

// `hopsLeft` bounds the walk through the moved-files map: a chain longer than
// the map can only be a cycle (a moved file brought back and then deleted),
// which would otherwise recurse until the stack runs out.
static int MoveOrCopy(const fs::path& source, const fs::path& destination, bool move,
                      std::map<std::string, std::string>& movedFiles, std::size_t hopsLeft) {
    const bool doMove = move && !gRootIsCrossDevice;
    std::error_code error;
    if (doMove)
        fs::rename(source, destination, error);
    else
        fs::copy(source, destination,
                 fs::copy_options::overwrite_existing | fs::copy_options::recursive |
                     fs::copy_options::copy_symlinks,
                 error);

    if (error == std::errc::io_error && NoRoomLeft(destination))
        error = std::make_error_code(std::errc::no_space_on_device);

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
                return MoveOrCopy(fs::path(moved->second), destination, move, movedFiles,
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
            return MoveOrCopy(source, destination, move, movedFiles, hopsLeft);
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

int ZQIMMoveOrCopyFile(fs::path source, fs::path destination, bool move,
                       std::map<std::string, std::string>& movedFiles) {
    return MoveOrCopy(source, destination, move, movedFiles, movedFiles.size());
}

// ------------------------------------------------------------ deleting files

int DoDelFile(std::string root, std::string file) {
    const fs::path target = root.empty() ? fs::path(file) : fs::path(root) / file;
    {
        std::ostringstream msg;
        msg << "DoDelFile() - Deleting file: " << target;
        ZQIMLog(msg.str());
    }

    int result = 0;
    std::error_code removeEc(0, std::system_category());
    const bool removed = fs::remove(target, removeEc);
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
        std::error_code emptyEc;
        const bool isEmpty = fs::is_empty(dir, emptyEc);
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
        std::error_code dirEc;
        fs::remove(dir, dirEc);
        if (dirEc) {
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

void FindFilesAndFolders(fs::path dir, std::vector<std::string>& files,
                         std::vector<std::string>& folders) {
    std::error_code ec;
    fs::directory_iterator it(dir, ec);
    if (ec) {
        std::ostringstream msg;
        msg << "FindFilesAndFolders(" << dir
            << ") - Error getting directory iterator. Not deleting. This can happen if the "
               "directory does not exist: "
            << PrintErrorCode(ec);
        ZQIMLog(msg.str());
        return;
    }
    // The lists keep the path text only: a path object also keeps its parsed
    // components, several times the size of the text, and a tree of 100,000
    // entries would hold them all until the deletion starts.
    folders.push_back(dir.native());

    for (; it != fs::directory_iterator();) {
        const fs::directory_entry& entry = *it;
        std::error_code typeEc;
        if (entry.is_symlink(typeEc)) {
            files.push_back(entry.path().native());
        } else if (entry.is_directory(typeEc)) {
            // Listed here and again by the recursive call: the double entry
            // shows in the counts and costs one silent second removal.
            folders.push_back(entry.path().native());
            FindFilesAndFolders(entry.path(), files, folders);
        } else {
            files.push_back(entry.path().native());
        }

        std::error_code advanceEc;
        it.increment(advanceEc);
        if (advanceEc) {
            std::ostringstream msg;
            msg << "FindFilesAndFolders(" << dir
                << ") - Error incrementing directory iterator. Stopping iteration. "
                << PrintErrorCode(ec);
            ZQIMLog(msg.str());
            return;
        }
    }
}

std::error_code DeleteWithRetry(fs::path p) {
    std::error_code ec;
    fs::remove(p, ec);
    if (!ec)
        return ec;
    {
        std::ostringstream msg;
        msg << "DeleteWithRetry() - Error deleting:" << p << ": " << PrintErrorCode(ec);
        ZQIMLog(msg.str());
    }
    std::this_thread::sleep_for(std::chrono::nanoseconds(250000000));
    {
        std::ostringstream msg;
        msg << "DeleteWithRetry() - Retrying deleting:" << p;
        ZQIMLog(msg.str());
    }
    fs::remove(p, ec);
    return ec;
}

static void SortLongestFirst(std::vector<std::string>& paths) {
    std::sort(paths.begin(), paths.end(), [](const std::string& a, const std::string& b) {
        return a.size() > b.size();
    });
}

int DoDelFolder(std::string folder) {
    ZQIMLog("DoDelFolder() - Deleting folder:" + folder);
    std::vector<std::string> files;
    std::vector<std::string> folders;
    std::vector<std::string> failed;
    FindFilesAndFolders(fs::path(folder), files, folders);

    // Longer paths are deeper: contents go before the folders holding them.
    SortLongestFirst(folders);
    SortLongestFirst(files);
    {
        std::ostringstream msg;
        msg << "DoDelFolder(" << folder << ") - deleting " << files.size() << " files and "
            << folders.size() << " folders.";
        ZQIMLog(msg.str());
    }

    for (const std::string& file : files) {
        const std::error_code ec = DeleteWithRetry(fs::path(file));
        if (ec) {
            failed.push_back(file);
            ZQIMLog("DoDelFolder(" + folder + ") - error deleting file: " + PrintErrorCode(ec));
        }
    }
    for (const std::string& dir : folders) {
        const fs::path dirPath(dir);
        std::ostringstream msg;
        msg << "DoDelFolder(" << folder << ") - deleting folder: " << dirPath;
        ZQIMLog(msg.str());
        const std::error_code ec = DeleteWithRetry(dirPath);
        if (ec) {
            failed.push_back(dir);
            ZQIMLog("DoDelFolder(" + folder + ") - error deleting folder: " + PrintErrorCode(ec));
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

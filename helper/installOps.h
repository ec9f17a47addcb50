// Platform-neutral file operations: directory creation, error rendering, move
// or copy, deleting files and folder trees, running shell commands.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <system_error>
#include <vector>

std::string PrintErrorCode(std::error_code ec);
int ZQIMCreateDirs(std::filesystem::path dir);
int DoMakeDir(std::string dir);

int DoCmdCopy(std::string source, std::string destination, std::string root, bool move,
              std::map<std::string, std::string>& movedFiles);
int ZQIMMoveOrCopyFile(std::filesystem::path source, std::filesystem::path destination,
                       bool move, std::map<std::string, std::string>& movedFiles);

int DoDelFile(std::string root, std::string file);

// Removes `p` as given, and once more after a pause if that failed.
std::error_code DeleteWithRetry(std::filesystem::path p);
int DoDelFolder(std::string folder);

int DoExec(std::string command);

// Deleting a file below the root (and the folders left empty), and whole
// folder trees.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

int DoDelFile(std::string root, std::string file);

// Removes `p` as given, and once more after a pause if that failed.
std::error_code DeleteWithRetry(std::filesystem::path p);
int DoDelFolder(std::string folder);

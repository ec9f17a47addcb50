// Symbolic links below the install root.
#pragma once

#include <string>

// Makes `resultingLinkFile` below `root` a link to `existingFile`, replacing
// what stands there.
int DoCmdSymlink(std::string existingFile, std::string resultingLinkFile, std::string root);

// Putting things in place: directories, and moving or copying below the root.
#pragma once

#include <filesystem>
#include <map>
#include <string>

// Creates `dir` and its missing parents; a failure is logged and becomes a
// result code (also recorded in gErrors where it counts).
int ZQIMCreateDirs(std::filesystem::path dir);
int DoMakeDir(std::string dir);

// Moves (or copies) `source` to `destination` below `root`, recording moves
// in `movedFiles`. A move refused as cross-device sets `rootIsCrossDevice`,
// and from then on the root's moves copy.
int DoCmdCopy(std::string source, std::string destination, std::string root, bool move,
              std::map<std::string, std::string>& movedFiles, bool& rootIsCrossDevice);
int ZQIMMoveOrCopyFile(std::filesystem::path source, std::filesystem::path destination,
                       bool move, std::map<std::string, std::string>& movedFiles,
                       bool& rootIsCrossDevice);

// The command file reader and the interpreter of the command language.
#pragma once

#include "fileHandles.h"

#include <string>

// Runs every line of the command file at `path`; 1 when the helper is to stop.
int ServiceCommandFile(const std::string& path);
// The same for the command file the caller opened as `file` (`path` is what
// the log says); a file that could not be opened is an invalid handle.
int ServiceCommandFile(const std::string& path, UniqueFd file);
// Runs one line; `prevCommand` and `prevValue` carry a pair's start to its end.
int ServiceCommand(std::string line, std::string& prevCommand, std::string& prevValue);
void trim(std::string& text);

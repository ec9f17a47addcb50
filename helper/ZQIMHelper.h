// The helper process: start-up, the command-file exchange with the
// front-end and the main loop.
#pragma once

#include "helperLog.h"
#include "runState.h"

#include <set>
#include <string>
#include <vector>

// The command line as a list of whole tokens (program path excluded).
class InputParser {
public:
    InputParser(int& argc, char** argv);
    const std::string& getCmdOption(const std::string& option) const;
    bool cmdOptionExists(const std::string& option) const;

private:
    std::vector<std::string> tokens;
};

// Start-up: everything `main` does; returns the process exit status.
int ZQIMHelperMain(int argc, char** argv);

// Command-file exchange with the front-end.
int GetCommandNumberFromCommandFilepath(const std::string& path);
std::string GetNextCommand(int lastCommand, const std::string& commDir);
void WriteSignalFile(int command, const std::string& commDir);
void WriteErrorFile(const std::set<int>& errorCodes, int command, const std::string& commDir);

// The main loop: services command files until one stops it or the watched
// process has gone.
void mainLoop();

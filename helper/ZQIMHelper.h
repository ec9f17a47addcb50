// The helper process: start-up, the command-file exchange with the
// front-end and the main loop.
#pragma once

#include "helperLog.h"
#include "runState.h"

#include <set>
#include <string>
#include <string_view>
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
// The number an exchange file's name carries ("ZQCmd" N, up to the first
// dot), or -1 (N must be above 0).
int CommandNumberOfFileName(std::string_view name);
// The same for a command file's name (it must also end with ".txt"), or -1.
int CommandNumberOfCommandFileName(std::string_view name);
std::string GetNextCommand(int lastCommand, const std::string& commDir);
void WriteSignalFile(int command, const std::string& commDir);
void WriteErrorFile(const std::set<int>& errorCodes, int command, const std::string& commDir);

// The main loop: services command files until one stops it or the watched
// process has gone.
void mainLoop();
// Takes up the command file at `path`: logs it, points the progress file at
// it, runs it and answers it (the error file, then the finished file); `last`
// becomes its number. True when the helper must stop.
bool TakeUpCommandFile(const std::string& path, int& last);
// The main loop of -w: the same answers in the same order, but it sleeps
// until the front-end writes a file or ends (wakeLoop.cpp).
void WakeMainLoop();

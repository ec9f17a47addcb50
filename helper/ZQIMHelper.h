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

// The communication directory. It is opened once and checked: it and every
// folder above it must be owned by a trusted user (root, the helper's own
// user, the front-end's) and writable by no one else, a folder above it
// being allowed to be writable by others only when sticky. From then on every
// file of the exchange is reached through the handle held, so renaming or
// replacing the directory afterwards changes nothing.
enum class CommDirStatus { Held, Missing, Refused };
// Opens and checks `dir`; Held keeps it as the communication directory.
// Missing: nothing there yet, or no directory. Refused: `reason` says why.
CommDirStatus OpenCommDir(const std::string& dir, std::string& reason);
// The held communication directory, or -1 while there is none.
int CommDirFd();

// Command-file exchange with the front-end, in the communication directory
// held as `commDir`; `commDirPath` is its name as the log shows it.
int GetCommandNumberFromCommandFilepath(const std::string& path);
// The number an exchange file's name carries ("ZQCmd" N, up to the first
// dot), or -1 (N must be above 0).
int CommandNumberOfFileName(std::string_view name);
// The same for a command file's name (it must also end with ".txt"), or -1.
int CommandNumberOfCommandFileName(std::string_view name);
std::string GetNextCommand(int lastCommand, int commDir, const std::string& commDirPath);
void WriteSignalFile(int command, int commDir);
void WriteErrorFile(const std::set<int>& errorCodes, int command, int commDir);
// Holds the communication directory once it is there (CommDirFd() then
// names it); false while it is missing. One that is not private ends the
// helper: one line on standard output, no log, exit status 1.
bool HoldCommDir();

// The main loop: services command files until one stops it or the watched
// process has gone.
void mainLoop();
// Takes up the command file at `path`: logs it, points the progress file at
// it, runs it and answers it (the error file, then the finished file); `last`
// becomes its number. True when the helper must stop.
bool TakeUpCommandFile(const std::string& path, int& last);
// Checked by both loops before each look: true (and said in the log) when
// an exit was processed or the watched process has gone.
bool MainLoopMustEnd();
// The main loop of -w: the same answers in the same order, but it sleeps
// until the front-end writes a file or ends (wakeLoop.cpp).
void WakeMainLoop();

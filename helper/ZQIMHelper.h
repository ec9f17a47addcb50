// Process-wide state and the helper-process functions: start-up, the log and
// progress files, the command-file exchange, the main loop, the command file
// reader and the interpreter.
#pragma once

#include "helperLog.h"
#include "runState.h"

#include <map>
#include <set>
#include <string>
#include <vector>

// Start-up settings, fixed once the command line has been read (and
// gVerbose, with the log).
extern unsigned long long gPID;
extern std::string gCommDir;
extern std::string gLogFilepath;
extern bool gQuitCommandFound;

// The progress file of the command file being serviced.
extern std::string gProgressFilepath;
extern int gPrevProgress;

// The rest of the interpreter's run state, kept across command files.
extern std::string gUserID;
extern std::string gGroupID;
extern bool gPermsFullAccess;
extern std::map<std::string, std::string> gMovedFiles;
extern std::string gPlistLocation, gPlistPath, gPlistValueName, gPlistValueType, gPlistValueData;
extern std::string gRegHive, gRegPath, gRegValueName, gRegValueType, gRegValueData;
extern std::string gShortcutGroup, gShortcutTarget, gShortcutName, gShortcutDescription,
    gShortcutLocation;

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

// Progress files.
void ZQIMWriteProgress(const std::string& path, int progress);
std::string ConvertFromWideStringToUTF8(const std::wstring& text);

// Command-file exchange with the front-end.
int GetCommandNumberFromCommandFilepath(const std::string& path);
std::string GetNextCommand(int lastCommand, const std::string& commDir);
void WriteSignalFile(int command, const std::string& commDir);
void WriteErrorFile(const std::set<int>& errorCodes, int command, const std::string& commDir);

// Puts the run state (root, ids, stored values, error codes, moved files,
// the liveness record) back as a freshly started helper has it.
void ResetRunState();

// Main loop, reader and interpreter.
void mainLoop();
int ServiceCommandFile(const std::string& path);
int ServiceCommand(std::string line, std::string& prevCommand, std::string& prevValue);
void trim(std::string& text);

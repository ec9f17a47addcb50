// Process-wide state and the helper-process functions: start-up, the log and
// progress files, the command-file exchange, the main loop, the command file
// reader and the interpreter.
#pragma once

#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

// Start-up settings, fixed once the command line has been read.
extern bool gVerbose;
extern unsigned long long gPID;
extern std::string gCommDir;
extern std::string gLogFilepath;
extern bool gQuitCommandFound;

// The log and the progress file of the command file being serviced.
extern std::ofstream gLogStream;
extern std::string gProgressFilepath;
extern int gPrevProgress;

// Codes reported by the operations; written to every error file and never
// emptied, so a later error file repeats the codes of earlier command files.
extern std::set<int> gErrors;

// Interpreter run state, kept across command files for the whole run.
extern std::string gRoot;
extern bool gRootIsCrossDevice;
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

// Log and progress files.
void InitLog(const std::string& path);
void ZQIMLog(const std::string& message);
void CloseLog();
void ZQIMWriteProgress(const std::string& path, int progress);
std::string ConvertFromWideStringToUTF8(const std::wstring& text);

// Command-file exchange with the front-end.
int GetCommandNumberFromCommandFilepath(const std::string& path);
std::string GetNextCommand(int lastCommand, const std::string& commDir);
void WriteSignalFile(int command, const std::string& commDir);
void WriteErrorFile(const std::set<int>& errorCodes, int command, const std::string& commDir);

// Main loop, reader and interpreter.
void mainLoop();
int ServiceCommandFile(const std::string& path);
int ServiceCommand(std::string line, std::string& prevCommand, std::string& prevValue);
void trim(std::string& text);

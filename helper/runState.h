// The helper's process-wide state: every global, and the one function that
// puts the run state back as a freshly started helper has it. A leaf: it
// knows nothing of the operations that read and set it.
#pragma once

#include "logFile.h"

#include <map>
#include <set>
#include <string>

// ------------------------------------------------------- start-up settings

// Fixed once the command line has been read.
extern unsigned long long gPID;
extern std::string gCommDir;
// Declared with the log but never set: the log's path goes to InitLog.
extern std::string gLogFilepath;
// When set (-v), every log line is also echoed to standard output.
extern bool gVerbose;
// When set (-w), the main loop sleeps until the front-end writes a file or
// ends, instead of polling once a second.
extern bool gWake;
extern bool gQuitCommandFound;

// ---------------------------------------------------------------- the log

// The log file, made by InitLog.
extern LogFile gLogStream;

// Codes reported by the operations; written to every error file and never
// emptied, so a later error file repeats the codes of earlier command files.
extern std::set<int> gErrors;

// --------------------------------------------------- the interpreter's run

// The progress file of the command file being serviced.
extern std::string gProgressFilepath;
extern int gPrevProgress;

// The install root of `setRoot`, kept across command files.
extern std::string gRoot;
// Set once a move under the current root was refused as cross-device: later
// moves copy. Cleared by every `setRoot`.
extern bool gRootIsCrossDevice;

extern std::string gUserID;
extern std::string gGroupID;
extern bool gPermsFullAccess;
// Source -> destination of the moves of the current command file.
extern std::map<std::string, std::string> gMovedFiles;
extern std::string gPlistLocation, gPlistPath, gPlistValueName, gPlistValueType, gPlistValueData;
extern std::string gRegHive, gRegPath, gRegValueName, gRegValueType, gRegValueData;
extern std::string gShortcutGroup, gShortcutTarget, gShortcutName, gShortcutDescription,
    gShortcutLocation;

// Puts the run state (root, ids, stored values, error codes, moved files,
// progress) back as a freshly started helper has it. The liveness record
// has its own reset (ResetLiveness).
void ResetRunState();

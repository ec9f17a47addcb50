// The helper's log and the set of error codes it reports: what every
// operation writes to, whatever drives it.
#pragma once

#include <fstream>
#include <set>
#include <string>

// When set (-v), every log line is also echoed to standard output.
extern bool gVerbose;

// The log file, opened by InitLog.
extern std::ofstream gLogStream;

// Codes reported by the operations; written to every error file and never
// emptied, so a later error file repeats the codes of earlier command files.
extern std::set<int> gErrors;

void InitLog(const std::string& path);
// One time-stamped line, flushed at once.
void ZQIMLog(const std::string& message);
void CloseLog();

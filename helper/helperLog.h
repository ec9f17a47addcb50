// The helper's log and progress files: what every operation writes to,
// whatever drives it, and the one rendering of a system error in its text.
#pragma once

#include "runState.h"

#include <sstream>
#include <string>
#include <system_error>

void InitLog(const std::string& path);
// One time-stamped line, flushed at once.
void ZQIMLog(const std::string& message);
// The same for a line made of several parts, each written as a stream writes
// it (a path in quotes, a bool as 0 or 1), and logged with one call.
template <typename First, typename Second, typename... Rest>
void ZQIMLog(const First& first, const Second& second, const Rest&... rest) {
    std::ostringstream line;
    line << first << second;
    ((line << rest), ...);
    ZQIMLog(line.str());
}
void CloseLog();

// Writes `progress` and " %" to the progress file at `path`, replacing what
// it held.
void ZQIMWriteProgress(const std::string& path, int progress);
// Only the other platform's build converts; here it returns a fixed sentence.
std::string ConvertFromWideStringToUTF8(const std::wstring& text);

// "Error <value>: category=<name>, message=<message>".
std::string PrintErrorCode(std::error_code ec);

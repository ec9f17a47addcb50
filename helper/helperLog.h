// The helper's log and progress files: what every operation writes to,
// whatever drives it, and the one rendering of a system error in its text.
// Also how every file the helper writes for the front-end is made.
#pragma once

#include "fileHandles.h"
#include "runState.h"

#include <sys/types.h>

#include <sstream>
#include <string>
#include <system_error>

// ------------------------------------------------- the files for the front-end

// The log, the progress files and the answer files are made in the
// communication directory, through the handle start-up holds. Each is made
// afresh: whatever has its name is removed, then the file is created
// (O_CREAT | O_EXCL | O_NOFOLLOW), so nothing is ever written through a link,
// into a hard link to another file or into a fifo. Mode 0600, handed to the
// front-end's user when there is one: the front-end reads them, no one else.
void HoldExchangeDir(UniqueFd dir);
// The held communication directory, or -1 while there is none.
int ExchangeDir();
// The user the files are handed to (the front-end's, read at start-up).
void HandFilesTo(uid_t user);
// Makes `name` in `dir` afresh, as above, open for writing.
std::error_code MakeFreshFile(int dir, const std::string& name, UniqueFd& out);
// The same, with `content` written to it. A failure is not reported: the
// front-end finds the file missing or short.
void WriteFreshFile(int dir, const std::string& name, const std::string& content);

// ------------------------------------------------------------------ the log

// Makes the log afresh: `path` names it, in the held directory when there is
// one (else as given: a command file serviced on its own).
void InitLog(const std::string& path);
// One time-stamped line, written at once.
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

// Writes `progress` and " %" to the progress file at `path` (made as the log
// is), replacing what it held.
void ZQIMWriteProgress(const std::string& path, int progress);
// Only the other platform's build converts; here it returns a fixed sentence.
std::string ConvertFromWideStringToUTF8(const std::wstring& text);

// "Error <value>: category=<name>, message=<message>".
std::string PrintErrorCode(std::error_code ec);

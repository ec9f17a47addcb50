// Reading a command file's answer out of the helper's log: which of the
// lines sent failed, with which code and message, and whether the file
// ended the helper. The error file lists the codes of the whole run; only
// the log tells which line of this file failed.
#pragma once

#include "zqimClient.h"

#include <string>
#include <vector>

namespace zqim::detail {

// A physical log line that begins an entry: "YYYY-MM-DDTHH:MM:SSZ: ". The
// lines after it without a time stamp belong to the same entry.
bool BeginsLogEntry(const std::string& line);
constexpr std::size_t kTimeStampLength = 22;

// The N of an entry "Found command file N: <path>" (time stamp removed),
// or 0 for any other entry.
int FoundCommandFile(const std::string& entry);

// Whether ReadOutcome() can need this entry: the entries that name a line's
// result, and those that report an error (the failures' messages). The
// rest of a long file's log need not be kept.
bool NeededForOutcome(const std::string& entry);

struct Outcome {
    std::vector<Failure> failures;
    bool endsHelper = false;  // an exit line was reached, or a fatal error
};

// The outcome of the command file `sent`, from the entries the helper logged
// for it (time stamps removed), from its "Found command file" entry (not
// included) to the next.
Outcome ReadOutcome(const std::string& sent, const std::vector<std::string>& entries);

}  // namespace zqim::detail

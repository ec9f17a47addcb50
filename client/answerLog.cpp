#include "answerLog.h"

#include "commandKeywords.h"
#include "zqimProtocol.h"

#include <cstdlib>
#include <string_view>

namespace zqim::detail {

namespace {

// The entries the helper writes about a line's result (helper/interpreter,
// helper/installOps), without their time stamps.
constexpr std::string_view kFatal = "ServiceCommandFile() - Fatal error ";
constexpr std::string_view kMinor = "ServiceCommandFile() - Minor error with ";
constexpr std::string_view kMakeDir = "DoMakeDir(";
constexpr std::string_view kMakeDirStart = ") - starting";
constexpr std::string_view kMakeDirResult = ") - Result was:";
constexpr std::string_view kCrossDeviceStop =
    "ZQIMMoveOrCopyFile() - Copy is is cross-device. This should not happen..";
constexpr std::string_view kFound = "Found command file ";
constexpr std::string_view kServicing = "ServiceCommandFile() - Servicing ";
constexpr std::string_view kLinkStart = "DoCmdSymlink() - Create Symlink existingFile:\n";
constexpr std::string_view kLinkPlace = "\n... resultingLinkFile ...\n";

// Entries that say a line of a given command ran, with its value between
// the two parts. Each run of such a line writes its entry, so they are
// matched to the lines in order, and a failure comes at or after the line
// of the last one.
struct Marker {
    Command command;
    std::string_view before, after;
};
constexpr Marker kMarkers[] = {
    {Command::SetRoot, "ServiceCommand() - Root is now: ", ""},
    {Command::SetUserID, "ServiceCommand() - UserID is now: ", ""},
    {Command::SetGroupID, "ServiceCommand() - GroupID is now: ", ""},
    {Command::MakeDir, kMakeDir, kMakeDirStart},
    {Command::DelFolder, "DoDelFolder() - Deleting folder:", ""},
    {Command::Exec, "DoExec() - Executing: ", ""},
};

bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool EndsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// The helper's trim: the C locale's white space.
std::string_view Trim(std::string_view text) {
    auto space = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
    while (!text.empty() && space(text.back()))
        text.remove_suffix(1);
    while (!text.empty() && space(text.front()))
        text.remove_prefix(1);
    return text;
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// A line sent, as the interpreter will take it.
struct SentLine {
    std::string raw;  // as the reader reads it: up to the newline, a CR kept
    const Keyword* keyword = nullptr;
    std::string value;
    std::string pending;      // a pair's end: its start's value
    bool brokenPair = false;  // returns 2006
};

// Whether `entry` is the entry `line` writes when it runs.
bool Marks(std::string_view entry, const SentLine& line) {
    if (!line.keyword)
        return false;
    if (line.keyword->command == Command::LnkResulting)
        return StartsWith(entry, std::string(kLinkStart) + line.pending + std::string(kLinkPlace)) &&
               EndsWith(entry, "/" + line.value);
    for (const Marker& m : kMarkers)
        if (m.command == line.keyword->command)
            return entry.size() == m.before.size() + line.value.size() + m.after.size() &&
                   StartsWith(entry, m.before) && EndsWith(entry, m.after) &&
                   entry.substr(m.before.size(), line.value.size()) == line.value;
    return false;
}

// Whether `entry` can be the entry of a line: cheaper than Marks(), for
// the entries kept while a file runs.
bool IsMarker(std::string_view entry) {
    if (StartsWith(entry, kLinkStart))
        return true;
    for (const Marker& m : kMarkers)
        if (StartsWith(entry, m.before) && EndsWith(entry, m.after))
            return true;
    return false;
}

// The lines of `sent` as the helper reads them, and how far it will get
// whatever happens on disk: past an exit, a broken pair or a bare value
// that ends the process, nothing runs. Returns the number of lines that
// can run; `exitReached` when the last of them is an exit.
std::size_t ReadLines(const std::string& sent, std::vector<SentLine>& lines, bool& exitReached) {
    for (std::size_t at = 0; at < sent.size();) {
        std::size_t end = sent.find('\n', at);
        if (end == std::string::npos)
            end = sent.size();
        lines.emplace_back();
        lines.back().raw = sent.substr(at, end - at);
        at = end + 1;
    }
    exitReached = false;
    std::string_view prevCommand;
    std::string prevValue;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        SentLine& line = lines[i];
        const std::string_view text = Trim(line.raw);
        if (text.empty() || text[0] == '#' || text.find('\0') != std::string_view::npos)
            continue;
        line.keyword = MatchKeyword(text);
        if (!line.keyword)
            continue;
        if (!line.keyword->pairStart.empty() && prevCommand != line.keyword->pairStart) {
            line.brokenPair = true;
            return i + 1;
        }
        const std::size_t cut = line.keyword->name.size() + line.keyword->dropped;
        if (text.size() < cut)
            return i + 1;
        line.value = std::string(Trim(text.substr(cut)));
        line.pending = prevValue;
        prevCommand = line.keyword->name;
        if (line.keyword->value == ValueKept::TheValue)
            prevValue = line.value;
        else if (line.keyword->value == ValueKept::Cleared)
            prevValue.clear();
        if (line.keyword->command == Command::Exit) {
            exitReached = true;
            return i + 1;
        }
    }
    return lines.size();
}

// Whether an entry reports an error, as the operations word them.
bool ReportsError(std::string_view entry) {
    for (std::string_view sign : {"rror", "No space", "ermission denied", "not found"})
        if (entry.find(sign) != std::string_view::npos)
            return true;
    return false;
}

// The latest entry in [from, to) that reports an error: what the operation
// said when it failed.
std::string ErrorEntry(const std::vector<std::string>& entries, std::size_t from, std::size_t to) {
    for (std::size_t j = to; j > from; --j)
        if (ReportsError(entries[j - 1]))
            return entries[j - 1];
    return "";
}

}  // namespace

bool BeginsLogEntry(const std::string& line) {
    // "%FT%TZ: "
    static constexpr char kShape[] = "dddd-dd-ddTdd:dd:ddZ: ";
    if (line.size() < kTimeStampLength)
        return false;
    for (std::size_t i = 0; i < kTimeStampLength; ++i)
        if (kShape[i] == 'd' ? !IsDigit(line[i]) : line[i] != kShape[i])
            return false;
    return true;
}

int FoundCommandFile(const std::string& entry) {
    if (!StartsWith(entry, kFound) || entry.size() == kFound.size() || !IsDigit(entry[kFound.size()]))
        return 0;
    return std::atoi(entry.c_str() + kFound.size());
}

bool NeededForOutcome(const std::string& entry) {
    return StartsWith(entry, kServicing) || IsMarker(entry) || StartsWith(entry, kMakeDir) ||
           StartsWith(entry, kFatal) || StartsWith(entry, kMinor) || entry == kCrossDeviceStop ||
           ReportsError(entry);
}

Outcome ReadOutcome(const std::string& sent, const std::vector<std::string>& entries) {
    std::vector<SentLine> lines;
    bool exitReached;
    const std::size_t runnable = ReadLines(sent, lines, exitReached);

    Outcome outcome;
    auto fail = [&](std::size_t index, const std::string& text, int code, std::string message) {
        outcome.failures.push_back(Failure{static_cast<int>(index + 1), text, code,
                                           message.empty() ? CodeName(code) : message});
    };
    // Lines are matched in order: a failure is never before the last line
    // whose entry was seen, nor before the line of the last failure.
    std::size_t next = 0;
    std::size_t makeDir = lines.size();  // the makeDir line running
    // Entries before this one are explained (the first names the file).
    std::size_t since = !entries.empty() && StartsWith(entries[0], kServicing) ? 1 : 0;
    for (std::size_t j = 0; j < entries.size(); ++j) {
        const std::string_view entry = entries[j];
        if (IsMarker(entry)) {
            for (std::size_t i = next; i < runnable; ++i)
                if (Marks(entry, lines[i])) {
                    // That line runs: nothing before it failed, and a
                    // makeDir's result follows.
                    next = i;
                    if (lines[i].keyword->command == Command::MakeDir) {
                        makeDir = i;
                        next = i + 1;
                    }
                    since = j + 1;
                    break;
                }
        } else if (StartsWith(entry, kMakeDir) && entry.rfind(kMakeDirResult) != std::string::npos) {
            // A folder that cannot be made records its code, and the file
            // goes on: the line's own result stays 0.
            const int code = std::atoi(entries[j].c_str() + entry.rfind(kMakeDirResult) +
                                       kMakeDirResult.size());
            if (code != 0 && makeDir < lines.size())
                fail(makeDir, lines[makeDir].raw, code, ErrorEntry(entries, since, j));
            makeDir = lines.size();
            since = j + 1;
        } else if (StartsWith(entry, kFatal) || StartsWith(entry, kMinor)) {
            const bool fatal = StartsWith(entry, kFatal);
            const std::size_t codeAt = (fatal ? kFatal : kMinor).size();
            const int code = std::atoi(entries[j].c_str() + codeAt);
            const std::size_t textAt = entry.find(": ", codeAt);
            const std::string text =
                textAt == std::string::npos ? std::string() : entries[j].substr(textAt + 2);
            // The line logged, among those that can yield a code: the
            // first still unexplained (identical lines before it ran well).
            std::size_t line = lines.size();
            for (std::size_t i = next; i < runnable && line == lines.size(); ++i)
                if (lines[i].raw == text && lines[i].keyword &&
                    (code == kPairOutOfOrder ? lines[i].brokenPair
                                             : !lines[i].brokenPair && lines[i].keyword->resultKept))
                    line = i;
            std::string message;
            if (line < lines.size() && lines[line].brokenPair)
                message = "'" + std::string(lines[line].keyword->name) +
                          "' must directly follow '" +
                          std::string(lines[line].keyword->pairStart) +
                          "' (comments and unknown lines aside)";
            else
                message = ErrorEntry(entries, since, j);
            if (line < lines.size()) {
                fail(line, lines[line].raw, code, message);
                next = line + 1;
            } else {
                outcome.failures.push_back(Failure{0, text, code,
                                                   message.empty() ? CodeName(code) : message});
            }
            outcome.endsHelper = outcome.endsHelper || fatal;
            since = j + 1;
        } else if (entry == kCrossDeviceStop) {
            outcome.endsHelper = true;
        }
    }
    outcome.endsHelper = outcome.endsHelper || exitReached;
    return outcome;
}

}  // namespace zqim::detail

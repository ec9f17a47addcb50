#include "commandChecker.h"

#include "commandKeywords.h"
#include "zqimProtocol.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zqim {

namespace {

// White space as the helper's trim sees it: it never sets a locale, so the
// C locale's six characters. Spelled out, because a program embedding the
// checker may have set a locale in which other bytes are space.
bool IsSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

char FoldCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The line as the interpreter trims it, and the column it starts at.
std::string_view Trimmed(std::string_view line, int& column) {
    std::size_t first = 0, last = line.size();
    while (last > 0 && IsSpace(line[last - 1]))
        --last;
    while (first < last && IsSpace(line[first]))
        ++first;
    column = static_cast<int>(first) + 1;
    return line.substr(first, last - first);
}

std::string_view TrimmedValue(std::string_view rest) {
    int ignored;
    return Trimmed(rest, ignored);
}

// The edit distance between a and b ignoring case, or `limit` once it is
// sure to be at least that: most words are far from every keyword, and
// are given up on after a few letters.
std::size_t Distance(std::string_view a, std::string_view b, std::size_t limit) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        std::size_t best = row[0];
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t up = row[j];
            const bool same = FoldCase(a[i - 1]) == FoldCase(b[j - 1]);
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = up;
            best = std::min(best, row[j]);
        }
        if (best >= limit)
            return limit;
    }
    return std::min(row[b.size()], limit);
}

// Whether `shorter` is a shortening of `longer`, ignoring case: its
// beginning (lnkResult, setGroup), or its letters in order with the same
// first one (copySrc in copySource). Four letters at least, and at least
// half of the longer word, so that short words are not matched by chance.
bool Shortens(std::string_view shorter, std::string_view longer) {
    if (shorter.size() < 4 || shorter.size() >= longer.size() || 2 * shorter.size() < longer.size() ||
        FoldCase(shorter[0]) != FoldCase(longer[0]))
        return false;
    std::size_t at = 0;
    for (const char c : longer)
        if (at < shorter.size() && FoldCase(c) == FoldCase(shorter[at]))
            ++at;
    return at == shorter.size();
}

// Keywords are ASCII letters: a word ends at white space or ASCII
// punctuation ('copySource/x', 'setRoot='). Other bytes stay in it, so that
// a misspelt letter written in two bytes counts as one word.
bool InWord(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x80 || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c >= '0' && c <= '9');
}

// The keyword an unknown command was most likely meant to be, or empty: one
// at most two edits away (case aside), else one the word shortens or
// lengthens (lnkResult, copySource).
std::string_view NearestKeyword(std::string_view line) {
    std::size_t end = 0;
    while (end < line.size() && InWord(line[end]))
        ++end;
    const std::string_view word = line.substr(0, std::min<std::size_t>(end, 64));
    std::string_view best;
    std::size_t bestDistance = 3;  // at most two edits away
    for (const Keyword* k = KeywordsBegin(); k != KeywordsEnd(); ++k) {
        if (word.size() + 2 < k->name.size() || k->name.size() + 2 < word.size())
            continue;  // more than two edits apart whatever they are
        const std::size_t d = Distance(word, k->name, bestDistance);
        if (d < bestDistance) {
            bestDistance = d;
            best = k->name;
        }
    }
    for (const Keyword* k = KeywordsBegin(); best.empty() && k != KeywordsEnd(); ++k)
        if (Shortens(word, k->name) || Shortens(k->name, word))
            best = k->name;
    return best;
}

// The keywords that end the pair `start` begins, as a message names them.
std::string PairEnds(std::string_view start) {
    std::string ends;
    for (const Keyword* k = KeywordsBegin(); k != KeywordsEnd(); ++k)
        if (k->pairStart == start)
            ends += (ends.empty() ? "'" : " or '") + std::string(k->name) + "'";
    return ends;
}

// The preference setters, whose values are pasted into a shell line.
bool IsPlistSetter(Command command) {
    return command == Command::PlistLoc || command == Command::PlistPath ||
           command == Command::PlistValueName || command == Command::PlistValueType ||
           command == Command::PlistValueData;
}

bool HasDotDot(std::string_view path) {
    std::size_t at = 0;
    while (at <= path.size()) {
        std::size_t end = path.find('/', at);
        if (end == std::string_view::npos)
            end = path.size();
        if (path.substr(at, end - at) == "..")
            return true;
        at = end + 1;
    }
    return false;
}

std::string Quote(std::string_view text) {
    return "'" + Printable(text) + "'";
}

class FileCheck {
public:
    explicit FileCheck(CheckContext& context) : context(context) {}

    void Line(std::string_view raw, int number) {
        int column;
        const std::string_view line = Trimmed(raw, column);
        lineNumber = number;
        if (line.empty() || line[0] == '#')
            return;
        if (line.find('\0') != std::string_view::npos) {
            Add(Finding::Error, column, "the line holds a NUL byte: the helper skips it as an "
                                        "unknown command");
            return;
        }
        const Keyword* k = MatchKeyword(line);
        if (!k) {
            const std::string_view near = NearestKeyword(line);
            Add(Finding::Warning, column,
                "unknown command " + Quote(line.substr(0, std::min<std::size_t>(line.size(), 40))) +
                    " is skipped" + (near.empty() ? "" : "; did you mean " + Quote(near) + "?"));
            return;
        }
        if (exitLine && !afterExitReported) {
            afterExitReported = true;
            Add(Finding::Warning, column,
                "never runs: the file stops at the exit on line " + std::to_string(exitLine));
        }
        const std::string name(k->name);
        if (!k->pairStart.empty() && prevCommand != k->pairStart) {
            std::string why = "no " + std::string(k->pairStart) + " before it";
            const auto start = pairStarts.find(k->pairStart);
            if (start != pairStarts.end())
                why = "the pair begun on line " + std::to_string(start->second.line) +
                      " was broken by line " + std::to_string(start->second.brokenBy) + " (" +
                      start->second.breaker + ")";
            Add(Finding::Error, column,
                Quote(name) + " must directly follow " + Quote(k->pairStart) +
                    " (comments and unknown lines aside): fatal error " +
                    std::to_string(kPairOutOfOrder) + ", the helper stops; " + why,
                Finding::StopsFile);
            // This error names the start it was meant for: that one needs
            // no finding of its own.
            if (start != pairStarts.end())
                for (Unused& unused : unusedStarts)
                    unused.explained = unused.explained || unused.line == start->second.line;
            return;
        }
        if (!k->pairStart.empty() && openStart)
            openStart.reset();  // its pair is complete
        const std::size_t cut = k->name.size() + k->dropped;
        if (line.size() < cut) {
            Add(Finding::Error, column,
                "nothing after " + Quote(name) + ": cutting its value ends the helper process, "
                "with no finished file",
                Finding::EndsProcess);
        } else if (line.size() > k->name.size()) {
            const char next = line[k->name.size()];
            const int at = column + static_cast<int>(k->name.size());
            if (k->dropped == 0 && !IsSpace(next))
                Add(Finding::Warning, at,
                    Quote(name) + " is glued to its value: read as " + Quote(name) +
                        " with the value " + Quote(TrimmedValue(line.substr(cut))));
            else if (k->dropped == 1 && next != ' ' && next != '\t') {
                const std::string_view left = TrimmedValue(line.substr(cut));
                Add(Finding::Warning, at,
                    "the character after " + Quote(name) + " is dropped, whatever it is: " +
                        Quote(line.substr(k->name.size(), 1)) +
                        " is not part of the value, which " +
                        (left.empty() ? std::string("is empty") : "is " + Quote(left)));
            }
        }
        const std::string_view value =
            line.size() >= cut ? TrimmedValue(line.substr(cut)) : std::string_view();
        const int valueColumn =
            column + static_cast<int>(value.empty() ? std::min(cut, line.size())
                                                    : static_cast<std::size_t>(value.data() -
                                                                               line.data()));
        Value(k->command, name, value, column, valueColumn);

        // The first recognised line after a pair's start ends the pair; a
        // later destination is told which line that was.
        for (auto& [startName, start] : pairStarts)
            if (!start.brokenBy) {
                start.brokenBy = lineNumber;
                start.breaker = name;
            }
        if (openStart) {
            openStart->brokenBy = lineNumber;
            openStart->breaker = name;
            unusedStarts.push_back(*openStart);
            openStart.reset();
        }
        if (StartsPair(k->command)) {
            pairStarts[k->name] = PairStart{lineNumber, 0, ""};
            // A bare start ends the process: it has its error already.
            if (line.size() >= cut)
                openStart = Unused{k->name, lineNumber, column, 0, "", false};
        }
        prevCommand = name;
    }

    void End(int lines) {
        if (openStart)
            unusedStarts.push_back(*openStart);
        for (const Unused& unused : unusedStarts) {
            if (unused.explained)
                continue;
            lineNumber = unused.line;
            Add(Finding::Warning, unused.column,
                Quote(unused.keyword) + " is never used: " +
                    (unused.brokenBy ? "line " + std::to_string(unused.brokenBy) + " (" +
                                           unused.breaker + ") comes before its "
                                     : std::string("the file ends before its ")) +
                    PairEnds(unused.keyword));
        }
        if (context.lastFile && !exitLine && !context.exitFollows) {
            lineNumber = std::max(lines, 1);
            Add(Finding::Warning, 1,
                "no exit: after the last file the helper goes on polling until its front-end "
                "is gone");
        } else if (!context.lastFile && exitLine) {
            if (context.oneHelper) {
                lineNumber = exitLine;
                Add(Finding::Error, exitColumn,
                    "the helper ends at this exit: the files after this one are never run");
            } else {
                // The next file is for a helper of its own, started with no
                // root.
                context.rootSet = false;
            }
        }
    }

    std::vector<Finding> findings;

private:
    void Add(Finding::Kind kind, int column, std::string message,
             Finding::Effect effect = Finding::Advice) {
        findings.push_back(Finding{kind, lineNumber, column, std::move(message), effect});
    }

    void Value(Command command, const std::string& name, std::string_view value,
               int keywordColumn, int column) {
        // A template's placeholder (@ROOT@) stands for what its front-end
        // fills in: an absolute path.
        const bool placeholder = value.size() > 2 && value[0] == '@' &&
                                 value.find('@', 1) != std::string_view::npos;
        const bool absolute = placeholder || (!value.empty() && value[0] == '/');
        // The helper has no quoting; the shell lines (exec, the preference
        // values) have their own finding.
        if (!value.empty() && (value[0] == '"' || value[0] == '\'') && command != Command::Exec &&
            !IsPlistSetter(command))
            Add(Finding::Warning, column,
                "quotes are taken literally: the value is " + Quote(value) +
                    ", quotes included (inner spaces need none)");
        switch (command) {
        case Command::CopySrc:
        case Command::DelFolder:
            if (!absolute)
                Add(Finding::Warning, column,
                    "relative path: " + name + " takes it from the helper's working directory");
            break;
        case Command::CopyDest:
        case Command::MoveOrCopyDest:
        case Command::DelFile:
        case Command::LnkResulting:
            if (!context.rootSet && command != Command::LnkResulting)
                Add(Finding::Warning, column,
                    name + " before any setRoot: the path is taken as it stands, from the "
                           "helper's working directory");
            if (HasDotDot(value))
                Add(Finding::Warning, column,
                    "a '..' component in a path meant to stay under the root");
            // Joined as paths, an absolute one replaces the root (a link's
            // place is joined as text, and stays below it).
            if (context.rootSet && command != Command::LnkResulting && !value.empty() &&
                value[0] == '/')
                Add(Finding::Warning, column,
                    "an absolute path leaves the root: " + name + " uses " + Quote(value) +
                        " as it stands, not below the root");
            break;
        case Command::SetRoot:
            context.rootSet = !value.empty();
            if (value.size() > 1 && value.back() == '/')
                Add(Finding::Warning, column,
                    "a root ending in '/' is never recognised by delFile's pruning, which then "
                    "climbs past it");
            break;
        case Command::PlistLoc:
        case Command::PlistPath:
        case Command::PlistValueName:
        case Command::PlistValueType:
        case Command::PlistValueData:
            if (value.find('"') != std::string_view::npos)
                Add(Finding::Warning, column,
                    "a double quote in a preference value is pasted unescaped into a shell "
                    "command line");
            break;
        case Command::Progress: {
            const int n = static_cast<int>(std::strtoul(std::string(value).c_str(), nullptr, 10));
            if (n > 100 || n < 0)
                Add(Finding::Warning, column,
                    "progress " + std::to_string(n) + (n < 0 ? " is below 0" : " is past 100"));
            else if (n < progress)
                Add(Finding::Warning, column,
                    "progress goes down, from " + std::to_string(progress) + " to " +
                        std::to_string(n));
            progress = n;
            break;
        }
        case Command::Exec:
            Add(Finding::Note, column, "runs as root, through the shell: " + Printable(value));
            break;
        case Command::WaitForPID:
            if (context.noPid)
                Add(Finding::Error, keywordColumn,
                    "waitForPID never returns when the helper watches no process (-p)");
            break;
        case Command::Exit:
            if (!exitLine) {
                exitLine = lineNumber;
                exitColumn = keywordColumn;
            }
            break;
        default:
            break;
        }
    }

    struct PairStart {
        int line;
        int brokenBy;  // the first recognised line after it, once there is one
        std::string breaker;
    };

    // A pair's start not (yet) followed by its end.
    struct Unused {
        std::string_view keyword;
        int line, column;
        int brokenBy;
        std::string breaker;
        bool explained;  // a broken pair's error names it
    };

    CheckContext& context;
    int lineNumber = 0;
    std::string prevCommand;
    std::map<std::string_view, PairStart> pairStarts;
    std::optional<Unused> openStart;
    std::vector<Unused> unusedStarts;
    int progress = -1;
    int exitLine = 0;
    int exitColumn = 0;
    bool afterExitReported = false;
};

}  // namespace

std::vector<Finding> CheckCommandFile(std::string_view text, CheckContext& context) {
    FileCheck check(context);
    int number = 0;
    std::size_t at = 0;
    // Lines as the reader takes them: up to each newline, and a last one
    // without a newline too.
    while (at < text.size()) {
        std::size_t end = text.find('\n', at);
        if (end == std::string_view::npos)
            end = text.size();
        check.Line(text.substr(at, end - at), ++number);
        at = end + 1;
    }
    check.End(number);
    // A pair's start is judged at its end or the file's: back in line order.
    std::stable_sort(check.findings.begin(), check.findings.end(),
                     [](const Finding& a, const Finding& b) {
                         return a.line != b.line ? a.line < b.line : a.column < b.column;
                     });
    return std::move(check.findings);
}

const char* KindName(Finding::Kind kind) {
    switch (kind) {
    case Finding::Error: return "error";
    case Finding::Warning: return "warning";
    default: return "note";
    }
}

std::string Printable(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace zqim

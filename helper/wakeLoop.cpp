// The main loop of -w. It answers the same command files in the same order
// as the polling loop, but it sleeps until the front-end writes a file or
// ends (wakeup.h), and it learns which command files exist from the names
// the events report, so that finding the next one costs the same in a
// directory of ten thousand answered files as in an empty one.
//
// Where the system's events do not name the entry (macOS), the loop first
// looks for the one name that would settle the choice at once: the command
// file numbered right after the last one taken, which no other can precede.
// Only when that is not there does it list the directory, once per wake-up:
// after each answered file (its own answer files wake it too) and when the
// front-end skips numbers. An idle helper lists nothing.

#include "ZQIMHelper.h"

#include "fileHandles.h"
#include "liveness.h"
#include "wakeup.h"
#include "zqimProtocol.h"

#include <fcntl.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>
#include <utility>

namespace fs = std::filesystem;

namespace {

// How often the loop looks when the system gives it no event to wait for.
constexpr int kFallbackMs = 50;

struct Watch {
    UniqueFd dir;          // the communication directory, held open
    WakeSource source;     // its events (and the watched process's)
    bool watching = false;   // false: no events, look every kFallbackMs
    int timeoutMs = -1;      // the longest sleep; -1: until an event
    int last = -1;           // the number of the last command file taken
    // The command files above `last` the loop knows of: number, then name.
    std::set<std::pair<int, std::string>> known;
    // Whether `known` holds every command file above `last` in the
    // directory; after an event that named nothing it may not.
    bool complete = false;
    bool look = true;        // something happened that may make a file ready
    // The signal file last reported missing, so that a command file waiting
    // for it is reported once, not on every look.
    std::string reportedWaiting;
};

// The lowest number a command file can still have.
int LowestPossible(const Watch& watch) {
    return std::max(watch.last + 1, 1);
}

// The signal file's name for the command file `name` (its ".txt" replaced).
std::string SignalNameOf(const std::string& name) {
    const std::size_t extension = sizeof zqim::kCommandExtension - 1;
    return name.substr(0, name.size() - extension) + zqim::kSignalExtension;
}

// Whether `name` exists in the directory as the polling loop asks: its
// status, links followed, can be read.
bool Exists(const Watch& watch, const std::string& name, bool follow) {
    struct stat st;
    return !StatAt(watch.dir.get(), name.c_str(), st, follow);
}

// Takes what is queued, without sleeping. Used before a listing, which sees
// all that those events could tell.
void DropQueued(Watch& watch) {
    Changes dropped;
    if (watch.watching)
        watch.source.Wait(0, dropped);
}

// Learns the command files above `last` from a listing of the held directory.
void ListCommandFiles(Watch& watch) {
    DropQueued(watch);
    watch.known.clear();
    std::vector<DirEntry> entries;
    UniqueFd listing;
    if (!OpenDirAt(watch.dir.get(), ".", listing))
        ReadEntries(listing.get(), entries);
    for (const DirEntry& entry : entries) {
        const int number = CommandNumberOfCommandFileName(entry.name);
        if (number > watch.last)
            watch.known.emplace(number, entry.name);
    }
    watch.complete = true;
}

// Whether a command file above the lowest known one is complete (has its
// signal file): then the lowest, still without its own, holds it back.
bool LaterFileIsComplete(const Watch& watch) {
    for (auto it = std::next(watch.known.begin()); it != watch.known.end(); ++it)
        if (Exists(watch, SignalNameOf(it->second), true))
            return true;
    return false;
}

// The exchange lookup of -w: GetNextCommand over the command files the loop
// knows of, with the polling lookup's choice and log line. The helper sees a
// command file the moment it appears, before its signal file (which a
// front-end writes right after): a file waiting for its signal is reported
// only once it holds back a later, complete one, and then once.
std::string GetNextCommand(Watch& watch) {
    while (true) {
        // Without every name, only the lowest possible number is sure to be
        // the lowest there is.
        if (!watch.complete &&
            (watch.known.empty() || watch.known.begin()->first != LowestPossible(watch)))
            ListCommandFiles(watch);
        if (watch.known.empty())
            return "";
        const std::string name = watch.known.begin()->second;
        // The front-end may have taken it back: a name the events reported
        // is only a candidate while it is there.
        struct stat st;
        if (StatAt(watch.dir.get(), name.c_str(), st) == std::errc::no_such_file_or_directory) {
            watch.known.erase(watch.known.begin());
            continue;
        }
        const std::string signal = SignalNameOf(name);
        if (!Exists(watch, signal, true)) {
            const std::string path = (fs::path(gCommDir) / signal).string();
            if (path != watch.reportedWaiting && LaterFileIsComplete(watch)) {
                ZQIMLog("GetNextCommand() - No sig file found (", path, ").");
                watch.reportedWaiting = path;
            }
            return "";
        }
        return (fs::path(gCommDir) / name).string();
    }
}

// Takes in what one wake-up brought: the command files it names, and whether
// to look for the next one.
void TakeIn(Watch& watch, const Changes& changes) {
    if (changes.lost) {
        watch.complete = false;
        watch.look = true;
    }
    if (changes.unnamed) {
        // Only the lowest possible number settles the choice without a listing.
        watch.complete = false;
        const int lowest = LowestPossible(watch);
        const std::string name =
            zqim::kCommandPrefix + std::to_string(lowest) + zqim::kCommandExtension;
        if (Exists(watch, name, false))
            watch.known.emplace(lowest, name);
        watch.look = true;
    }
    for (const std::string& name : changes.names) {
        const int number = CommandNumberOfFileName(name);
        if (number <= watch.last)
            continue;  // -1 too: not an exchange file
        if (CommandNumberOfCommandFileName(name) == number)
            watch.known.emplace(number, name);
        watch.look = true;
    }
}

// Sleeps as long as `timeoutMs` says, or until an event when the directory
// is watched, and takes in what came.
void WaitForChanges(Watch& watch, int timeoutMs) {
    if (!watch.watching) {
        const timespec pause = {0, (timeoutMs < 0 ? kFallbackMs : timeoutMs) * 1000000L};
        nanosleep(&pause, nullptr);
        watch.complete = false;
        watch.look = true;
        return;
    }
    Changes changes;
    if (std::error_code ec = watch.source.Wait(timeoutMs, changes)) {
        ZQIMLog("WakeMainLoop() - Cannot wait for changes: ", PrintErrorCode(ec),
                ". Looking every ", kFallbackMs, " ms.");
        watch.watching = false;
        watch.timeoutMs = kFallbackMs;
    }
    TakeIn(watch, changes);
}

// The held communication directory, checked as in polling mode, on a
// descriptor of the watch's own; ENOENT while it is not there.
std::error_code HoldWatchedDir(Watch& watch) {
    if (!HoldCommDir())
        return ErrorOf(ENOENT);
    watch.dir = UniqueFd(::fcntl(CommDirFd(), F_DUPFD_CLOEXEC, 0));
    return watch.dir.valid() ? std::error_code() : LastError();
}

// Holds the directory and the watched process, and says in the log what it
// cannot watch, once.
void StartWatching(Watch& watch) {
    std::error_code ec = HoldWatchedDir(watch);
    if (!ec)
        ec = watch.source.WatchDirectory(watch.dir.get());
    watch.watching = !ec;
    if (ec) {
        ZQIMLog("WakeMainLoop() - Cannot watch ", gCommDir, ": ", PrintErrorCode(ec),
                ". Looking every ", kFallbackMs, " ms.");
        watch.timeoutMs = kFallbackMs;
    }
    if (gPID == 0)
        return;
    ec = HoldProcessHandle(gPID);
    if (!ec && watch.watching && HeldProcessHandle() >= 0)
        ec = watch.source.WatchProcess(HeldProcessHandle(), static_cast<int>(gPID));
    if (ec) {
        ZQIMLog("WakeMainLoop() - No handle on PID ", gPID, ": ", PrintErrorCode(ec),
                ". Checking it every ", kFallbackMs, " ms.");
        watch.timeoutMs = kFallbackMs;
    }
}

}  // namespace

void WakeMainLoop() {
    Watch watch;
    StartWatching(watch);
    while (true) {
        if (MainLoopMustEnd())
            return;
        if (!watch.dir.valid() && !HoldWatchedDir(watch))
            watch.complete = false;  // created since: list it

        if (watch.look && watch.dir.valid()) {
            WaitForChanges(watch, 0);  // what came meanwhile, a file written during the last one
            watch.look = false;
            const std::string next = GetNextCommand(watch);
            if (!next.empty()) {
                if (TakeUpCommandFile(next, watch.last))
                    return;
                watch.known.erase(watch.known.begin(),
                                  watch.known.lower_bound({watch.last + 1, std::string()}));
                watch.look = true;
                continue;
            }
        }
        WaitForChanges(watch, watch.timeoutMs);
    }
}

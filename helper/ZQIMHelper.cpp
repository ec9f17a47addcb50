// The helper process: start-up, the file exchange with the front-end and
// the main loop.

#include "ZQIMHelper.h"

#include "installOps.h"
#include "interpreter.h"
#include "liveness.h"
#include "platform.h"
#include "privateDir.h"
#include "trust.h"
#include "zqimProtocol.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string_view>

namespace fs = std::filesystem;

// ---------------------------------------------------------------- start-up

InputParser::InputParser(int& argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        tokens.emplace_back(argv[i]);
}

const std::string& InputParser::getCmdOption(const std::string& option) const {
    auto it = std::find(tokens.begin(), tokens.end(), option);
    if (it != tokens.end() && ++it != tokens.end())
        return *it;
    static const std::string empty_string;
    return empty_string;
}

bool InputParser::cmdOptionExists(const std::string& option) const {
    return std::find(tokens.begin(), tokens.end(), option) != tokens.end();
}

// Before the log is open, start-up talks to standard output only.
static void Say(const std::string& line) {
    std::cout << line << std::endl;
}

// Holds the communication directory once it is there. A directory that is
// there but not private ends the helper before anything in it is read or
// written: one line on standard output, no log, exit status 1.
bool HoldCommDir() {
    if (CommDirFd() >= 0)
        return true;
    std::string reason;
    switch (OpenCommDir(gCommDir, reason)) {
    case CommDirStatus::Held: return true;
    case CommDirStatus::Missing: return false;
    case CommDirStatus::Refused: break;
    }
    Say("Communication dir is not private: " + gCommDir + " (" + reason + "). Exiting.");
    std::exit(1);
}

int ZQIMHelperMain(int argc, char** argv) {
    // Whoever started the helper, what it makes is never writable by others
    // (a stricter umask is kept), and the programs it runs start with the
    // standard descriptors only: everything it opens is close-on-exec, and
    // so, from here on, is everything it inherited.
    ::umask(::umask(022) | 022);
    MarkDescriptorsCloseOnExec(3);

    InputParser input(argc, argv);
    // The version alone: nothing starts, no directory is looked at.
    if (input.cmdOptionExists("--version")) {
        Say("ZQIMHelper " ZQIM_VERSION);
        return 0;
    }
    Say("ZQIMHelper starting...");

    const std::string& testDir = input.getCmdOption("-t");
    if (!testDir.empty()) {
        Say("Testing Permissions: " + testDir);
        ZQIMCreateDirs(fs::path(testDir));
        std::exit(0);
    }

    const std::string& pid = input.getCmdOption("-p");
    if (!pid.empty()) {
        // A value with no leading digit throws and ends the process: the
        // front-end passed garbage and must not be served by a guess.
        gPID = std::stoul(pid);
        Say("PID was: " + std::to_string(gPID));
    } else {
        Say("No PID passed in.");
    }

    if (input.cmdOptionExists("-v")) {
        gVerbose = true;
        Say("Verbose output selected.");
    }
    if (input.cmdOptionExists("-w")) {
        gWake = true;
        Say("Wake on change selected.");
    }

    const std::string& commDir = input.getCmdOption("-c");
    if (commDir.empty()) {
        Say("No comm dir (required). Exiting.");
        std::exit(1);
    }
    gCommDir = commDir;
    Say("Communication dir was: " + gCommDir);

    // The front-end's user drives the helper as much as root does: its
    // folders and links count as trusted, and the files made for the
    // front-end are handed to it.
    uid_t frontEndUser;
    if (gPID != 0 && ReadFrontEndUser(gPID, frontEndUser)) {
        TrustFrontEndUser(frontEndUser);
        HandFilesTo(frontEndUser);
    }
    // A directory that is not there yet gets no log, as ever; the main loop
    // waits for it.
    if (HoldCommDir())
        InitLog((fs::path(gCommDir) / zqim::kLogFileName).string());
    mainLoop();
    CloseLog();
    return 0;
}

// ---------------------------------------------------- command-file exchange

CommDirStatus OpenCommDir(const std::string& dir, std::string& reason) {
    int fd;
    switch (zqim::OpenPrivateDir(dir, IsTrustedOwner, fd, reason)) {
    case zqim::DirCheck::Private: break;
    case zqim::DirCheck::Missing: return CommDirStatus::Missing;
    case zqim::DirCheck::NotPrivate: return CommDirStatus::Refused;
    }
    HoldExchangeDir(UniqueFd(fd));
    return CommDirStatus::Held;
}

int CommDirFd() {
    return ExchangeDir();
}

static std::string CommandFileName(int command, const char* extension) {
    return zqim::kCommandPrefix + std::to_string(command) + extension;
}

int CommandNumberOfFileName(std::string_view name) {
    const std::string_view prefix = zqim::kCommandPrefix;
    if (name.compare(0, prefix.size(), prefix) != 0)
        return -1;
    const std::string digits(name.substr(prefix.size(), name.find('.') - prefix.size()));
    const int number = std::atoi(digits.c_str());
    return number > 0 ? number : -1;
}

int GetCommandNumberFromCommandFilepath(const std::string& path) {
    return CommandNumberOfFileName(fs::path(path).filename().native());
}

int CommandNumberOfCommandFileName(std::string_view name) {
    // The extension is ".txt" exactly when the name is longer than that and
    // ends with it (a bare ".txt" is a hidden file without one).
    const std::string_view extension = zqim::kCommandExtension;
    if (name.size() <= extension.size() ||
        name.compare(name.size() - extension.size(), extension.size(), extension) != 0)
        return -1;
    return CommandNumberOfFileName(name);
}

std::string GetNextCommand(int lastCommand, int commDir, const std::string& commDirPath) {
    // A handle of its own for each poll: a listing goes on from where the
    // last one on the same handle ended.
    UniqueFd listing;
    if (OpenDirAt(commDir, ".", listing))
        return "";
    // A listing that fails midway offers what it read before.
    std::vector<DirEntry> entries;
    ReadEntries(listing.get(), entries);

    int best = INT_MAX;
    const std::string* chosen = nullptr;
    for (const DirEntry& entry : entries) {
        const int number = CommandNumberOfCommandFileName(entry.name);
        if (number >= 0 && number > lastCommand && number < best) {
            best = number;
            chosen = &entry.name;
        }
    }
    if (!chosen)
        return "";

    const std::string signal = fs::path(*chosen).replace_extension(zqim::kSignalExtension).string();
    struct stat st;
    if (StatAt(commDir, signal.c_str(), st, true)) {
        ZQIMLog("GetNextCommand() - No sig file found (", (fs::path(commDirPath) / signal).string(),
                ").");
        return "";
    }
    return (fs::path(commDirPath) / *chosen).string();
}

// A command file is read only when it is a regular file with one name, of a
// trusted user: never through a link, never a fifo (which would block the
// helper), never a hard link to a file someone else chose. Anything else is
// a file that cannot be opened.
static UniqueFd OpenCommandFile(int commDir, const std::string& name) {
    UniqueFd file;
    struct stat st;
    if (OpenFileAt(commDir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK, file) ||
        ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 ||
        !IsTrustedOwner(st.st_uid))
        return UniqueFd();
    return file;
}

void WriteSignalFile(int command, int commDir) {
    WriteFreshFile(commDir, CommandFileName(command, zqim::kFinishedExtension),
                   zqim::kFinishedText);
}

void WriteErrorFile(const std::set<int>& errorCodes, int command, int commDir) {
    std::string text;
    for (int code : errorCodes)
        text += std::to_string(code) + '\n';
    text += "end\n";
    WriteFreshFile(commDir, CommandFileName(command, zqim::kErrorExtension), text);
}

// --------------------------------------------------------------- main loop

bool TakeUpCommandFile(const std::string& path, int& last) {
    last = GetCommandNumberFromCommandFilepath(path);
    ZQIMLog("Found command file ", last, ": ", path);

    gProgressFilepath = (fs::path(gCommDir) / CommandFileName(last, zqim::kProgressExtension))
                            .string();
    gPrevProgress = -1;

    const int result =
        ServiceCommandFile(path, OpenCommandFile(CommDirFd(), fs::path(path).filename().string()));
    // The error file goes first: a front-end may read it as soon as it sees
    // the finished file.
    if (!gErrors.empty())
        WriteErrorFile(std::set<int>(gErrors), last, CommDirFd());
    WriteSignalFile(last, CommDirFd());
    return result == zqim::kStop;
}

bool MainLoopMustEnd() {
    if (gQuitCommandFound) {
        ZQIMLog("Quit command processed. Quitting.");
        return true;
    }
    if (gPID != 0 && !isProcessAlive(gPID)) {
        ZQIMLog("PID is gone. Exiting.");
        return true;
    }
    return false;
}

void mainLoop() {
    if (gWake) {
        WakeMainLoop();
        return;
    }
    int last = -1;
    while (true) {
        if (MainLoopMustEnd())
            return;

        // A directory that was not there at start-up is checked when it
        // appears, and never read if it fails.
        const std::string next = HoldCommDir() ? GetNextCommand(last, CommDirFd(), gCommDir) : "";
        if (!next.empty() && TakeUpCommandFile(next, last))
            return;

        if (!gQuitCommandFound)
            sleep(1);
    }
}

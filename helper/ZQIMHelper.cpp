// The helper process: start-up, the log and progress files, the file exchange
// with the front-end, the main loop, the command file reader and the
// interpreter of the command language.

#include "ZQIMHelper.h"

#include "commandKeywords.h"
#include "ownershipOps.h"
#include "installOps.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string_view>

namespace fs = std::filesystem;

unsigned long long gPID = 0;
std::string gCommDir;
std::string gLogFilepath;
bool gQuitCommandFound = false;

std::string gProgressFilepath;
int gPrevProgress = -1;

std::string gRoot;
bool gRootIsCrossDevice = false;
std::string gUserID = "0";
std::string gGroupID = "0";
bool gPermsFullAccess = false;
std::map<std::string, std::string> gMovedFiles;
std::string gPlistLocation, gPlistPath, gPlistValueName, gPlistValueType, gPlistValueData;
std::string gRegHive, gRegPath, gRegValueName, gRegValueType, gRegValueData;
std::string gShortcutGroup, gShortcutTarget, gShortcutName, gShortcutDescription,
    gShortcutLocation;

void ResetRunState() {
    gProgressFilepath.clear();
    gPrevProgress = -1;
    gErrors.clear();
    gRoot.clear();
    gRootIsCrossDevice = false;
    gUserID = gGroupID = "0";
    gPermsFullAccess = false;
    gMovedFiles.clear();
    for (std::string* s : {&gPlistLocation, &gPlistPath, &gPlistValueName, &gPlistValueType,
                           &gPlistValueData, &gRegHive, &gRegPath, &gRegValueName,
                           &gRegValueType, &gRegValueData, &gShortcutGroup, &gShortcutTarget,
                           &gShortcutName, &gShortcutDescription, &gShortcutLocation})
        s->clear();
    handles.clear();
}

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

int ZQIMHelperMain(int argc, char** argv) {
    Say("ZQIMHelper starting...");
    InputParser input(argc, argv);

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

    const std::string& commDir = input.getCmdOption("-c");
    if (commDir.empty()) {
        Say("No comm dir (required). Exiting.");
        std::exit(1);
    }
    gCommDir = commDir;
    Say("Communication dir was: " + gCommDir);

    InitLog((fs::path(gCommDir) / "ZQIMLog.txt").string());
    mainLoop();
    CloseLog();
    return 0;
}

// ---------------------------------------------------- log and progress files

void ZQIMWriteProgress(const std::string& path, int progress) {
    std::ofstream file(path, std::ios::out | std::ios::trunc);
    file << progress << " %" << '\n';
    file.flush();
}

std::string ConvertFromWideStringToUTF8(const std::wstring&) {
    return "ConvertFromWideStringToUTF8() - Only needed on Windows.";
}

// ---------------------------------------------------- command-file exchange

static std::string CommandFileName(int command, const char* extension) {
    return "ZQCmd" + std::to_string(command) + extension;
}

// The command number in a file name ("ZQCmd" N, up to the first dot), or -1.
static int CommandNumberOfFileName(std::string_view name) {
    const std::string_view prefix = "ZQCmd";
    if (name.compare(0, prefix.size(), prefix) != 0)
        return -1;
    const std::string digits(name.substr(prefix.size(), name.find('.') - prefix.size()));
    const int number = std::atoi(digits.c_str());
    return number > 0 ? number : -1;
}

int GetCommandNumberFromCommandFilepath(const std::string& path) {
    return CommandNumberOfFileName(fs::path(path).filename().native());
}

std::string GetNextCommand(int lastCommand, const std::string& commDir) {
    std::error_code ec;
    fs::directory_iterator it(commDir, ec);
    if (ec)
        return "";

    // An idle helper runs this once a second over a directory that only
    // grows (nothing is ever deleted), so each entry is judged on its path
    // text, without building further path objects.
    int best = INT_MAX;
    fs::path chosen;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        const std::string& text = it->path().native();
        const std::size_t slash = text.rfind('/');
        const std::string_view name =
            std::string_view(text).substr(slash == std::string::npos ? 0 : slash + 1);
        // The extension is ".txt" exactly when the name is longer than that
        // and ends with it (a bare ".txt" is a hidden file without one).
        if (name.size() <= 4 || name.compare(name.size() - 4, 4, ".txt") != 0)
            continue;
        const int number = CommandNumberOfFileName(name);
        if (number >= 0 && number > lastCommand && number < best) {
            best = number;
            chosen = it->path();
        }
    }
    if (chosen.empty())
        return "";

    fs::path signal = chosen;
    signal.replace_extension(".zqsig");
    std::error_code sigEc;
    if (!fs::exists(signal, sigEc)) {
        std::ostringstream msg;
        msg << "GetNextCommand() - No sig file found (" << signal.string() << ").";
        ZQIMLog(msg.str());
        return "";
    }
    return chosen.string();
}

void WriteSignalFile(int command, const std::string& commDir) {
    std::ofstream file(fs::path(commDir) / CommandFileName(command, ".zqfin"),
                       std::ios::out | std::ios::trunc);
    file << "Finished.";
}

void WriteErrorFile(const std::set<int>& errorCodes, int command, const std::string& commDir) {
    std::ofstream file(fs::path(commDir) / CommandFileName(command, ".err"),
                       std::ios::out | std::ios::trunc);
    for (int code : errorCodes)
        file << code << '\n';
    file << "end" << '\n';
}

// --------------------------------------------------------------- main loop

void mainLoop() {
    int last = -1;
    while (true) {
        if (gQuitCommandFound) {
            ZQIMLog("Quit command processed. Quitting.");
            return;
        }
        if (gPID != 0 && !isProcessAlive(gPID)) {
            ZQIMLog("PID is gone. Exiting.");
            return;
        }

        const std::string next = GetNextCommand(last, gCommDir);
        if (!next.empty()) {
            last = GetCommandNumberFromCommandFilepath(next);
            std::ostringstream msg;
            msg << "Found command file " << last << ": " << next;
            ZQIMLog(msg.str());

            gProgressFilepath = (fs::path(gCommDir) / CommandFileName(last, ".progress")).string();
            gPrevProgress = -1;

            const int result = ServiceCommandFile(next);
            // The error file goes first: a front-end may read it as soon as
            // it sees the finished file.
            if (!gErrors.empty())
                WriteErrorFile(std::set<int>(gErrors), last, gCommDir);
            WriteSignalFile(last, gCommDir);
            if (result == 1)
                return;
        }

        if (!gQuitCommandFound)
            sleep(1);
    }
}

// ------------------------------------------------------- command file reader

void trim(std::string& text) {
    auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    auto last = std::find_if_not(text.rbegin(), text.rend(), isSpace);
    text.erase(last.base(), text.end());
    auto first = std::find_if_not(text.begin(), text.end(), isSpace);
    text.erase(text.begin(), first);
}

int ServiceCommandFile(const std::string& path) {
    ZQIMLog("ServiceCommandFile() - Servicing " + path + ".");
    gMovedFiles.clear();

    std::ifstream file(path);
    if (!file.is_open()) {
        ZQIMLog("Unable to open file!");
        return 0;
    }

    std::string prevCommand;
    std::string prevValue;
    std::string line;
    while (std::getline(file, line)) {
        const int result = ServiceCommand(line, prevCommand, prevValue);
        if (result == 1)
            return 1;
        if (result >= 2000) {
            std::ostringstream msg;
            msg << "ServiceCommandFile() - Fatal error " << result << ": " << line;
            ZQIMLog(msg.str());
            return 1;
        }
        if (result >= 1000) {
            std::ostringstream msg;
            msg << "ServiceCommandFile() - Minor error with " << result << ": " << line;
            ZQIMLog(msg.str());
        }
    }
    return 0;
}

// --------------------------------------------------------------- interpreter

// The value after `keyword`, trimmed. `skip` characters after the keyword are
// dropped whatever they are; past the end of the line this throws, on purpose:
// a bare `copyDest`, `lnkContent` or `lnkResulting` ends the process.
static std::string ValueAfter(const std::string& line, std::string_view keyword,
                              std::size_t skip) {
    std::string value = line.substr(keyword.size() + skip);
    trim(value);
    return value;
}

static void LogUnknown(const std::string& line) {
    ZQIMLog("ServiceCommand() - Skipping unknown command: " + line + ".");
}

static void WaitForWatchedPID() {
    auto logWaiting = [] {
        std::ostringstream msg;
        msg << "ServiceCommand() - Waiting for PID: " << gPID << ".";
        ZQIMLog(msg.str());
    };
    logWaiting();
    // Without a watched PID this never ends; front-ends rely on it to park
    // the helper, so the test stays exactly "PID is 0, or it is alive".
    while (gPID == 0 || isProcessAlive(gPID)) {
        sleep(5);
        logWaiting();
    }
    sleep(5);
}

static void SetProgress(const std::string& value) {
    const int n = static_cast<int>(std::strtoul(value.c_str(), nullptr, 10));
    if (n == gPrevProgress)
        return;
    std::ostringstream msg;
    msg << "ServiceCommand() - progress is now: " << n;
    ZQIMLog(msg.str());
    ZQIMWriteProgress(gProgressFilepath, n);
    gPrevProgress = n;
}

// The global a plist, reg or shortcut setter fills.
static std::string* SetterTarget(Command command) {
    switch (command) {
    case Command::PlistLoc: return &gPlistLocation;
    case Command::PlistPath: return &gPlistPath;
    case Command::PlistValueName: return &gPlistValueName;
    case Command::PlistValueType: return &gPlistValueType;
    case Command::PlistValueData: return &gPlistValueData;
    case Command::RegHive: return &gRegHive;
    case Command::RegPath: return &gRegPath;
    case Command::RegValueName: return &gRegValueName;
    case Command::RegValueType: return &gRegValueType;
    case Command::RegValueData: return &gRegValueData;
    case Command::ShortcutGroup: return &gShortcutGroup;
    case Command::ShortcutTarget: return &gShortcutTarget;
    case Command::ShortcutName: return &gShortcutName;
    case Command::ShortcutDescription: return &gShortcutDescription;
    case Command::ShortcutLocation: return &gShortcutLocation;
    default: return nullptr;
    }
}

// Carries out a recognised command with its value; returns the operation's
// result (the table says whether the line keeps it).
static int Run(Command command, const std::string& value, const std::string& pending) {
    if (std::string* target = SetterTarget(command)) {
        *target = value;
        return 0;
    }
    switch (command) {
    case Command::CopyDest: return DoCmdCopy(pending, value, gRoot, false, gMovedFiles);
    case Command::MoveOrCopyDest: return DoCmdCopy(pending, value, gRoot, true, gMovedFiles);
    case Command::LnkResulting: return DoCmdSymlink(pending, value);
    case Command::SetRoot:
        gRoot = value;
        ZQIMLog("ServiceCommand() - Root is now: " + gRoot);
        gRootIsCrossDevice = false;
        return 0;
    case Command::SetUserID:
        gUserID = value;
        ZQIMLog("ServiceCommand() - UserID is now: " + gUserID);
        return 0;
    case Command::SetGroupID:
        gGroupID = value;
        ZQIMLog("ServiceCommand() - GroupID is now: " + gGroupID);
        return 0;
    case Command::Progress: SetProgress(value); return 0;
    case Command::SetPermsAccess: {
        gPermsFullAccess = value == "full";
        std::ostringstream msg;
        msg << "ServiceCommand() - Perms Full Access is: " << gPermsFullAccess;
        ZQIMLog(msg.str());
        return 0;
    }
    case Command::FixPermsR: return DoFixPerms(gUserID, gGroupID, value, true, gPermsFullAccess);
    case Command::FixPerms: return DoFixPerms(gUserID, gGroupID, value, false, gPermsFullAccess);
    case Command::MakeDir: return DoMakeDir(value);
    case Command::DelFile: return DoDelFile(gRoot, value);
    case Command::DelFolder: return DoDelFolder(value);
    case Command::Exec: return DoExec(value);
    case Command::PlistGo:
        return DoSetPlist(gPlistLocation, gPlistPath, gPlistValueName, gPlistValueType,
                          gPlistValueData, gUserID);
    case Command::PlistDel: return DoDelPlist(gPlistLocation, gPlistPath, gUserID);
    case Command::RegGo:
        return DoSetRegKey(gRegHive, gRegPath, gRegValueName, gRegValueType, gRegValueData);
    case Command::RegDel: return DoDelRegKey(gRegHive, gRegPath);
    case Command::ShortcutAdd:
        return DoCreateShortcut(gShortcutTarget, gShortcutName, gShortcutGroup,
                                gShortcutDescription, gShortcutLocation);
    case Command::ShortcutDel:
        return DoRemoveShortcuts(gShortcutName, gShortcutGroup, gShortcutLocation);
    case Command::WaitForPID: WaitForWatchedPID(); return 0;
    case Command::Exit: return 1;
    default: return 0;  // copySrc and lnkContent only wait for their pair's end
    }
}

int ServiceCommand(std::string line, std::string& prevCommand, std::string& prevValue) {
    trim(line);
    if (line.empty() || line[0] == '#')
        return 0;
    // No system call sees a path past a NUL byte, so such a value would name
    // another path than it says (`fixPermsR /x<NUL>y` walks /x for ever).
    const Keyword* keyword = line.find('\0') == std::string::npos ? MatchKeyword(line) : nullptr;
    if (!keyword) {
        LogUnknown(line);
        return 0;
    }
    // A pair's end is checked before its value is cut. A broken link pair is
    // only returned; a broken copy pair is also recorded for the error file.
    if (!keyword->pairStart.empty() && prevCommand != keyword->pairStart) {
        if (keyword->recordsBrokenPair)
            gErrors.insert(2006);
        return 2006;
    }

    const std::string value = keyword->value == ValueKept::Cleared
                                  ? std::string()
                                  : ValueAfter(line, keyword->name, keyword->dropped);
    const std::string pending = prevValue;
    prevCommand = std::string(keyword->name);
    if (keyword->value != ValueKept::Unchanged)
        prevValue = value;
    if (SetterTarget(keyword->command))
        ZQIMLog("ServiceCommand() - Got " + prevCommand + ": " + value + ".");

    const int result = Run(keyword->command, value, pending);
    if (keyword->command == Command::ShortcutLocation && gShortcutLocation != "desktop" &&
        gShortcutLocation != "startMenu") {
        ZQIMLog("ServiceCommand() - ERROR: shortcutLocation should be \"desktop\" or "
                "\"startMenu\" but got " +
                gShortcutLocation + ". Using startMenu.");
        gShortcutLocation = "startMenu";
    }
    return keyword->resultKept ? result : 0;
}

// The helper process: start-up, the log and progress files, the file exchange
// with the front-end, the main loop, the command file reader and the
// interpreter of the command language.

#include "ZQIMHelper.h"

#include "macCommands.h"
#include "portableCommands.h"

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

bool gVerbose = false;
unsigned long long gPID = 0;
std::string gCommDir;
std::string gLogFilepath;
bool gQuitCommandFound = false;

std::ofstream gLogStream;
std::string gProgressFilepath;
int gPrevProgress = -1;

std::set<int> gErrors;

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

void InitLog(const std::string& path) {
    gLogStream.open(path, std::ios::out | std::ios::trunc);
    ZQIMLog("Opened Log at: " + path);
}

void ZQIMLog(const std::string& message) {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[21];
    std::strftime(stamp, sizeof stamp, "%FT%TZ", &utc);

    gLogStream << stamp << ": " << message << '\n';
    gLogStream.flush();
    if (gVerbose) {
        std::cout << stamp << ": " << message << '\n';
        std::cout.flush();
    }
}

void CloseLog() {
    ZQIMLog("Closing log.");
    gLogStream.flush();
    gLogStream.close();
}

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

static bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The value after `keyword`, trimmed. `skip` characters after the keyword are
// dropped whatever they are; past the end of the line this throws, on purpose:
// a bare `copyDest`, `lnkContent` or `lnkResulting` ends the process.
static std::string ValueAfter(const std::string& line, const std::string& keyword,
                              std::size_t skip = 0) {
    std::string value = line.substr(keyword.size() + skip);
    trim(value);
    return value;
}

static void LogGot(const std::string& keyword, const std::string& value) {
    ZQIMLog("ServiceCommand() - Got " + keyword + ": " + value + ".");
}

// A setter of the plist, reg or shortcut groups: keyword and the global it fills.
struct GroupSetter {
    const char* keyword;
    std::string* target;
};

static bool RunGroupSetter(const std::string& line, const GroupSetter* setters, std::size_t count,
                           std::string& prevCommand) {
    for (std::size_t i = 0; i < count; ++i) {
        if (!StartsWith(line, setters[i].keyword))
            continue;
        prevCommand = setters[i].keyword;
        *setters[i].target = ValueAfter(line, setters[i].keyword);
        LogGot(setters[i].keyword, *setters[i].target);
        return true;
    }
    return false;
}

static void LogUnknown(const std::string& line) {
    ZQIMLog("ServiceCommand() - Skipping unknown command: " + line + ".");
}

static int ServicePlist(const std::string& line, std::string& prevCommand) {
    static const GroupSetter setters[] = {
        {"plistLoc", &gPlistLocation},         {"plistPath", &gPlistPath},
        {"plistValueName", &gPlistValueName},  {"plistValueType", &gPlistValueType},
        {"plistValueData", &gPlistValueData},
    };
    if (RunGroupSetter(line, setters, std::size(setters), prevCommand))
        return 0;
    if (StartsWith(line, "plistGo")) {
        prevCommand = "plistGo";
        return DoSetPlist(gPlistLocation, gPlistPath, gPlistValueName, gPlistValueType,
                          gPlistValueData, gUserID);
    }
    if (StartsWith(line, "plistDel")) {
        prevCommand = "plistDel";
        DoDelPlist(gPlistLocation, gPlistPath, gUserID);
        return 0;
    }
    LogUnknown(line);
    return 0;
}

static int ServiceReg(const std::string& line, std::string& prevCommand) {
    static const GroupSetter setters[] = {
        {"regHive", &gRegHive},           {"regPath", &gRegPath},
        {"regValueName", &gRegValueName}, {"regValueType", &gRegValueType},
        {"regValueData", &gRegValueData},
    };
    if (RunGroupSetter(line, setters, std::size(setters), prevCommand))
        return 0;
    if (StartsWith(line, "regGo")) {
        prevCommand = "regGo";
        DoSetRegKey(gRegHive, gRegPath, gRegValueName, gRegValueType, gRegValueData);
        return 0;
    }
    if (StartsWith(line, "regDel")) {
        prevCommand = "regDel";
        DoDelRegKey(gRegHive, gRegPath);
        return 0;
    }
    LogUnknown(line);
    return 0;
}

static int ServiceShortcut(const std::string& line, std::string& prevCommand) {
    static const GroupSetter setters[] = {
        {"shortcutGroup", &gShortcutGroup},
        {"shortcutTarget", &gShortcutTarget},
        {"shortcutName", &gShortcutName},
        {"shortcutDescription", &gShortcutDescription},
        {"shortcutLocation", &gShortcutLocation},
    };
    if (RunGroupSetter(line, setters, std::size(setters), prevCommand)) {
        if (prevCommand == "shortcutLocation" && gShortcutLocation != "desktop" &&
            gShortcutLocation != "startMenu") {
            ZQIMLog("ServiceCommand() - ERROR: shortcutLocation should be \"desktop\" or "
                    "\"startMenu\" but got " +
                    gShortcutLocation + ". Using startMenu.");
            gShortcutLocation = "startMenu";
        }
        return 0;
    }
    if (StartsWith(line, "shortcutAdd")) {
        prevCommand = "shortcutAdd";
        DoCreateShortcut(gShortcutTarget, gShortcutName, gShortcutGroup, gShortcutDescription,
                         gShortcutLocation);
        return 0;
    }
    if (StartsWith(line, "shortcutDel")) {
        prevCommand = "shortcutDel";
        DoRemoveShortcuts(gShortcutName, gShortcutGroup, gShortcutLocation);
        return 0;
    }
    LogUnknown(line);
    return 0;
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

// A copy or move destination: valid only right after its `copySrc`.
static int ServiceCopyDest(const std::string& line, const std::string& keyword, std::size_t skip,
                           bool move, std::string& prevCommand, std::string& prevValue) {
    if (prevCommand != "copySrc") {
        gErrors.insert(2006);
        return 2006;
    }
    const std::string value = ValueAfter(line, keyword, skip);
    const std::string source = prevValue;
    prevCommand = keyword;
    prevValue = value;
    return DoCmdCopy(source, value, gRoot, move, gMovedFiles);
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

int ServiceCommand(std::string line, std::string& prevCommand, std::string& prevValue) {
    trim(line);
    if (line.empty() || line[0] == '#')
        return 0;
    // No system call sees a path past a NUL byte, so such a value would name
    // another path than it says (`fixPermsR /x<NUL>y` walks /x for ever).
    if (line.find('\0') != std::string::npos) {
        LogUnknown(line);
        return 0;
    }

    if (StartsWith(line, "copySrc")) {
        prevCommand = "copySrc";
        prevValue = ValueAfter(line, "copySrc");
        return 0;
    }
    if (StartsWith(line, "copyDest"))
        return ServiceCopyDest(line, "copyDest", 1, false, prevCommand, prevValue);
    if (StartsWith(line, "moveOrCopyDest"))
        return ServiceCopyDest(line, "moveOrCopyDest", 0, true, prevCommand, prevValue);
    if (StartsWith(line, "lnkContent")) {
        prevValue = ValueAfter(line, "lnkContent", 1);
        prevCommand = "lnkContent";
        return 0;
    }
    if (StartsWith(line, "lnkResulting")) {
        // A broken link pair only returns its code; unlike a broken copy
        // pair it is not recorded for the error file.
        if (prevCommand != "lnkContent")
            return 2006;
        const std::string value = ValueAfter(line, "lnkResulting", 1);
        const std::string content = prevValue;
        prevCommand = "lnkResulting";
        prevValue = value;
        return DoCmdSymlink(content, value);
    }

    // The remaining single keywords all keep their value for a following line.
    auto take = [&](const char* keyword) {
        prevCommand = keyword;
        prevValue = ValueAfter(line, keyword);
        return prevValue;
    };
    if (StartsWith(line, "setRoot")) {
        gRoot = take("setRoot");
        ZQIMLog("ServiceCommand() - Root is now: " + gRoot);
        gRootIsCrossDevice = false;
        return 0;
    }
    if (StartsWith(line, "setUserID")) {
        gUserID = take("setUserID");
        ZQIMLog("ServiceCommand() - UserID is now: " + gUserID);
        return 0;
    }
    if (StartsWith(line, "setGroupID")) {
        gGroupID = take("setGroupID");
        ZQIMLog("ServiceCommand() - GroupID is now: " + gGroupID);
        return 0;
    }
    if (StartsWith(line, "progress")) {
        SetProgress(take("progress"));
        return 0;
    }
    if (StartsWith(line, "setPermsAccess")) {
        gPermsFullAccess = take("setPermsAccess") == "full";
        std::ostringstream msg;
        msg << "ServiceCommand() - Perms Full Access is: " << gPermsFullAccess;
        ZQIMLog(msg.str());
        return 0;
    }
    if (StartsWith(line, "fixPermsR")) {
        DoFixPerms(gUserID, gGroupID, take("fixPermsR"), true, gPermsFullAccess);
        return 0;
    }
    if (StartsWith(line, "fixPerms")) {
        DoFixPerms(gUserID, gGroupID, take("fixPerms"), false, gPermsFullAccess);
        return 0;
    }
    if (StartsWith(line, "makeDir")) {
        DoMakeDir(take("makeDir"));
        return 0;
    }
    if (StartsWith(line, "delFile"))
        return DoDelFile(gRoot, take("delFile"));
    if (StartsWith(line, "delFolder"))
        return DoDelFolder(take("delFolder"));
    if (StartsWith(line, "exec")) {
        DoExec(take("exec"));
        return 0;
    }

    if (StartsWith(line, "plist"))
        return ServicePlist(line, prevCommand);
    if (StartsWith(line, "reg"))
        return ServiceReg(line, prevCommand);
    if (StartsWith(line, "shortcut"))
        return ServiceShortcut(line, prevCommand);

    if (StartsWith(line, "waitForPID")) {
        prevCommand = "waitForPID";
        prevValue.clear();
        WaitForWatchedPID();
        return 0;
    }
    if (StartsWith(line, "exit")) {
        prevCommand = "exit";
        prevValue.clear();
        return 1;
    }

    LogUnknown(line);
    return 0;
}

// The command file reader and the interpreter of the command language: each
// line's keyword, the run state it sets, and the operation it runs.

#include "interpreter.h"

#include "commandKeywords.h"
#include "deleteOps.h"
#include "helperLog.h"
#include "installOps.h"
#include "linkOps.h"
#include "liveness.h"
#include "ownershipOps.h"
#include "runState.h"
#include "systemOps.h"
#include "zqimProtocol.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <istream>
#include <streambuf>
#include <string_view>
#include <utility>

// ------------------------------------------------------- command file reader

void trim(std::string& text) {
    auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    auto last = std::find_if_not(text.rbegin(), text.rend(), isSpace);
    text.erase(last.base(), text.end());
    auto first = std::find_if_not(text.begin(), text.end(), isSpace);
    text.erase(text.begin(), first);
}

namespace {

// The lines of a command file, read through its descriptor as they are
// needed, as a file stream would read them.
class CommandFileReader : public std::streambuf {
public:
    explicit CommandFileReader(int fd) : fd(fd) {}

protected:
    int_type underflow() override {
        std::size_t got = 0;
        if (ReadSome(fd, buffer, sizeof buffer, got) || got == 0)
            return traits_type::eof();
        setg(buffer, buffer, buffer + got);
        return traits_type::to_int_type(*gptr());
    }

private:
    int fd;
    char buffer[1 << 13];
};

}  // namespace

int ServiceCommandFile(const std::string& path) {
    UniqueFd file;
    OpenFileAt(AT_FDCWD, path.c_str(), O_RDONLY, file);
    return ServiceCommandFile(path, std::move(file));
}

int ServiceCommandFile(const std::string& path, UniqueFd opened) {
    ZQIMLog("ServiceCommandFile() - Servicing " + path + ".");
    gMovedFiles.clear();

    if (!opened.valid()) {
        ZQIMLog("Unable to open file!");
        return 0;
    }
    CommandFileReader reader(opened.get());
    std::istream file(&reader);

    std::string prevCommand;
    std::string prevValue;
    std::string line;
    while (std::getline(file, line)) {
        const int result = ServiceCommand(line, prevCommand, prevValue);
        if (result == zqim::kStop)
            return zqim::kStop;
        if (result >= zqim::kFatalFrom) {
            ZQIMLog("ServiceCommandFile() - Fatal error ", result, ": ", line);
            return zqim::kStop;
        }
        if (result >= zqim::kMinorFrom)
            ZQIMLog("ServiceCommandFile() - Minor error with ", result, ": ", line);
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
    auto logWaiting = [] { ZQIMLog("ServiceCommand() - Waiting for PID: ", gPID, "."); };
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
    ZQIMLog("ServiceCommand() - progress is now: ", n);
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
    case Command::CopyDest:
        return DoCmdCopy(pending, value, gRoot, false, gMovedFiles, gRootIsCrossDevice);
    case Command::MoveOrCopyDest:
        return DoCmdCopy(pending, value, gRoot, true, gMovedFiles, gRootIsCrossDevice);
    case Command::LnkResulting: return DoCmdSymlink(pending, value, gRoot);
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
        ZQIMLog("ServiceCommand() - Perms Full Access is: ", gPermsFullAccess);
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
    case Command::Exit: return zqim::kStop;
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
            gErrors.insert(zqim::kPairOutOfOrder);
        return zqim::kPairOutOfOrder;
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

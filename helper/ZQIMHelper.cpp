// The helper process: start-up, the file exchange with the front-end and
// the main loop.

#include "ZQIMHelper.h"

#include "installOps.h"
#include "interpreter.h"
#include "liveness.h"
#include "zqimProtocol.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

int ZQIMHelperMain(int argc, char** argv) {
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

    InitLog((fs::path(gCommDir) / zqim::kLogFileName).string());
    mainLoop();
    CloseLog();
    return 0;
}

// ---------------------------------------------------- command-file exchange

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
        const int number = CommandNumberOfCommandFileName(name);
        if (number >= 0 && number > lastCommand && number < best) {
            best = number;
            chosen = it->path();
        }
    }
    if (chosen.empty())
        return "";

    fs::path signal = chosen;
    signal.replace_extension(zqim::kSignalExtension);
    std::error_code sigEc;
    if (!fs::exists(signal, sigEc)) {
        ZQIMLog("GetNextCommand() - No sig file found (", signal.string(), ").");
        return "";
    }
    return chosen.string();
}

void WriteSignalFile(int command, const std::string& commDir) {
    std::ofstream file(fs::path(commDir) / CommandFileName(command, zqim::kFinishedExtension),
                       std::ios::out | std::ios::trunc);
    file << zqim::kFinishedText;
}

void WriteErrorFile(const std::set<int>& errorCodes, int command, const std::string& commDir) {
    std::ofstream file(fs::path(commDir) / CommandFileName(command, zqim::kErrorExtension),
                       std::ios::out | std::ios::trunc);
    for (int code : errorCodes)
        file << code << '\n';
    file << "end" << '\n';
}

// --------------------------------------------------------------- main loop

bool TakeUpCommandFile(const std::string& path, int& last) {
    last = GetCommandNumberFromCommandFilepath(path);
    ZQIMLog("Found command file ", last, ": ", path);

    gProgressFilepath = (fs::path(gCommDir) / CommandFileName(last, zqim::kProgressExtension))
                            .string();
    gPrevProgress = -1;

    const int result = ServiceCommandFile(path);
    // The error file goes first: a front-end may read it as soon as it sees
    // the finished file.
    if (!gErrors.empty())
        WriteErrorFile(std::set<int>(gErrors), last, gCommDir);
    WriteSignalFile(last, gCommDir);
    return result == zqim::kStop;
}

void mainLoop() {
    if (gWake) {
        WakeMainLoop();
        return;
    }
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
        if (!next.empty() && TakeUpCommandFile(next, last))
            return;

        if (!gQuitCommandFound)
            sleep(1);
    }
}

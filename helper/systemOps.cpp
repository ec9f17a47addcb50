// What is handed to the system: shell commands, user preferences through the
// defaults tool, and the other platform's commands, which do nothing here.

#include "systemOps.h"

#include "helperLog.h"

#include <cstdlib>
#include <iostream>

// ---------------------------------------------------------- running programs

int DoExec(std::string command) {
    ZQIMLog("DoExec() - Executing: " + command);
    // Our own buffered output must come before anything the child prints.
    std::cout.flush();
    const int status = std::system(command.c_str());
    ZQIMLog("DoExec() - Program result: ", status);
    return 0;
}

// ------------------------------------------------------------ preferences

// Preferences of the logged-in user must be written as that user, or they
// would land in root's domain. The backslash hands the number sign through
// the shell, so that sudo reads the id as numeric.
static std::string RunAsPrefix(const std::string& location, const std::string& uid) {
    return location == "user" ? "sudo -u \\#" + uid + " " : "";
}

static int RunPlistCommand(const std::string& command) {
    std::cout.flush();
    return std::system(command.c_str());
}

int DoSetPlist(std::string location, std::string path, std::string valueName,
               std::string valueType, std::string value, std::string uid) {
    const std::string typeFlag = valueType == "array" ? "-array " : "";
    const std::string command = RunAsPrefix(location, uid) + "defaults write " + path + " \"" +
                                valueName + "\" " + typeFlag + "\"" + value + "\"";
    ZQIMLog("DoSetPlist(location=" + location + ",path=" + path + ",valueName=" + valueName +
            ",valueType=" + valueType + ",value=" + value + ",uid=" + uid +
            ") - command is: " + command);
    const int status = RunPlistCommand(command);
    ZQIMLog("DoSetPlist: Result was " + std::to_string(status));
    return 0;
}

int DoDelPlist(std::string location, std::string path, std::string uid) {
    const std::string command = RunAsPrefix(location, uid) + "defaults delete " + path;
    ZQIMLog("DoDelPlist(location=" + location + ",path=" + path + ",uid=" + uid +
            ") - command is: " + command);
    const int status = RunPlistCommand(command);
    ZQIMLog("DoDelPlist: Result was " + std::to_string(status));
    return 0;
}

// ------------------------------------------------ the other platform's commands

// Registry keys and shortcuts only mean something to the other platform's
// installer; here they are accepted and do nothing.
int DoSetRegKey(std::string, std::string, std::string, std::string, std::string) { return 0; }
int DoDelRegKey(std::string, std::string) { return 0; }
int DoCreateShortcut(std::string, std::string, std::string, std::string, std::string) {
    return 0;
}
int DoRemoveShortcuts(std::string, std::string, std::string) { return 0; }

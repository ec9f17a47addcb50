// What is handed to the system: shell commands, user preferences, and the
// other platform's commands.
#pragma once

#include <string>

int DoExec(std::string command);

int DoSetPlist(std::string location, std::string path, std::string valueName,
               std::string valueType, std::string value, std::string uid);
int DoDelPlist(std::string location, std::string path, std::string uid);

int DoSetRegKey(std::string hive, std::string path, std::string valueName,
                std::string valueType, std::string valueData);
int DoDelRegKey(std::string hive, std::string path);
int DoCreateShortcut(std::string target, std::string name, std::string group,
                     std::string description, std::string location);
int DoRemoveShortcuts(std::string name, std::string group, std::string location);

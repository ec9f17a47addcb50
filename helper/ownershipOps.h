// Operations tied to the host system: process liveness, symbolic links,
// ownership repair, user preferences, and the other platform's commands.
#pragma once

#include <map>
#include <string>

// PID -> start-time text of the process first seen alive under that PID.
extern std::map<unsigned long long, std::string> handles;

// The kernel's start time of `pid` as "<microseconds>-<seconds>", or an empty
// string when no such process exists (or it cannot be inspected).
std::string ReadProcessStartTime(unsigned long pid);
// The comparison half of isProcessAlive, given the start-time text just read.
bool RecordProcessStartTime(unsigned long pid, const std::string& startTime);
bool isProcessAlive(unsigned long pid);
bool CheckPID(unsigned long pid);

int DoCmdSymlink(std::string existingFile, std::string resultingLinkFile);
int DoFixPerms(std::string uid, std::string gid, std::string path, bool recursive,
               bool fullAccess);

int DoSetPlist(std::string location, std::string path, std::string valueName,
               std::string valueType, std::string value, std::string uid);
int DoDelPlist(std::string location, std::string path, std::string uid);

int DoSetRegKey(std::string hive, std::string path, std::string valueName,
                std::string valueType, std::string valueData);
int DoDelRegKey(std::string hive, std::string path);
int DoCreateShortcut(std::string target, std::string name, std::string group,
                     std::string description, std::string location);
int DoRemoveShortcuts(std::string name, std::string group, std::string location);

// Process liveness: whether a watched process is still the one first seen
// under its PID. The start time is read by the platform layer.

#include "liveness.h"

#include "platform.h"

#include <iostream>

std::map<unsigned long long, std::string> handles;

void ResetLiveness() {
    handles.clear();
}

bool RecordProcessStartTime(unsigned long pid, const std::string& startTime) {
    if (startTime.empty()) {
        handles.erase(pid);
        return false;
    }
    auto known = handles.find(pid);
    if (known == handles.end()) {
        handles[pid] = startTime;
        return true;
    }
    if (known->second == startTime)
        return true;
    // Same number, different start time: the PID was reused by a new process.
    std::cout << "PID Conflict PID:" << pid << " org_time:" << known->second
              << " new_time:" << startTime << std::endl;
    handles.erase(known);
    return false;
}

bool isProcessAlive(unsigned long pid) {
    return RecordProcessStartTime(pid, ReadProcessStartTime(pid));
}

bool ReadFrontEndUser(unsigned long pid, uid_t& user) {
    // The same start time before and after: the user read is that process's.
    const std::string started = ReadProcessStartTime(pid);
    if (started.empty() || !ReadProcessRealUser(pid, user) || ReadProcessStartTime(pid) != started)
        return false;
    return RecordProcessStartTime(pid, started);
}

bool CheckPID(unsigned long pid) {
    return pid == 0 || isProcessAlive(pid);
}

// Process liveness: whether a watched process is still the one first seen
// under its PID. The start time is read by the platform layer; with -w, the
// watched process is followed through a handle on it (wakeup.h).

#include "liveness.h"

#include "platform.h"
#include "wakeup.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <iostream>

std::map<unsigned long long, std::string> handles;

namespace {
// The process held by HoldProcessHandle. `ended` is kept once seen: a handle
// may tell of the exit only once.
struct HeldProcess {
    unsigned long pid = 0;
    bool held = false;
    bool ended = false;
    UniqueFd handle;
};
HeldProcess held;
}  // namespace

void ResetLiveness() {
    handles.clear();
    held = HeldProcess();
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

std::error_code HoldProcessHandle(unsigned long pid) {
    held = HeldProcess();
    held.pid = pid;
    if (pid > static_cast<unsigned long>(INT_MAX)) {
        held.held = held.ended = true;  // no process has such a number
        return {};
    }
    // The front-end usually started the helper: while it is our parent its
    // PID cannot have been reused. If the parent changed while the handle was
    // being opened, the handle may be on a newcomer's process.
    const bool wasParent = static_cast<unsigned long>(getppid()) == pid;
    const std::error_code ec = OpenProcessHandle(static_cast<int>(pid), held.handle);
    if (ec && ec != std::errc::no_such_process)
        return ec;
    held.held = true;
    held.ended = ec || (wasParent && static_cast<unsigned long>(getppid()) != pid);
    return {};
}

int HeldProcessHandle() {
    return held.held && !held.ended ? held.handle.get() : -1;
}

bool isProcessAlive(unsigned long pid) {
    if (held.held && held.pid == pid) {
        if (!held.ended && ProcessHandleSaysEnded(held.handle.get()))
            held.ended = true;
        return !held.ended;
    }
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

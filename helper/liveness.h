// Process liveness: a PID counts as alive while it belongs to the process
// first seen under it, so a number the system hands to a new process is
// gone. With -w the watched process is followed through a handle instead.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <system_error>

// PID -> start-time text of the process first seen alive under that PID.
extern std::map<unsigned long long, std::string> handles;

// The comparison half of isProcessAlive, given the start-time text just read.
bool RecordProcessStartTime(unsigned long pid, const std::string& startTime);
// For the held process (HoldProcessHandle), what its handle says; for any
// other PID, the start-time record.
bool isProcessAlive(unsigned long pid);
// The real user of the front-end `pid`, read once at start-up: false when it
// is no process. The process is recorded as the one watched from then on, so
// a number taken over meanwhile by another user's process is gone, not
// trusted.
bool ReadFrontEndUser(unsigned long pid, uid_t& user);
// True for PID 0 (nothing to watch), otherwise isProcessAlive.
bool CheckPID(unsigned long pid);

// Takes a handle on the process `pid` (-w): from then on isProcessAlive(pid)
// asks that handle, so a reused PID can never pass for it. A process already
// gone is held as ended (no error). An error means no handle can be had on
// this system or for this process: the start-time record stays in charge.
std::error_code HoldProcessHandle(unsigned long pid);
// The held handle's descriptor (for waiting on it), or -1.
int HeldProcessHandle();

// Forgets every PID seen and the held handle, as a freshly started helper has.
void ResetLiveness();

// Process liveness: a PID counts as alive while it belongs to the process
// first seen under it, so a number the system hands to a new process is
// gone.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

// PID -> start-time text of the process first seen alive under that PID.
extern std::map<unsigned long long, std::string> handles;

// The comparison half of isProcessAlive, given the start-time text just read.
bool RecordProcessStartTime(unsigned long pid, const std::string& startTime);
bool isProcessAlive(unsigned long pid);
// The real user of the front-end `pid`, read once at start-up: false when it
// is no process. The process is recorded as the one watched from then on, so
// a number taken over meanwhile by another user's process is gone, not
// trusted.
bool ReadFrontEndUser(unsigned long pid, uid_t& user);
// True for PID 0 (nothing to watch), otherwise isProcessAlive.
bool CheckPID(unsigned long pid);

// Forgets every PID seen, as a freshly started helper has.
void ResetLiveness();

// Waking on change (-w): the events that tell the helper that something
// arrived in the communication directory or that the watched front-end
// ended, so that it sleeps until then instead of on a timer. One
// implementation per system: wakeup_linux.cpp (inotify and a pidfd, in one
// poll) and wakeup_mac.cpp (one kqueue); what the main loop makes of the
// events is the same on both (wakeLoop.cpp).
#pragma once

#include "fileHandles.h"

#include <string>
#include <system_error>
#include <vector>

// ------------------------------------------------------- process handles

// Opens a handle on the running process `pid` that tells when that very
// process ends, whatever the system later does with its number. ESRCH: there
// is no such process. Other errors (ENOSYS on an older kernel, EPERM, EINVAL)
// mean that no handle can be had, and the caller must look at the PID itself.
std::error_code OpenProcessHandle(int pid, UniqueFd& out);

// Whether the process of `handle` has ended. Once it says so, it may not say
// so again (the event can be used up): the caller keeps the answer.
bool ProcessHandleSaysEnded(int handle);

// ------------------------------------------------------------ wake-ups

// What one wake-up brought.
struct Changes {
    // Entries that were created, renamed into the directory or closed after
    // writing, as the events named them.
    std::vector<std::string> names;
    // The directory changed, but the system does not say which entries.
    bool unnamed = false;
    // Events were lost (a full queue): only a listing can tell what is there.
    bool lost = false;
};

// The events of one directory and, optionally, of one process, waited for
// together.
class WakeSource {
public:
    WakeSource() = default;
    WakeSource(const WakeSource&) = delete;
    WakeSource& operator=(const WakeSource&) = delete;
    // Lets go of the events without making the caller wait for the system
    // to take the watch down (see wakeup_linux.cpp).
    ~WakeSource();

    // Watches the directory held open as `dir`; the caller keeps it open.
    std::error_code WatchDirectory(int dir);
    // Also wakes when the process of `handle` (OpenProcessHandle), `pid`, ends;
    // only once the directory is watched.
    std::error_code WatchProcess(int handle, int pid);
    // Sleeps until something happens or `timeoutMs` passed (-1: no time-out;
    // 0: only takes what is there), and adds what happened to `changes`. An
    // interrupted sleep is no error; it simply brings nothing.
    std::error_code Wait(int timeoutMs, Changes& changes);

private:
    UniqueFd queue_;
    int process_ = -1;
};

// Waking on change on macOS: one kqueue with the communication directory's
// vnode (NOTE_WRITE: an entry was added, removed or renamed) and the watched
// process (NOTE_EXIT). A vnode event does not name the entry: the main loop
// decides what to look at.

#include "wakeup.h"

#include <sys/types.h>
#include <sys/event.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

// Registers one change with `queue`; the error of the registration itself.
static std::error_code Register(int queue, uintptr_t ident, int16_t filter, uint16_t flags,
                                uint32_t fflags) {
    struct kevent change;
    EV_SET(&change, ident, filter, flags, fflags, 0, nullptr);
    // With no room for events, a failed registration is returned as -1.
    return ::kevent(queue, &change, 1, nullptr, 0, nullptr) < 0 ? LastError()
                                                               : std::error_code();
}

// ------------------------------------------------------- process handles

std::error_code OpenProcessHandle(int pid, UniqueFd& out) {
    // The handle is a kqueue of its own holding only the exit of `pid`: the
    // knote is bound to that process, not to its number, and asking it
    // leaves the directory's events in the main queue alone.
    UniqueFd queue(::kqueue());
    if (!queue.valid())
        return LastError();
    if (std::error_code ec = Register(queue.get(), static_cast<uintptr_t>(pid), EVFILT_PROC,
                                      EV_ADD, NOTE_EXIT))
        return ec;
    out = std::move(queue);
    return {};
}

bool ProcessHandleSaysEnded(int handle) {
    struct kevent event;
    const struct timespec now = {0, 0};
    return ::kevent(handle, nullptr, 0, &event, 1, &now) == 1 && event.filter == EVFILT_PROC &&
           (event.fflags & NOTE_EXIT) != 0;
}

// ------------------------------------------------------------ wake-ups

// The kqueue is simply closed: Linux's wait for its watch's teardown
// (wakeup_linux.cpp) has no known counterpart here.
WakeSource::~WakeSource() = default;

std::error_code WakeSource::WatchDirectory(int dir) {
    queue_ = UniqueFd(::kqueue());
    if (!queue_.valid())
        return LastError();
    // EV_CLEAR: one report per burst of changes, not one per poll while the
    // directory stays changed.
    std::error_code ec = Register(queue_.get(), static_cast<uintptr_t>(dir), EVFILT_VNODE,
                                  EV_ADD | EV_CLEAR, NOTE_WRITE);
    if (ec)
        queue_.reset();
    return ec;
}

std::error_code WakeSource::WatchProcess(int handle, int pid) {
    process_ = handle;
    std::error_code ec = Register(queue_.get(), static_cast<uintptr_t>(pid), EVFILT_PROC, EV_ADD,
                                  NOTE_EXIT);
    // Gone already: the process handle says so, and the loop asks it first.
    return ec == std::errc::no_such_process ? std::error_code() : ec;
}

std::error_code WakeSource::Wait(int timeoutMs, Changes& changes) {
    struct kevent events[8];
    const struct timespec timeout = {timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
    const int count =
        ::kevent(queue_.get(), nullptr, 0, events, 8, timeoutMs < 0 ? nullptr : &timeout);
    if (count < 0)
        return errno == EINTR ? std::error_code() : LastError();
    for (int i = 0; i < count; ++i)
        if (events[i].filter == EVFILT_VNODE)
            changes.unnamed = true;
    // A process event needs nothing here: the process handle, asked before
    // every look, says the same.
    return {};
}

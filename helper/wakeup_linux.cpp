// Waking on change on Linux: inotify on the communication directory and a
// pidfd on the watched process, waited for in one poll.

#include "wakeup.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>

// ------------------------------------------------------- process handles

std::error_code OpenProcessHandle(int pid, UniqueFd& out) {
#ifdef SYS_pidfd_open
    // Through syscall(): the C library's wrapper is younger than the call.
    out = UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    return out.valid() ? std::error_code() : LastError();
#else
    (void)pid, (void)out;
    return ErrorOf(ENOSYS);
#endif
}

bool ProcessHandleSaysEnded(int handle) {
    // A pidfd reads ready once its process has ended (a zombie included).
    pollfd ready{handle, POLLIN, 0};
    return ::poll(&ready, 1, 0) == 1 && (ready.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

// ------------------------------------------------------------ wake-ups

// Closing the last handle on an inotify instance that watches something
// waits for the kernel to retire the watch (an RCU grace period: 8-20 ms
// here), and a process's exit waits for that close. Whoever waits for the
// helper to end (the client library, a front-end about to start the next
// one) should not wait for that too, so a child holds the instance across
// the helper's own close and pays for the teardown when it ends, right
// after. Without a child (fork failed), the close is simply slow.
static void CloseWithoutWaiting(UniqueFd& queue) {
    int gate[2];
    if (!queue.valid() || ::pipe2(gate, O_CLOEXEC) != 0) {
        queue.reset();
        return;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        // Only async-signal-safe calls here. The gate's other end first:
        // kept, it would hold the child forever. Then, where the kernel
        // can, everything but the instance and the gate, so that no file,
        // lock or directory of the helper's outlives it.
        ::close(gate[1]);
        const unsigned kept[2] = {static_cast<unsigned>(std::min(queue.get(), gate[0])),
                                  static_cast<unsigned>(std::max(queue.get(), gate[0]))};
#ifdef SYS_close_range
        if (kept[0] > 0)
            ::syscall(SYS_close_range, 0U, kept[0] - 1, 0U);
        if (kept[1] > kept[0] + 1)
            ::syscall(SYS_close_range, kept[0] + 1, kept[1] - 1, 0U);
        ::syscall(SYS_close_range, kept[1] + 1, ~0U, 0U);
#endif
        char byte;
        while (::read(gate[0], &byte, 1) < 0 && errno == EINTR) {
        }
        ::_exit(0);
    }
    queue.reset();  // not the last handle while the child waits at the gate
    ::close(gate[1]);  // opens the gate: the child ends
    ::close(gate[0]);
}

WakeSource::~WakeSource() { CloseWithoutWaiting(queue_); }

std::error_code WakeSource::WatchDirectory(int dir) {
    queue_ = UniqueFd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!queue_.valid())
        return LastError();
    // inotify takes a path; the descriptor's entry in /proc is the directory
    // held open, whatever has become of its name since.
    const std::string held = "/proc/self/fd/" + std::to_string(dir);
    if (::inotify_add_watch(queue_.get(), held.c_str(),
                            IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR) < 0) {
        const std::error_code ec = LastError();
        queue_.reset();
        return ec;
    }
    return {};
}

std::error_code WakeSource::WatchProcess(int handle, int) {
    process_ = handle;
    return {};
}

std::error_code WakeSource::Wait(int timeoutMs, Changes& changes) {
    pollfd ready[2] = {{queue_.get(), POLLIN, 0}, {process_, POLLIN, 0}};
    const nfds_t count = process_ >= 0 ? 2 : 1;
    const int woken = ::poll(ready, count, timeoutMs);
    if (woken < 0)
        return errno == EINTR ? std::error_code() : LastError();
    if (woken == 0 || !(ready[0].revents & POLLIN))
        return {};

    // Every event queued so far: a wake-up often brings several files.
    alignas(inotify_event) char buffer[64 * 1024];
    while (true) {
        const ssize_t size = ::read(queue_.get(), buffer, sizeof buffer);
        if (size < 0)
            return errno == EAGAIN || errno == EINTR ? std::error_code() : LastError();
        for (ssize_t at = 0; at < size;) {
            inotify_event event;
            std::memcpy(&event, buffer + at, sizeof event);
            if (event.mask & IN_Q_OVERFLOW)
                changes.lost = true;
            else if (event.len > 0)
                changes.names.emplace_back(buffer + at + sizeof event);
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
}

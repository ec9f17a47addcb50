// Linux: inotify on the communication directory and a pidfd for the
// helper, in one poll.

#include "clientPlatform.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434  // the same on every architecture the kernel gave it to at once
#endif

namespace zqim::detail {

namespace {

// A descriptor closed with its owner.
class Fd {
public:
    explicit Fd(int fd = -1) : fd(fd) {}
    ~Fd() {
        if (fd >= 0)
            ::close(fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd; }
    void reset(int other = -1) {
        if (fd >= 0)
            ::close(fd);
        fd = other;
    }

private:
    int fd;
};

// When a watch could not be had, how long a sleep may last before the
// caller looks for itself.
constexpr std::chrono::milliseconds kFallbackTick{50};

}  // namespace

int OpenCloseOnExecPipe(int fds[2]) {
    return ::pipe2(fds, O_CLOEXEC) == 0 ? 0 : errno;
}

struct ChangeWatch::State {
    Fd changes;  // inotify on the directory
    Fd helper;   // pidfd: readable once the helper has ended
};

ChangeWatch::ChangeWatch(const std::string& dir, pid_t helper) : state(new State) {
    state->changes.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    // New entries (a finished file, the log), renames into the directory,
    // and writes to the files in it (the progress file, the log).
    if (state->changes.get() >= 0 &&
        ::inotify_add_watch(state->changes.get(), dir.c_str(),
                            IN_CREATE | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE) < 0)
        state->changes.reset();
    // A pidfd names this process and no later one with its number. The
    // descriptor is opened close-on-exec by the kernel.
    state->helper.reset(static_cast<int>(::syscall(SYS_pidfd_open, helper, 0)));
}

ChangeWatch::~ChangeWatch() = default;

void ChangeWatch::Sleep(std::chrono::milliseconds limit) {
    pollfd fds[2];
    nfds_t count = 0;
    for (int fd : {state->changes.get(), state->helper.get()})
        if (fd >= 0)
            fds[count++] = pollfd{fd, POLLIN, 0};
    if (state->changes.get() < 0 || state->helper.get() < 0)
        limit = std::min(limit, kFallbackTick);
    const int millis = static_cast<int>(std::clamp<long long>(limit.count(), 0, INT_MAX));
    if (::poll(fds, count, millis) > 0 && state->changes.get() >= 0) {
        // The events only wake us: the caller looks at the files itself.
        alignas(inotify_event) char events[4096];
        while (::read(state->changes.get(), events, sizeof events) > 0) {
        }
    }
}

void ChangeWatch::Follow(const std::string&) {
    // The directory's watch already sees writes to the files in it.
}

}  // namespace zqim::detail

// macOS: one kqueue with the communication directory's handle
// (EVFILT_VNODE), the helper's exit (EVFILT_PROC) and the files followed.

#include "clientPlatform.h"

#include <fcntl.h>
#include <sys/event.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <thread>

namespace zqim::detail {

namespace {

constexpr std::chrono::milliseconds kFallbackTick{50};

}  // namespace

int OpenCloseOnExecPipe(int fds[2]) {
    // macOS has no pipe2: the flag is set at once, but a program another
    // thread starts in between can inherit the ends. The read end then
    // waits for that program too, never for less than the helper's exec.
    if (::pipe(fds) != 0)
        return errno;
    for (int i = 0; i < 2; ++i)
        if (::fcntl(fds[i], F_SETFD, FD_CLOEXEC) != 0) {
            const int error = errno;
            ::close(fds[0]);
            ::close(fds[1]);
            return error;
        }
    return 0;
}

struct ChangeWatch::State {
    ~State() {
        for (const auto& [name, fd] : files)
            if (fd >= 0)
                ::close(fd);
        if (dirFd >= 0)
            ::close(dirFd);
        if (queue >= 0)
            ::close(queue);
    }

    // Opens a followed file for events only, and watches its writes and
    // its end (a rewrite by rename gives a new file, opened again later).
    void Open(const std::string& name, int& fd) {
        fd = ::open((dir + "/" + name).c_str(), O_EVTONLY | O_CLOEXEC);
        if (fd < 0)
            return;
        struct kevent change;
        EV_SET(&change, fd, EVFILT_VNODE, EV_ADD | EV_CLEAR,
               NOTE_WRITE | NOTE_EXTEND | NOTE_DELETE | NOTE_RENAME, 0, nullptr);
        if (::kevent(queue, &change, 1, nullptr, 0, nullptr) != 0) {
            ::close(fd);
            fd = -1;
        }
    }

    std::string dir;
    int queue = -1;
    int dirFd = -1;
    bool helperWatched = false;
    std::map<std::string, int> files;  // followed name -> its handle, or -1
};

ChangeWatch::ChangeWatch(const std::string& dir, pid_t helper) : state(new State) {
    state->dir = dir;
    // A kqueue is not inherited by a child process.
    state->queue = ::kqueue();
    if (state->queue < 0)
        return;
    struct kevent change;
    // NOTE_WRITE on a directory: an entry was made, removed or renamed.
    state->dirFd = ::open(dir.c_str(), O_EVTONLY | O_DIRECTORY | O_CLOEXEC);
    if (state->dirFd >= 0) {
        EV_SET(&change, state->dirFd, EVFILT_VNODE, EV_ADD | EV_CLEAR, NOTE_WRITE, 0, nullptr);
        if (::kevent(state->queue, &change, 1, nullptr, 0, nullptr) != 0) {
            ::close(state->dirFd);
            state->dirFd = -1;
        }
    }
    EV_SET(&change, helper, EVFILT_PROC, EV_ADD | EV_CLEAR, NOTE_EXIT, 0, nullptr);
    state->helperWatched = ::kevent(state->queue, &change, 1, nullptr, 0, nullptr) == 0;
}

ChangeWatch::~ChangeWatch() = default;

void ChangeWatch::Sleep(std::chrono::milliseconds limit) {
    for (auto& [name, fd] : state->files)
        if (fd < 0)
            state->Open(name, fd);
    if (state->queue < 0 || state->dirFd < 0 || !state->helperWatched)
        limit = std::min(limit, kFallbackTick);
    if (state->queue < 0) {
        std::this_thread::sleep_for(limit);
        return;
    }
    const long long millis = std::max<long long>(0, limit.count());
    const timespec timeout{static_cast<time_t>(millis / 1000),
                           static_cast<long>(millis % 1000) * 1000000L};
    struct kevent events[8];
    const int count = ::kevent(state->queue, nullptr, 0, events, 8, &timeout);
    for (int i = 0; i < count; ++i) {
        if (events[i].filter != EVFILT_VNODE || !(events[i].fflags & (NOTE_DELETE | NOTE_RENAME)))
            continue;
        // A followed file went: closing its handle drops its event, and the
        // next Sleep() opens the file of that name again.
        for (auto& [name, fd] : state->files)
            if (fd >= 0 && static_cast<uintptr_t>(fd) == events[i].ident) {
                ::close(fd);
                fd = -1;
            }
    }
}

void ChangeWatch::Follow(const std::string& name) {
    auto [it, added] = state->files.emplace(name, -1);
    if (added && state->queue >= 0)
        state->Open(name, it->second);
}

}  // namespace zqim::detail

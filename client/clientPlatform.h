// What the client library does differently on each system: sleeping until
// the helper may have written something or has ended, and a pipe that no
// program started from this process inherits. One implementation per
// system (clientPlatform_linux.cpp, clientPlatform_mac.cpp).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

namespace zqim::detail {

// Makes a pipe whose two ends are closed on exec from the start. Returns 0
// or an errno value.
int OpenCloseOnExecPipe(int fds[2]);

// Wakes a waiting front-end when an entry of the communication directory is
// created, renamed into it or written, or when the helper ends, instead of
// looking every few milliseconds. Where the system refuses a watch (no
// inotify instance left, a kernel without pidfd_open), Sleep() returns
// after 50 ms at most, and the caller simply looks again.
class ChangeWatch {
public:
    ChangeWatch(const std::string& dir, pid_t helper);
    ~ChangeWatch();
    ChangeWatch(const ChangeWatch&) = delete;
    ChangeWatch& operator=(const ChangeWatch&) = delete;

    // Returns after a change, when the helper has ended, or after `limit`;
    // it may return early. A change made since the last call, or after the
    // watch was made, is not lost: it ends the next call at once.
    void Sleep(std::chrono::milliseconds limit);

    // A file of the directory whose writes must wake Sleep() too, where a
    // watch on the directory alone does not see them (macOS). The file
    // need not exist yet.
    void Follow(const std::string& name);

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace zqim::detail

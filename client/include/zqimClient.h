// The front-end's side of the helper's protocol, for front-ends written in
// C++ or Objective-C++ (C++17, standard library and POSIX only).
//
//   zqim::Session helper = zqim::Session::Start({});           // private comm dir
//   int n = helper.Send("setRoot /Applications\ncopySrc ...\n");
//   zqim::Answer a = helper.Wait(n, [](int percent) { ... });
//   if (a.died) ...                  // a.how: "killed by signal 9 (Killed)"
//   for (int code : a.newCodes) std::cout << zqim::CodeName(code);
//   helper.Stop();                   // sends exit, waits, removes the dir
//
// Errors: setting up (making the directory, starting the helper, writing a
// command file) throws std::system_error; what the helper reports, and a
// helper that died, are values in the Answer. A directory given for the
// exchange is refused (EPERM) unless it is owned by this user or root and
// writable by no one else, and (EEXIST) while it holds ZQCmd files of an
// earlier run; an earlier run's log there is removed.
#pragma once

#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zqim {

// The meaning of a result code the helper records, as the error file lists
// it ("no space on device" for 2001); "unknown code" for any other.
std::string CodeName(int code);

struct Answer {
    int number = 0;
    bool finished = false;     // the helper wrote ZQCmd<N>.zqfin
    bool died = false;         // the helper ended without answering
    std::string how;           // for a helper that died: how it ended
    std::vector<int> codes;    // every code in the error file (they add up over a run)
    std::vector<int> newCodes; // the codes this file added
    std::chrono::duration<double> took{0};
};

class Session {
public:
    struct Options {
        std::string helper = "ZQIMHelper";  // the program, as execvp finds it
        std::string commDir;  // empty: a private one (mode 0700), removed by Stop()
        bool keepFiles = false;  // keep answered files and a private directory
        bool verbose = false;    // start the helper with -v
    };

    // Starts the helper with -c <dir> and -p <this process>.
    static Session Start(const Options& options);
    Session(Session&& other) noexcept;
    Session& operator=(Session&&) = delete;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    // Kills a helper still running (use Stop() to end it properly) and
    // removes a private directory unless keepFiles.
    ~Session();

    // Writes the next command file under a temporary name, renames it into
    // place, then creates its signal file; returns its number (1, 2, ...,
    // never reused).
    int Send(const std::string& commands);

    // Waits for command file `number` to be answered, or for the helper to
    // end without answering it. `progress` is called with each new value
    // of the progress file, `logLine` with each new line of the log. After
    // `timeout` the answer is neither finished nor died, and the helper
    // still runs.
    Answer Wait(int number, const std::function<void(int)>& progress = {},
                const std::function<void(const std::string&)>& logLine = {},
                std::chrono::milliseconds timeout = std::chrono::hours(24));

    // Sends `exit`, waits for the helper to end, and removes a private
    // directory (unless keepFiles). Returns how the helper ended.
    std::string Stop();

    const std::string& CommDir() const { return dir; }
    pid_t Pid() const { return pid; }
    bool Running();

private:
    Session() = default;
    std::string File(int number, const char* extension) const;
    std::string How() const;
    void Forget(int number);

    std::string dir;
    bool ownsDir = false;
    bool keep = false;
    pid_t pid = -1;
    int status = 0;
    bool ended = false;
    bool statusKnown = true;
    int lastSent = 0;
    std::set<int> seenCodes;
    std::size_t logRead = 0;
    std::string logPartial;
};

// How a process ended, from its wait status: "exit status 3",
// "killed by signal 9 (Killed)".
std::string DescribeStatus(int status);

}  // namespace zqim

// The front-end's side of the helper's protocol, for front-ends written in
// C++ or Objective-C++ (C++17, standard library and POSIX only).
//
//   zqim::Session helper = zqim::Session::Start({});           // private comm dir
//   int n = helper.Send(zqim::Commands().setRoot("/Applications")
//                           .copy("/tmp/stage/App", "App").progress(40));
//   zqim::Answer a = helper.Wait(n, [](int percent) { ... });
//   if (a.died) ...                  // a.how: "killed by signal 9 (Killed)"
//   for (const zqim::Failure& f : a.failures)
//       std::cout << f.line << ": " << f.code << " " << zqim::CodeName(f.code);
//   helper.Stop();                   // sends exit, waits, removes the dir
//
// Errors: setting up (making the directory, starting the helper, writing a
// command file, sending to a helper that has ended) throws
// std::system_error; a value the command builder cannot send throws
// std::invalid_argument; what the helper reports, and a helper that died,
// are values in the Answer. A directory given for the exchange is refused
// (EPERM) unless it is owned by this user or root and writable by no one
// else, and (EEXIST) while it holds ZQCmd files of an earlier run; an
// earlier run's log there is removed.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zqim {

namespace detail {
class ChangeWatch;
}

// The meaning of a result code the helper records, as the error file lists
// it ("no space on device" for 2001); "unknown code" for any other.
std::string CodeName(int code);

// One line of a command file that failed.
struct Failure {
    int line = 0;          // 1-based, in the text sent
    std::string text;      // the line as sent
    int code = 0;          // the result code (2003) or the code it recorded (makeDir)
    std::string message;   // what the helper logged about it, or what the code means
};

struct Answer {
    int number = 0;
    bool finished = false;     // the helper wrote ZQCmd<N>.zqfin
    bool died = false;         // the helper ended without answering
    bool helperEnded = false;  // it answered, then ended: an exit or a fatal error in this file
    std::string how;           // for a helper that died or ended: how ("exit status 0")
    std::vector<int> codes;    // every code in the error file (they add up over a run)
    std::vector<int> newCodes; // the codes this file added
    // This file's own failed lines, in line order, whether or not their
    // codes were recorded by an earlier file; read from the helper's log.
    std::vector<Failure> failures;
    std::chrono::duration<double> took{0};
};

// Command text built from keywords and values, one line each:
//
//   zqim::Commands().setRoot(root).copy(staged, "bin/app").progress(40).str()
//
// The helper has no quoting: a value holding a newline, a carriage return
// or a NUL byte would become another line, or another path than it says,
// and white space at its ends would be trimmed away. Such values, and
// empty ones, are refused with std::invalid_argument.
class Commands {
public:
    Commands& setRoot(const std::string& root);
    Commands& setUserID(uid_t uid);
    Commands& setGroupID(gid_t gid);
    Commands& setPermsAccess(bool full);
    // copySrc and copyDest: `destination` is relative to the root.
    Commands& copy(const std::string& source, const std::string& destination);
    // copySrc and moveOrCopyDest.
    Commands& move(const std::string& source, const std::string& destination);
    // lnkContent and lnkResulting: a link at `path` (relative to the root)
    // that holds `content`.
    Commands& link(const std::string& content, const std::string& path);
    Commands& makeDir(const std::string& dir);
    Commands& delFile(const std::string& path);
    Commands& delFolder(const std::string& dir);
    Commands& fixPerms(const std::string& path);
    Commands& fixPermsR(const std::string& dir);
    Commands& exec(const std::string& commandLine);
    Commands& progress(int percent);  // 0 to 100
    // plistLoc ... plistValueData, then plistGo.
    Commands& plist(const std::string& location, const std::string& domain,
                    const std::string& key, const std::string& type, const std::string& value);
    Commands& plistDel(const std::string& location, const std::string& domain);
    Commands& waitForPID();
    Commands& exit();
    // Any keyword, exactly as the helper spells it (regPath, shortcutAdd),
    // with its value or none.
    Commands& line(const std::string& keyword, const std::string& value = "");

    const std::string& str() const { return text; }

private:
    std::string text;
};

class Session {
public:
    struct Options {
        std::string helper = "ZQIMHelper";  // the program: a path, or a name on PATH
        std::string commDir;  // empty: a private one (mode 0700), removed by Stop()
        bool keepFiles = false;  // keep answered files and a private directory
        bool verbose = false;    // start the helper with -v
        // Start the helper with -w, to answer as soon as a file is ready
        // instead of on its once-a-second poll. A helper that does not know
        // -w ignores it and keeps its own pace.
        bool wake = true;
    };

    // Starts the helper with -c <dir> and -p <this process> (and -w);
    // throws std::system_error when it cannot be started.
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
    // never reused). Throws std::system_error (ESRCH) once the helper has
    // ended: nothing would ever answer the file.
    int Send(const std::string& commands);
    int Send(const Commands& commands) { return Send(commands.str()); }

    // Waits for command file `number` to be answered, or for the helper to
    // end without answering it. `progress` is called with each new value
    // of the progress file, `logLine` with each line the helper logs
    // meanwhile. After `timeout` the answer is neither finished nor died,
    // and the helper still runs.
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
    Session();
    std::string File(int number, const char* extension) const;
    std::string How() const;
    void Forget(int number);
    void ReadLog(const std::function<void(const std::string&)>& logLine);
    bool AwaitEnd(std::chrono::milliseconds limit);

    std::string dir;
    bool ownsDir = false;
    bool keep = false;
    pid_t pid = -1;
    int status = 0;
    bool ended = false;
    bool statusKnown = true;
    int endedAfter = 0;  // the file whose exit or fatal error ended the helper
    int lastSent = 0;
    std::set<int> seenCodes;
    std::size_t logRead = 0;
    std::string logPartial;
    // The log's entries (without their time stamps) for each command file
    // not yet answered, from its "Found command file" line to the next,
    // and the text sent as each.
    int loggedFile = 0;
    bool keepingEntry = false;  // the log's last entry was kept: its next lines too
    std::map<int, std::vector<std::string>> logEntries;
    std::map<int, std::string> sentText;
    std::unique_ptr<detail::ChangeWatch> watch;
};

// How a process ended, from its wait status: "exit status 3",
// "killed by signal 9 (Killed)".
std::string DescribeStatus(int status);

}  // namespace zqim

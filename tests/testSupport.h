// Shared test fixtures: scratch trees, a captured log, the real helper binary
// driven as a front-end drives it, and privileged mounts for fault injection.
#pragma once

#include <chrono>
#include <functional>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zqimtest {

namespace fs = std::filesystem;

// A fresh directory under `base`, removed with everything in it at the end.
class TempDir {
public:
    explicit TempDir(const fs::path& base = fs::temp_directory_path());
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return dir; }
    fs::path operator/(const std::string& name) const { return dir / name; }

private:
    fs::path dir;
};

std::string ReadFile(const fs::path& path);
void WriteFile(const fs::path& path, const std::string& content);
// WriteFile, its folders made first.
void Put(const fs::path& path, const std::string& content);

// The files closed after writing in `dir` from now on, in order (Linux:
// inotify; elsewhere nothing is seen): each name followed by "|".
class CloseOrder {
public:
    explicit CloseOrder(const fs::path& dir);
    ~CloseOrder();
    CloseOrder(const CloseOrder&) = delete;
    CloseOrder& operator=(const CloseOrder&) = delete;
    bool ok() const { return watch >= 0; }
    // What was closed since, as far as one read brings it.
    std::string Read();

private:
    int watch = -1;
};

// Points the helper's log at a scratch file and resets the whole run state,
// so that each unit test starts as a freshly started helper.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> messages() const;
    // True when some message equals `message` exactly.
    bool has(const std::string& message) const;

private:
    TempDir dir;
    fs::path file;
};

// The real helper binary, started with `args`; its standard output is kept.
class HelperProcess {
public:
    explicit HelperProcess(const std::vector<std::string>& args, bool asNobody = false);
    ~HelperProcess();
    // Waits for the process to end; returns false on time-out.
    bool wait(std::chrono::milliseconds timeout);
    bool exitedNormally() const;
    int exitCode() const;
    std::string output() const;
    pid_t pid() const { return child; }
    void kill();

private:
    pid_t child = -1;
    int status = -1;
    bool ended = false;
    TempDir outDir;
};

// Plays the front-end's side of the file exchange on a communication dir.
class Frontend {
public:
    explicit Frontend(const fs::path& commDir) : comm(commDir) {}
    // Writes command file N completely, then its signal file.
    void send(int number, const std::string& lines) const;
    // Waits for the finished file of N; false on time-out.
    bool waitFinished(int number, std::chrono::milliseconds timeout) const;
    fs::path file(int number, const std::string& extension) const;
    std::vector<std::string> log() const;
    std::string logText() const;

private:
    fs::path comm;
};

// A tmpfs of `bytes` mounted on a fresh directory, unmounted at the end;
// `readOnly` mounts it read-only. `ok()` is false without the privilege.
class ScratchMount {
public:
    explicit ScratchMount(std::size_t bytes, bool readOnly = false);
    ~ScratchMount();
    bool ok() const { return mounted; }
    const fs::path& path() const { return dir.path(); }
    bool remountReadOnly();
    // Takes the mount away at once, even while it is in use.
    void detach();

private:
    TempDir dir;
    bool mounted = false;
};

bool IsRoot();

// The other user of the tests: another, untrusted user of the machine.
constexpr uid_t kNobody = 65534;

// In a child just forked, becomes uid and gid 65534 with no other groups.
bool BecomeNobody();

// Runs `act` in a child as nobody; its exit status (126: it could not
// become nobody; -1: it did not exit).
int AsOtherUser(const std::function<int()>& act);

// Runs `act` in a child as nobody; true when it returned true.
bool AsNobody(const std::function<bool()>& act);

// Linux's fs.protected_* switches off for as long as it lives: each hides
// some way in that a hostile user has on macOS, which has none of them
// (hard links to files they do not own, links and fifos in sticky folders).
// Tests run side by side, in this process or others: each holds one
// exclusive lock meanwhile, so that none takes another's "off" for the
// machine's setting and leaves it so. `ok()` is false where a switch cannot
// be turned (not root); where there are none (macOS), it is true.
class ProtectionsOff {
public:
    // The switches by name ("hardlinks", "symlinks", "fifos", "regular").
    explicit ProtectionsOff(std::vector<std::string> names = {"symlinks", "hardlinks", "fifos",
                                                              "regular"});
    ~ProtectionsOff();
    ProtectionsOff(const ProtectionsOff&) = delete;
    ProtectionsOff& operator=(const ProtectionsOff&) = delete;
    bool ok() const;

private:
    int lock = -1;
    bool absent = false;  // the system has no such switches
    std::vector<std::pair<std::string, std::string>> saved;  // path, value found
};

}  // namespace zqimtest

#include "testSupport.h"

#include "liveness.h"
#include "runState.h"
#include "trust.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <signal.h>
#ifdef __linux__
#include <sys/inotify.h>
#include <sys/mount.h>
#endif
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace zqimtest {

TempDir::TempDir(const fs::path& base) {
    std::string pattern = (base / "zqim-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed under " + base.string());
    dir = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::remove_all(dir, ec);
}

std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteFile(const fs::path& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

void Put(const fs::path& path, const std::string& content) {
    fs::create_directories(path.parent_path());
    WriteFile(path, content);
}

CloseOrder::CloseOrder(const fs::path& dir) {
#ifdef __linux__
    watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (watch >= 0 && inotify_add_watch(watch, dir.c_str(), IN_CLOSE_WRITE) < 0) {
        close(watch);
        watch = -1;
    }
#else
    (void)dir;
#endif
}

CloseOrder::~CloseOrder() {
    if (watch >= 0)
        close(watch);
}

std::string CloseOrder::Read() {
    std::string closed;
#ifdef __linux__
    alignas(inotify_event) char raw[64 * 1024];
    const ssize_t size = read(watch, raw, sizeof raw);
    for (ssize_t at = 0; at < size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(raw + at);
        closed += std::string(event->name) + "|";
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
#endif
    return closed;
}

// A log line is "YYYY-MM-DDTHH:MM:SSZ: message"; messages may span lines, so
// a line without a stamp continues the message before it.
static std::vector<std::string> LogMessages(const std::string& logText) {
    std::vector<std::string> messages;
    std::istringstream in(logText);
    std::string line;
    while (std::getline(in, line)) {
        const bool stamped = line.size() >= 22 && line[4] == '-' && line[10] == 'T' &&
                             line[19] == 'Z' && line.compare(20, 2, ": ") == 0;
        if (stamped)
            messages.push_back(line.substr(22));
        else if (!messages.empty())
            messages.back() += "\n" + line;
    }
    return messages;
}

LogCapture::LogCapture() : file(dir / "log.txt") {
    ResetRunState();
    ResetLiveness();
    ForgetFrontEndUser();
    gVerbose = false;
    gPID = 0;
    gLogStream.open(file.string());
}

LogCapture::~LogCapture() {
    gLogStream.close();
}

std::vector<std::string> LogCapture::messages() const { return LogMessages(ReadFile(file)); }

bool LogCapture::has(const std::string& message) const {
    const auto all = messages();
    return std::find(all.begin(), all.end(), message) != all.end();
}

static const char* HelperBinary() {
    if (const char* overridden = std::getenv("ZQIM_HELPER"))
        return overridden;
    return ZQIM_HELPER_BINARY;
}

bool IsRoot() { return geteuid() == 0; }

HelperProcess::HelperProcess(const std::vector<std::string>& args, bool asNobody) {
    const std::string outPath = (outDir.path() / "stdout.txt").string();
    std::vector<std::string> argv{HelperBinary()};
    argv.insert(argv.end(), args.begin(), args.end());
    if (asNobody) {
        // nobody may be unable to reach the build tree (a checkout under a
        // private directory, as mktemp -d makes): it runs a copy of the
        // helper from a directory it can reach.
        fs::permissions(outDir.path(), fs::perms::all, fs::perm_options::add);
        fs::copy_file(argv[0], outDir.path() / "ZQIMHelper");
        argv[0] = (outDir.path() / "ZQIMHelper").string();
    }
    child = fork();
    if (child == 0) {
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        dup2(out, 1);
        dup2(out, 2);
        if (asNobody) {
            struct passwd* nobody = getpwnam("nobody");
            if (!nobody || setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0)
                _exit(127);
        }
        std::vector<char*> raw;
        for (std::string& a : argv)
            raw.push_back(a.data());
        raw.push_back(nullptr);
        execv(raw[0], raw.data());
        _exit(127);
    }
}

HelperProcess::~HelperProcess() {
    if (!ended)
        kill();
}

bool HelperProcess::wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!ended) {
        if (waitpid(child, &status, WNOHANG) == child) {
            ended = true;
            break;
        }
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

bool HelperProcess::exitedNormally() const { return ended && WIFEXITED(status); }

int HelperProcess::exitCode() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

std::string HelperProcess::output() const { return ReadFile(outDir.path() / "stdout.txt"); }

void HelperProcess::kill() {
    if (ended || child <= 0)
        return;
    ::kill(child, SIGKILL);
    waitpid(child, &status, 0);
    ended = true;
}

fs::path Frontend::file(int number, const std::string& extension) const {
    return comm / ("ZQCmd" + std::to_string(number) + extension);
}

void Frontend::send(int number, const std::string& lines) const {
    WriteFile(file(number, ".txt"), lines);
    WriteFile(file(number, ".zqsig"), "");
}

bool Frontend::waitFinished(int number, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (fs::exists(file(number, ".zqfin")))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

std::string Frontend::logText() const { return ReadFile(comm / "ZQIMLog.txt"); }

std::vector<std::string> Frontend::log() const { return LogMessages(logText()); }

// Scratch volumes are Linux tmpfs mounts; elsewhere `ok()` stays false and
// the tests that need one skip.
ScratchMount::ScratchMount(std::size_t bytes, bool readOnly) {
#ifdef __linux__
    if (!IsRoot())
        return;
    const std::string options = "size=" + std::to_string(bytes);
    mounted = mount("tmpfs", dir.path().c_str(), "tmpfs", readOnly ? MS_RDONLY : 0,
                    options.c_str()) == 0;
#else
    (void)bytes, (void)readOnly;
#endif
}

bool ScratchMount::remountReadOnly() {
#ifdef __linux__
    return mounted && mount("tmpfs", dir.path().c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY,
                            nullptr) == 0;
#else
    return false;
#endif
}

void ScratchMount::detach() {
#ifdef __linux__
    if (mounted)
        umount2(dir.path().c_str(), MNT_DETACH);
#endif
    mounted = false;
}

ScratchMount::~ScratchMount() { detach(); }

bool BecomeNobody() {
    return setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0;
}

int AsOtherUser(const std::function<int()>& act) {
    const pid_t child = fork();
    if (child == 0)
        _exit(BecomeNobody() ? act() : 126);
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool AsNobody(const std::function<bool()>& act) {
    return AsOtherUser([&] { return act() ? 0 : 1; }) == 0;
}

ProtectionsOff::ProtectionsOff(std::vector<std::string> names) {
    // One lock for every switch, on one that every kernel with them has.
    lock = open("/proc/sys/fs/protected_hardlinks", O_RDONLY | O_CLOEXEC);
    if (lock < 0) {
        absent = errno == ENOENT;  // macOS: nothing to switch off
        return;
    }
    if (flock(lock, LOCK_EX) != 0) {
        close(lock);
        lock = -1;
        return;
    }
    for (const std::string& name : names) {
        const std::string path = "/proc/sys/fs/protected_" + name;
        const std::string value = ReadFile(path);
        if (value.empty() || value == "0\n")
            continue;  // not here, or already off: left as found
        saved.emplace_back(path, value);
        WriteFile(path, "0\n");
    }
}

ProtectionsOff::~ProtectionsOff() {
    for (const auto& [path, value] : saved)
        WriteFile(path, value);
    if (lock >= 0)
        close(lock);  // and with it the lock
}

bool ProtectionsOff::ok() const {
    if (lock < 0)
        return absent;
    for (const auto& [path, value] : saved)
        if (ReadFile(path) != "0\n")
            return false;
    return true;
}

}  // namespace zqimtest

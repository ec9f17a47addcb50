#include "zqimClient.h"

#include "privateDir.h"
#include "zqimProtocol.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

namespace zqim {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string ReadAll(const std::string& path, bool& exists) {
    std::ifstream in(path, std::ios::binary);
    exists = in.is_open();
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteAll(const std::string& path, const std::string& content) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        Fail("cannot create " + path);
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            const int error = errno;
            ::close(fd);
            errno = error;
            Fail("cannot write " + path);
        }
        done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0)
        Fail("cannot write " + path);
}

[[noreturn]] void Refuse(int error, const std::string& what) {
    errno = error;
    Fail(what);
}

// Whose folders and links the front-end may rely on: root's and its own.
bool TrustedByUs(uid_t owner) {
    return owner == 0 || owner == ::geteuid() || owner == ::getuid();
}

// A directory given for the exchange must be as safe as a private one, by
// the helper's own rule (the directory itself, not a link, and every folder
// above it), and hold nothing of an earlier run: a new helper would run a
// command file left there, and its old finished file would pass for the new
// answer.
void CheckGivenDir(const std::string& dir) {
    int fd;
    std::string reason;
    switch (OpenPrivateDir(dir, TrustedByUs, fd, reason)) {
    case DirCheck::Private: ::close(fd); break;
    case DirCheck::Missing: Fail("no communication directory " + dir);
    case DirCheck::NotPrivate:
        Refuse(EPERM, "communication directory " + dir +
                          " must be owned by this user or root and writable by no one else, and "
                          "so must the folders above it (" + reason + ")");
    }
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (name.rfind(kCommandPrefix, 0) == 0)
            Refuse(EEXIST, "communication directory " + dir + " holds " + name +
                               " from an earlier run");
    }
    if (ec)
        Refuse(ec.value(), "cannot list communication directory " + dir);
}

}  // namespace

std::string CodeName(int code) {
    switch (code) {
    case kOtherError: return "other error";
    case kNoSpace: return "no space on device";
    case kPermissionDenied: return "permission denied";
    case kSourceNotFound: return "source not found";
    case kNotDeleted: return "an entry could not be deleted";
    case kPairOutOfOrder: return "pair command out of order";
    case kReadOnly: return "read-only file system";
    case kNotPermitted: return "operation not permitted";
    default: return "unknown code";
    }
}

std::string DescribeStatus(int status) {
    if (WIFEXITED(status))
        return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status))
        return "killed by signal " + std::to_string(WTERMSIG(status)) + " (" +
               ::strsignal(WTERMSIG(status)) + ")";
    return "wait status " + std::to_string(status);
}

Session Session::Start(const Options& options) {
    Session s;
    s.keep = options.keepFiles;
    if (options.commDir.empty()) {
        // Private: anyone who can write a command file here runs commands
        // as root.
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/zqim-comm.XXXXXX";
        if (!::mkdtemp(pattern.data()))
            Fail("cannot make a communication directory");
        s.dir = pattern;
        s.ownsDir = true;
    } else {
        CheckGivenDir(options.commDir);
        s.dir = options.commDir;
        // The new helper empties an earlier run's log as it starts; until
        // then the log follower would take its lines for this run's.
        ::unlink((s.dir + "/" + kLogFileName).c_str());
    }

    std::vector<std::string> args{options.helper, "-c", s.dir, "-p", std::to_string(::getpid())};
    if (options.verbose)
        args.push_back("-v");
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string output = s.dir + "/helper-output.log";
    s.pid = ::fork();
    if (s.pid < 0)
        Fail("cannot start the helper");
    if (s.pid == 0) {
        // The helper's own lines (start-up, the PID conflict line) go to a
        // file beside the log; its name is none the helper reads.
        const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out >= 0) {
            ::dup2(out, 1);
            ::dup2(out, 2);
        }
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    return s;
}

Session::Session(Session&& other) noexcept
    : dir(std::move(other.dir)), ownsDir(other.ownsDir), keep(other.keep), pid(other.pid),
      status(other.status), ended(other.ended), statusKnown(other.statusKnown),
      lastSent(other.lastSent),
      seenCodes(std::move(other.seenCodes)), logRead(other.logRead),
      logPartial(std::move(other.logPartial)) {
    other.pid = -1;
    other.ownsDir = false;
}

Session::~Session() {
    if (pid > 0 && Running()) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }
    if (ownsDir && !keep) {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
}

bool Session::Running() {
    if (ended || pid <= 0)
        return false;
    const pid_t reaped = ::waitpid(pid, &status, WNOHANG);
    // ECHILD: the program reaps its children itself (or ignores SIGCHLD);
    // the helper is gone all the same, its status with it.
    if (reaped == pid || (reaped < 0 && errno == ECHILD)) {
        ended = true;
        statusKnown = reaped == pid;
    }
    return !ended;
}

std::string Session::How() const {
    if (pid <= 0)
        return "never started";
    return statusKnown ? DescribeStatus(status) : "ended, its status collected elsewhere";
}

std::string Session::File(int number, const char* extension) const {
    return dir + "/" + kCommandPrefix + std::to_string(number) + extension;
}

int Session::Send(const std::string& commands) {
    const int number = ++lastSent;
    // Complete under a name the helper does not look at, then in place in
    // one rename, and only then announced: it can never read half a file.
    const std::string partial = dir + "/." + kCommandPrefix + std::to_string(number) + ".partial";
    WriteAll(partial, commands);
    if (::rename(partial.c_str(), File(number, kCommandExtension).c_str()) != 0)
        Fail("cannot put command file " + std::to_string(number) + " in place");
    WriteAll(File(number, kSignalExtension), "");
    return number;
}

void Session::Forget(int number) {
    if (keep)
        return;
    for (const char* extension : {kCommandExtension, kSignalExtension, kFinishedExtension,
                                  kErrorExtension, kProgressExtension})
        ::unlink(File(number, extension).c_str());
}

Answer Session::Wait(int number, const std::function<void(int)>& progress,
                     const std::function<void(const std::string&)>& logLine,
                     std::chrono::milliseconds timeout) {
    Answer answer;
    answer.number = number;
    const auto start = std::chrono::steady_clock::now();
    std::string shownProgress;
    auto follow = [&] {
        bool exists;
        if (progress) {
            const std::string now = ReadAll(File(number, kProgressExtension), exists);
            if (exists && now != shownProgress && !now.empty() && now.back() == '\n') {
                shownProgress = now;
                progress(std::atoi(now.c_str()));
            }
        }
        if (logLine) {
            std::ifstream log(dir + "/" + kLogFileName, std::ios::binary);
            log.seekg(static_cast<std::streamoff>(logRead));
            std::string more((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
            logRead += more.size();
            logPartial += more;
            for (std::size_t nl; (nl = logPartial.find('\n')) != std::string::npos;) {
                logLine(logPartial.substr(0, nl));
                logPartial.erase(0, nl + 1);
            }
        }
    };
    while (true) {
        bool exists;
        // The helper writes the error file before the finished file.
        answer.finished = ReadAll(File(number, kFinishedExtension), exists) == kFinishedText;
        if (answer.finished)
            break;
        // Look once more after it ended: it may have answered just before.
        const bool running = Running();
        if (!running && ReadAll(File(number, kFinishedExtension), exists) != kFinishedText) {
            answer.died = true;
            answer.how = How();
            break;
        }
        follow();
        if (std::chrono::steady_clock::now() - start > timeout)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    follow();
    if (answer.finished) {
        bool exists;
        std::istringstream err(ReadAll(File(number, kErrorExtension), exists));
        for (std::string code; err >> code && code != "end";) {
            const int value = std::atoi(code.c_str());
            answer.codes.push_back(value);
            if (seenCodes.insert(value).second)
                answer.newCodes.push_back(value);
        }
        Forget(number);
    }
    answer.took = std::chrono::steady_clock::now() - start;
    return answer;
}

std::string Session::Stop() {
    if (Running()) {
        const int number = Send("exit\n");
        Wait(number, {}, {}, std::chrono::seconds(30));
        for (int i = 0; i < 100 && Running(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (Running()) {
            ::kill(pid, SIGKILL);
            statusKnown = ::waitpid(pid, &status, 0) == pid;
            ended = true;
        }
    }
    if (ownsDir && !keep) {
        std::error_code ec;
        fs::remove_all(dir, ec);
        ownsDir = false;
    }
    return How();
}

}  // namespace zqim

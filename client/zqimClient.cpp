#include "zqimClient.h"

#include "answerLog.h"
#include "clientPlatform.h"
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
#include <utility>

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

// The program execv will run for `name`: itself when it names a path, else
// the first executable of that name on PATH, as execvp looks. The search is
// done here, because between fork and exec only async-signal-safe calls
// may run.
std::string FindProgram(const std::string& name) {
    if (name.find('/') != std::string::npos)
        return name;
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path && *path ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        const std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
        struct stat st;
        if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            ::access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    Refuse(ENOENT, "cannot start the helper: no " + name + " on PATH");
}

// How long an answered file's helper may take to end once its exit or fatal
// error was answered: it only closes its log.
constexpr std::chrono::seconds kEndAfterAnswer{5};

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

Session::Session() = default;

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

    const std::string program = FindProgram(options.helper);
    std::vector<std::string> args{options.helper, "-c", s.dir, "-p", std::to_string(::getpid())};
    if (options.verbose)
        args.push_back("-v");
    // A helper that does not know -w ignores it, as every unknown token.
    if (options.wake)
        args.push_back("-w");
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string output = s.dir + "/helper-output.log";
    // The child reports a failed exec through this pipe; a successful exec
    // closes it, and the parent reads nothing.
    int report[2];
    if (const int error = detail::OpenCloseOnExecPipe(report))
        Refuse(error, "cannot start the helper");
    s.pid = ::fork();
    if (s.pid < 0) {
        const int error = errno;
        ::close(report[0]);
        ::close(report[1]);
        Refuse(error, "cannot start the helper");
    }
    if (s.pid == 0) {
        // Only async-signal-safe calls from here on. The helper's own
        // lines (start-up, the PID conflict line) go to a file beside the
        // log; its name is none the helper reads.
        int reportTo = report[1];
        if (reportTo <= 2)  // would be replaced by the output file
            reportTo = ::fcntl(reportTo, F_DUPFD_CLOEXEC, 3);
        const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (out >= 0) {
            ::dup2(out, 1);
            ::dup2(out, 2);
        }
        ::execv(program.c_str(), argv.data());
        const int error = errno;
        [[maybe_unused]] const ssize_t reported = ::write(reportTo, &error, sizeof error);
        ::_exit(127);
    }
    ::close(report[1]);
    int error = 0;
    ssize_t got;
    do
        got = ::read(report[0], &error, sizeof error);
    while (got < 0 && errno == EINTR);
    ::close(report[0]);
    if (got == static_cast<ssize_t>(sizeof error)) {
        ::waitpid(s.pid, &s.status, 0);
        s.ended = true;
        Refuse(error, "cannot start the helper " + program);
    }
    s.watch = std::make_unique<detail::ChangeWatch>(s.dir, s.pid);
    return s;
}

Session::Session(Session&& other) noexcept
    : dir(std::move(other.dir)), ownsDir(other.ownsDir), keep(other.keep), pid(other.pid),
      status(other.status), ended(other.ended), statusKnown(other.statusKnown),
      endedAfter(other.endedAfter), lastSent(other.lastSent),
      seenCodes(std::move(other.seenCodes)), logRead(other.logRead),
      logPartial(std::move(other.logPartial)), loggedFile(other.loggedFile),
      keepingEntry(other.keepingEntry),
      logEntries(std::move(other.logEntries)), sentText(std::move(other.sentText)),
      watch(std::move(other.watch)) {
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
    // Nothing would ever answer the file.
    if (!Running())
        Refuse(ESRCH, endedAfter ? "the helper ended after command file " +
                                       std::to_string(endedAfter) + " (" + How() + ")"
                                 : "the helper has ended (" + How() + ")");
    const int number = ++lastSent;
    // Complete under a name the helper does not look at, then in place in
    // one rename, and only then announced: it can never read half a file.
    const std::string partial = dir + "/." + kCommandPrefix + std::to_string(number) + ".partial";
    WriteAll(partial, commands);
    if (::rename(partial.c_str(), File(number, kCommandExtension).c_str()) != 0)
        Fail("cannot put command file " + std::to_string(number) + " in place");
    sentText[number] = commands;
    WriteAll(File(number, kSignalExtension), "");
    return number;
}

void Session::Forget(int number) {
    sentText.erase(number);
    logEntries.erase(number);
    if (keep)
        return;
    for (const char* extension : {kCommandExtension, kSignalExtension, kFinishedExtension,
                                  kErrorExtension, kProgressExtension})
        ::unlink(File(number, extension).c_str());
}

// Reads what the log gained: each line to `logLine`, and the entries a
// command file's outcome is read from to that file's list.
void Session::ReadLog(const std::function<void(const std::string&)>& logLine) {
    std::ifstream log(dir + "/" + kLogFileName, std::ios::binary);
    if (!log)
        return;
    log.seekg(static_cast<std::streamoff>(logRead));
    std::string more((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    logRead += more.size();
    logPartial += more;
    for (std::size_t nl; (nl = logPartial.find('\n')) != std::string::npos;) {
        std::string line = logPartial.substr(0, nl);
        logPartial.erase(0, nl + 1);
        if (logLine)
            logLine(line);
        if (detail::BeginsLogEntry(line)) {
            std::string entry = line.substr(detail::kTimeStampLength);
            keepingEntry = false;
            if (const int number = detail::FoundCommandFile(entry)) {
                loggedFile = number;
                logEntries[number].clear();
            } else if (loggedFile && detail::NeededForOutcome(entry)) {
                logEntries[loggedFile].push_back(std::move(entry));
                keepingEntry = true;
            }
        } else if (keepingEntry) {
            // The rest of an entry of several lines.
            logEntries[loggedFile].back() += "\n" + line;
        }
    }
}

bool Session::AwaitEnd(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (Running()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        watch->Sleep(left);
    }
    return true;
}

Answer Session::Wait(int number, const std::function<void(int)>& progress,
                     const std::function<void(const std::string&)>& logLine,
                     std::chrono::milliseconds timeout) {
    Answer answer;
    answer.number = number;
    const auto start = std::chrono::steady_clock::now();
    const auto deadline = start + timeout;
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
        ReadLog(logLine);
    };
    if (watch) {
        watch->Follow(kLogFileName);
        watch->Follow(kCommandPrefix + std::to_string(number) + kProgressExtension);
    }
    while (true) {
        // Whether it runs, before looking for the answer: an answer written
        // just before the helper ended is still seen.
        const bool running = Running();
        bool exists;
        // The helper writes the error file before the finished file.
        answer.finished = ReadAll(File(number, kFinishedExtension), exists) == kFinishedText;
        if (answer.finished)
            break;
        if (!running) {
            answer.died = true;
            answer.how = How();
            break;
        }
        follow();
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            break;
        if (watch)
            watch->Sleep(left);
    }
    // Everything the helper logged for the file came before its answer.
    follow();
    if (answer.finished || answer.died) {
        const detail::Outcome outcome = detail::ReadOutcome(sentText[number], logEntries[number]);
        answer.failures = outcome.failures;
        if (answer.finished && outcome.endsHelper && AwaitEnd(kEndAfterAnswer)) {
            answer.helperEnded = true;
            answer.how = How();
            endedAfter = number;
        }
    }
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
    } else if (answer.died) {
        sentText.erase(number);
        logEntries.erase(number);
    }
    answer.took = std::chrono::steady_clock::now() - start;
    return answer;
}

std::string Session::Stop() {
    if (Running()) {
        try {
            Wait(Send("exit\n"), {}, {}, std::chrono::seconds(30));
        } catch (const std::system_error&) {
            // Ended meanwhile, or the file could not be written: it goes
            // below either way.
        }
        if (!AwaitEnd(kEndAfterAnswer)) {
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

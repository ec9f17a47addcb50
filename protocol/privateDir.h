// Whether a directory may serve as a communication directory. Anyone who can
// put a file there runs commands as root, and anyone who can rename a folder
// above it can put another directory in its place. So the directory must be
// owned by a trusted user and writable by no one else, and so must every
// folder on the way to it, except that a folder above it may be writable by
// others when it is sticky (as /tmp is): there no one may rename or remove
// what is not theirs. A link on the way is followed only when a trusted user
// owns it; the directory itself must not be a link. This is the check the
// helper makes before it reads anything, and the one the client library makes
// of a directory it is given: one implementation, each side saying whom it
// trusts. Header only, POSIX only, so that both can build it.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace zqim {

enum class DirCheck {
    Private,     // it passed, and is held open
    Missing,     // nothing there yet (errno ENOENT), or no directory (ENOTDIR)
    NotPrivate,  // others could write to it or put another in its place
};

namespace privateDir {

// One owned descriptor.
class Held {
public:
    explicit Held(int fd = -1) : fd_(fd) {}
    ~Held() { reset(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

// A name on the way, and whether it names the directory itself.
struct Step {
    std::string name;
    bool itself;
};

// Puts the components of `path` on `todo` so that the first comes off first.
inline void PushComponents(const std::string& path, bool lastIsItself, std::vector<Step>& todo) {
    std::vector<Step> steps;
    for (std::size_t at = 0; at <= path.size();) {
        std::size_t end = path.find('/', at);
        if (end == std::string::npos)
            end = path.size();
        if (end > at)
            steps.push_back(Step{path.substr(at, end - at), false});
        at = end + 1;
    }
    if (lastIsItself && !steps.empty())
        steps.back().itself = true;
    todo.insert(todo.end(), steps.rbegin(), steps.rend());
}

// The path of `name` in the directory at `where`, for messages.
inline std::string Join(const std::string& where, const std::string& name) {
    if (name == "..") {
        const std::size_t slash = where.rfind('/');
        return slash == 0 || slash == std::string::npos ? "/" : where.substr(0, slash);
    }
    return where == "/" ? "/" + name : where + "/" + name;
}

inline std::string Failed(const std::string& where, int error) {
    return "cannot check " + where + ": " + std::strerror(error);
}

// Whether the directory held by `dir` (at `where`) may be trusted, as the
// directory itself or as a folder above it.
inline bool Judge(int dir, const std::string& where, bool itself, bool (*trusted)(uid_t),
                  std::string& reason) {
    struct stat st;
    if (::fstat(dir, &st) != 0) {
        reason = Failed(where, errno);
        return false;
    }
    const std::string who = itself ? "" : where + " is ";
    if (!trusted(st.st_uid)) {
        reason = who + "owned by uid " + std::to_string(st.st_uid);
        return false;
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (itself || (st.st_mode & S_ISVTX) == 0)) {
        reason = who + (itself ? "writable by group or others"
                               : "writable by group or others and not sticky");
        return false;
    }
    return true;
}

}  // namespace privateDir

// Opens the directory `path` one component at a time from "/" (a relative
// path from the working directory's), each folder through the handle of the
// one before, judging each from its own handle before anything in it is
// looked up; the directory itself is opened with O_DIRECTORY | O_NOFOLLOW.
// `trusted` says whose folders and links count. On Private, `fd` holds the
// directory (close-on-exec); on NotPrivate, `reason` says why, naming the
// folder or link at fault.
inline DirCheck OpenPrivateDir(const std::string& path, bool (*trusted)(uid_t), int& fd,
                               std::string& reason) {
    using namespace privateDir;
    fd = -1;
    reason.clear();
    if (path.empty()) {
        errno = ENOENT;
        return DirCheck::Missing;
    }
    std::string absolute = path;
    if (path[0] != '/') {
        char cwd[PATH_MAX];
        if (!::getcwd(cwd, sizeof cwd)) {
            reason = Failed("the working directory", errno);
            return DirCheck::NotPrivate;
        }
        absolute = std::string(cwd) + "/" + path;
    }
    std::vector<Step> todo;
    PushComponents(absolute, true, todo);

    Held current(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string where = "/";
    if (current.get() < 0) {
        reason = Failed(where, errno);
        return DirCheck::NotPrivate;
    }
    if (!Judge(current.get(), where, false, trusted, reason))
        return DirCheck::NotPrivate;
    int hops = 40;  // as many links as the kernel follows in one lookup
    while (!todo.empty()) {
        const Step step = todo.back();
        todo.pop_back();
        if (step.name == ".")
            continue;
        const std::string here = Join(where, step.name);
        const int next = ::openat(current.get(), step.name.c_str(),
                                  O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next >= 0) {
            current.reset(next);
            where = here;
            // The directory itself is judged by the stricter rule below.
            if (!step.itself && !Judge(current.get(), where, false, trusted, reason))
                return DirCheck::NotPrivate;
            continue;
        }
        const int error = errno;
        if (error == ENOENT)
            return DirCheck::Missing;  // errno says so still
        if (error != ENOTDIR && error != ELOOP) {
            reason = Failed(here, error);
            return DirCheck::NotPrivate;
        }
        // A link, or no directory. The folder that holds the name passed the
        // check, so only a trusted user can change the entry while it is
        // looked at here.
        struct stat st;
        if (::fstatat(current.get(), step.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT)
                return DirCheck::Missing;
            reason = Failed(here, errno);
            return DirCheck::NotPrivate;
        }
        if (!S_ISLNK(st.st_mode)) {
            errno = ENOTDIR;  // a file, say: there is no directory to use
            return DirCheck::Missing;
        }
        if (step.itself) {
            reason = "a symbolic link";
            return DirCheck::NotPrivate;
        }
        if (!trusted(st.st_uid)) {
            reason = here + " is a link owned by uid " + std::to_string(st.st_uid);
            return DirCheck::NotPrivate;
        }
        char target[PATH_MAX];
        const ssize_t length = ::readlinkat(current.get(), step.name.c_str(), target, sizeof target);
        if (--hops < 0 || length < 0 || static_cast<std::size_t>(length) >= sizeof target) {
            reason = Failed(here, hops < 0 ? ELOOP : length < 0 ? errno : ENAMETOOLONG);
            return DirCheck::NotPrivate;
        }
        const std::string text(target, static_cast<std::size_t>(length));
        if (!text.empty() && text[0] == '/') {
            current.reset(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            where = "/";
            if (current.get() < 0) {
                reason = Failed(where, errno);
                return DirCheck::NotPrivate;
            }
        }
        PushComponents(text, false, todo);
    }
    if (!Judge(current.get(), where, true, trusted, reason))
        return DirCheck::NotPrivate;
    fd = current.release();
    return DirCheck::Private;
}

}  // namespace zqim

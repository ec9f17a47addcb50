// Directory handles and the few system calls made through them, wrapped
// once. Every operation that changes a tree reaches each entry through the
// handle of the directory it was listed from, so nothing another user does
// to a path after it was looked at can send the helper somewhere else.
#pragma once

#include <sys/stat.h>

#include <string>
#include <system_error>
#include <utility>
#include <vector>

// An owned file descriptor, closed when it goes out of scope.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

// The current errno as an error code, in the category the standard library's
// file-system functions report (so logs read the same as before).
std::error_code LastError();
std::error_code ErrorOf(int error);

// Opens `name` in `dir` as a directory. With `follow` false a symbolic link
// is refused (the error is then ENOTDIR or ELOOP, as the system says).
std::error_code OpenDirAt(int dir, const char* name, UniqueFd& out, bool follow = false);

// Opens `name` in `dir` with `flags` (O_CLOEXEC added), creating it with
// `mode` where the flags say so.
std::error_code OpenFileAt(int dir, const char* name, int flags, UniqueFd& out, mode_t mode = 0);

// The status of `name` in `dir`: of a link itself unless `follow`.
std::error_code StatAt(int dir, const char* name, struct stat& st, bool follow = false);

// What a listing says of an entry.
enum class EntryType : unsigned char { Directory, Link, Other, Unknown };

struct DirEntry {
    std::string name;
    EntryType type;
};

// Reads every entry of the directory `dir`, a handle not read from before
// (but "." and ".."), with the type
// the listing gives; only where the file system gives none is the entry
// examined (without following a link), and one that vanished reads Unknown.
// On a failure midway, `entries` holds what was read before it.
std::error_code ReadEntries(int dir, std::vector<DirEntry>& entries);

// Whether the directory `dir` holds no entry but "." and "..".
std::error_code DirIsEmpty(int dir, bool& empty);

// Removes `name` in `dir` as remove(3) does: a file or a link itself, or an
// empty directory. A name that does not exist is not an error; `removed`
// says whether something went.
std::error_code RemoveEntryAt(int dir, const char* name, bool& removed);

// The single calls, each with the error it failed with.
std::error_code RemoveFileAt(int dir, const char* name);  // not a directory
std::error_code RemoveDirAt(int dir, const char* name);   // an empty directory
std::error_code MakeDirAt(int dir, const char* name, mode_t mode);
std::error_code MakeLinkAt(const char* target, int dir, const char* name);
// The text of the link `name` in `dir`, cut to PATH_MAX - 1 bytes.
std::error_code ReadLinkAt(int dir, const char* name, std::string& target);
std::error_code RenameAt(int fromDir, const char* from, int toDir, const char* to);
// Gives `name` in `dir` (a link itself, never what it points to) a new owner.
std::error_code ChangeOwnerAt(int dir, const char* name, uid_t user, gid_t group);
// Gives the open file `fd` a new owner (a group of -1 keeps the group).
std::error_code ChangeOwnerOf(int fd, uid_t user, gid_t group);

// Sets close-on-exec on `fd`, keeping its other descriptor flags.
std::error_code MarkCloseOnExec(int fd);

// Writes all of `data` to `fd`, however many calls it takes.
std::error_code WriteAll(int fd, const std::string& data);
// Reads what is there, up to `size` bytes, into `buffer`; `got` is 0 at the
// end of the file.
std::error_code ReadSome(int fd, char* buffer, std::size_t size, std::size_t& got);

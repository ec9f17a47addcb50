#include "copySupport.h"

#include "platform.h"
#include "trust.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

class CopyCategory : public std::error_category {
public:
    const char* name() const noexcept override { return "copy"; }
    std::string message(int value) const override {
        switch (static_cast<CopyError>(value)) {
        case CopyError::SourceChanged:
            return "The source changed while it was copied";
        case CopyError::NoTemporaryName:
            return "No temporary name could be made";
        case CopyError::TemporaryReplaced:
            return "A temporary entry was replaced before it was in place";
        }
        return "Unknown copy error";
    }
};

}  // namespace

std::error_code ErrorOf(CopyError error) {
    static const CopyCategory category;
    return std::error_code(static_cast<int>(error), category);
}

const char kTemporaryPrefix[] = ".zqim-tmp.";

std::error_code RandomSuffix(std::string& suffix) {
    unsigned char bytes[8];
    if (std::error_code ec = FillRandom(bytes, sizeof bytes))
        return ec;
    static const char digits[] = "0123456789abcdef";
    suffix.clear();
    for (unsigned char b : bytes) {
        suffix += digits[b >> 4];
        suffix += digits[b & 15];
    }
    return {};
}

// The pid in a name ".zqim-tmp.<pid>.<suffix>" (a suffix of letters and
// digits, as this helper and its earlier versions make them), or 0.
static pid_t LeftoverPid(const std::string& name) {
    const std::size_t prefix = sizeof kTemporaryPrefix - 1;
    if (name.compare(0, prefix, kTemporaryPrefix) != 0)
        return 0;
    std::size_t at = prefix;
    unsigned long pid = 0;
    while (at < name.size() && std::isdigit(static_cast<unsigned char>(name[at])) &&
           pid <= static_cast<unsigned long>(INT_MAX))
        pid = pid * 10 + static_cast<unsigned long>(name[at++] - '0');
    if (at == prefix || at >= name.size() || name[at] != '.' || at + 1 == name.size() ||
        pid == 0 || pid > static_cast<unsigned long>(INT_MAX))
        return 0;
    for (std::size_t i = at + 1; i < name.size(); ++i)
        if (!std::isalnum(static_cast<unsigned char>(name[i])))
            return 0;
    return static_cast<pid_t>(pid);
}

void SweepLeftovers(int dir) {
    std::vector<DirEntry> entries;
    ReadEntries(dir, entries);  // what could be read is swept
    for (const DirEntry& entry : entries) {
        const pid_t pid = LeftoverPid(entry.name);
        // Only a helper that is gone leaves its temporaries for good; a
        // running one (this one, or another) is still working with them.
        if (pid == 0 || pid == ::getpid() || ::kill(pid, 0) == 0 || errno != ESRCH)
            continue;
        struct stat st;
        if (StatAt(dir, entry.name.c_str(), st) || !(S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) ||
            !IsTrustedOwner(st.st_uid))
            continue;
        RemoveFileAt(dir, entry.name.c_str());
    }
}

bool OthersMayWrite(const struct stat& folder) {
    return !IsTrustedOwner(folder.st_uid) || (folder.st_mode & S_IWOTH) ||
           ((folder.st_mode & S_IWGRP) && folder.st_gid != 0);
}

mode_t CopiedMode(const struct stat& source) {
    const mode_t mode = source.st_mode & 07777;
    return IsTrustedOwner(source.st_uid) ? mode : mode & ~mode_t(S_ISUID | S_ISGID);
}

bool Unsupported(int error) {
    return error == EXDEV || error == EOPNOTSUPP || error == ENOTSUP || error == EINVAL ||
           error == ENOSYS || error == ENOTTY || error == EPERM;
}

// The process's umask, read once (reading it means setting it).
static mode_t Umask() {
    static const mode_t mask = [] {
        const mode_t current = ::umask(0);
        ::umask(current);
        return current;
    }();
    return mask;
}

bool CreatableWith(mode_t mode) {
    return (mode & 07000) == 0 && (mode & ~Umask()) == mode;
}

std::error_code CreateTemporary(int dir, mode_t mode, std::string& name, UniqueFd& out) {
    return MakeTemporary(name, [&](const char* candidate) {
        return OpenFileAt(dir, candidate, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, out, mode);
    });
}

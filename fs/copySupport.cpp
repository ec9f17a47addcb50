#include "copySupport.h"

#include <fcntl.h>
#include <sys/stat.h>

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

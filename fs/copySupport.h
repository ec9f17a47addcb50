// What the copy and the platform halves of its data copy share: temporary
// entries beside a destination, the copy's own errors, whose payload may
// keep what, and which failures mean "try a plainer way".
#pragma once

#include "fileHandles.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

// Failures of the copy that no single system call reports. They are logged
// as the error they are (their category is "copy") and count as other errors.
enum class CopyError {
    // The entry met when the source was opened is not the one the walk saw
    // (a link, a fifo or another file took its place).
    SourceChanged = 1,
    // No free temporary name could be made beside a destination.
    NoTemporaryName,
    // The copy's own temporary entry was replaced before it was in place.
    TemporaryReplaced,
};
std::error_code ErrorOf(CopyError error);

// The hidden names of temporary entries: ".zqim-tmp.<pid>.<random>".
extern const char kTemporaryPrefix[];

// A fresh random suffix for a temporary name; fails only when the system
// gives no randomness.
std::error_code RandomSuffix(std::string& suffix);

// Runs `make` (which returns an error code) on fresh hidden names in the
// destination's directory until one is free. The names carry the helper's
// pid, so that what a killed helper left behind can be told from the payload
// and from a running helper's work, and a random part, so that no one can
// lay anything in wait at the name the copy will take.
template <typename Make>
std::error_code MakeTemporary(std::string& name, Make make) {
    static const std::string prefix = kTemporaryPrefix + std::to_string(::getpid()) + ".";
    // Random names collide only when someone has filled the folder with
    // them: a few tries tell that apart from bad luck.
    for (int attempt = 0; attempt < 8; ++attempt) {
        std::string suffix;
        if (RandomSuffix(suffix))
            break;
        name = prefix + suffix;
        const std::error_code ec = make(name.c_str());
        if (ec != std::errc::file_exists)
            return ec;
    }
    return ErrorOf(CopyError::NoTemporaryName);
}

// Removes from the destination folder `dir` the temporary entries that a
// helper killed in the middle of a copy left there: files and links named
// ".zqim-tmp.<pid>.<suffix>" whose pid no longer runs and whose owner is
// trusted. Anything else stays, and a failure only leaves a leftover.
void SweepLeftovers(int dir);

// Whether a user the helper does not trust may add entries to the folder of
// status `folder`: it is theirs, or its mode lets others (or a group other
// than root's) write. Such a user can link any file they can name into it.
bool OthersMayWrite(const struct stat& folder);

// The permission bits a copy of `source` gets: its own, less the set-id bits
// when its owner is not trusted (the owner is not kept, so neither are they).
mode_t CopiedMode(const struct stat& source);

// A call that says the file system (or kernel) cannot do it, so the next,
// plainer way is to be tried.
bool Unsupported(int error);

// A new file of `mode` could be created with it directly: the umask takes
// nothing away and there are no set-id or sticky bits, which only a change
// of mode after the creation sets.
bool CreatableWith(mode_t mode);

// Opens a new temporary file beside the destination.
std::error_code CreateTemporary(int dir, mode_t mode, std::string& name, UniqueFd& out);

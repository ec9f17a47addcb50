// What the copy and the platform halves of its data copy share: temporary
// entries beside a destination, and which failures mean "try a plainer way".
#pragma once

#include "fileHandles.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

// Runs `make` (which returns an error code) on fresh hidden names in the
// destination's directory until one is free. The names are recognisable, so
// that what a killed helper left behind can be told from the payload.
template <typename Make>
std::error_code MakeTemporary(std::string& name, Make make) {
    static const std::string prefix = ".zqim-tmp." + std::to_string(::getpid()) + ".";
    static unsigned counter = 0;
    for (int attempt = 0; attempt < 100; ++attempt) {
        name = prefix + std::to_string(++counter);
        const std::error_code ec = make(name.c_str());
        if (ec != std::errc::file_exists)
            return ec;
    }
    return ErrorOf(EEXIST);
}

// A call that says the file system (or kernel) cannot do it, so the next,
// plainer way is to be tried.
bool Unsupported(int error);

// A new file of `mode` could be created with it directly: the umask takes
// nothing away and there are no set-id or sticky bits, which only a change
// of mode after the creation sets.
bool CreatableWith(mode_t mode);

// Opens a new temporary file beside the destination.
std::error_code CreateTemporary(int dir, mode_t mode, std::string& name, UniqueFd& out);

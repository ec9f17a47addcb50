// The log's file: a descriptor of our own that each line is written to whole,
// in one call, as soon as it is logged. A line written while no file is open
// is dropped, as a stream that failed to open drops it.
#pragma once

#include "fileHandles.h"

#include <fcntl.h>

#include <string>
#include <utility>

class LogFile {
public:
    // Takes `file`, made afresh in the communication directory, as the log.
    void adopt(UniqueFd file) { fd = std::move(file); }
    // Opens `path` as the log, truncated, for a command file serviced on its
    // own (the tests and the fuzzer); false when it cannot be opened.
    bool open(const std::string& path) {
        return !OpenFileAt(AT_FDCWD, path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, fd, 0600);
    }
    bool is_open() const { return fd.valid(); }
    void close() { fd.reset(); }
    // A failure is not reported: nothing may stop the helper for its log.
    void write(const std::string& text) const {
        if (fd.valid())
            WriteAll(fd.get(), text);
    }

private:
    UniqueFd fd;
};

// libFuzzer target: the command-file checker on any bytes, as one file and
// as the second file of a run. It must neither crash nor hang, and every
// finding must point inside the file.
#include "commandChecker.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    zqim::CheckContext context;
    context.noPid = size % 2 == 1;
    context.oneHelper = size % 3 == 1;
    context.lastFile = false;
    zqim::CheckCommandFile(text, context);
    context.lastFile = true;
    std::size_t lines = 1;
    for (char c : text)
        lines += c == '\n';
    for (const zqim::Finding& f : zqim::CheckCommandFile(text, context))
        if (f.line < 1 || static_cast<std::size_t>(f.line) > lines || f.column < 1 ||
            f.message.empty())
            std::abort();
    return 0;
}

// A static checker for command files: it runs nothing, and reports the lines
// that would end the helper, stop the file, or most likely not do what their
// author meant, as the interpreter would read them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zqim {

struct Finding {
    enum Kind { Error, Warning, Note };
    // What the helper does when it reaches the line, where the checker knows.
    enum Effect { Advice, EndsProcess, StopsFile };
    Kind kind;
    int line;    // 1-based
    int column;  // 1-based byte column
    std::string message;
    Effect effect = Advice;
};

// What a check knows of the run the files belong to.
struct CheckContext {
    // The helper will be started without -p: waitForPID never returns.
    bool noPid = false;
    // A root was set by an earlier file of the same run (the root lasts
    // for the whole run).
    bool rootSet = false;
    // This is the run's last file, which should end it with `exit`.
    bool lastFile = true;
};

// The findings for one command file, in line order. Updates `context` with
// what the file leaves for the next one.
std::vector<Finding> CheckCommandFile(std::string_view text, CheckContext& context);

const char* KindName(Finding::Kind kind);

}  // namespace zqim

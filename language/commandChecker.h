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
    // The files go to one helper in turn (as `zqim run` sends them): an
    // exit before the last file ends it, and the later files are never
    // read. Otherwise a file after one that ends with exit is taken as the
    // first of a new helper's run.
    bool oneHelper = false;
    // The front-end sends an exit of its own after the last file (zqim run
    // does): no file needs one.
    bool exitFollows = false;
};

// The findings for one command file, in line order. Updates `context` with
// what the file leaves for the next one.
std::vector<Finding> CheckCommandFile(std::string_view text, CheckContext& context);

const char* KindName(Finding::Kind kind);

// Text from a command file as a message shows it: control bytes (a carriage
// return, an escape sequence) written as \xNN, so that one finding stays one
// line and cannot rewrite the terminal it is printed on.
std::string Printable(std::string_view text);

}  // namespace zqim

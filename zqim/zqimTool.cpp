// zqim: tools for the people who write command files and front-ends.
//
//   zqim check [--no-pid] [--format=text|json] FILE...       (- reads standard input)
//   zqim run [--comm DIR] [--helper PATH] [--keep] [-v] [--no-check]
//            [--format=text|json] FILE...
//   zqim --help | --version
//
// Options take their value as --opt=value or --opt value; -- ends them.
// Exit statuses: zqim(1).

#include "commandChecker.h"
#include "zqimClient.h"
#include "zqimProtocol.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

namespace {

const char* kUsage =
    "usage: zqim check [--no-pid] [--format=text|json] FILE...\n"
    "       zqim run [--comm DIR] [--helper PATH] [--keep] [-v] [--no-check]\n"
    "                [--format=text|json] FILE...\n"
    "FILE - is standard input; options take --opt=value or --opt value; -- ends them.\n";

const char* kOptions =
    "       zqim --help | --version\n"
    "\n"
    "zqim check: reads command files as the helper would; runs nothing.\n"
    "  --no-pid         the helper will watch no process (waitForPID never returns)\n"
    "  --format=json    the findings as JSON (--format=text: as lines, the default)\n"
    "zqim run: checks the files, then sends them to a helper, one after the other.\n"
    "  --comm DIR       use DIR as the communication directory, not a private one\n"
    "  --helper PATH    the helper to start (else the one beside zqim, or on PATH)\n"
    "  --keep           leave the answered files (and a private directory) in place\n"
    "  -v               print every line of the helper's log (also --verbose)\n"
    "  --no-check       send the files without checking them first\n"
    "  --format=json    one JSON object per event on standard output\n"
    "  --help           print this text\n"
    "  --version        print the version\n";

// Exit statuses (zqim(1)).
constexpr int kRunFailedLine = 1;   // run: a line failed; the run stopped after its file
constexpr int kCheckErrors = 2;     // check: errors; run: refused by the checker
constexpr int kHelperGone = 3;      // run: the helper died, or ended before the last file
constexpr int kUsageError = 64;
constexpr int kNoInput = 66;
constexpr int kUnavailable = 69;    // run: the helper could not be started or sent to

int UsageError(const std::string& message) {
    std::cerr << "zqim: " << message << "\n" << kUsage;
    return kUsageError;
}

// An option of a verb: a flag, or one that takes a value. `set` returns
// false for a value it does not accept.
struct Option {
    const char* name;
    bool takesValue;
    std::function<bool(const std::string&)> set;
};

// Splits the arguments into options and files: "--opt=value" and "--opt
// value" alike, "-" and anything not beginning with "-" a file, and every
// argument after "--" a file. Returns an error message, or empty.
std::string ParseArguments(const std::vector<std::string>& args,
                           const std::vector<Option>& options, std::vector<std::string>& files) {
    bool optionsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (!optionsEnded && arg == "--") {
            optionsEnded = true;
            continue;
        }
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            files.push_back(arg);
            continue;
        }
        const std::size_t equals = arg.rfind("--", 0) == 0 ? arg.find('=') : std::string::npos;
        const std::string name = arg.substr(0, equals);
        const Option* option = nullptr;
        for (const Option& o : options)
            if (name == o.name)
                option = &o;
        if (!option)
            return "unknown option " + name;
        std::string value;
        if (equals != std::string::npos) {
            if (!option->takesValue)
                return name + " takes no value";
            value = arg.substr(equals + 1);
        } else if (option->takesValue) {
            if (i + 1 == args.size())
                return name + " needs a value";
            value = args[++i];
        }
        if (!option->set(value))
            return "unknown value for " + name + ": " + value;
    }
    return files.empty() ? "no file given" : "";
}

bool SetFormat(const std::string& value, bool& json) {
    json = value == "json";
    return json || value == "text";
}

// What a file is called in messages: standard input as compilers call it.
std::string Shown(const std::string& file) {
    return file == "-" ? "<stdin>" : file;
}

// Reads a command file, or standard input for "-"; false with errno set.
bool ReadFile(const std::string& path, std::string& text) {
    std::ostringstream all;
    if (path == "-") {
        all << std::cin.rdbuf();
        text = all.str();
        return true;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    all << in.rdbuf();
    text = all.str();
    return true;
}

// The length of the well-formed UTF-8 sequence that starts at `at`, or 0.
std::size_t Utf8Length(const std::string& text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xbf;  // the second byte's range
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        low = lead == 0xe0 ? 0xa0 : low;    // no overlong forms
        high = lead == 0xed ? 0x9f : high;  // no surrogates
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        low = lead == 0xf0 ? 0x90 : low;
        high = lead == 0xf4 ? 0x8f : high;  // nothing past U+10FFFF
    }
    if (length == 0 || at + length > text.size())
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if (byte(at + i) < (i == 1 ? low : 0x80) || byte(at + i) > (i == 1 ? high : 0xbf))
            return 0;
    return length;
}

std::string JsonString(const std::string& text) {
    std::string out = "\"";
    for (std::size_t at = 0; at < text.size();) {
        const auto c = static_cast<unsigned char>(text[at]);
        const std::size_t length = c < 0x80 ? 1 : Utf8Length(text, at);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || length == 0) {
            // Command files need not be UTF-8: a byte that is not part of a
            // character is written as the code point of the same number.
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out.append(text, at, length);
            at += length;
            continue;
        }
        ++at;
    }
    return out + "\"";
}

struct Checked {
    std::string file;
    std::vector<zqim::Finding> findings;
};

// Checks the command files of one run, in order, as `context` says they
// are sent; `texts` holds what each file holds. Returns the exit status: 2
// with an error, 1 with warnings only, else 0.
int CheckFiles(const std::vector<std::string>& files, const std::vector<std::string>& texts,
               const std::vector<int>& readErrors, zqim::CheckContext context,
               std::vector<Checked>& out) {
    int status = 0;
    for (std::size_t i = 0; i < files.size(); ++i) {
        Checked checked{Shown(files[i]), {}};
        context.lastFile = i + 1 == files.size();
        if (readErrors[i])
            checked.findings.push_back({zqim::Finding::Error, 0, 0,
                                        std::string("cannot read the file: ") +
                                            std::strerror(readErrors[i]),
                                        zqim::Finding::Advice});
        else
            checked.findings = zqim::CheckCommandFile(texts[i], context);
        for (const zqim::Finding& f : checked.findings)
            status = std::max(status, f.kind == zqim::Finding::Error     ? 2
                                      : f.kind == zqim::Finding::Warning ? 1
                                                                         : 0);
        out.push_back(std::move(checked));
    }
    return status;
}

void PrintFinding(std::ostream& out, const std::string& file, const zqim::Finding& f) {
    out << file << ":" << f.line << ":" << f.column << ": " << zqim::KindName(f.kind) << ": "
        << f.message << "\n";
}

void PrintFindings(const std::vector<Checked>& checked, bool json) {
    if (!json) {
        for (const Checked& c : checked)
            for (const zqim::Finding& f : c.findings)
                PrintFinding(std::cout, c.file, f);
        return;
    }
    std::cout << "[";
    const char* comma = "";
    for (const Checked& c : checked)
        for (const zqim::Finding& f : c.findings) {
            std::cout << comma << "\n  {\"file\": " << JsonString(c.file) << ", \"line\": " << f.line
                      << ", \"column\": " << f.column << ", \"kind\": \"" << zqim::KindName(f.kind)
                      << "\", \"message\": " << JsonString(f.message) << "}";
            comma = ",";
        }
    std::cout << "\n]\n";
}

// Reads every file first; `readErrors` holds 0 for each file read, else
// why it could not be.
void ReadFiles(const std::vector<std::string>& files, std::vector<std::string>& texts,
               std::vector<int>& readErrors) {
    texts.assign(files.size(), "");
    readErrors.assign(files.size(), 0);
    for (std::size_t i = 0; i < files.size(); ++i) {
        errno = 0;
        if (!ReadFile(files[i], texts[i]))
            readErrors[i] = errno ? errno : EIO;
    }
}

int Check(const std::vector<std::string>& args) {
    zqim::CheckContext context;
    bool json = false;
    std::vector<std::string> files;
    const std::string error = ParseArguments(
        args,
        {{"--no-pid", false, [&](const std::string&) { return context.noPid = true; }},
         {"--format", true, [&](const std::string& v) { return SetFormat(v, json); }}},
        files);
    if (!error.empty())
        return UsageError(error);
    std::vector<std::string> texts;
    std::vector<int> readErrors;
    ReadFiles(files, texts, readErrors);
    std::vector<Checked> checked;
    const int status = CheckFiles(files, texts, readErrors, context, checked);
    PrintFindings(checked, json);
    return status;
}

// The helper beside this program, else the one on PATH.
std::string DefaultHelper(const char* argv0) {
    const std::string self(argv0);
    const std::size_t slash = self.rfind('/');
    if (slash != std::string::npos) {
        const std::string beside = self.substr(0, slash + 1) + "ZQIMHelper";
        if (::access(beside.c_str(), X_OK) == 0)
            return beside;
    }
    return "ZQIMHelper";
}

// One file's progress on a terminal: a bar redrawn in place; elsewhere,
// lines. With `verbose`, every line of the helper's log too.
class Display {
public:
    Display(bool terminal, bool verbose) : terminal(terminal), verbose(verbose) {}

    void Start(const std::string& file) {
        name = file;
        percent = 0;
        last.clear();
        if (!terminal)
            std::cout << "running " << file << std::endl;
        Draw();
    }
    void Progress(int value) {
        percent = value;
        if (!terminal)
            std::cout << "  progress " << value << "%" << std::endl;
        Draw();
    }
    void Log(const std::string& line) {
        // A log line quotes paths from the command file: control bytes in
        // them must not move the cursor or end the bar's line.
        if (verbose)
            std::cout << (terminal ? "\r\033[K    " : "    ") << zqim::Printable(line) << "\n";
        // Without its time stamp.
        last = zqim::Printable(line.size() > 22 && line[19] == 'Z' ? line.substr(22) : line);
        Draw();
    }
    void Done() {
        if (terminal)
            std::cout << "\r\033[K";
    }

private:
    void Draw() {
        if (!terminal)
            return;
        const int shown = std::max(0, std::min(percent, 100));
        std::string bar(static_cast<std::size_t>(shown / 5), '#');
        bar.resize(20, '.');
        std::cout << "\r\033[K" << name << " [" << bar << "] " << std::setw(3) << shown << "% "
                  << last.substr(0, 60) << std::flush;
    }

    bool terminal, verbose;
    std::string name, last;
    int percent = 0;
};

// What `zqim run --format=json` writes: one object per line and event.
class Events {
public:
    void Progress(const std::string& file, int number, int percent) {
        Emit("progress", file, number) << ", \"percent\": " << percent << "}" << std::endl;
    }
    void Log(const std::string& file, int number, const std::string& line) {
        Emit("log", file, number) << ", \"line\": " << JsonString(line) << "}" << std::endl;
    }
    void Answer(const std::string& file, const zqim::Answer& a) {
        std::ostream& out = Emit("answer", file, a.number);
        out << ", \"finished\": " << Bool(a.finished) << ", \"died\": " << Bool(a.died)
            << ", \"helperEnded\": " << Bool(a.helperEnded) << ", \"seconds\": " << std::fixed
            << std::setprecision(6) << a.took.count() << ", \"codes\": " << Codes(a.codes)
            << ", \"newCodes\": " << Codes(a.newCodes) << ", \"failures\": [";
        const char* comma = "";
        for (const zqim::Failure& f : a.failures) {
            out << comma << "{\"line\": " << f.line << ", \"text\": " << JsonString(f.text)
                << ", \"code\": " << f.code << ", \"name\": " << JsonString(zqim::CodeName(f.code))
                << ", \"message\": " << JsonString(f.message) << "}";
            comma = ", ";
        }
        out << "]}" << std::endl;
    }
    // `cause`: "stop" (ended by zqim after the last file), "exit" (a file's
    // exit or fatal error ended it: `file`, `number`), "died" (it ended
    // without answering `file`).
    void Ended(const std::string& how, const char* cause, const std::string& file, int number) {
        std::cout << "{\"event\": \"ended\", \"how\": " << JsonString(how) << ", \"cause\": \""
                  << cause << "\"";
        if (number)
            std::cout << ", \"file\": " << JsonString(file) << ", \"number\": " << number;
        std::cout << "}" << std::endl;
    }

private:
    static std::ostream& Emit(const char* event, const std::string& file, int number) {
        return std::cout << "{\"event\": \"" << event << "\", \"file\": " << JsonString(file)
                         << ", \"number\": " << number;
    }
    static const char* Bool(bool value) { return value ? "true" : "false"; }
    static std::string Codes(const std::vector<int>& codes) {
        std::string out = "[";
        for (std::size_t i = 0; i < codes.size(); ++i)
            out += (i ? ", " : "") + std::to_string(codes[i]);
        return out + "]";
    }
};

// A file's answer as text: its time and outcome, then each failed line as
// FILE:LINE: code NAME: message.
void PrintAnswer(const std::string& file, const zqim::Answer& a) {
    std::cout << file << " (" << zqim::kCommandPrefix << a.number << "): " << std::fixed
              << std::setprecision(3) << a.took.count() << " s, ";
    if (a.died)
        std::cout << "the helper died on it: " << a.how;
    else if (a.failures.empty())
        std::cout << "no failed line";
    else
        std::cout << a.failures.size() << (a.failures.size() == 1 ? " failed line" : " failed lines");
    for (std::size_t k = 0; k < a.newCodes.size(); ++k)
        std::cout << (k ? ", " : "; new codes: ") << a.newCodes[k] << " "
                  << zqim::CodeName(a.newCodes[k]);
    std::cout << "\n";
    for (const zqim::Failure& f : a.failures)
        std::cout << file << ":" << f.line << ": " << f.code << " " << zqim::CodeName(f.code)
                  << ": " << zqim::Printable(f.message) << "\n";
}

int Run(const std::vector<std::string>& args, const char* argv0) {
    zqim::Session::Options options;
    options.helper = DefaultHelper(argv0);
    bool check = true, json = false;
    std::vector<std::string> files;
    auto flag = [](bool& target, bool value) {
        return [&target, value](const std::string&) { return target = value, true; };
    };
    const std::string error = ParseArguments(
        args,
        {{"--comm", true, [&](const std::string& v) { return !(options.commDir = v).empty(); }},
         {"--helper", true, [&](const std::string& v) { return !(options.helper = v).empty(); }},
         {"--keep", false, flag(options.keepFiles, true)},
         {"-v", false, flag(options.verbose, true)},
         {"--verbose", false, flag(options.verbose, true)},
         {"--check", false, flag(check, true)},
         {"--no-check", false, flag(check, false)},
         {"--format", true, [&](const std::string& v) { return SetFormat(v, json); }}},
        files);
    if (!error.empty())
        return UsageError(error);

    std::vector<std::string> texts;
    std::vector<int> readErrors;
    ReadFiles(files, texts, readErrors);
    for (std::size_t i = 0; i < files.size(); ++i)
        if (readErrors[i])
            return std::cerr << "zqim: cannot read " << Shown(files[i]) << ": "
                             << std::strerror(readErrors[i]) << "\n",
                   kNoInput;
    if (check) {
        // The files go to one helper in turn, and the exit at the end is
        // zqim's. Errors refuse the run; warnings are only shown.
        zqim::CheckContext context;
        context.oneHelper = true;
        context.exitFollows = true;
        std::vector<Checked> checked;
        const int status = CheckFiles(files, texts, readErrors, context, checked);
        for (const Checked& c : checked)
            for (const zqim::Finding& f : c.findings)
                if (f.kind != zqim::Finding::Note)
                    PrintFinding(std::cerr, c.file, f);
        if (status == kCheckErrors) {
            std::cerr << "zqim: not run: the files have errors (--no-check sends them anyway)\n";
            return kCheckErrors;
        }
    }

    std::optional<zqim::Session> started;
    try {
        started.emplace(zqim::Session::Start(options));
    } catch (const std::system_error& e) {
        std::cerr << "zqim: " << e.what() << "\n";
        return kUnavailable;
    }
    zqim::Session& helper = *started;
    Display display(!json && ::isatty(1), options.verbose);
    Events events;
    int status = 0;
    std::size_t ran = 0;
    const zqim::Answer* last = nullptr;
    zqim::Answer answer;
    for (std::size_t i = 0; i < files.size() && status == 0; ++i) {
        const std::string file = Shown(files[i]);
        int number;
        try {
            number = helper.Send(texts[i]);
        } catch (const std::system_error& e) {
            std::cerr << "zqim: cannot send " << file << ": " << e.what() << "\n";
            status = kUnavailable;
            break;
        }
        if (!json)
            display.Start(file);
        answer = helper.Wait(
            number,
            [&](int p) { json ? events.Progress(file, number, p) : display.Progress(p); },
            [&](const std::string& line) {
                json ? events.Log(file, number, line) : display.Log(line);
            });
        ++ran;
        last = &answer;
        if (json) {
            events.Answer(file, answer);
        } else {
            display.Done();
            PrintAnswer(file, answer);
        }
        if (answer.died)
            status = kHelperGone;
        else if (!answer.failures.empty() || !answer.newCodes.empty())
            status = kRunFailedLine;
        else if (answer.helperEnded && i + 1 < files.size())
            status = kHelperGone;  // an exit before the last file
    }
    const std::string how = helper.Stop();

    // Why the helper ended: zqim's own exit after the last file, or a
    // file's exit or fatal error, or a death.
    const std::string lastFile = ran ? Shown(files[ran - 1]) : "";
    std::string cause = "stop", why;
    if (last && last->died) {
        cause = "died";
        why = "died on file " + std::to_string(last->number);
    } else if (last && last->helperEnded) {
        const bool fatal = std::any_of(last->failures.begin(), last->failures.end(),
                                       [](const zqim::Failure& f) {
                                           return f.code >= zqim::kFatalFrom;
                                       });
        cause = fatal ? "fatal" : "exit";
        why = std::string(fatal ? "after a fatal error" : "after exit") + " in file " +
              std::to_string(last->number);
    }
    if (json) {
        events.Ended(how, cause.c_str(), lastFile, cause == "stop" ? 0 : last->number);
    } else {
        std::cout << "ran " << ran << " of " << files.size() << " command files in "
                  << helper.CommDir() << "\n";
        std::cout << "helper ended: " << how << (why.empty() ? "" : ", " + why + " (" + lastFile + ")")
                  << "\n";
    }
    if (status == kHelperGone)
        std::cerr << "zqim: the helper " << (cause == "died" ? "" : "ended ") << why << " ("
                  << lastFile << ")" << (cause == "died" ? ": " + last->how : "")
                  << (ran < files.size() ? "; not sent: " + std::to_string(files.size() - ran) +
                                               (files.size() - ran == 1 ? " file" : " files")
                                         : "")
                  << "\n";
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty())
        return UsageError("no command");
    const std::string command = args[0];
    args.erase(args.begin());
    if (command == "--version")
        return std::cout << "zqim " ZQIM_VERSION "\n", 0;
    for (const std::string& arg : args) {
        if (arg == "--")
            break;
        if (arg == "--help" || arg == "-h")
            return std::cout << kUsage << kOptions, 0;
    }
    if (command == "--help" || command == "-h")
        return std::cout << kUsage << kOptions, 0;
    try {
        if (command == "check")
            return Check(args);
        if (command == "run")
            return Run(args, argv[0]);
    } catch (const std::exception& e) {
        std::cerr << "zqim: " << e.what() << "\n";
        return kUnavailable;
    }
    return UsageError("unknown command " + command);
}

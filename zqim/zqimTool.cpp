// zqim: tools for the people who write command files and front-ends.
//
//   zqim check [--no-pid] [--format=json] FILE...
//   zqim run [--comm DIR] [--helper PATH] [--keep] [-v] [--check] FILE...
//   zqim --help | --version

#include "commandChecker.h"
#include "zqimClient.h"
#include "zqimProtocol.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

const char* kUsage =
    "usage: zqim check [--no-pid] [--format=json] FILE...\n"
    "       zqim run [--comm DIR] [--helper PATH] [--keep] [-v] [--check] FILE...\n";

const char* kOptions =
    "       zqim --help | --version\n"
    "\n"
    "zqim check: reads command files as the helper would; runs nothing.\n"
    "  --no-pid         the helper will watch no process (waitForPID never returns)\n"
    "  --format=json    the findings as JSON\n"
    "zqim run: sends the files to a helper, one after the other.\n"
    "  --comm DIR       use DIR as the communication directory, not a private one\n"
    "  --helper PATH    the helper to start (else the one beside zqim, or on PATH)\n"
    "  --keep           leave the answered files (and a private directory) in place\n"
    "  -v               print every line of the helper's log\n"
    "  --check          refuse files the checker finds errors in\n"
    "  --help           print this text\n"
    "  --version        print the version\n";

// Splits the arguments into options and files: `option` takes each
// argument that begins with "-" (and may take the one after it, through
// `next`); false for an option it does not know, or no file at all.
template <typename Option>
bool ParseArguments(const std::vector<std::string>& args, Option option,
                    std::vector<std::string>& files) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string* next = i + 1 < args.size() ? &args[i + 1] : nullptr;
        bool tookNext = false;
        if (args[i].empty() || args[i][0] != '-')
            files.push_back(args[i]);
        else if (!option(args[i], next, tookNext))
            return false;
        i += tookNext;
    }
    return !files.empty();
}

bool ReadFile(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream all;
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

// Checks the files as the command files of one run, in order (sent to one
// helper with `oneHelper`). Returns the exit status: 2 with an error, 1 with
// warnings only, else 0.
int CheckFiles(const std::vector<std::string>& files, bool noPid, bool oneHelper,
               std::vector<Checked>& out) {
    zqim::CheckContext context;
    context.noPid = noPid;
    context.oneHelper = oneHelper;
    int status = 0;
    for (std::size_t i = 0; i < files.size(); ++i) {
        std::string text;
        Checked checked{files[i], {}};
        context.lastFile = i + 1 == files.size();
        if (!ReadFile(files[i], text))
            checked.findings.push_back({zqim::Finding::Error, 0, 0, "cannot read the file",
                                        zqim::Finding::Advice});
        else
            checked.findings = zqim::CheckCommandFile(text, context);
        for (const zqim::Finding& f : checked.findings)
            status = std::max(status, f.kind == zqim::Finding::Error     ? 2
                                      : f.kind == zqim::Finding::Warning ? 1
                                                                         : 0);
        out.push_back(std::move(checked));
    }
    return status;
}

void PrintFindings(const std::vector<Checked>& checked, bool json) {
    if (!json) {
        for (const Checked& c : checked)
            for (const zqim::Finding& f : c.findings)
                std::cout << c.file << ":" << f.line << ":" << f.column << ": "
                          << zqim::KindName(f.kind) << ": " << f.message << "\n";
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

int Check(const std::vector<std::string>& args) {
    bool noPid = false, json = false;
    std::vector<std::string> files;
    const bool parsed = ParseArguments(
        args,
        [&](const std::string& a, const std::string*, bool&) {
            if (a == "--no-pid")
                return noPid = true;
            if (a == "--format=json" || a == "--format=text")
                return json = a == "--format=json", true;
            return false;
        },
        files);
    if (!parsed)
        return std::cerr << kUsage, 64;
    std::vector<Checked> checked;
    const int status = CheckFiles(files, noPid, false, checked);
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

// One file's progress: a bar redrawn in place on a terminal, lines elsewhere;
// with `verbose`, every line of the helper's log too.
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

int Run(const std::vector<std::string>& args, const char* argv0) {
    zqim::Session::Options options;
    options.helper = DefaultHelper(argv0);
    bool check = false;
    std::vector<std::string> files;
    const bool parsed = ParseArguments(
        args,
        [&](const std::string& a, const std::string* next, bool& tookNext) {
            if ((a == "--comm" || a == "--helper") && next) {
                (a == "--comm" ? options.commDir : options.helper) = *next;
                return tookNext = true;
            }
            if (a == "--keep")
                return options.keepFiles = true;
            if (a == "-v")
                return options.verbose = true;
            return a == "--check" && (check = true);
        },
        files);
    if (!parsed)
        return std::cerr << kUsage, 64;

    std::vector<std::string> texts(files.size());
    for (std::size_t i = 0; i < files.size(); ++i)
        if (!ReadFile(files[i], texts[i]))
            return std::cerr << "zqim: cannot read " << files[i] << "\n", 66;
    if (check) {
        std::vector<Checked> checked;
        if (CheckFiles(files, false, true, checked) == 2) {
            PrintFindings(checked, false);
            std::cerr << "zqim: not run: the files have errors\n";
            return 2;
        }
    }

    zqim::Session helper = zqim::Session::Start(options);
    Display display(::isatty(1), options.verbose);
    std::vector<std::pair<std::string, zqim::Answer>> answers;
    bool failed = false;
    for (std::size_t i = 0; i < files.size() && !failed; ++i) {
        display.Start(files[i]);
        const int number = helper.Send(texts[i]);
        zqim::Answer answer = helper.Wait(
            number, [&](int p) { display.Progress(p); },
            [&](const std::string& line) { display.Log(line); });
        display.Done();
        failed = answer.died || !answer.newCodes.empty();
        answers.emplace_back(files[i], std::move(answer));
    }
    const std::string ended = helper.Stop();

    std::cout << "ran " << answers.size() << " of " << files.size() << " command files in "
              << helper.CommDir() << "\n";
    for (const auto& [file, a] : answers) {
        std::cout << "  " << file << " (" << zqim::kCommandPrefix << a.number << "): " << std::fixed
                  << std::setprecision(1) << a.took.count() << " s, ";
        if (a.died)
            std::cout << "the helper died on it: " << a.how;
        else if (a.newCodes.empty())
            std::cout << "no new error";
        for (std::size_t k = 0; k < a.newCodes.size(); ++k)
            std::cout << (k ? ", " : "new errors: ") << a.newCodes[k] << " "
                      << zqim::CodeName(a.newCodes[k]);
        std::cout << "\n";
    }
    std::cout << "helper ended: " << ended << "\n";
    return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty())
        return std::cerr << kUsage, 64;
    const std::string command = args[0];
    args.erase(args.begin());
    if (command == "--help" || command == "-h")
        return std::cout << kUsage << kOptions, 0;
    if (command == "--version")
        return std::cout << "zqim " ZQIM_VERSION "\n", 0;
    try {
        if (command == "check")
            return Check(args);
        if (command == "run")
            return Run(args, argv[0]);
    } catch (const std::exception& e) {
        std::cerr << "zqim: " << e.what() << "\n";
        return 1;
    }
    std::cerr << kUsage;
    return 64;
}

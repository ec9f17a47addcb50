// libFuzzer target: every input is serviced as one command file, and what
// the checker says of it is held against what the helper did.
//
// A command file may say `delFolder /`, `fixPermsR /` or `exec ...`, so the
// operations run confined:
//  - for the duration of each input the process is chrooted into a scratch
//    playground (zqim-fuzz-jail/play under the start directory, or
//    $ZQIM_FUZZ_JAIL/play), rebuilt from nothing before every input so that
//    each run is reproducible; the product code only opens descriptors of
//    its own, from paths inside the playground, so it cannot reach the ones
//    this harness keeps to find its way back out;
//  - between inputs the real root is restored, so libFuzzer's own corpus,
//    artifacts, leak checks and the sanitizers' symbolizer never see the
//    playground and cannot be damaged by it;
//  - `system` (exec, plistGo, plistDel) and the sleeps (waitForPID, the
//    deletion retry pause) are replaced below while an input runs.
//
// Two kinds of exception end the helper on purpose and are caught here:
// std::out_of_range from a bare `copyDest`/`lnkResulting`/`lnkContent`, and
// std::filesystem::filesystem_error from a listing that fails midway in
// `fixPermsR`. Anything else escaping is a finding.

#include "commandChecker.h"
#include "commandKeywords.h"
#include "interpreter.h"
#include "liveness.h"
#include "runState.h"
#include "trust.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace fs = std::filesystem;

namespace {

// True on the thread servicing an input, while it does; libFuzzer's own
// threads and its fork/merge modes keep the real functions.
thread_local bool tInInput = false;

int gRealRoot = -1;    // "/" as the fuzzer saw it at start
int gStartDir = -1;    // the directory the fuzzer was started in
int gPlayground = -1;  // becomes "/" while an input runs
fs::path gLogPath;     // in the jail but outside the playground

template <class Fn>
Fn Real(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

[[noreturn]] void Fail(const char* what) {
    std::perror(what);
    std::_Exit(1);
}

void EnterPlayground() {
    if (fchdir(gPlayground) != 0 || chroot(".") != 0 || chdir("/") != 0)
        Fail("zqim_fuzzer: entering the playground");
}

// Async-signal-safe: also called from the crash hooks below.
void LeavePlayground() {
    if (fchdir(gRealRoot) == 0 && chroot(".") == 0)
        (void)fchdir(gStartDir);
}

// Only inside the playground: links left by an earlier input then resolve
// inside it too.
void BuildFixture() {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/", ec))
        fs::remove_all(entry.path(), ec);
    for (const char* dir : {"/src/dir/sub", "/root/app/bin", "/root/app/empty", "/stage"})
        fs::create_directories(dir, ec);
    for (const char* file : {"/src/file.txt", "/src/dir/sub/deep.txt", "/root/app/bin/tool",
                             "/stage/new.txt"})
        std::ofstream(file) << "payload\n";
    fs::create_symlink("file.txt", "/src/link", ec);
    fs::create_directory_symlink("dir", "/src/dirlink", ec);
    fs::create_directory_symlink("/src", "/root/app/srclink", ec);
}

}  // namespace

extern "C" int system(const char* command) {
    if (tInInput)
        return 0;
    static const auto real = Real<int (*)(const char*)>("system");
    return real(command);
}

extern "C" unsigned int sleep(unsigned int seconds) {
    if (tInInput)
        return 0;
    static const auto real = Real<unsigned int (*)(unsigned int)>("sleep");
    return real(seconds);
}

extern "C" int nanosleep(const struct timespec* request, struct timespec* remaining) {
    if (tInInput)
        return 0;
    static const auto real = Real<int (*)(const timespec*, timespec*)>("nanosleep");
    return real(request, remaining);
}

// Reports and crash artifacts are written from the real root, where the
// symbolizer and the artifact directory are.
extern "C" void __asan_on_error() { LeavePlayground(); }
extern "C" void __ubsan_on_report() { LeavePlayground(); }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (geteuid() != 0) {
        std::fprintf(stderr, "zqim_fuzzer: must run as root, to confine the operations "
                             "with chroot.\n");
        std::exit(1);
    }
    const char* jailEnv = std::getenv("ZQIM_FUZZ_JAIL");
    const fs::path jail = fs::absolute(jailEnv ? jailEnv : "zqim-fuzz-jail");
    fs::remove_all(jail);
    fs::create_directories(jail / "play");
    gLogPath = jail / "ZQIMLog.txt";
    gRealRoot = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    gStartDir = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    gPlayground = open((jail / "play").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (gRealRoot < 0 || gStartDir < 0 || gPlayground < 0)
        Fail("zqim_fuzzer: opening the jail");

    // A copy of "/" into itself nests one directory level per path
    // component until PATH_MAX; each level holds a descriptor while it is
    // walked.
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    // Above any PID Linux hands out, and there is no /proc in the playground:
    // waitForPID returns at once.
    gPID = 4194305;
    std::set_terminate([] {
        LeavePlayground();
        std::abort();
    });
    return 0;
}

namespace {

enum class Outcome { Ended, Stopped, Ran };

// Services `text` as the only command file, in a fresh playground and run
// state; says whether it ended the process (the exception that would), or
// stopped on a broken pair (the fatal 2006).
Outcome Service(std::string_view text) {
    gLogStream.open(gLogPath.string());
    ResetRunState();
    ResetLiveness();
    ForgetFrontEndUser();

    EnterPlayground();
    BuildFixture();
    std::ofstream("/ZQCmd1.txt", std::ios::binary)
        .write(text.data(), static_cast<std::streamsize>(text.size()));
    gProgressFilepath = "/ZQCmd1.progress";

    Outcome outcome = Outcome::Ran;
    tInInput = true;
    try {
        ServiceCommandFile("/ZQCmd1.txt");
    } catch (const std::out_of_range&) {
        outcome = Outcome::Ended;
    } catch (const fs::filesystem_error&) {
    }
    tInInput = false;
    LeavePlayground();
    std::ifstream log(gLogPath);
    // A message of its own, after the time stamp: an unknown command quoting
    // that text is logged too, but inside another message.
    const std::string fatal = "ServiceCommandFile() - Fatal error 2006: ";
    for (std::string line; outcome == Outcome::Ran && std::getline(log, line);)
        if (line.size() > 22 && line.compare(22, fatal.size(), fatal) == 0)
            outcome = Outcome::Stopped;
    return outcome;
}

[[noreturn]] void Disagree(const char* what) {
    std::fprintf(stderr, "zqim_fuzzer: the checker and the helper disagree: %s\n", what);
    std::abort();
}

}  // namespace

// Each input is serviced as a command file; the checker's verdicts are then
// held against what the helper did: a file that ended the process or stopped
// on a broken pair must have been flagged so, and every line flagged so must
// do exactly that when the helper reaches it (checked on that line alone,
// after its pair's start where it has one).
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    zqim::CheckContext context;
    const std::vector<zqim::Finding> findings = zqim::CheckCommandFile(text, context);
    auto flagged = [&](zqim::Finding::Effect effect) {
        for (const zqim::Finding& f : findings)
            if (f.effect == effect)
                return true;
        return false;
    };

    const Outcome outcome = Service(text);
    if (outcome == Outcome::Ended && !flagged(zqim::Finding::EndsProcess))
        Disagree("the file ended the process, unflagged");
    if (outcome == Outcome::Stopped && !flagged(zqim::Finding::StopsFile))
        Disagree("the file stopped on a broken pair, unflagged");

    int checked = 0;
    for (const zqim::Finding& f : findings) {
        if (f.effect == zqim::Finding::Advice || ++checked > 2)
            continue;
        std::size_t at = 0;
        for (int n = 1; n < f.line; ++n)
            at = text.find('\n', at) + 1;
        const std::string line(text.substr(at, text.find('\n', at) - at));
        std::string trimmed = line;
        trim(trimmed);
        const Keyword* keyword = MatchKeyword(trimmed);
        std::string alone = line + "\n";
        if (f.effect == zqim::Finding::EndsProcess && keyword && !keyword->pairStart.empty())
            alone = std::string(keyword->pairStart) + " x\n" + alone;
        const Outcome expected =
            f.effect == zqim::Finding::EndsProcess ? Outcome::Ended : Outcome::Stopped;
        if (Service(alone) != expected)
            Disagree(expected == Outcome::Ended ? "a line flagged as ending the process did not"
                                                : "a line flagged as a broken pair did not stop");
    }
    return 0;
}

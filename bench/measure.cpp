// Runs one command and reports how long it took and how much memory it used:
//   zqim_measure [-o OUTFILE] -- PROGRAM [ARGS...]
// prints one line
//   wall_ns=<n> user_us=<n> sys_us=<n> maxrss_kb=<n> status=<wait status>
// The child's standard output and error go to OUTFILE (or /dev/null).
//
// The peak RSS comes from wait4(). A child's maximum RSS starts from the RSS
// of the process that forked it, so this program is linked statically and
// allocates nothing: what a child inherits is a few hundred KiB, well below
// anything the measured programs use themselves.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

static long long NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

static long long Micros(const timeval& tv) {
    return static_cast<long long>(tv.tv_sec) * 1000000LL + tv.tv_usec;
}

int main(int argc, char** argv) {
    const char* out = "/dev/null";
    int i = 1;
    for (; i < argc; ++i) {
        if (std::strcmp(argv[i], "-o") == 0 && i + 1 < argc) {
            out = argv[++i];
        } else if (std::strcmp(argv[i], "--") == 0) {
            ++i;
            break;
        } else {
            break;
        }
    }
    if (i >= argc) {
        std::fprintf(stderr, "usage: zqim_measure [-o OUTFILE] -- PROGRAM [ARGS...]\n");
        return 2;
    }

    const long long start = NowNs();
    const pid_t pid = fork();
    if (pid < 0) {
        std::perror("fork");
        return 2;
    }
    if (pid == 0) {
        const int fd = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
        execvp(argv[i], argv + i);
        std::fprintf(stderr, "exec %s: %s\n", argv[i], std::strerror(errno));
        _exit(127);
    }

    int status = 0;
    rusage usage;
    std::memset(&usage, 0, sizeof usage);
    while (wait4(pid, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            std::perror("wait4");
            return 2;
        }
    }
    const long long wall = NowNs() - start;
    std::printf("wall_ns=%lld user_us=%lld sys_us=%lld maxrss_kb=%ld status=%d\n", wall,
                Micros(usage.ru_utime), Micros(usage.ru_stime), usage.ru_maxrss, status);
    return 0;
}

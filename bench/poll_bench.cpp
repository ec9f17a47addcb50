// Times the work of one idle poll of the main loop: GetNextCommand on the
// communication directory when nothing new is there.
//   zqim_poll_bench DIR LAST ITERATIONS
// DIR is searched for the next command file above LAST, ITERATIONS times.
// Prints the answer (it must be empty for an idle poll) and the CPU time and
// wall time of one call: median, minimum and maximum.
#include "ZQIMHelper.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

static double Seconds(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

static double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: zqim_poll_bench DIR LAST ITERATIONS\n");
        return 2;
    }
    const std::string dir = argv[1];
    const int last = std::atoi(argv[2]);
    const int iterations = std::max(1, std::atoi(argv[3]));
    // The helper polls through the handle it holds on the directory.
    const int held = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (held < 0) {
        std::perror(dir.c_str());
        return 2;
    }

    std::vector<double> cpu, wall;
    std::string answer;
    for (int i = 0; i < iterations; ++i) {
        const double c0 = Seconds(CLOCK_PROCESS_CPUTIME_ID);
        const double w0 = Seconds(CLOCK_MONOTONIC);
        answer = GetNextCommand(last, held, dir);
        const double w1 = Seconds(CLOCK_MONOTONIC);
        const double c1 = Seconds(CLOCK_PROCESS_CPUTIME_ID);
        cpu.push_back(c1 - c0);
        wall.push_back(w1 - w0);
    }
    std::printf("answer=\"%s\" iterations=%d cpu_median_s=%.6f cpu_min_s=%.6f cpu_max_s=%.6f "
                "wall_median_s=%.6f\n",
                answer.c_str(), iterations, Median(cpu), *std::min_element(cpu.begin(), cpu.end()),
                *std::max_element(cpu.begin(), cpu.end()), Median(wall));
    close(held);
    return answer.empty() ? 0 : 1;
}

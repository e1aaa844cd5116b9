// One figure: what the daemon's code costs against the least that its libraries allow, as the ratio
// of pairs measured one after the other.
#pragma once

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <vector>

inline double seconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Processor seconds of one run.
inline double used_by(const std::function<void()> &work) {
    const double begin = seconds(CLOCK_PROCESS_CPUTIME_ID);
    work();
    return seconds(CLOCK_PROCESS_CPUTIME_ID) - begin;
}

// A line "name<TAB>microseconds<TAB>of the bare one<TAB>ratio<TAB>its quartiles". Each function
// gives seconds, negative when it failed.
inline void print_figure(const char *name, int rounds, const std::function<double()> &ours,
                         const std::function<double()> &bare) {
    std::vector<double> times;
    std::vector<double> bare_times;
    std::vector<double> ratios;
    for (int i = 0; i < rounds; ++i) {
        bare_times.push_back(bare());
        times.push_back(ours());
        if (bare_times.back() <= 0 || times.back() <= 0) {
            printf("%s\tfailed\n", name);
            return;
        }
        ratios.push_back(times.back() / bare_times.back());
    }
    const auto at = [](std::vector<double> &values, size_t part) {
        std::sort(values.begin(), values.end());
        return values[part * (values.size() - 1) / 4];
    };
    printf("%s\t%.3f\t%.3f\t%.3f\t%.3f\t%.3f\n", name, at(times, 2) * 1e6, at(bare_times, 2) * 1e6,
           at(ratios, 2), at(ratios, 1), at(ratios, 3));
    fflush(stdout);
}

void bench_bus();    // bursts of disk signals, the web list
void bench_start();  // from the start to the last bus name
void bench_work();   // saved settings, log lines

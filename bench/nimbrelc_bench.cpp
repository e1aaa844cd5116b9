// Measures parts of the daemon against the same work done plainly, in the same run. bench.py reads
// what it prints.
#include <spawn.h>

#include <string>

#include "figures.h"
#include "private_bus.h"

namespace {

// Seconds until the program is gone.
double measure_start(std::initializer_list<const char *> command) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char *> arguments;
    for (const char *word : command) {
        arguments.push_back(const_cast<char *>(word));
    }
    arguments.push_back(nullptr);
    pid_t child = -1;
    const double begin = seconds(CLOCK_MONOTONIC);
    const int failure =
        posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    int status = 0;
    if (failure == 0) {
        waitpid(child, &status, 0);
    }
    const double used = seconds(CLOCK_MONOTONIC) - begin;
    posix_spawn_file_actions_destroy(&actions);
    // The refused name ends both programs in this way.
    return failure == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 1 ? used : -1;
}

}  // namespace

// The bus refuses the last of the four names, so that the daemon gives up there and touches
// nothing.
void bench_start() {
    const private_bus bus("<deny own='com.kelvanto.firmware'/>");
    unsetenv("GID");
    unsetenv("UID");
    print_figure(
        "start to the last bus name", 61, [] { return measure_start({DAEMON}); },
        [] {
            return measure_start({FLOOR, "com.kelvanto.nimbrel", "com.kelvanto.pamauth",
                                  "com.kelvanto.nssauth", "com.kelvanto.firmware"});
        });
}

int main() {
    bench_start();
    bench_bus();
    bench_work();
}

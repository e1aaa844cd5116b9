#include "platform/launch.h"

#include <utility>

#include "simulated/simulated_box.h"

namespace {

std::vector<std::string> commands;

launch_result record(const std::string &command, int *status, std::string *output) {
    commands.push_back(command);
    std::string said;
    const int code = simulated_box::run(command, said);
    if (status != nullptr) {
        *status = code << 8;  // as wait() has it
    }
    if (output != nullptr) {
        *output = said;
    }
    return LAUNCH_OK;
}

std::string joined(const char *const argv[]) {
    std::string command = *argv;
    while (*++argv != nullptr) {
        command += std::string(" ") + *argv;
    }
    return command;
}

}  // namespace

std::function<int(const std::string &, std::string &)> simulated_box::run;

std::vector<std::string> simulated_box::take_commands() {
    return std::exchange(commands, {});
}

launch_result launch(const char *command, int *status, std::string *output) {
    return record(command, status, output);
}

launch_result launch_one(const char *const argv[], int *status) {
    return record(joined(argv), status, nullptr);
}

launch_result launch_and_write(const char *const argv[], int *status, const char *) {
    return record(joined(argv), status, nullptr);
}

#include "platform/service_manager.h"

#include <algorithm>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "common/logger.h"
#include "platform/launch.h"

namespace {

constexpr const char *log_category = "service_manager";

struct signal_letter {
    int signal;
    char letter;
};
constexpr signal_letter signal_letters[] = {
    {SIGHUP, 'h'},  {SIGINT, 'i'},  {SIGQUIT, 'q'}, {SIGABRT, 'b'}, {SIGKILL, 'k'}, {SIGUSR1, '1'},
    {SIGUSR2, '2'}, {SIGALRM, 'a'}, {SIGTERM, 't'}, {SIGCONT, 'c'}, {SIGSTOP, 'p'}, {SIGWINCH, 'y'},
};

struct service_state {
    std::string name;
    std::optional<bool> is_up;
};
// A disk with many partitions makes three services ask for each of them.
std::vector<service_state> known_states;

// The launcher's own failures are passed on; any exit status but zero is -1.
int control(const char *format, char letter, const char *name) {
    service_manager_forget_states();
    int status = 0;
    const int launched = launch_with_args(format, &status, nullptr, letter, name);
    return launched == LAUNCH_OK && status != 0 ? -1 : launched;
}

int control_one(char letter, const char *name) {
    return control("sudo s6-svc -%c /run/service/%s", letter, name);
}

int change_set(char direction, const char *name) {
    return control("sudo s6-rc -%c change %s", direction, name);
}

std::optional<bool> ask_state(const char *name) {
    int status = 0;
    std::string output;
    if (launch_with_args("sudo s6-svstat /run/service/%s", &status, &output, name) != LAUNCH_OK) {
        // kept: the text is the command's output, normally none.
        LOG_ERROR("launch_with_args failed: %s", output.c_str());
        return std::nullopt;
    }
    if (status != 0) {
        return std::nullopt;
    }
    const bool is_up = output.starts_with("up");
    if (!is_up && !output.starts_with("down")) {
        LOG_ERROR("Unexpected format from s6-svstat");
        return std::nullopt;
    }
    return is_up;
}

}  // namespace

int service_manager_start_one(const char *name) {
    const int result = control_one('u', name);
    if (result != 0) {
        LOG_ERROR("Failed to start one service %s", name);
    }
    return result;
}

int service_manager_stop_one(const char *name) {
    const int result = control_one('d', name);
    if (result != 0) {
        LOG_ERROR("Failed to stop one service %s", name);
    }
    return result;
}

int service_manager_start(const char *name) {
    return change_set('u', name);
}

int service_manager_stop(const char *name) {
    return change_set('d', name);
}

int service_manager_restart(const char *name) {
    const int stopped = control_one('d', name);
    if (stopped != 0) {
        LOG_ERROR("Failed to stop service %s during restart", name);
        return stopped;
    }
    return control_one('u', name);
}

std::optional<bool> service_manager_is_up(const char *name) {
    auto known = std::find_if(known_states.begin(), known_states.end(),
                              [name](const service_state &state) { return state.name == name; });
    if (known == known_states.end()) {
        known = known_states.insert(known, {.name = name, .is_up = ask_state(name)});
    }
    return known->is_up;
}

void service_manager_forget_states() {
    known_states.clear();
}

int service_manager_signal(const char *name, int signal) {
    for (const signal_letter &row : signal_letters) {
        if (row.signal == signal) {
            return control_one(row.letter, name);
        }
    }
    return -1;
}

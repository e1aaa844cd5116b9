// The box as services see it, simulated: waits end when a test lets time pass, the commands that
// are run are recorded and answered as told, and three services that do what they are told stand
// for Samba, AFP and Avahi. Takes the place of the timers, the launcher and the table of file
// services.
#pragma once

#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/timer.h"

namespace simulated_box {

// No time has passed, no timer runs, no command was run, every command succeeds and says nothing,
// no service runs.
void reset(time_t start = 1700000000);
void reset_timers(time_t now);  // a part of it

// Lets so many seconds pass: timers run down in the order of their ends.
void pass(int seconds);

// The timers that run, by their ends; a copy of them and of the time, put back, turns time back.
struct running_timer {
    time_t end;
    const timer *item;
    std::shared_ptr<unique_function<void()>> expired;
};
extern std::vector<running_timer> running_timers;
extern time_t now;
inline size_t timers() {
    return running_timers.size();
}

// The command lines since the last time they were taken, an argument vector's words joined by
// blanks.
std::vector<std::string> take_commands();

// What a command does: its exit code, and what it writes to `output`.
extern std::function<int(const std::string &command, std::string &output)> run;

struct service {
    bool enabled = true;
    bool running = false;
    bool fails = false;  // its operations fail
    bool deaf = false;   // they succeed and change nothing
    int late = 0;        // seconds until a started one runs
    time_t runs_at = 0;  // when such a one will, 0 for none
    std::string
        done;  // "5+ 20- " for a start after 5 seconds and a stop after 20, "~" for a reload
};
extern service services[3];

}  // namespace simulated_box

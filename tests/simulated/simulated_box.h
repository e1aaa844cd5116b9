// The box as services see it, simulated: waits end when a test lets time pass, and the commands
// that are run are recorded and answered as told. Takes the place of the timers and the launcher.
#pragma once

#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace simulated_box {

// No time has passed, no timer runs, no command was run, every command succeeds and says nothing.
void reset(time_t now = 1700000000);

// Lets so many seconds pass: timers run down in the order of their ends.
void pass(int seconds);

// How many timers run.
size_t timers();

// The command lines since the last time they were taken, an argument vector's words joined by
// blanks.
std::vector<std::string> take_commands();

// What a command does: its exit code, and what it writes to `output`.
extern std::function<int(const std::string &command, std::string &output)> run;

}  // namespace simulated_box

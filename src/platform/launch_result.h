// What the launcher's operations give, and looking at it.
#pragma once

// Results of all four operations.
enum launch_result : int {
    LAUNCH_OK = 0,            // the child ran and exited normally, whatever its exit code
    LAUNCH_ERROR = -1,        // fork, pipe, write, wait or formatting failed; killed by a signal
    LAUNCH_NO_COMMAND = -2,   // null command
    LAUNCH_SHELL_ERROR = -3,  // the shell could not be run or read, or was killed by a signal
};

// True when a launch gave `result` LAUNCH_OK and `status` says exit code 0.
bool launch_succeeded(int result, int status);

// The same, logging an ERROR under `category` otherwise: `not_run` as it stands when the command
// could not be run, `exited_format` (one %d, for the exit code) when it failed.
bool launch_succeeded_or_log(int result, int status, const char *category, const char *not_run,
                             const char *exited_format);

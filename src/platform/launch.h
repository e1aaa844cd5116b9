// Runs external programs and waits for them: shell command lines, and direct executions with an
// argument vector and an empty environment. Every call blocks until the child has ended.
#pragma once

#include <string>
#include <string_view>

#include "common/logger.h"

// Results of the first four operations.
enum launch_result : int {
    LAUNCH_OK = 0,            // the child ran and exited normally, whatever its exit code
    LAUNCH_ERROR = -1,        // fork, pipe, write, wait or formatting failed; killed by a signal
    LAUNCH_NO_COMMAND = -2,   // null command
    LAUNCH_SHELL_ERROR = -3,  // the shell could not be run or read, or was killed by a signal
};

// Runs `command` through the shell. On LAUNCH_OK only, `status` (may be null) receives the raw wait
// status. `output` (may be null) receives the child's whole standard output, also that of a child
// that a signal killed. Output that is not wanted is dropped, up to what a pipe holds.
launch_result launch(const char *command, int *status, std::string *output);

// Formats the command line, then behaves as launch().
launch_result launch_with_args(const char *format, int *status, std::string *output, ...)
    __attribute__((format(printf, 1, 4)));

// Executes argv[0] (an absolute path) with `argv`, which ends with a null pointer.
launch_result launch_one(const char *const argv[], int *status);

// As launch_one(), and writes `text` to the child's standard input.
launch_result launch_and_write(const char *const argv[], int *status, const char *text);

// What is logged at ERROR for a command that does not end with exit code 0.
struct launch_texts {
    const char *not_run;  // it could not be run
    const char *exited;   // with one %d, for the exit code
};

// Formats the command line and runs it as launch() does; true when it ends with exit code 0. The
// second one logs for `caller` why not.
bool launch_succeeds(std::string *output, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
bool launch_or_log(const log_source &caller, const launch_texts &texts, std::string *output,
                   const char *format, ...) __attribute__((format(printf, 4, 5)));

// A value as one literal piece of a command line. Values without shell-active characters come back
// as they are; blanks are never touched.
std::string launch_escape_quoted(std::string_view value);    // to stand inside double quotes
std::string launch_escape_unquoted(std::string_view value);  // to stand outside quotes

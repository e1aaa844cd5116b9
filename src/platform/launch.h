// Runs external programs and waits for them: shell command lines, and direct executions with an
// argument vector and an empty environment. Every call blocks until the child has ended.
#pragma once

#include <string>

#include "platform/launch_result.h"

// Runs `command` through the shell. On LAUNCH_OK only, `status` (may be null) receives the raw wait
// status. `output` (may be null) receives the child's whole standard output, also that of a child
// that a signal killed. Output that is not wanted is dropped, up to what a pipe holds.
int launch(const char *command, int *status, std::string *output);

// Formats the command line, then behaves as launch().
int launch_with_args(const char *format, int *status, std::string *output, ...)
    __attribute__((format(printf, 1, 4)));

// Executes argv[0] (an absolute path) with `argv`, which ends with a null pointer.
int launch_one(const char *const argv[], int *status);

// As launch_one(), and writes `text` to the child's standard input.
int launch_and_write(const char *const argv[], int *status, const char *text);

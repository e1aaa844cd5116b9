// Logs as "launch".
// Command lines that are made of a format.
#include <sys/wait.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/launch.h"

namespace {

constexpr const char *log_category = "launch";

launch_result launch_with_list(const char *format, va_list arguments, int *status,
                               std::string *output) {
    va_list again;
    va_copy(again, arguments);
    const int measured = vsnprintf(nullptr, 0, format, arguments);
    std::string command(measured > 0 ? static_cast<size_t>(measured) : 0, '\0');
    const int written = vsnprintf(command.data(), command.size() + 1, format, again);
    va_end(again);
    if (measured < 0 || written != measured) {
        LOG_ERROR("vsnprintf failed: %s", strerror(errno));
        if (output) {
            output->clear();
        }
        return LAUNCH_ERROR;
    }
    return launch(command.c_str(), status, output);
}

}  // namespace

launch_result launch_with_args(const char *format, int *status, std::string *output, ...) {
    va_list arguments;
    va_start(arguments, output);
    const launch_result result = launch_with_list(format, arguments, status, output);
    va_end(arguments);
    return result;
}

bool launch_succeeds(std::string *output, const char *format, ...) {
    int status = 0;
    va_list arguments;
    va_start(arguments, format);
    const launch_result result = launch_with_list(format, arguments, &status, output);
    va_end(arguments);
    return result == LAUNCH_OK && status == 0;
}

bool launch_or_log(const log_source &caller, const launch_texts &texts, std::string *output,
                   const char *format, ...) {
    int status = 0;
    va_list arguments;
    va_start(arguments, format);
    const launch_result result = launch_with_list(format, arguments, &status, output);
    va_end(arguments);
    if (result != LAUNCH_OK) {
        LOG_FOR(caller, LOG_LEVEL_ERROR, "%s", texts.not_run);
    } else if (status != 0) {
        LOG_FOR(caller, LOG_LEVEL_ERROR, texts.exited, WEXITSTATUS(status));
    }
    return result == LAUNCH_OK && status == 0;
}

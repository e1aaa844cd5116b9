#include "platform/launch_result.h"

#include <sys/wait.h>

#include "common/logger.h"

bool launch_succeeded(int result, int status) {
    return result == LAUNCH_OK && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool launch_succeeded_or_log(int result, int status, const char *category, const char *not_run,
                             const char *exited_format) {
    if (result != LAUNCH_OK) {
        _log(category, LOG_LEVEL_ERROR, __FILE__, __LINE__, "%s", not_run);
        return false;
    }
    if (status != 0) {
        _log(category, LOG_LEVEL_ERROR, __FILE__, __LINE__, exited_format, WEXITSTATUS(status));
        return false;
    }
    return true;
}

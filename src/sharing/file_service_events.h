// Requests to a file service, and the one action that a queue of them comes to.
#pragma once

#include <vector>

enum file_service_event : int {
    FILE_SERVICE_EVENT_START = 0,
    FILE_SERVICE_EVENT_STOP = 1,
    FILE_SERVICE_EVENT_RELOAD = 2,
    FILE_SERVICE_EVENT_RESTART = 3,
    FILE_SERVICE_EVENT_NONE = 4,  // as a request: look at what is pending
};

// The name in log lines.
const char *file_service_event_name(file_service_event event);

// Reduces a queue, oldest request first: a stop cancels every earlier start and reload; a start
// after a stop is a restart; a start takes reloads in; reloads alone are one reload.
file_service_event file_service_simplify_events(const std::vector<file_service_event> &queue);

#include "sharing/file_service_events.h"

const char *file_service_event_name(file_service_event event) {
    switch (event) {
        case FILE_SERVICE_EVENT_START:
            return "START";
        case FILE_SERVICE_EVENT_STOP:
            return "STOP";
        case FILE_SERVICE_EVENT_RELOAD:
            return "RELOAD";
        case FILE_SERVICE_EVENT_RESTART:
            return "RESTART";
        case FILE_SERVICE_EVENT_NONE:
            return "NO_EVENT";
    }
    return "UNDEFINED!";
}

file_service_event file_service_simplify_events(const std::vector<file_service_event> &queue) {
    bool stop_seen = false;
    bool start_seen = false;
    bool reload_seen = false;
    for (const file_service_event event : queue) {
        switch (event) {
            case FILE_SERVICE_EVENT_STOP:
                stop_seen = true;
                start_seen = false;
                reload_seen = false;
                break;
            case FILE_SERVICE_EVENT_START:
                start_seen = true;
                break;
            case FILE_SERVICE_EVENT_RELOAD:
                reload_seen = true;
                break;
            default:
                break;  // a restart only ever comes out of here
        }
    }
    if (stop_seen) {
        return start_seen ? FILE_SERVICE_EVENT_RESTART : FILE_SERVICE_EVENT_STOP;
    }
    if (start_seen) {
        return FILE_SERVICE_EVENT_START;
    }
    return reload_seen ? FILE_SERVICE_EVENT_RELOAD : FILE_SERVICE_EVENT_NONE;
}

// Runs the announcer that makes the shares visible on the local network. Writes no configuration.
#include "common/logger.h"
#include "sharing/file_service.h"
#include "sharing/file_services_table.h"

namespace {

constexpr const char *log_category = "avahi";

constexpr const char *section_path = "nas.fileServices.avahi";
constexpr file_service_daemon avahi = {.service = "avahi", .shown = "avahi"};
constexpr const char *state_unknown = "Cannot determine state of %s daemon";
constexpr file_service_times action_times = {.start = 3, .stop = 3, .reload = 3};

}  // namespace

bool avahi_start() {
    if (!file_service_is_switched_on(section_path)) {
        LOG_INFO("Avahi daemon is disabled");
        return true;
    }
    const bool is_up = file_service_is_up(
        log_category, avahi, false, "Cannot determine state of %s daemon, assuming it's down");
    if (is_up) {
        LOG_INFO("Avahi daemon is already working");
        return true;
    }
    return file_service_start_daemon(log_category, avahi);
}

bool avahi_stop() {
    if (!file_service_is_up(log_category, avahi, true, state_unknown)) {
        LOG_WARN("Avahi daemon in not working");
        return true;
    }
    return file_service_stop_daemon(log_category, avahi);
}

bool avahi_reload() {
    if (!file_service_is_switched_on(section_path)) {
        LOG_INFO("Avahi daemon is disabled");
        return true;
    }
    return avahi_is_running() ? file_service_reload_daemon(log_category, avahi)
                              : file_service_start_daemon(log_category, avahi);
}

bool avahi_is_running() {
    return file_service_is_up(log_category, avahi, false, state_unknown);
}

bool avahi_is_enabled() {
    return file_service_is_enabled(section_path);
}

bool avahi_save_state(bool enabled) {
    return file_service_save_state(section_path, enabled);
}

int avahi_time_req_for(file_service_event action) {
    return file_service_time_for(action_times, action);
}

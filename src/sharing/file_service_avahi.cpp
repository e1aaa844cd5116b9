#include "sharing/file_service_avahi.h"

#include <csignal>

#include "common/logger.h"
#include "platform/service_manager.h"
#include "sharing/file_service.h"

namespace {

constexpr const char *log_category = "avahi";

constexpr const char *section_path = "nas.fileServices.avahi";
constexpr const char *daemon_name = "avahi";
constexpr file_service_times action_times = {.start = 3, .stop = 3, .reload = 3};

bool start_daemon() {
    LOG_INFO("Starting avahi daemon");
    if (service_manager_start(daemon_name) != 0) {
        LOG_ERROR("Cannot start avahi daemon");
        return false;
    }
    return true;
}

}  // namespace

bool avahi_start() {
    if (!file_service_is_switched_on(section_path)) {
        LOG_INFO("Avahi daemon is disabled");
        return true;
    }
    const bool is_up =
        file_service_is_up(log_category, daemon_name, false,
                           "Cannot determine state of avahi daemon, assuming it's down");
    if (is_up) {
        LOG_INFO("Avahi daemon is already working");
        return true;
    }
    return start_daemon();
}

bool avahi_stop() {
    const bool is_up = file_service_is_up(log_category, daemon_name, true,
                                          "Cannot determine state of avahi daemon");
    if (!is_up) {
        LOG_WARN("Avahi daemon in not working");
        return true;
    }
    LOG_INFO("Stopping avahi daemon");
    if (service_manager_stop(daemon_name) != 0) {
        LOG_ERROR("Cannot stop avahi daemon");
        return false;
    }
    return true;
}

bool avahi_reload() {
    if (!file_service_is_switched_on(section_path)) {
        LOG_INFO("Avahi daemon is disabled");
        return true;
    }
    const bool is_up = file_service_is_up(log_category, daemon_name, false,
                                          "Cannot determine state of avahi daemon");
    if (!is_up) {
        return start_daemon();
    }
    LOG_INFO("Reloading avahi daemon");
    if (service_manager_signal(daemon_name, SIGHUP) != 0) {
        LOG_ERROR("Cannot reload avahi daemon");
        return false;
    }
    return true;
}

bool avahi_is_running() {
    return file_service_is_up(log_category, daemon_name, false,
                              "Cannot determine state of avahi daemon");
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

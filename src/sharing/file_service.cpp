#include "sharing/file_service.h"

#include <csignal>

#include "common/json.h"
#include "config/config.h"
#include "platform/service_manager.h"

namespace {

constexpr const char *switch_key = "enabled";

const cJSON *get_switch(const char *section_path) {
    return cJSON_GetObjectItem(get_config_item(section_path), switch_key);
}

bool succeeds(const log_source &caller, const file_service_daemon &daemon, int result,
              const char *failed) {
    if (result != 0) {
        LOG_FOR(caller, LOG_LEVEL_ERROR, failed, daemon.shown);
    }
    return result == 0;
}

}  // namespace

int file_service_time_for(const file_service_times &times, file_service_event action) {
    switch (action) {
        case FILE_SERVICE_EVENT_START:
            return times.start;
        case FILE_SERVICE_EVENT_STOP:
            return times.stop;
        case FILE_SERVICE_EVENT_RELOAD:
            return times.reload;
        default:
            return 0;
    }
}

bool file_service_is_enabled(const char *section_path) {
    return cJSON_IsTrue(get_switch(section_path));
}

bool file_service_is_switched_on(const char *section_path) {
    const cJSON *enabled = get_switch(section_path);
    return cJSON_IsTrue(enabled) || (cJSON_IsNumber(enabled) && enabled->valueint != 0);
}

bool file_service_save_state(const char *section_path, bool enabled) {
    cJSON *section = get_config_item(section_path);
    if (!cJSON_IsObject(section)) {
        return false;
    }
    const cJSON *stored = get_switch(section_path);
    if (enabled ? cJSON_IsTrue(stored) : cJSON_IsFalse(stored)) {
        return true;
    }
    json_set(section, switch_key, json_ptr(cJSON_CreateBool(enabled)));
    return nimbrelc_config_save();
}

bool file_service_is_up(const log_source &caller, const file_service_daemon &daemon, bool assumed,
                        const char *unknown) {
    const std::optional<bool> is_up = service_manager_is_up(daemon.service);
    if (!is_up) {
        LOG_FOR(caller, LOG_LEVEL_WARN, unknown, daemon.shown);
    }
    return is_up.value_or(assumed);
}

bool file_service_start_daemon(const log_source &caller, const file_service_daemon &daemon) {
    LOG_FOR(caller, LOG_LEVEL_INFO, "Starting %s daemon", daemon.shown);
    return succeeds(caller, daemon, service_manager_start(daemon.service),
                    "Cannot start %s daemon");
}

bool file_service_stop_daemon(const log_source &caller, const file_service_daemon &daemon) {
    LOG_FOR(caller, LOG_LEVEL_INFO, "Stopping %s daemon", daemon.shown);
    return succeeds(caller, daemon, service_manager_stop(daemon.service), "Cannot stop %s daemon");
}

bool file_service_reload_daemon(const log_source &caller, const file_service_daemon &daemon) {
    LOG_FOR(caller, LOG_LEVEL_INFO, "Reloading %s daemon", daemon.shown);
    return succeeds(caller, daemon, service_manager_signal(daemon.service, SIGHUP),
                    "Cannot reload %s daemon");
}

bool file_service_start_or_reload_daemon(const log_source &caller,
                                         const file_service_daemon &daemon) {
    const bool is_up = file_service_is_up(
        caller, daemon, false, "Cannot determine state of %s daemon, assuming it's down");
    return is_up ? file_service_reload_daemon(caller, daemon)
                 : file_service_start_daemon(caller, daemon);
}

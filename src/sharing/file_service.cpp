#include "sharing/file_service.h"

#include "common/json.h"
#include "config/config.h"
#include "platform/service_manager.h"

namespace {

constexpr const char *switch_key = "enabled";

const cJSON *get_switch(const char *section_path) {
    return cJSON_GetObjectItem(get_config_item(section_path), switch_key);
}

}  // namespace

int file_service_time_for(const file_service_times &times, int action) {
    switch (action) {
        case FILE_SERVICE_START:
            return times.start;
        case FILE_SERVICE_STOP:
            return times.stop;
        case FILE_SERVICE_RELOAD:
            return times.reload;
        default:
            return 0;
    }
}

bool file_service_is_enabled(const char *section_path) {
    return cJSON_IsTrue(get_switch(section_path)) != 0;
}

bool file_service_is_switched_on(const char *section_path) {
    const cJSON *enabled = get_switch(section_path);
    return cJSON_IsTrue(enabled) != 0 || (cJSON_IsNumber(enabled) != 0 && enabled->valueint != 0);
}

bool file_service_save_state(const char *section_path, bool enabled) {
    cJSON *section = get_config_item(section_path);
    if (cJSON_IsObject(section) == 0) {
        return false;
    }
    const cJSON *stored = cJSON_GetObjectItem(section, switch_key);
    if (cJSON_IsBool(stored) != 0 && (cJSON_IsTrue(stored) != 0) == enabled) {
        return true;
    }
    if (stored == nullptr) {
        cJSON_AddBoolToObject(section, switch_key, enabled ? 1 : 0);
    } else {
        json_replace(section, switch_key, json_ptr(cJSON_CreateBool(enabled ? 1 : 0)));
    }
    return nimbrelc_config_save();
}

std::optional<bool> file_service_is_daemon_up(const char *daemon) {
    bool is_up = false;
    if (service_manager_is_up(daemon, &is_up) != 0) {
        return std::nullopt;
    }
    return is_up;
}

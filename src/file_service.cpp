#include "file_service.h"

#include <utility>

#include "common/json_ptr.h"
#include "config.h"
#include "nimbrelc_utils_json.h"
#include "service_manager.h"

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

bool file_service_is_enabled(const char *enabled_path) {
    return cJSON_IsTrue(get_config_item(enabled_path)) != 0;
}

bool file_service_is_switched_on(const char *enabled_path) {
    const cJSON *enabled = get_config_item(enabled_path);
    return cJSON_IsTrue(enabled) != 0 || (cJSON_IsNumber(enabled) != 0 && enabled->valueint != 0);
}

bool file_service_save_state(const char *enabled_path, bool enabled) {
    cJSON *section = nullptr;
    const cJSON *stored = nimbrelc_utils_get_json_object(get_config_root(), enabled_path, &section);
    if (cJSON_IsBool(stored) != 0 && (cJSON_IsTrue(stored) != 0) == enabled) {
        return true;
    }
    json_ptr value(cJSON_CreateBool(enabled ? 1 : 0));
    if (stored != nullptr) {
        return nimbrelc_utils_replace_json_object(get_config_root(), enabled_path,
                                                  std::move(value)) &&
               nimbrelc_config_save();
    }
    return false;
}

std::optional<bool> file_service_is_daemon_up(const char *daemon) {
    bool is_up = false;
    if (service_manager_is_up(daemon, &is_up) != 0) {
        return std::nullopt;
    }
    return is_up;
}

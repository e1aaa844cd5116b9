#include "maintenance/upgrade_config.h"

#include <utility>

#include "common/json.h"
#include "common/json_ptr.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "config/config.h"

namespace {

constexpr const char *log_category = "upgrade_config";

// Only the JSON value true counts, no number and no text.
void reply_flag(const char *path, message_bus_request request) {
    message_bus_send_bool_reply(std::move(request), cJSON_IsTrue(get_config_item(path)) != 0);
}

void validation_enabled_callback(int32_t /*argc*/, const message_bus_arg * /*args*/,
                                 message_bus_request request) {
    reply_flag("upgradeConfig.firmwareValidationEnabled", std::move(request));
}

void development_builds_allowed_callback(int32_t /*argc*/, const message_bus_arg * /*args*/,
                                         message_bus_request request) {
    reply_flag("upgradeConfig.developmentBuildsAllowed", std::move(request));
}

void minimum_version_callback(int32_t /*argc*/, const message_bus_arg * /*args*/,
                              message_bus_request request) {
    message_bus_send_string_reply(
        std::move(request),
        nimbrelc_utils_empty_if_null_json(get_config_item("upgradeConfig.minimumFirmwareVersion")));
}

constexpr struct {
    const char *member;
    message_bus_method_handler handler;
} methods[] = {
    {"ValidationEnabled", validation_enabled_callback},
    {"DevelopmentBuildsAllowed", development_builds_allowed_callback},
    {"MinimumVersion", minimum_version_callback},
};

}  // namespace

bool upgrade_config_start(event_base * /*base*/) {
    for (const auto &method : methods) {
        if (!message_bus_add_method_listener("/signature", "com.kelvanto.firmware.upgrade",
                                             method.member, method.handler)) {
            LOG_ERROR("message_bus_add_method_listener failed");
            return false;
        }
    }
    return true;
}

bool upgrade_config_stop() {
    return true;
}

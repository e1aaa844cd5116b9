// Answers the firmware-upgrade component's questions about the upgrade policy in the configuration.
#include <utility>

#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "config/config.h"
#include "maintenance/maintenance.h"

namespace {

constexpr const char *log_category = "upgrade_config";

// Only the JSON value true counts, no number and no text.
void reply_flag(const char *path, message_bus_request request) {
    message_bus_send_bool_reply(std::move(request), get_config_flag(path));
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
    message_bus_send_string_reply(std::move(request),
                                  get_config_text("upgradeConfig.minimumFirmwareVersion"));
}

constexpr const char *object = "/signature";
constexpr const char *interface = "com.kelvanto.firmware.upgrade";
constexpr message_bus_method methods[] = {
    {object, interface, "ValidationEnabled", validation_enabled_callback},
    {object, interface, "DevelopmentBuildsAllowed", development_builds_allowed_callback},
    {object, interface, "MinimumVersion", minimum_version_callback},
};

}  // namespace

bool upgrade_config_start(event_base * /*base*/) {
    if (!message_bus_add_methods(log_category, methods)) {
        LOG_ERROR("message_bus_add_method_listener failed");
        return false;
    }
    return true;
}

bool upgrade_config_stop() {
    return true;
}

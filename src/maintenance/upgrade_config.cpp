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

void validation_enabled_callback(const message_bus_args & /*args*/, message_bus_request request) {
    reply_flag("upgradeConfig.firmwareValidationEnabled", std::move(request));
}

void development_builds_allowed_callback(const message_bus_args & /*args*/,
                                         message_bus_request request) {
    reply_flag("upgradeConfig.developmentBuildsAllowed", std::move(request));
}

void minimum_version_callback(const message_bus_args & /*args*/, message_bus_request request) {
    message_bus_send_string_reply(std::move(request),
                                  get_config_text("upgradeConfig.minimumFirmwareVersion"));
}

constexpr message_bus_method methods[] = {
    {.member = "ValidationEnabled", .handler = validation_enabled_callback},
    {.member = "DevelopmentBuildsAllowed", .handler = development_builds_allowed_callback},
    {.member = "MinimumVersion", .handler = minimum_version_callback},
};

}  // namespace

bool upgrade_config_start() {
    return message_bus_add_methods(log_category, "/signature", "com.kelvanto.firmware.upgrade",
                                   methods, "message_bus_add_method_listener failed");
}

bool upgrade_config_stop() {
    return true;
}

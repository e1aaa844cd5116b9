// The life of the VPN: what starts, stops and restarts its server.
#include "common/dates.h"
#include "common/logger.h"
#include "config/config.h"
#include "config/stored_secrets.h"
#include "remote_access/firewall.h"
#include "remote_access/remote_access.h"
#include "remote_access/vpn_request_handler.h"
#include "remote_access/vpn_server.h"

namespace {

constexpr const char *log_category = "vpn";

bool is_configuration_valid() {
    const cJSON *voip_calls_block_enable = get_config_item(vpn_voip_calls_block_enable_path);
    const cJSON *global_enable = get_config_item(vpn_global_enable_path);
    const cJSON *enable = get_config_item(vpn_enable_path);
    const cJSON *username = get_config_item(vpn_username_path);
    const cJSON *password = get_config_item(stored_vpn_password.path);
    const cJSON *preshared_key = get_config_item(stored_vpn_preshared_key.path);
    const cJSON *timestamp = get_config_item(vpn_last_connect_timestamp_path);
    const cJSON *duration = get_config_item(vpn_last_connection_duration_path);
    if (!voip_calls_block_enable || !global_enable || !enable || !username || !password ||
        !preshared_key || !timestamp || !duration) {
        LOG_ERROR("Bad configuration. One of the fields is not present");
        return false;
    }
    const bool switches = cJSON_IsBool(voip_calls_block_enable) && cJSON_IsBool(global_enable) &&
                          cJSON_IsBool(enable);
    const bool credentials = cJSON_IsString(username) && cJSON_IsString(password) &&
                             (cJSON_IsString(preshared_key) || cJSON_IsNull(preshared_key));
    if (!switches || !credentials ||
        !(cJSON_IsNull(timestamp) ||
          (cJSON_IsString(timestamp) && is_datetime(timestamp->valuestring))) ||
        !(cJSON_IsNumber(duration) || cJSON_IsNull(duration))) {
        LOG_ERROR("Bad configuration. Some fields have bad values.");
        return false;
    }
    return true;
}

}  // namespace

bool vpn_start() {
    return is_configuration_valid() && vpn_request_handler_start() && vpn_restart();
}

bool vpn_stop() {
    vpn_stop_daemons();
    return firewall_stop();
}

bool vpn_restart() {
    vpn_stop_daemons();
    if (!vpn_write_configuration()) {
        return false;
    }
    return vpn_is_switched_on() ? vpn_start_daemons() : true;
}

bool vpn_after_set_enable() {
    return vpn_is_switched_on() ? vpn_start_daemons() : vpn_stop_daemons();
}

bool vpn_after_set_voip_calls_block_enable() {
    return vpn_apply_firewall_mode();
}

// The life of the VPN: what starts, stops and restarts its server.
#include "common/dates.h"
#include "common/logger.h"
#include "config/config.h"
#include "config/stored_secrets.h"
#include "remote_access/remote_access.h"
#include "remote_access/vpn_server.h"

namespace {

constexpr const char *log_category = "vpn";

constexpr config_rule rules[] = {
    {vpn_voip_calls_block_enable_path, cJSON_IsBool},
    {vpn_global_enable_path, cJSON_IsBool},
    {vpn_enable_path, cJSON_IsBool},
    {vpn_username_path, cJSON_IsString},
    {stored_vpn_password.path, cJSON_IsString},
    {stored_vpn_preshared_key.path,
     [](const cJSON *key) -> cJSON_bool { return cJSON_IsString(key) || cJSON_IsNull(key); }},
    {vpn_last_connect_timestamp_path,
     [](const cJSON *date) -> cJSON_bool {
         return cJSON_IsNull(date) || (cJSON_IsString(date) && is_datetime(date->valuestring));
     }},
    {vpn_last_connection_duration_path,
     [](const cJSON *minutes) -> cJSON_bool {
         return cJSON_IsNumber(minutes) || cJSON_IsNull(minutes);
     }},
};

}  // namespace

bool vpn_start() {
    return config_is_valid(log_category, rules) && vpn_request_handler_start() && vpn_restart();
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

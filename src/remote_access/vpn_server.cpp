// Logs as "vpn".
#include "remote_access/vpn_server.h"

#include <string>

#include "common/logger.h"
#include "config/config.h"
#include "config/stored_secrets.h"
#include "platform/launch.h"
#include "platform/service_manager.h"

namespace {

constexpr const char *log_category = "vpn";

constexpr const char *l2tp_daemon = "openl2tpd";
constexpr const char *ipsec_daemon = "ipsec";

// A stored secret stays encrypted on its way to the script; "0v" marks it so.
std::string secret_argument(const cJSON *stored) {
    // kept: without a pre-shared key the script gets the word "0v(null)".
    const char *text = cJSON_IsString(stored) ? stored->valuestring : "(null)";
    return launch_escape_unquoted(std::string("0v") + text);
}

}  // namespace

bool vpn_is_switched_on() {
    return get_config_flag(vpn_enable_path) && get_config_flag(vpn_global_enable_path);
}

bool vpn_apply_firewall_mode() {
    if (!get_config_flag(vpn_global_enable_path)) {
        LOG_INFO("VPN Firewall mode 0");
        return firewall_stop();
    }
    if (!get_config_flag(vpn_voip_calls_block_enable_path)) {
        LOG_INFO("VPN Firewall mode 1");
        return firewall_start();
    }
    LOG_INFO("VPN Firewall mode 2");
    return firewall_setup_vpn();
}

bool vpn_write_configuration() {
    const cJSON *username = get_config_item(vpn_username_path);
    const cJSON *password = get_config_item(stored_vpn_password.path);
    if (!cJSON_IsString(username) || !cJSON_IsString(password)) {
        // A start that failed does not keep a new address from coming here.
        LOG_ERROR("Bad configuration. Some fields have bad values.");
        return false;
    }
    // This doubles backslashes and escapes double quotes, among others, which outside of quotes is
    // what the script wants of a user name. kept: blanks split the name into several arguments.
    const std::string name_argument = launch_escape_unquoted(username->valuestring);
    const std::string password_argument = secret_argument(password);
    const std::string key_argument =
        secret_argument(get_config_item(stored_vpn_preshared_key.path));
    return launch_or_log(log_category,
                         {.not_run = "Failed run updateConfig.sh",
                          .exited = "updateConfig.sh exited with status: %d"},
                         nullptr, "sudo /usr/bin/scripts/vpn/updateConfig.sh %s %s %s",
                         name_argument.c_str(), password_argument.c_str(), key_argument.c_str());
}

bool vpn_start_daemons() {
    if (!or_log(log_category, vpn_apply_firewall_mode(), "Failed to setup firewall") ||
        !or_log(log_category, service_manager_start(l2tp_daemon) == 0,
                "Failed to start openl2tpd")) {
        return false;
    }
    if (!or_log(log_category, service_manager_start(ipsec_daemon) == 0,
                "Failed to start ipsec, closing openl2tpd")) {
        service_manager_stop(l2tp_daemon);
        return false;
    }
    return true;
}

bool vpn_stop_daemons() {
    const bool ipsec =
        or_log(log_category, service_manager_stop(ipsec_daemon) == 0, "Failed to stop ipsec");
    const bool l2tp =
        or_log(log_category, service_manager_stop(l2tp_daemon) == 0, "Failed to stop openl2tpd");
    return or_log(log_category, vpn_apply_firewall_mode(), "Failed to setup firewall") && ipsec &&
           l2tp;
}

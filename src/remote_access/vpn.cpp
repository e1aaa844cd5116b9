#include "remote_access/vpn.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

#include "common/dates.h"
#include "common/json.h"
#include "common/json_ptr.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/regular_expressions.h"
#include "common/secrets.h"
#include "config/config.h"
#include "config/stored_secrets.h"
#include "platform/launch.h"
#include "platform/launch_escape.h"
#include "platform/service_manager.h"
#include "remote_access/firewall.h"
#include "remote_access/vpn_devices.h"

namespace {

constexpr const char *log_category = "vpn";

constexpr const char *voip_calls_block_enable_path = "vpn.voIPCallsBlockEnable";
constexpr const char *global_enable_path = "vpn.globalEnable";
constexpr const char *enable_path = "vpn.enable";
constexpr const char *username_path = "vpn.username";
constexpr const char *password_path = "vpn.password4";
constexpr const char *preshared_key_path = "vpn.presharedkey4";
constexpr const char *last_connect_timestamp_path = "vpn.lastConnectTimestamp";
constexpr const char *last_connection_duration_path = "vpn.lastConnectionDuration";

constexpr const char *l2tp_daemon = "openl2tpd";
constexpr const char *ipsec_daemon = "ipsec";

nimbrelc_regex username_regex;
nimbrelc_regex secret_length_regex;
nimbrelc_regex letter_regex;
nimbrelc_regex non_letter_regex;

struct pattern {
    nimbrelc_regex &regex;
    const char *text;
};
constexpr pattern patterns[] = {
    {username_regex, "^[ -~]{3,32}$"},
    {secret_length_regex, "^[ -~]{8,64}$"},
    {letter_regex, "[A-Za-z]"},
    {non_letter_regex, "[^A-Za-z]"},
};

bool is_true(const char *path) {
    return cJSON_IsTrue(get_config_item(path)) != 0;
}

bool is_switched_on() {
    return is_true(enable_path) && is_true(global_enable_path);
}

bool store(const char *path, cJSON *value) {
    return nimbrelc_utils_replace_json_object(get_config_root(), path, json_ptr(value));
}

bool is_valid_secret(const char *secret) {
    return nimbrelc_regex_match(secret_length_regex, secret) &&
           nimbrelc_regex_match(letter_regex, secret) &&
           nimbrelc_regex_match(non_letter_regex, secret);
}

bool is_configuration_valid() {
    const cJSON *voip_calls_block_enable = get_config_item(voip_calls_block_enable_path);
    const cJSON *global_enable = get_config_item(global_enable_path);
    const cJSON *enable = get_config_item(enable_path);
    const cJSON *username = get_config_item(username_path);
    const cJSON *password = get_config_item(password_path);
    const cJSON *preshared_key = get_config_item(preshared_key_path);
    const cJSON *timestamp = get_config_item(last_connect_timestamp_path);
    const cJSON *duration = get_config_item(last_connection_duration_path);
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

bool apply_firewall_mode() {
    if (!is_true(global_enable_path)) {
        LOG_INFO("VPN Firewall mode 0");
        return firewall_stop();
    }
    if (!is_true(voip_calls_block_enable_path)) {
        LOG_INFO("VPN Firewall mode 1");
        return firewall_start();
    }
    LOG_INFO("VPN Firewall mode 2");
    return firewall_setup_vpn();
}

bool start_daemons() {
    if (!apply_firewall_mode()) {
        LOG_ERROR("Failed to setup firewall");
        return false;
    }
    if (service_manager_start(l2tp_daemon) != 0) {
        LOG_ERROR("Failed to start openl2tpd");
        return false;
    }
    if (service_manager_start(ipsec_daemon) != 0) {
        LOG_ERROR("Failed to start ipsec, closing openl2tpd");
        service_manager_stop(l2tp_daemon);
        return false;
    }
    return true;
}

bool stop_daemons() {
    bool stopped = true;
    if (service_manager_stop(ipsec_daemon) != 0) {
        LOG_ERROR("Failed to stop ipsec");
        stopped = false;
    }
    if (service_manager_stop(l2tp_daemon) != 0) {
        LOG_ERROR("Failed to stop openl2tpd");
        stopped = false;
    }
    if (!apply_firewall_mode()) {
        LOG_ERROR("Failed to setup firewall");
        stopped = false;
    }
    return stopped;
}

// A stored secret stays encrypted on its way to the script; "0v" marks it so.
std::string secret_argument(const cJSON *stored) {
    // kept: without a pre-shared key the script gets the word "0v(null)".
    const char *text = cJSON_IsString(stored) ? stored->valuestring : "(null)";
    return launch_escape_unquoted(std::string("0v") + text);
}

bool write_vpn_configuration() {
    const cJSON *username = get_config_item(username_path);
    const cJSON *password = get_config_item(password_path);
    if (!cJSON_IsString(username) || !cJSON_IsString(password)) {
        // A start that failed does not keep a new address from coming here.
        LOG_ERROR("Bad configuration. Some fields have bad values.");
        return false;
    }
    // This doubles backslashes and escapes double quotes, among others, which outside of quotes is
    // what the script wants of a user name. kept: blanks split the name into several arguments.
    const std::string name_argument = launch_escape_unquoted(username->valuestring);
    const std::string password_argument = secret_argument(password);
    const std::string key_argument = secret_argument(get_config_item(preshared_key_path));
    int status = -1;
    if (launch_with_args("sudo /usr/bin/scripts/vpn/updateConfig.sh %s %s %s", &status, nullptr,
                         name_argument.c_str(), password_argument.c_str(),
                         key_argument.c_str()) != LAUNCH_OK) {
        LOG_ERROR("Failed run updateConfig.sh");
        return false;
    }
    if (status != 0) {
        LOG_ERROR("updateConfig.sh exited with status: %d", WEXITSTATUS(status));
        return false;
    }
    return true;
}

// --- Bus methods. An empty answer is the only sign of failure that callers get.

struct forwarded_port {
    const char *name;
    unsigned number;
    const char *rule;
};
constexpr forwarded_port forwarded_ports[] = {
    {"500", 500, "internal_98"},
    {"4500", 4500, "internal_99"},
};

const char *port_status(const forwarded_port &port) {
    int status = -1;
    if (launch_with_args("sudo /usr/bin/scripts/vpn/getPortForwardingStatus.sh %u %s", &status,
                         nullptr, port.number, port.rule) != LAUNCH_OK) {
        LOG_ERROR("Failed run getPortForwardingStatus.sh");
    }
    return status == 0 ? "PORT_IS_FREE" : "PORT_IN_USE";
}

// The members that both kinds of configuration reply begin with.
json_ptr restricted_config() {
    json_ptr config(cJSON_CreateObject());
    cJSON *statuses = cJSON_AddObjectToObject(config.get(), "portForwardingStatus");
    for (const forwarded_port &port : forwarded_ports) {
        cJSON_AddStringToObject(statuses, port.name, port_status(port));
    }
    cJSON_AddBoolToObject(config.get(), "enabled", is_true(enable_path));
    return config;
}

void reply_json(message_bus_request request, const cJSON *item) {
    const std::optional<std::string> text = nimbrelc_utils_print_json_unformatted(item);
    if (!text) {
        message_bus_send_no_reply(std::move(request));
        return;
    }
    message_bus_send_string_reply(std::move(request), text->c_str());
}

bool is_passphrase(const char *given, const char *passphrase) {
    // kept: what follows the right passphrase is not compared, but used for decryption.
    return strncmp(given, passphrase, strlen(passphrase)) == 0;
}

void reply_decrypted(message_bus_request request, const message_bus_arg *args) {
    const std::optional<std::string> secret =
        nimbrelc_utils_get_decrypted_string(args[0].string, args[1].string);
    if (!secret) {
        message_bus_send_no_reply(std::move(request));
        return;
    }
    message_bus_send_string_reply(std::move(request), secret->c_str());
}

void get_password_callback(int32_t argc, const message_bus_arg *args, message_bus_request request) {
    LOG_INFO("get_password_callback start");
    if (!message_bus_validate_params(request, argc, args, {MB_ARG_STRING, MB_ARG_STRING})) {
        LOG_WARN("Bad params passed to get_password_callback");
        return;  // kept: without an answer
    }
    if (!is_passphrase(args[1].string, stored_vpn_password.passphrase)) {
        LOG_WARN("Bad key passed to get_password_callback");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    reply_decrypted(std::move(request), args);
}

void get_preshared_key_callback(int32_t argc, const message_bus_arg *args,
                                message_bus_request request) {
    LOG_INFO("get_preshared_key_callback start");
    if (!message_bus_validate_params(request, argc, args, {MB_ARG_STRING, MB_ARG_STRING})) {
        LOG_WARN("Bad params passed to get_preshared_key_callback");
        return;  // kept: without an answer
    }
    if (!is_passphrase(args[1].string, stored_vpn_preshared_key.passphrase)) {
        LOG_WARN("Bad key passed to get_preshared_key_callback");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    reply_decrypted(std::move(request), args);
}

bool are_valid_credentials(const char *username, const char *password, const char *preshared_key) {
    if (!nimbrelc_regex_match(username_regex, username)) {
        LOG_ERROR("Invalid username");
        return false;
    }
    if (!is_valid_secret(password)) {
        LOG_ERROR("Invalid password");
        return false;
    }
    if (!is_valid_secret(preshared_key) || strcmp(password, preshared_key) == 0) {
        LOG_ERROR("Invalid presharedkey");
        return false;
    }
    return true;
}

bool save_credentials(bool enable, const char *username, const char *password,
                      const char *preshared_key) {
    const std::optional<std::string> encrypted_password =
        nimbrelc_utils_encrypt_and_base64_encode_data(password, stored_vpn_password.passphrase);
    if (!encrypted_password) {
        LOG_ERROR("Encryption of vpn password failed");
    }
    const std::optional<std::string> encrypted_key = nimbrelc_utils_encrypt_and_base64_encode_data(
        preshared_key, stored_vpn_preshared_key.passphrase);
    if (!encrypted_key) {
        LOG_ERROR("Encryption of vpn preshared key failed");
    }
    if (!encrypted_password || !encrypted_key) {
        return false;
    }
    store(enable_path, cJSON_CreateBool(enable));
    store(username_path, cJSON_CreateString(username));
    store(password_path, cJSON_CreateString(encrypted_password->c_str()));
    store(preshared_key_path, cJSON_CreateString(encrypted_key->c_str()));
    return nimbrelc_config_save();
}

void update_configuration(bool enable, const char *username, const char *password,
                          const char *preshared_key) {
    if (!is_true(global_enable_path) || !are_valid_credentials(username, password, preshared_key)) {
        return;
    }
    if (!save_credentials(enable, username, password, preshared_key)) {
        LOG_ERROR("Failed to save credentials");
        return;
    }
    if (!write_vpn_configuration()) {
        LOG_ERROR("Failed to write vpn configuration");
    }
    if (!stop_daemons()) {
        LOG_ERROR("Failed to write vpn configuration");  // kept: the same text
    }
    if (is_switched_on() && !start_daemons()) {
        LOG_ERROR("Failed to start daemons");
    }
}

void update_configuration_callback(int32_t argc, const message_bus_arg *args,
                                   message_bus_request request) {
    LOG_INFO("update_configuration_callback start");
    if (message_bus_validate_params(
            request, argc, args, {MB_ARG_BOOLEAN, MB_ARG_STRING, MB_ARG_STRING, MB_ARG_STRING})) {
        update_configuration(args[0].boolean(), args[1].string, args[2].string, args[3].string);
    } else {
        LOG_WARN("Bad params passed to get_preshared_key_callback");  // kept: another's name
    }
    message_bus_send_no_reply(std::move(request));
}

void set_enabled(bool enable) {
    if (!is_true(global_enable_path)) {
        return;
    }
    store(enable_path, cJSON_CreateBool(enable));
    if (!nimbrelc_config_save()) {
        LOG_ERROR("Failed to set enabled");
    }
    if (enable && !start_daemons()) {
        LOG_ERROR("Failed to start daemons");
    }
    if (!enable && !stop_daemons()) {
        LOG_ERROR("Failed to write vpn configuration");  // kept, though nothing was written
    }
}

void set_enabled_callback(int32_t argc, const message_bus_arg *args, message_bus_request request) {
    LOG_INFO("set_enabled_callback start");
    if (message_bus_validate_params(request, argc, args, {MB_ARG_BOOLEAN})) {
        set_enabled(args[0].boolean());
    } else {
        LOG_WARN("Bad params passed to set_enabled_callback");
    }
    message_bus_send_no_reply(std::move(request));
}

void get_config_callback(int32_t argc, const message_bus_arg * /*args*/,
                         message_bus_request request) {
    LOG_INFO("get_config_callback start");
    if (argc != 0) {
        LOG_WARN("get_config_callback doesn't accept arguments");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    const std::optional<std::string> password = nimbrelc_utils_get_decrypted_string(
        cJSON_GetStringValue(get_config_item(password_path)), stored_vpn_password.passphrase);
    if (!password) {
        LOG_ERROR("get_decrypted_password failed");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    const std::optional<std::string> preshared_key = nimbrelc_utils_get_decrypted_string(
        cJSON_GetStringValue(get_config_item(preshared_key_path)),
        stored_vpn_preshared_key.passphrase);
    if (!preshared_key) {
        LOG_ERROR("get_decrypted_presharedkey failed");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    const json_ptr config = restricted_config();
    cJSON_AddStringToObject(config.get(), "username",
                            nimbrelc_utils_empty_if_null_json(get_config_item(username_path)));
    cJSON_AddStringToObject(config.get(), "password", password->c_str());
    cJSON_AddStringToObject(config.get(), "presharedkey", preshared_key->c_str());
    reply_json(std::move(request), config.get());
}

void get_config_restricted_callback(int32_t argc, const message_bus_arg * /*args*/,
                                    message_bus_request request) {
    LOG_INFO("get_config_restricted_callback start");
    if (argc != 0) {
        LOG_WARN("get_config_restricted_callback doesn't accept arguments");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    reply_json(std::move(request), restricted_config().get());
}

void get_global_status_callback(int32_t argc, const message_bus_arg * /*args*/,
                                message_bus_request request) {
    LOG_INFO("get_global_status_callback start");
    if (argc != 0) {
        LOG_WARN("get_global_status_callback doesn't accept arguments");
        // kept: such a call is answered twice, first empty and then as any other.
        message_bus_send_no_reply(request.share());
    }
    message_bus_send_bool_reply(std::move(request), is_true(global_enable_path));
}

void set_last_connection_details(const char *end_date, uint32_t seconds) {
    if (!is_datetime(end_date)) {
        LOG_ERROR("Invalid  end date");
        return;
    }
    const uint32_t minutes = seconds / 60;
    store(last_connect_timestamp_path, cJSON_CreateString(end_date));
    store(last_connection_duration_path, cJSON_CreateNumber(minutes));
    if (!nimbrelc_config_save()) {
        LOG_ERROR("set_last_connection failed");
    }
}

void set_last_connection_details_callback(int32_t argc, const message_bus_arg *args,
                                          message_bus_request request) {
    LOG_INFO("set_last_connection_details_callback start");
    if (message_bus_validate_params(request, argc, args, {MB_ARG_STRING, MB_ARG_UINT32})) {
        set_last_connection_details(args[0].string, args[1].word);
    } else {
        LOG_WARN("Bad params passed to set_last_connection_details_callback");
    }
    message_bus_send_no_reply(std::move(request));
}

void get_last_connection_details_callback(int32_t argc, const message_bus_arg * /*args*/,
                                          message_bus_request request) {
    LOG_INFO("get_last_connection_details_callback start");
    if (argc != 0) {
        LOG_WARN("get_last_connection_details_callback doesn't accept arguments");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    const cJSON *timestamp = get_config_item(last_connect_timestamp_path);
    const cJSON *duration = get_config_item(last_connection_duration_path);
    const bool known = cJSON_IsString(timestamp) && cJSON_IsNumber(duration);
    const json_ptr details(cJSON_CreateObject());
    cJSON_AddStringToObject(details.get(), "lastConnectTimestamp",
                            known ? timestamp->valuestring : "1900-01-01T00:00:00");
    cJSON_AddNumberToObject(details.get(), "lastConnectionDuration",
                            known ? duration->valuedouble : 0);
    reply_json(std::move(request), details.get());
}

std::optional<std::string> read_devices() {
    int status = -1;
    std::string output;
    if (launch_with_args("sudo /usr/bin/scripts/vpn/getConnectedDevices.sh", &status, &output) !=
        LAUNCH_OK) {
        LOG_ERROR("Failed run getConnectedDevices.sh");
        return std::nullopt;
    }
    if (status != 0) {
        LOG_ERROR("getConnectedDevices.sh failed with status: %d", WEXITSTATUS(status));
        return std::nullopt;
    }
    if (output.empty()) {
        return std::nullopt;
    }
    return output;
}

void get_devices_callback(int32_t argc, const message_bus_arg * /*args*/,
                          message_bus_request request) {
    LOG_INFO("get_devices_callback start");
    if (argc != 0) {
        LOG_WARN("get_devices_callback doesn't accept arguments");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    const std::optional<std::string> output = read_devices();
    if (!output) {
        LOG_ERROR("get_devices() failed");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    const json_ptr devices = vpn_devices_parse(*output);
    LOG_INFO("%s", output->c_str());
    reply_json(std::move(request), devices.get());
}

struct method_listener {
    const char *method;
    message_bus_method_handler handler;
};
constexpr method_listener methods[] = {
    {"getPassword", get_password_callback},
    {"getPresharedKey", get_preshared_key_callback},
    {"updateConfig", update_configuration_callback},
    {"updateConfigRestricted", set_enabled_callback},
    {"getConfig", get_config_callback},
    {"getConfigRestricted", get_config_restricted_callback},
    {"getGlobalStatus", get_global_status_callback},
    {"setLastConnectionDetails", set_last_connection_details_callback},
    {"getLastConnectionDetails", get_last_connection_details_callback},
    {"getDevices", get_devices_callback},
};

bool add_method_listener(const method_listener &row) {
    return message_bus_add_method_listener("/ws/vpn", "com.kelvanto.nimbrel.vpn", row.method,
                                           row.handler);
}

bool compile_pattern(const pattern &row) {
    return nimbrelc_regex_compile(row.regex, row.text);
}

}  // namespace

bool vpn_start(event_base * /*base*/) {
    if (!is_configuration_valid()) {
        return false;
    }
    if (!std::all_of(std::begin(patterns), std::end(patterns), compile_pattern)) {
        LOG_ERROR("Failed to compile regexes");
        return false;
    }
    if (!std::all_of(std::begin(methods), std::end(methods), add_method_listener)) {
        LOG_ERROR("message_bus_add_method_listener failed");
        return false;
    }
    return vpn_restart();
}

bool vpn_stop() {
    stop_daemons();
    return firewall_stop();
}

bool vpn_restart() {
    stop_daemons();
    if (!write_vpn_configuration()) {
        return false;
    }
    return is_switched_on() ? start_daemons() : true;
}

bool vpn_after_set_enable(event_base * /*base*/) {
    return is_switched_on() ? start_daemons() : stop_daemons();
}

bool vpn_after_set_voip_calls_block_enable(event_base * /*base*/) {
    return apply_firewall_mode();
}

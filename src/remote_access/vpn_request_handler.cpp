// Logs as "vpn".
// The VPN for the web front end, bus object /ws/vpn: settings, credentials and connected clients.
// An empty answer is the only sign of failure that callers get.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

#include "common/dates.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/regular_expressions.h"
#include "common/secrets.h"
#include "config/config.h"
#include "config/stored_secrets.h"
#include "platform/launch.h"
#include "remote_access/vpn_server.h"

namespace {

constexpr const char *log_category = "vpn";

constexpr const char *username_pattern = "^[ -~]{3,32}$";
constexpr const char *secret_patterns[] = {"^[ -~]{8,64}$", "[A-Za-z]", "[^A-Za-z]"};

bool matches(const char *pattern, const char *text) {
    return text_matches(log_category, pattern, text, "Failed to compile regexes");
}

bool is_valid_secret(const char *secret) {
    return std::all_of(std::begin(secret_patterns), std::end(secret_patterns),
                       [secret](const char *pattern) { return matches(pattern, secret); });
}

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
    int code = LAUNCH_ERROR;
    if (launch_with_args("sudo /usr/bin/scripts/vpn/getPortForwardingStatus.sh %u %s", &code,
                         nullptr, port.number, port.rule) != LAUNCH_OK) {
        LOG_ERROR("Failed run getPortForwardingStatus.sh");
    }
    return code == 0 ? "PORT_IS_FREE" : "PORT_IN_USE";
}

// The members that both kinds of configuration reply begin with.
json_ptr restricted_config() {
    json_ptr config(cJSON_CreateObject());
    cJSON *statuses = cJSON_AddObjectToObject(config.get(), "portForwardingStatus");
    for (const forwarded_port &port : forwarded_ports) {
        cJSON_AddStringToObject(statuses, port.name, port_status(port));
    }
    cJSON_AddBoolToObject(config.get(), "enabled", get_config_flag(vpn_enable_path));
    return config;
}

void reply_json(message_bus_request request, const cJSON *item) {
    message_bus_send_string_reply(std::move(request), print_json_unformatted(item).c_str());
}

// kept: what follows the right passphrase is not compared, but used for decryption.
bool is_passphrase(const char *given, const char *passphrase) {
    return strncmp(given, passphrase, strlen(passphrase)) == 0;
}

void reply_decrypted(const message_bus_args &args, message_bus_request request,
                     const char *passphrase, const char *bad_key_text) {
    if (!is_passphrase(args[1].string, passphrase)) {
        LOG_WARN("%s", bad_key_text);
        message_bus_send_no_reply(std::move(request));
        return;
    }
    std::optional<std::string> secret =
        nimbrelc_utils_get_decrypted_string(args[0].string, args[1].string);
    if (!secret && strcmp(args[1].string, passphrase) != 0) {
        secret = nimbrelc_utils_get_decrypted_string(args[0].string, passphrase);
    }
    if (!secret) {
        message_bus_send_no_reply(std::move(request));
        return;
    }
    message_bus_send_string_reply(std::move(request), secret->c_str());
}

void get_password_callback(const message_bus_args &args, message_bus_request request) {
    reply_decrypted(args, std::move(request), stored_vpn_password.passphrase,
                    "Bad key passed to get_password_callback");
}

void get_preshared_key_callback(const message_bus_args &args, message_bus_request request) {
    reply_decrypted(args, std::move(request), stored_vpn_preshared_key.passphrase,
                    "Bad key passed to get_preshared_key_callback");
}

bool are_valid_credentials(const char *username, const char *password, const char *preshared_key) {
    return or_log(log_category, matches(username_pattern, username), "Invalid username") &&
           or_log(log_category, is_valid_secret(password), "Invalid password") &&
           or_log(log_category,
                  is_valid_secret(preshared_key) && strcmp(password, preshared_key) != 0,
                  "Invalid presharedkey");
}

bool save_credentials(bool enable, const char *username, const char *password,
                      const char *preshared_key) {
    const auto encrypted_password = or_log(
        log_category,
        nimbrelc_utils_encrypt_and_base64_encode_data(password, stored_vpn_password.passphrase),
        "Encryption of vpn password failed");
    const auto encrypted_key = or_log(log_category,
                                      nimbrelc_utils_encrypt_and_base64_encode_data(
                                          preshared_key, stored_vpn_preshared_key.passphrase),
                                      "Encryption of vpn preshared key failed");
    if (!encrypted_password || !encrypted_key) {
        return false;
    }
    set_config_flag(vpn_enable_path, enable);
    set_config_text(vpn_username_path, username);
    set_config_text(stored_vpn_password.path, encrypted_password->c_str());
    set_config_text(stored_vpn_preshared_key.path, encrypted_key->c_str());
    return nimbrelc_config_save();
}

void start_daemons() {
    or_log(log_category, vpn_start_daemons(), "Failed to start daemons");
}

// kept: the text, though nothing was to be written.
void stop_daemons() {
    or_log(log_category, vpn_stop_daemons(), "Failed to write vpn configuration");
}

void update_configuration(const message_bus_args &args) {
    const char *username = args[1].string;
    const char *password = args[2].string;
    const char *preshared_key = args[3].string;
    if (!get_config_flag(vpn_global_enable_path) ||
        !are_valid_credentials(username, password, preshared_key)) {
        return;
    }
    if (!or_log(log_category,
                save_credentials(args[0].boolean(), username, password, preshared_key),
                "Failed to save credentials")) {
        return;
    }
    or_log(log_category, vpn_write_configuration(), "Failed to write vpn configuration");
    stop_daemons();
    if (vpn_is_switched_on()) {
        start_daemons();
    }
}

void set_enabled(const message_bus_args &args) {
    const bool enable = args[0].boolean();
    if (!get_config_flag(vpn_global_enable_path)) {
        return;
    }
    set_config_flag(vpn_enable_path, enable);
    or_log(log_category, nimbrelc_config_save(), "Failed to set enabled");
    if (enable) {
        start_daemons();
    } else {
        stop_daemons();
    }
}

void get_config_callback(const message_bus_args & /*args*/, message_bus_request request) {
    const auto password =
        or_log(log_category, stored_secret_decrypt(get_config_root(), stored_vpn_password),
               "get_decrypted_password failed");
    const auto preshared_key =
        password ? or_log(log_category,
                          stored_secret_decrypt(get_config_root(), stored_vpn_preshared_key),
                          "get_decrypted_presharedkey failed")
                 : std::nullopt;
    if (!preshared_key) {
        message_bus_send_no_reply(std::move(request));
        return;
    }
    const json_ptr config = restricted_config();
    cJSON_AddStringToObject(config.get(), "username", get_config_text(vpn_username_path));
    cJSON_AddStringToObject(config.get(), "password", password->c_str());
    cJSON_AddStringToObject(config.get(), "presharedkey", preshared_key->c_str());
    reply_json(std::move(request), config.get());
}

void get_config_restricted_callback(const message_bus_args & /*args*/,
                                    message_bus_request request) {
    reply_json(std::move(request), restricted_config().get());
}

void get_global_status_callback(const message_bus_args &args, message_bus_request request) {
    if (args.count() != 0) {
        LOG_WARN("get_global_status_callback doesn't accept arguments");
        // kept: such a call is answered twice, first empty and then as any other.
        message_bus_send_no_reply(request.share());
    }
    message_bus_send_bool_reply(std::move(request), get_config_flag(vpn_global_enable_path));
}

void set_last_connection_details(const message_bus_args &args) {
    const char *end_date = args[0].string;
    if (!is_datetime(end_date)) {
        LOG_ERROR("Invalid  end date");
        return;
    }
    if (!nimbrelc_config_has_room_for(end_date)) {
        return;
    }
    const uint32_t minutes = args[1].word / 60;
    set_config_text(vpn_last_connect_timestamp_path, end_date);
    set_config_item(vpn_last_connection_duration_path, json_ptr(cJSON_CreateNumber(minutes)));
    or_log(log_category, nimbrelc_config_save(), "set_last_connection failed");
}

void get_last_connection_details_callback(const message_bus_args & /*args*/,
                                          message_bus_request request) {
    const cJSON *timestamp = get_config_item(vpn_last_connect_timestamp_path);
    const cJSON *duration = get_config_item(vpn_last_connection_duration_path);
    const bool known = cJSON_IsString(timestamp) && cJSON_IsNumber(duration);
    const json_ptr details(cJSON_CreateObject());
    cJSON_AddStringToObject(details.get(), "lastConnectTimestamp",
                            known ? timestamp->valuestring : "1900-01-01T00:00:00");
    cJSON_AddNumberToObject(details.get(), "lastConnectionDuration",
                            known ? duration->valuedouble : 0);
    reply_json(std::move(request), details.get());
}

// Cuts the next token off `rest`; empty when there is none. As with strtok() there are no empty
// ones, and every other character, a line's end too, belongs to its token.
std::string take_token(std::string_view &rest) {
    constexpr char separator = ';';
    rest.remove_prefix(std::min(rest.find_first_not_of(separator), rest.size()));
    std::string token(rest.substr(0, rest.find(separator)));
    rest.remove_prefix(token.size());
    return token;
}

// The script's tokens come three at a time; what is left after the last triple is dropped.
json_ptr parse_devices(std::string_view output) {
    json_ptr devices(cJSON_CreateArray());
    while (true) {
        const std::string count = take_token(output);
        const std::string format = take_token(output);
        const std::string address = take_token(output);
        if (address.empty()) {
            return devices;
        }
        cJSON *device = cJSON_CreateObject();
        cJSON_AddStringToObject(device, "ipAddress", address.c_str());
        cJSON *connection_time = cJSON_AddObjectToObject(device, "connectionTime");
        cJSON_AddStringToObject(connection_time, "count", count.c_str());
        cJSON_AddStringToObject(connection_time, "format", format.c_str());
        cJSON_AddItemToArray(devices.get(), device);
    }
}

void get_devices_callback(const message_bus_args & /*args*/, message_bus_request request) {
    std::string output;
    const bool listed = launch_or_log(log_category,
                                      {.not_run = "Failed run getConnectedDevices.sh",
                                       .exited = "getConnectedDevices.sh failed with status: %d"},
                                      &output, "sudo /usr/bin/scripts/vpn/getConnectedDevices.sh");
    if (!listed || output.empty()) {
        LOG_ERROR("get_devices() failed");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    const json_ptr devices = parse_devices(output);
    LOG_INFO("%s", output.c_str());
    reply_json(std::move(request), devices.get());
}

constexpr auto empty_reply = message_bus_refusal::empty_reply;
constexpr message_bus_method methods[] = {
    // kept: wrong arguments get no answer from these two.
    {.member = "getPassword",
     .handler = get_password_callback,
     .args = "ss",
     .refusal_text = "Bad params passed to get_password_callback",
     .arrival_text = "get_password_callback start"},
    {.member = "getPresharedKey",
     .handler = get_preshared_key_callback,
     .args = "ss",
     .refusal_text = "Bad params passed to get_preshared_key_callback",
     .arrival_text = "get_preshared_key_callback start"},
    // kept: the refusal names another handler.
    {.member = "updateConfig",
     .handler = message_bus_answer_empty<update_configuration>,
     .args = "bsss",
     .refusal_text = "Bad params passed to get_preshared_key_callback",
     .refusal = empty_reply,
     .arrival_text = "update_configuration_callback start"},
    {.member = "updateConfigRestricted",
     .handler = message_bus_answer_empty<set_enabled>,
     .args = "b",
     .refusal_text = "Bad params passed to set_enabled_callback",
     .refusal = empty_reply,
     .arrival_text = "set_enabled_callback start"},
    {.member = "getConfig",
     .handler = get_config_callback,
     .args = "",
     .refusal_text = "get_config_callback doesn't accept arguments",
     .refusal = empty_reply,
     .arrival_text = "get_config_callback start"},
    {.member = "getConfigRestricted",
     .handler = get_config_restricted_callback,
     .args = "",
     .refusal_text = "get_config_restricted_callback doesn't accept arguments",
     .refusal = empty_reply,
     .arrival_text = "get_config_restricted_callback start"},
    {.member = "getGlobalStatus",
     .handler = get_global_status_callback,
     .arrival_text = "get_global_status_callback start"},
    {.member = "setLastConnectionDetails",
     .handler = message_bus_answer_empty<set_last_connection_details>,
     .args = "su",
     .refusal_text = "Bad params passed to set_last_connection_details_callback",
     .refusal = empty_reply,
     .arrival_text = "set_last_connection_details_callback start"},
    {.member = "getLastConnectionDetails",
     .handler = get_last_connection_details_callback,
     .args = "",
     .refusal_text = "get_last_connection_details_callback doesn't accept arguments",
     .refusal = empty_reply,
     .arrival_text = "get_last_connection_details_callback start"},
    {.member = "getDevices",
     .handler = get_devices_callback,
     .args = "",
     .refusal_text = "get_devices_callback doesn't accept arguments",
     .refusal = empty_reply,
     .arrival_text = "get_devices_callback start"},
};

}  // namespace

bool vpn_request_handler_start() {
    return message_bus_add_methods(log_category, "/ws/vpn", "com.kelvanto.nimbrel.vpn", methods,
                                   "message_bus_add_method_listener failed");
}

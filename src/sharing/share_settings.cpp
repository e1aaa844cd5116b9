// Logs as "file_services_request_handler".
#include "sharing/share_settings.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>

#include "common/json.h"
#include "common/logger.h"
#include "common/regular_expressions.h"
#include "common/secrets.h"
#include "common/texts.h"
#include "config/config.h"
#include "config/stored_secrets.h"
#include "sharing/sharing.h"

namespace {

constexpr const char *log_category = "file_services_request_handler";

constexpr const char *central_storage_path = "centralStorage.enabled";
constexpr const char *protection_path = "storage.enabled";
constexpr const char *username_path = "storage.username";
constexpr const char *password_path = stored_storage_password.path;

// kept: between brackets the backslash stands for itself too.
constexpr const char *username_pattern = "^[a-z0-9_\\.-]{3,32}$";
constexpr const char *password_patterns[] = {"^[ -~]{8,16}$", "[a-zA-Z]+", "[ -@[-`{-~]+"};

bool matches(const char *pattern, const char *text) {
    return text_matches(log_category, pattern, text,
                        "Cannot compile validators for shares protection user/pass");
}

bool validate_credentials(const char *username, const char *password) {
    if (!matches(username_pattern, username)) {
        LOG_INFO("Username does not meet required criteria");
        return false;
    }
    if (strcmp(username, password) == 0) {
        LOG_INFO("Password must be different than username");
        return false;
    }
    if (!std::all_of(std::begin(password_patterns), std::end(password_patterns),
                     [password](const char *pattern) { return matches(pattern, password); })) {
        LOG_INFO("Password does not meet required criteria");
        return false;
    }
    return true;
}

}  // namespace

bool file_services_request_handler_is_central_storage_enabled() {
    return get_config_flag(central_storage_path);
}

bool share_settings_change_central_storage(bool enabled) {
    if (enabled == file_services_request_handler_is_central_storage_enabled()) {
        LOG_INFO("Central storage configuration has not been changed");
        return false;
    }
    set_config_flag(central_storage_path, enabled);
    return or_log(log_category, nimbrelc_config_save(),
                  "Error saving central storage configuration");
}

bool file_services_request_handler_is_storage_protection_enabled() {
    return get_config_flag(protection_path) &&
           !nimbrelc_utils_json_is_null_or_empty(get_config_item(username_path)) &&
           !nimbrelc_utils_json_is_null_or_empty(get_config_item(password_path));
}

bool share_settings_is_protection_wanted() {
    return get_config_flag(protection_path);
}

const char *share_settings_get_username() {
    return get_config_text(username_path);
}

storage_config file_services_request_handler_get_storage_config() {
    const char *stored = get_config_text(password_path);
    return {.enabled = get_config_flag(protection_path),
            .username = get_config_text(username_path),
            .password = *stored == '\0'
                            ? ""
                            : file_services_request_handler_decrypt_storage_password(stored)};
}

std::optional<std::string> file_services_request_handler_encrypt_storage_password(
    const char *text) {
    if (nimbrelc_utils_is_null_or_empty(text)) {
        return std::nullopt;
    }
    return or_log(
        log_category,
        nimbrelc_utils_encrypt_and_base64_encode_data(text, stored_storage_password.passphrase),
        "Encryption of storage password failed");
}

std::optional<std::string> file_services_request_handler_decrypt_storage_password(
    const char *text) {
    if (nimbrelc_utils_is_null_or_empty(text)) {
        return std::nullopt;
    }
    return or_log(log_category,
                  decrypted_text(nimbrelc_utils_decrypt_base64_encoded_data(
                      text, stored_storage_password.passphrase)),
                  "Decryption of storage password failed");
}

// kept: they differ from stored credentials all the same, so that a request for the flag alone is
// then saved (and the services are reloaded) even when it changes nothing.
bool share_settings_change_protection(bool wanted, const char *username, const char *password) {
    const storage_config stored = file_services_request_handler_get_storage_config();
    if (!stored.password) {
        return false;
    }
    const bool new_state = wanted != stored.enabled;
    const bool new_username = stored.username != username;
    const bool new_password = stored.password != password;
    if (!new_state && !new_username && !new_password) {
        LOG_INFO("Storage configuration hasn't changed");
        return false;
    }
    const bool has_username = *username != '\0';
    const bool has_password = *password != '\0';
    if ((has_username || has_password) && !validate_credentials(username, password)) {
        return false;
    }
    if (new_state) {
        set_config_flag(protection_path, wanted);
    }
    if (new_username && has_username) {
        set_config_text(username_path, username);
    }
    if (new_password && has_password) {
        const auto encrypted = file_services_request_handler_encrypt_storage_password(password);
        if (!encrypted) {
            return false;  // kept: what is stored above stays in memory, unsaved
        }
        set_config_text(password_path, encrypted->c_str());
    }
    return or_log(log_category, nimbrelc_config_save(), "Error saving storage configuration");
}

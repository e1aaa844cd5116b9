#include "sharing/file_services_request_handler.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

#include "common/json.h"
#include "common/json_ptr.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/regular_expressions.h"
#include "common/secrets.h"
#include "common/texts.h"
#include "config/config.h"
#include "config/stored_secrets.h"
#include "sharing/dlna_manager.h"
#include "sharing/file_services_manager.h"

namespace {

constexpr const char *log_category = "file_services_request_handler";

constexpr const char *central_storage_path = "centralStorage.enabled";
constexpr const char *protection_path = "storage.enabled";
constexpr const char *username_path = "storage.username";
constexpr const char *password_path = "storage.password4";

constexpr const char *success_reply = R"({"success":true})";
constexpr const char *failure_reply = R"({"success":false,"failure":"INTERNAL_ERROR"})";

enum validator : size_t {
    USERNAME_CHARACTERS,
    PASSWORD_CHARACTERS,
    PASSWORD_HAS_LETTER,
    PASSWORD_HAS_NON_LETTER,
    VALIDATOR_COUNT,
};

constexpr const char *validator_patterns[VALIDATOR_COUNT] = {
    "^[a-z0-9_\\.-]{3,32}$",  // kept: between brackets the backslash stands for itself too
    "^[ -~]{8,16}$",
    "[a-zA-Z]+",
    "[ -@[-`{-~]+",
};

nimbrelc_regex validators[VALIDATOR_COUNT];
event_base *loop = nullptr;

bool matches(validator rule, const char *text) {
    return nimbrelc_regex_match(validators[rule], text);
}

const char *config_text(const char *path) {
    return nimbrelc_utils_empty_if_null_json(get_config_item(path));
}

bool config_flag(const char *path) {
    return cJSON_IsTrue(get_config_item(path)) != 0;
}

// A member that is missing from the configuration stays missing, here and below.
void store_flag(const char *path, bool value) {
    nimbrelc_utils_replace_json_object(get_config_root(), path,
                                       json_ptr(cJSON_CreateBool(value ? 1 : 0)));
}

void store_text(const char *path, const char *value) {
    nimbrelc_utils_replace_json_object(get_config_root(), path,
                                       json_ptr(cJSON_CreateString(value)));
}

bool validate_credentials(const char *username, const char *password) {
    if (!matches(USERNAME_CHARACTERS, username)) {
        LOG_INFO("Username does not meet required criteria");
        return false;
    }
    if (strcmp(username, password) == 0) {
        LOG_INFO("Password must be different than username");
        return false;
    }
    if (!matches(PASSWORD_CHARACTERS, password) || !matches(PASSWORD_HAS_LETTER, password) ||
        !matches(PASSWORD_HAS_NON_LETTER, password)) {
        LOG_INFO("Password does not meet required criteria");
        return false;
    }
    return true;
}

// True when the configuration was changed and saved. Empty values never overwrite stored ones.
// Kept: they differ from stored credentials all the same, so that a request for the flag alone is
// then saved (and the services are reloaded) even when it changes nothing.
bool change_protection(bool wanted, const char *username, const char *password) {
    storage_config stored;
    if (!file_services_request_handler_get_storage_config(stored)) {
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
        store_flag(protection_path, wanted);
    }
    if (new_username && has_username) {
        store_text(username_path, username);
    }
    if (new_password && has_password) {
        const auto encrypted = file_services_request_handler_encrypt_storage_password(password);
        if (!encrypted) {
            return false;  // kept: what is stored above stays in memory, unsaved
        }
        store_text(password_path, encrypted->c_str());
    }
    if (!nimbrelc_config_save()) {
        LOG_ERROR("Error saving storage configuration");
        return false;
    }
    return true;
}

void fileservices_list_callback(int32_t /*argc*/, const message_bus_arg * /*args*/,
                                message_bus_request request) {
    const json_ptr status = file_services_manager_get_services_status();
    std::optional<std::string> text;
    if (status) {
        cJSON_AddTrueToObject(status.get(), "success");
        text = nimbrelc_utils_print_json_unformatted(status.get());
    }
    message_bus_send_string_reply(std::move(request), text ? text->c_str() : failure_reply);
}

void fileservices_set_state_callback(int32_t argc, const message_bus_arg *args,
                                     message_bus_request request) {
    if (!message_bus_validate_params(request, argc, args, {MB_ARG_STRING})) {
        LOG_WARN("Bad params passed to fileservices_set_state_callback");
        return;
    }
    const json_ptr wanted(cJSON_Parse(args[0].string));
    if (!wanted) {
        LOG_ERROR("Bad JSON string");
        return;
    }
    const bool changed = file_services_manager_change_file_service_state_by_name(
        cJSON_GetStringValue(cJSON_GetObjectItem(wanted.get(), "service")),
        cJSON_IsTrue(cJSON_GetObjectItem(wanted.get(), "enabled")) != 0);
    message_bus_send_string_reply(std::move(request), changed ? success_reply : failure_reply);
}

// The caller learns nothing of the outcome: it reads the settings back.
void change_protection_and_reply(bool wanted, const char *username, const char *password,
                                 message_bus_request request) {
    if (change_protection(wanted, username, password)) {
        file_services_manager_reload_file_services();
    }
    message_bus_send_no_reply(std::move(request));
}

void fileservices_change_credentials_state_callback(int32_t argc, const message_bus_arg *args,
                                                    message_bus_request request) {
    LOG_INFO("Change of shares protection requested - state");
    if (!message_bus_validate_params(request, argc, args, {MB_ARG_BOOLEAN})) {
        LOG_WARN("Bad params passed to fileservices_change_credentials_state_callback");
        return;
    }
    change_protection_and_reply(args[0].boolean(), "", "", std::move(request));
}

void fileservices_update_credentials_callback(int32_t argc, const message_bus_arg *args,
                                              message_bus_request request) {
    LOG_INFO("Change of shares protection requested - state and credentials");
    if (!message_bus_validate_params(request, argc, args,
                                     {MB_ARG_BOOLEAN, MB_ARG_STRING, MB_ARG_STRING})) {
        LOG_WARN("Bad params passed to fileservices_update_credentials_callback");
        return;
    }
    change_protection_and_reply(args[0].boolean(), args[1].string, args[2].string,
                                std::move(request));
}

// Kept: the reply is not the object's text but that text as one JSON string value, in double
// quotes.
void reply_settings(const cJSON *settings, message_bus_request request) {
    const std::string text = nimbrelc_utils_print_json_unformatted(settings).value_or("");
    const json_ptr value(cJSON_CreateString(text.c_str()));
    if (const auto reply = nimbrelc_utils_print_json_unformatted(value.get())) {
        message_bus_send_string_reply(std::move(request), reply->c_str());
    }
}

void fileservices_get_credentials_callback(int32_t /*argc*/, const message_bus_arg * /*args*/,
                                           message_bus_request request) {
    storage_config stored;
    file_services_request_handler_get_storage_config(stored);
    const json_ptr settings(cJSON_CreateObject());
    cJSON_AddBoolToObject(settings.get(), "enabled", stored.enabled ? 1 : 0);
    cJSON_AddStringToObject(settings.get(), "username", stored.username.c_str());
    cJSON_AddStringToObject(settings.get(), "password", stored.password.c_str());
    reply_settings(settings.get(), std::move(request));
}

void fileservices_get_restricted_credentials_callback(int32_t /*argc*/,
                                                      const message_bus_arg * /*args*/,
                                                      message_bus_request request) {
    const json_ptr settings(cJSON_CreateObject());
    cJSON_AddBoolToObject(settings.get(), "enabled", config_flag(protection_path) ? 1 : 0);
    reply_settings(settings.get(), std::move(request));
}

void pam_auth_request_callback(int32_t argc, const message_bus_arg *args,
                               message_bus_request request) {
    if (!message_bus_validate_params(request, argc, args, {MB_ARG_STRING, MB_ARG_STRING})) {
        LOG_WARN("Bad params passed to pam_auth_request_callback");
        return;
    }
    const std::string_view username = args[0].string;
    const std::string_view password = args[1].string;
    LOG_INFO("PAM auth request for user %s", args[0].string);
    // A password that does not decrypt reads as an empty one, with which nobody gets in.
    storage_config stored;
    file_services_request_handler_get_storage_config(stored);
    const bool allowed = stored.enabled && !username.empty() && !password.empty() &&
                         stored.username == username && stored.password == password;
    if (allowed) {
        LOG_INFO("Auth ok");
    } else {
        LOG_INFO("Permission denied");
    }
    message_bus_send_reply(std::move(request), {mb_uint32(allowed ? 1 : 0)});
}

// Every user of the shares is the box's one account "default". The two numbers are the NSS
// module's.
void nss_password_request_callback(int32_t argc, const message_bus_arg *args,
                                   message_bus_request request) {
    if (!message_bus_validate_params(request, argc, args,
                                     {MB_ARG_UINT32, MB_ARG_UINT32, MB_ARG_STRING})) {
        LOG_WARN("Bad params passed to nss_password_request_callback");
        return;
    }
    LOG_INFO("Validating NSS request");
    const std::string_view username = args[2].string;
    const bool allowed =
        config_flag(protection_path) && !username.empty() && username == config_text(username_path);
    if (allowed) {
        LOG_INFO("Allowed, switching to user 'default'");
    } else {
        LOG_INFO("Denied, user %s unrecognised", args[2].string);
    }
    message_bus_send_reply(std::move(request),
                           {mb_uint32(allowed ? 1 : 0), mb_string("default"), mb_string("x"),
                            mb_uint32(getuid()), mb_uint32(getgid())});
}

void central_storage_get_state_callback(int32_t /*argc*/, const message_bus_arg * /*args*/,
                                        message_bus_request request) {
    message_bus_send_bool_reply(std::move(request),
                                file_services_request_handler_is_central_storage_enabled());
}

void change_central_storage(bool enabled) {
    if (enabled == file_services_request_handler_is_central_storage_enabled()) {
        LOG_INFO("Central storage configuration has not been changed");
        return;
    }
    store_flag(central_storage_path, enabled);
    if (!nimbrelc_config_save()) {
        LOG_ERROR("Error saving central storage configuration");
        return;
    }
    if (enabled) {
        file_services_manager_update_file_services();
        dlna_manager_start(loop);
    } else {
        file_services_manager_stop_file_services();
        dlna_manager_stop();
    }
}

// Kept: alone among the methods here it answers bad parameters too.
void central_storage_set_state_callback(int32_t argc, const message_bus_arg *args,
                                        message_bus_request request) {
    LOG_INFO("Change of central storage state requested");
    if (message_bus_validate_params(request, argc, args, {MB_ARG_BOOLEAN})) {
        change_central_storage(args[0].boolean());
    } else {
        LOG_WARN("Bad params passed to central_storage_set_state callback");
    }
    message_bus_send_no_reply(std::move(request));
}

constexpr struct {
    const char *path;
    const char *interface;
    const char *member;
    message_bus_method_handler handler;
} methods[] = {
    {"/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices", "list",
     fileservices_list_callback},
    {"/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices", "setState",
     fileservices_set_state_callback},
    {"/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices",
     "changeStateCredentialsForUserShares", fileservices_change_credentials_state_callback},
    {"/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices",
     "updateCredentialsForUserShares", fileservices_update_credentials_callback},
    {"/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices", "getCredentialsForUserShares",
     fileservices_get_credentials_callback},
    {"/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices",
     "getRestrictedCredentialsForUserShares", fileservices_get_restricted_credentials_callback},
    // Kept: the spelling of the interface.
    {"/com/kelvanto/pam", "com.kelvanto.authentification", "AuthRequest",
     pam_auth_request_callback},
    {"/com/kelvanto/nss", "com.kelvanto.passwd", "PwRequest", nss_password_request_callback},
    {"/ws/centralstorage", "com.kelvanto.nimbrel.centralstorage", "GetState",
     central_storage_get_state_callback},
    {"/ws/centralstorage", "com.kelvanto.nimbrel.centralstorage", "SetState",
     central_storage_set_state_callback},
};

}  // namespace

bool file_services_request_handler_start(event_base *base) {
    loop = base;
    for (const auto &row : methods) {
        if (!message_bus_add_method_listener(row.path, row.interface, row.member, row.handler)) {
            LOG_ERROR("message_bus_add_method_listener failed");
            return false;
        }
    }
    if (!std::equal(std::begin(validators), std::end(validators), std::begin(validator_patterns),
                    nimbrelc_regex_compile)) {
        LOG_ERROR("Cannot compile validators for shares protection user/pass");
        return false;
    }
    return true;
}

bool file_services_request_handler_stop() {
    for (nimbrelc_regex &rule : validators) {
        nimbrelc_regex_free(rule);
    }
    return true;
}

bool file_services_request_handler_is_central_storage_enabled() {
    return config_flag(central_storage_path);
}

bool file_services_request_handler_is_storage_protection_enabled() {
    return config_flag(protection_path) &&
           !nimbrelc_utils_json_is_null_or_empty(get_config_item(username_path)) &&
           !nimbrelc_utils_json_is_null_or_empty(get_config_item(password_path));
}

bool file_services_request_handler_get_storage_config(storage_config &config) {
    config.enabled = config_flag(protection_path);
    config.username = config_text(username_path);
    config.password.clear();
    const char *stored = config_text(password_path);
    if (*stored == '\0') {
        return true;
    }
    auto password = file_services_request_handler_decrypt_storage_password(stored);
    if (!password) {
        return false;
    }
    config.password = std::move(*password);
    return true;
}

std::optional<std::string> file_services_request_handler_encrypt_storage_password(
    const char *text) {
    if (nimbrelc_utils_is_null_or_empty(text)) {
        return std::nullopt;
    }
    auto encrypted =
        nimbrelc_utils_encrypt_and_base64_encode_data(text, stored_storage_password.passphrase);
    if (!encrypted) {
        LOG_ERROR("Encryption of storage password failed");
    }
    return encrypted;
}

std::optional<std::string> file_services_request_handler_decrypt_storage_password(
    const char *text) {
    if (nimbrelc_utils_is_null_or_empty(text)) {
        return std::nullopt;
    }
    auto password =
        nimbrelc_utils_decrypt_base64_encoded_data(text, stored_storage_password.passphrase);
    if (!password) {
        LOG_ERROR("Decryption of storage password failed");
        return std::nullopt;
    }
    password->resize(strlen(password->c_str()));
    return password;
}

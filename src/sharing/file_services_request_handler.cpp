#include <unistd.h>

#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "common/json.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/texts.h"
#include "sharing/file_services_manager.h"
#include "sharing/share_settings.h"
#include "sharing/sharing.h"

namespace {

constexpr const char *log_category = "file_services_request_handler";

constexpr const char *success_reply = R"({"success":true})";
constexpr const char *failure_reply = R"({"success":false,"failure":"INTERNAL_ERROR"})";

void fileservices_list_callback(const message_bus_args & /*args*/, message_bus_request request) {
    const json_ptr status = file_services_manager_get_services_status();
    cJSON_AddTrueToObject(status.get(), "success");
    message_bus_send_string_reply(std::move(request), print_json_unformatted(status.get()).c_str());
}

void fileservices_set_state_callback(const message_bus_args &args, message_bus_request request) {
    const json_ptr wanted(cJSON_Parse(args[0].string));
    if (!wanted) {
        LOG_ERROR("Bad JSON string");
        return;
    }
    const bool changed = file_services_manager_change_file_service_state_by_name(
        cJSON_GetStringValue(cJSON_GetObjectItem(wanted.get(), "service")),
        cJSON_IsTrue(cJSON_GetObjectItem(wanted.get(), "enabled")));
    message_bus_send_string_reply(std::move(request), changed ? success_reply : failure_reply);
}

// The caller learns nothing of the outcome: it reads the settings back.
void change_protection(bool wanted, const char *username, const char *password) {
    if (share_settings_change_protection(wanted, username, password)) {
        file_services_manager_reload_file_services();
    }
}

void change_protection_state(const message_bus_args &args) {
    change_protection(args[0].boolean(), "", "");
}

void update_credentials(const message_bus_args &args) {
    change_protection(args[0].boolean(), args[1].string, args[2].string);
}

// kept: the reply is not the object's text but that text as one JSON string value, in double
// quotes.
void reply_settings(const cJSON *settings, message_bus_request request) {
    const std::string text = print_json_unformatted(settings);
    const json_ptr value(cJSON_CreateString(text.c_str()));
    message_bus_send_string_reply(std::move(request), print_json_unformatted(value.get()).c_str());
}

void fileservices_get_credentials_callback(const message_bus_args & /*args*/,
                                           message_bus_request request) {
    const storage_config stored = file_services_request_handler_get_storage_config();
    const json_ptr settings(cJSON_CreateObject());
    cJSON_AddBoolToObject(settings.get(), "enabled", stored.enabled);
    cJSON_AddStringToObject(settings.get(), "username", stored.username.c_str());
    cJSON_AddStringToObject(settings.get(), "password", stored.password.value_or("").c_str());
    reply_settings(settings.get(), std::move(request));
}

void fileservices_get_restricted_credentials_callback(const message_bus_args & /*args*/,
                                                      message_bus_request request) {
    const json_ptr settings(cJSON_CreateObject());
    cJSON_AddBoolToObject(settings.get(), "enabled", share_settings_is_protection_wanted());
    reply_settings(settings.get(), std::move(request));
}

void pam_auth_request_callback(const message_bus_args &args, message_bus_request request) {
    const std::string_view username = args[0].string;
    const std::string_view password = args[1].string;
    LOG_INFO("PAM auth request for user %s", printable(username).c_str());
    const storage_config stored = file_services_request_handler_get_storage_config();
    const bool allowed = stored.enabled && !username.empty() && !password.empty() &&
                         stored.username == username && stored.password == password;
    if (allowed) {
        LOG_INFO("Auth ok");
    } else {
        LOG_INFO("Permission denied");
    }
    message_bus_send_reply(std::move(request), {mb_uint32(allowed)});
}

// Every user of the shares is the box's one account "default". The two numbers are the NSS
// module's.
void nss_password_request_callback(const message_bus_args &args, message_bus_request request) {
    LOG_INFO("Validating NSS request");
    const std::string_view username = args[2].string;
    const bool allowed = share_settings_is_protection_wanted() && !username.empty() &&
                         username == share_settings_get_username();
    if (allowed) {
        LOG_INFO("Allowed, switching to user 'default'");
    } else {
        LOG_INFO("Denied, user %s unrecognised", printable(username).c_str());
    }
    message_bus_send_reply(std::move(request),
                           {mb_uint32(allowed), mb_string("default"), mb_string("x"),
                            mb_uint32(getuid()), mb_uint32(getgid())});
}

void central_storage_get_state_callback(const message_bus_args & /*args*/,
                                        message_bus_request request) {
    message_bus_send_bool_reply(std::move(request),
                                file_services_request_handler_is_central_storage_enabled());
}

void set_central_storage(const message_bus_args &args) {
    const bool enabled = args[0].boolean();
    if (share_settings_change_central_storage(enabled)) {
        if (enabled) {
            file_services_manager_update_file_services();
            dlna_manager_start();
        } else {
            file_services_manager_stop_file_services();
            dlna_manager_stop();
        }
    }
}

constexpr message_bus_method file_services_methods[] = {
    {.member = "list", .handler = fileservices_list_callback},
    {.member = "setState",
     .handler = fileservices_set_state_callback,
     .args = "s",
     .refusal_text = "Bad params passed to fileservices_set_state_callback"},
    {.member = "changeStateCredentialsForUserShares",
     .handler = message_bus_answer_empty<change_protection_state>,
     .args = "b",
     .refusal_text = "Bad params passed to fileservices_change_credentials_state_callback",
     .arrival_text = "Change of shares protection requested - state"},
    {.member = "updateCredentialsForUserShares",
     .handler = message_bus_answer_empty<update_credentials>,
     .args = "bss",
     .refusal_text = "Bad params passed to fileservices_update_credentials_callback",
     .arrival_text = "Change of shares protection requested - state and credentials"},
    {.member = "getCredentialsForUserShares", .handler = fileservices_get_credentials_callback},
    {.member = "getRestrictedCredentialsForUserShares",
     .handler = fileservices_get_restricted_credentials_callback},
};
constexpr message_bus_method pam_methods[] = {
    {.member = "AuthRequest",
     .handler = pam_auth_request_callback,
     .args = "ss",
     .refusal_text = "Bad params passed to pam_auth_request_callback"},
};
constexpr message_bus_method nss_methods[] = {
    {.member = "PwRequest",
     .handler = nss_password_request_callback,
     .args = "uus",
     .refusal_text = "Bad params passed to nss_password_request_callback"},
};
constexpr message_bus_method central_storage_methods[] = {
    {.member = "GetState", .handler = central_storage_get_state_callback},
    // kept: alone among the methods here it answers bad parameters too.
    {.member = "SetState",
     .handler = message_bus_answer_empty<set_central_storage>,
     .args = "b",
     .refusal_text = "Bad params passed to central_storage_set_state callback",
     .refusal = message_bus_refusal::empty_reply,
     .arrival_text = "Change of central storage state requested"},
};

}  // namespace

bool file_services_request_handler_start() {
    const auto serve = [](const char *path, const char *interface,
                          std::span<const message_bus_method> methods) {
        return message_bus_add_methods(log_category, path, interface, methods,
                                       "message_bus_add_method_listener failed");
    };
    // kept: the spelling of the second interface.
    return serve("/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices",
                 file_services_methods) &&
           serve("/com/kelvanto/pam", "com.kelvanto.authentification", pam_methods) &&
           serve("/com/kelvanto/nss", "com.kelvanto.passwd", nss_methods) &&
           serve("/ws/centralstorage", "com.kelvanto.nimbrel.centralstorage",
                 central_storage_methods);
}

bool file_services_request_handler_stop() {
    return true;
}

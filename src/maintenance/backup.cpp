#include "maintenance/backup.h"

#include <cerrno>
#include <cstring>

#include <event2/event.h>
#include <openssl/evp.h>

#include "common/files.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/secrets.h"
#include "common/texts.h"
#include "common/timer.h"
#include "config/config.h"
#include "config/stored_secrets.h"
#include "maintenance/maintenance.h"
#include "sharing/sharing.h"

const std::array<const char *, 13> FIELDS_TO_BACKUP = {
    "centralStorage.enabled",
    "dlna.mediaStreamingEnabled",
    "devices.usbMode",
    "storage.enabled",
    "storage.username",
    "storage.password4",
    "nas.fileServices.samba.enabled",
    "nas.fileServices.afp.enabled",
    "nas.fileServices.avahi.enabled",
    "vpn.enable",
    "vpn.username",
    "vpn.password4",
    "vpn.presharedkey4",
};

namespace {

constexpr const char *log_category = "backup";
constexpr timeval restart_delay = {.tv_sec = 3, .tv_usec = 0};

// A secret of the VPN: stored encrypted, backed up in plain text beside it.
struct vpn_secret {
    const stored_secret &stored;
    const char *stored_name;
    const char *plain_path;
};
constexpr vpn_secret vpn_secrets[] = {
    {stored_vpn_password, "password4", "vpn.password"},
    {stored_vpn_preshared_key, "presharedkey4", "vpn.presharedkey"},
};

// A new item with the value of a single one; none for lists and objects.
json_ptr copy_value(const cJSON *item) {
    if (cJSON_IsBool(item)) {
        return json_ptr(cJSON_CreateBool(cJSON_IsTrue(item)));
    }
    if (cJSON_IsNull(item)) {
        return json_ptr(cJSON_CreateNull());
    }
    if (cJSON_IsNumber(item)) {
        return json_ptr(cJSON_CreateNumber(item->valueint));  // kept: whole numbers only
    }
    if (cJSON_IsString(item)) {
        return json_ptr(cJSON_CreateString(item->valuestring));
    }
    return nullptr;
}

std::string plain_storage_password(cJSON *root) {
    const char *stored = nimbrelc_utils_empty_if_null_json(
        nimbrelc_utils_get_json_object(root, "storage.password4", nullptr));
    if (stored[0] == '\0') {
        return "";
    }
    return or_log(log_category, file_services_request_handler_decrypt_storage_password(stored),
                  "Decryption of storage.password4 failed")
        .value_or("");
}

std::string plain_vpn_secret(cJSON *root, const vpn_secret &secret) {
    const auto plain = stored_secret_decrypt(root, secret.stored);
    if (!plain) {
        LOG_ERROR("Decryption of %s failed", secret.stored.path);
    }
    return plain.value_or("");
}

std::optional<std::string> apply_cipher(cipher_direction direction, std::string_view data) {
    return run_cipher(
        log_category, direction,
        {.cipher = EVP_aes_128_ecb(), .passphrase = {PASS, PASS_LEN}, .iterations = 1}, data);
}

// What restores one secret of a backup that has it in plain text only.
void replace_secret(cJSON *root, const char *path, const std::optional<std::string> &encrypted) {
    json_replace(root, path, json_ptr(cJSON_CreateString(encrypted.value_or("").c_str())));
}

void restore_plain_storage_password(cJSON *root, const cJSON *values) {
    if (cJSON_HasObjectItem(values, "storage.password4") || !cJSON_HasObjectItem(root, "storage")) {
        return;
    }
    LOG_INFO("Restoring shares protection password backed up in obsoleted form");
    const char *plain =
        nimbrelc_utils_empty_if_null_json(cJSON_GetObjectItem(values, "storage.password"));
    std::optional<std::string> encrypted;
    if (plain[0] != '\0') {
        encrypted =
            or_log(log_category, file_services_request_handler_encrypt_storage_password(plain),
                   "Encryption of storage.password failed");
    }
    replace_secret(root, "storage.password4", encrypted);
}

void restore_plain_vpn_secret(cJSON *root, const cJSON *values, const vpn_secret &secret) {
    if (cJSON_HasObjectItem(values, secret.stored.path) || !cJSON_HasObjectItem(root, "vpn")) {
        return;
    }
    LOG_INFO("Restoring vpn field %s backed up in obsoleted form", secret.stored_name);
    const char *plain =
        nimbrelc_utils_empty_if_null_json(cJSON_GetObjectItem(values, secret.plain_path));
    std::optional<std::string> encrypted;
    if (plain[0] != '\0') {
        encrypted = nimbrelc_utils_encrypt_and_base64_encode_data(plain, secret.stored.passphrase);
        if (!encrypted) {
            LOG_ERROR("Encryption of %s failed", secret.plain_path);
        }
    }
    replace_secret(root, secret.stored.path, encrypted);
}

void restore_value(cJSON *root, const cJSON *member) {
    if (nimbrelc_utils_get_json_object(root, member->string, nullptr) == nullptr) {
        LOG_WARN("No field %s in nimbrelc configuration", printable(member->string).c_str());
    } else if (json_ptr value = copy_value(member)) {
        json_replace(root, member->string, std::move(value));
    }
}

void store(const message_bus_args &args) {
    if (const json_ptr document =
            or_log(log_category, backup_create(get_config_root()), "Failed to create backup")) {
        or_log(log_category, backup_save(args[0].string, document.get()),
               "Failed to save the backup");
    }
}

bool restore_from(const char *path) {
    const json_ptr document = backup_load(path);
    if (!document || !nimbrelc_config_has_room_for(print_json(document.get()))) {
        LOG_ERROR("Failed to load backup from file:");
        return false;
    }
    if (!backup_restore(get_config_root(), document.get())) {
        LOG_ERROR("Failed to restore from the backup");
        or_log(log_category, event_base_loopbreak(timer_loop()) == 0,
               "event_base_loopbreak failed");
        return false;
    }
    if (or_log(log_category, nimbrelc_config_save(), "Failed to save nimbrelc's configuration")) {
        LOG_INFO("Nimbrelc backup has been successfully restored");
    }
    // kept: the restart comes, and the answer is true, even when the save failed.
    or_log(log_category, event_base_loopexit(timer_loop(), &restart_delay) == 0,
           "event_base_loopexit failed");
    return true;
}

void restore_callback(const message_bus_args &args, message_bus_request request) {
    const bool restored = restore_from(args[0].string);
    message_bus_send_bool_reply(std::move(request), restored);
}

constexpr message_bus_method methods[] = {
    {.member = "store",
     .handler = message_bus_answer_empty<store>,
     .args = "s",
     .refusal_text = "Bad params passed to store_callback",
     .arrival_text = "Storing backup requested"},
    {.member = "restore",
     .handler = restore_callback,
     .args = "s",
     .refusal_text = "Bad params passed to restore_callback",
     .refusal = message_bus_refusal::false_reply,
     .arrival_text = "Restoring backup requested"},
};

}  // namespace

json_ptr backup_create(cJSON *root) {
    if (!cJSON_IsObject(root)) {
        return nullptr;
    }
    json_ptr document(cJSON_CreateObject());
    cJSON_AddStringToObject(document.get(), "version",
                            nimbrelc_utils_empty_if_null_json(nimbrelc_utils_get_json_object(
                                root, "cpeDevice.deviceInfo.softwareVersion", nullptr)));
    cJSON *values = cJSON_AddObjectToObject(document.get(), "config");
    for (const char *path : FIELDS_TO_BACKUP) {
        const cJSON *item = nimbrelc_utils_get_json_object(root, path, nullptr);
        if (item == nullptr) {
            LOG_ERROR("Cannot backup field: %s", path);
        } else if (json_ptr value = copy_value(item)) {
            cJSON_AddItemToObject(values, path, value.release());
        }
    }
    cJSON_AddStringToObject(values, "storage.password", plain_storage_password(root).c_str());
    for (const vpn_secret &secret : vpn_secrets) {
        cJSON_AddStringToObject(values, secret.plain_path, plain_vpn_secret(root, secret).c_str());
    }
    return document;
}

bool backup_save(const char *path, const cJSON *document) {
    const std::string text = print_json(document);
    if (!or_log(log_category, !text.empty(), "Error printing nimbrelc backup config")) {
        return false;
    }
    const auto encrypted = or_log(log_category, backup_encrypt(text), "Encrypting backup failed");
    return encrypted &&
           or_log(log_category, dump_binary_to_file(path, *encrypted), "Failed to save backup");
}

std::optional<std::string> backup_encrypt(std::string_view data) {
    return apply_cipher(cipher_direction::encrypt, data);
}

std::optional<std::string> backup_decrypt(std::string_view data) {
    return apply_cipher(cipher_direction::decrypt, data);
}

json_ptr backup_load(const char *path) {
    const std::optional<std::string> encrypted = nimbrelc_utils_read_binary_file(path);
    if (!encrypted) {
        LOG_ERROR("Reading encrypted file failed: %s", strerror(errno));
        return nullptr;
    }
    const auto text = or_log(log_category, backup_decrypt(*encrypted), "Decrypting backup failed");
    return text ? or_log(log_category, json_ptr(cJSON_Parse(text->c_str())),
                         "Cannot parse json in config file")
                : nullptr;
}

bool backup_restore(cJSON *root, const cJSON *document) {
    const cJSON *values = cJSON_GetObjectItem(document, "config");
    if (!or_log(log_category, cJSON_IsObject(values), "Bad backup file format")) {
        return false;
    }
    const cJSON *member = nullptr;
    cJSON_ArrayForEach(member, values) {
        restore_value(root, member);
    }
    restore_plain_storage_password(root, values);
    for (const vpn_secret &secret : vpn_secrets) {
        restore_plain_vpn_secret(root, values, secret);
    }
    return true;
}

bool backup_start() {
    return message_bus_add_methods(log_category, "/backup", "com.kelvanto.nimbrel.backup", methods,
                                   "Failed to add method listener");
}

bool backup_stop() {
    return true;
}

#include "common/json.h"
#include "common/logger.h"
#include "common/secrets.h"
#include "config/stored_secrets.h"
#include "migration/migration_steps.h"
#include "migration/migration_utils.h"

namespace {

constexpr const char *log_category = "migration_08.05.08_08.05.09";
constexpr const char *legacy_passphrase = "lj3Z2W3#";

// kept: an add, so an existing "password4" gets a second member of the same name behind it.
void reencrypt_password(cJSON *storage) {
    const cJSON *old = cJSON_GetObjectItem(storage, "password3");
    if (nimbrelc_utils_json_is_null_or_empty(old)) {
        return;
    }
    const auto plain = migration_utils_decrypt_string_R8(old->valuestring, legacy_passphrase);
    if (!plain || plain->empty()) {
        return;
    }
    if (const auto text = nimbrelc_utils_encrypt_and_base64_encode_data(
            *plain, stored_storage_password.passphrase)) {
        cJSON_AddStringToObject(storage, "password4", text->c_str());
        LOG_INFO("Storage password successfully migrated");
    }
}

}  // namespace

bool upgrade_from_08_05_08_to_08_05_09(cJSON *root) {
    LOG_INFO("Upgrading from %s to %s", "08.05.08", "08.05.09");
    cJSON *storage = json_section(root, "storage");
    if (storage == nullptr) {
        return true;
    }
    reencrypt_password(storage);
    migration_utils_delete(storage, "password3");
    if (cJSON_GetObjectItem(storage, "password4") == nullptr) {
        cJSON_AddStringToObject(storage, "password4", "");
        LOG_INFO("Storage password has been set to default value");
    }
    return true;
}

#include "common/json.h"
#include "common/logger.h"
#include "common/secrets.h"
#include "common/texts.h"
#include "config/stored_secrets.h"
#include "migration/migration_steps.h"
#include "migration/migration_utils.h"

namespace {

constexpr const char *log_category = "migration_08.05.08_08.05.09";

}  // namespace

void migrate_encrypted_field(cJSON *object, const char *legacy_key, const char *old_key,
                             const char *new_key, std::string_view passphrase) {
    if (object == nullptr) {
        return;
    }
    migration_utils_delete(object, old_key);
    const cJSON *legacy = cJSON_GetObjectItem(object, legacy_key);
    if (!nimbrelc_utils_json_is_null_or_empty(legacy)) {
        // Decrypting is only a check: the encrypted text moves as it is.
        const auto plain = nimbrelc_utils_get_decrypted_string(legacy->valuestring, passphrase);
        if (plain && !plain->empty()) {
            migration_utils_replace_text(object, new_key, legacy->valuestring);
            LOG_INFO("Legacy field successfully migrated to %s.%s",
                     nimbrelc_utils_empty_if_null(object->string), new_key);
        }
    }
    if (cJSON_GetObjectItem(object, new_key) == nullptr) {
        cJSON_AddStringToObject(object, new_key, "");
        LOG_INFO("Field %s.%s has been set to default value",
                 nimbrelc_utils_empty_if_null(object->string), new_key);
    }
    migration_utils_delete(object, legacy_key);
}

bool kq3_upgrade_from_08_05_08_to_08_05_09(cJSON *root) {
    LOG_INFO("Upgrading from %s to %s", "08.05.08", "08.05.09");
    cJSON *storage = json_section(root, "storage");
    cJSON *vpn = json_section(root, "vpn");
    migrate_encrypted_field(storage, "password_legacy", "password3", "password4",
                            stored_storage_password.passphrase);
    migrate_encrypted_field(vpn, "password_legacy", "password3", "password4",
                            stored_vpn_password.passphrase);
    migrate_encrypted_field(vpn, "presharedkey_legacy", "presharedkey3", "presharedkey4",
                            stored_vpn_preshared_key.passphrase);
    return true;
}

#include "migration/migration_utils.h"

#include <algorithm>

#include <openssl/evp.h>

#include "common/json.h"
#include "common/logger.h"
#include "common/secrets.h"
#include "common/texts.h"

namespace {

constexpr const char *log_category = "migration_utils";

constexpr size_t salt_size = 8;
constexpr size_t iv_size = 16;
constexpr size_t header_size = salt_size + iv_size;
constexpr int iterations = 1000;

std::optional<std::string> decrypt_blob(std::string_view blob, std::string_view passphrase) {
    // A blob without a whole header leaves nothing to decrypt, which fails as cut cipher text does.
    std::string header(blob.substr(0, header_size));
    header.resize(header_size);
    return run_cipher(log_category, cipher_direction::decrypt,
                      {.cipher = EVP_aes_256_cbc(),
                       .passphrase = passphrase,
                       .iterations = iterations,
                       .salt = bytes_of(header),
                       .iv = bytes_of(header) + salt_size},
                      blob.substr(std::min(blob.size(), header_size)));
}

}  // namespace

void migration_utils_delete(cJSON *section, const char *name) {
    cJSON_DeleteItemFromObject(section, name);
}

void migration_utils_replace_text(cJSON *section, const char *name, const char *text) {
    json_replace(section, name, json_ptr(cJSON_CreateString(text)));
}

void migration_utils_reset_storage_protection(cJSON *root, const char *old_password,
                                              const char *new_password) {
    cJSON *storage = json_section(root, "storage");
    if (storage == nullptr) {
        return;
    }
    migration_utils_delete(storage, old_password);
    json_replace(storage, "enabled", json_ptr(cJSON_CreateFalse()));
    migration_utils_replace_text(storage, "username", "");
    cJSON_AddStringToObject(storage, new_password, "");
}

std::optional<std::string> migration_utils_decrypt_string_R8(const char *text,
                                                             std::string_view passphrase) {
    if (nimbrelc_utils_is_null_or_empty(text)) {
        return "";
    }
    const auto blob = or_log(log_category, nimbrelc_utils_base64_decode(text),
                             "decrypt_base64_encoded_data: data decoding failed");
    const auto plain = blob ? or_log(log_category, decrypt_blob(*blob, passphrase),
                                     "decrypt_base64_encoded_data: data decryption failed")
                            : std::nullopt;
    return or_log(log_category, decrypted_text(plain), "Decryption failed");
}

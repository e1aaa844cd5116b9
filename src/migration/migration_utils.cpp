#include "migration/migration_utils.h"

#include <cstring>

#include <algorithm>
#include <array>

#include <openssl/crypto.h>
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
constexpr int key_size = 32;
constexpr int iterations = 1000;

const unsigned char *bytes_of(std::string_view text) {
    return reinterpret_cast<const unsigned char *>(text.data());
}

std::optional<std::string> decrypt_blob(std::string_view blob, std::string_view passphrase) {
    // A blob without a whole header leaves nothing to decrypt, which fails as cut cipher text does.
    std::string header(blob.substr(0, header_size));
    header.resize(header_size);
    const std::string_view salt = std::string_view(header).substr(0, salt_size);
    const std::string_view iv = std::string_view(header).substr(salt_size);
    std::array<unsigned char, EVP_MAX_KEY_LENGTH> key = {};
    std::array<unsigned char, EVP_MAX_IV_LENGTH> unused_iv = {};
    const int size = EVP_BytesToKey(EVP_aes_256_cbc(), EVP_sha1(), bytes_of(salt),
                                    bytes_of(passphrase), static_cast<int>(passphrase.size()),
                                    iterations, key.data(), unused_iv.data());
    std::optional<std::string> plain;
    if (size != key_size) {
        LOG_ERROR("Incorrect key size: %d", size);
    } else {
        plain = nimbrelc_utils_run_cipher(log_category, cipher_direction::decrypt,
                                          EVP_aes_256_cbc(), key.data(), bytes_of(iv),
                                          blob.substr(std::min(blob.size(), header_size)));
    }
    OPENSSL_cleanse(key.data(), key.size());
    return plain;
}

}  // namespace

void migration_utils_delete(cJSON *section, const char *name) {
    cJSON_DeleteItemFromObject(section, name);
}

void migration_utils_replace_text(cJSON *section, const char *name, const char *text) {
    nimbrelc_utils_replace_json_object(section, name, json_ptr(cJSON_CreateString(text)));
}

void migration_utils_reset_storage_protection(cJSON *root, const char *old_password,
                                              const char *new_password) {
    cJSON *storage = nimbrelc_utils_get_json_section(root, "storage");
    if (storage == nullptr) {
        return;
    }
    migration_utils_delete(storage, old_password);
    nimbrelc_utils_replace_json_object(storage, "enabled", json_ptr(cJSON_CreateFalse()));
    migration_utils_replace_text(storage, "username", "");
    cJSON_AddStringToObject(storage, new_password, "");
}

std::optional<std::string> migration_utils_decrypt_string_R8(const char *text,
                                                             std::string_view passphrase) {
    if (nimbrelc_utils_is_null_or_empty(text)) {
        return "";
    }
    const std::optional<std::string> blob = nimbrelc_utils_base64_decode(text);
    if (!blob) {
        LOG_ERROR("decrypt_base64_encoded_data: data decoding failed");
        LOG_ERROR("Decryption failed");
        return std::nullopt;
    }
    std::optional<std::string> plain = decrypt_blob(*blob, passphrase);
    if (!plain) {
        LOG_ERROR("decrypt_base64_encoded_data: data decryption failed");
        LOG_ERROR("Decryption failed");
        return std::nullopt;
    }
    plain->resize(strlen(plain->c_str()));
    return plain;
}

#include "migration/migration_utils.h"

#include <array>
#include <memory>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "logger.h"
#include "nimbrelc_utils.h"
#include "nimbrelc_utils_crypto.h"
#include "nimbrelc_utils_json.h"

namespace {

constexpr const char *log_category = "migration_utils";

constexpr size_t salt_size = 8;
constexpr size_t iv_size = 16;
constexpr size_t header_size = salt_size + iv_size;
constexpr int key_size = 32;
constexpr int iterations = 1000;

struct cipher_context_deleter {
    void operator()(EVP_CIPHER_CTX *context) const {
        EVP_CIPHER_CTX_free(context);
    }
};

using r8_key = std::array<unsigned char, EVP_MAX_KEY_LENGTH>;

const unsigned char *bytes_of(std::string_view text) {
    return reinterpret_cast<const unsigned char *>(text.data());
}

bool derive_key(std::string_view salt, std::string_view passphrase, r8_key &key) {
    std::array<unsigned char, EVP_MAX_IV_LENGTH> unused_iv = {};
    const int size = EVP_BytesToKey(EVP_aes_256_cbc(), EVP_sha1(), bytes_of(salt),
                                    bytes_of(passphrase), static_cast<int>(passphrase.size()),
                                    iterations, key.data(), unused_iv.data());
    if (size != key_size) {
        LOG_ERROR("Incorrect key size: %d", size);
        return false;
    }
    return true;
}

std::optional<std::string> decrypt_with_key(std::string_view blob, const r8_key &key) {
    const std::unique_ptr<EVP_CIPHER_CTX, cipher_context_deleter> context(EVP_CIPHER_CTX_new());
    if (!context) {
        LOG_ERROR("EVP_CIPHER_CTX_new failed");
        return std::nullopt;
    }
    const std::string_view iv = blob.substr(salt_size, iv_size);
    const std::string_view ciphertext = blob.substr(header_size);
    if (EVP_DecryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key.data(), bytes_of(iv)) !=
        1) {
        LOG_ERROR("EVP_DecryptInit_ex failed: %s", nimbrelc_utils_crypto_error().c_str());
        return std::nullopt;
    }
    std::string plain(ciphertext.size() + EVP_MAX_BLOCK_LENGTH, '\0');
    auto *output = reinterpret_cast<unsigned char *>(plain.data());
    int updated = 0;
    if (EVP_DecryptUpdate(context.get(), output, &updated, bytes_of(ciphertext),
                          static_cast<int>(ciphertext.size())) != 1) {
        LOG_ERROR("EVP_DecryptUpdate failed: %s", nimbrelc_utils_crypto_error().c_str());
        return std::nullopt;
    }
    int finished = 0;
    if (EVP_DecryptFinal_ex(context.get(), output + updated, &finished) != 1) {
        LOG_ERROR("EVP_DecryptFinal_ex failed: %s", nimbrelc_utils_crypto_error().c_str());
        return std::nullopt;
    }
    plain.resize(static_cast<size_t>(updated + finished));
    return plain;
}

std::optional<std::string> decrypt_blob(std::string_view blob, std::string_view passphrase) {
    if (blob.size() < header_size) {
        LOG_ERROR("EVP_DecryptUpdate failed: %s", "no initialisation vector");
        return std::nullopt;
    }
    r8_key key = {};
    std::optional<std::string> plain;
    if (derive_key(blob.substr(0, salt_size), passphrase, key)) {
        plain = decrypt_with_key(blob, key);
    }
    OPENSSL_cleanse(key.data(), key.size());
    return plain;
}

}  // namespace

cJSON *migration_utils_get_section(cJSON *root, const char *path) {
    cJSON *section = nimbrelc_utils_get_json_object(root, path, nullptr);
    return cJSON_IsObject(section) ? section : nullptr;
}

void migration_utils_delete(cJSON *section, const char *name) {
    cJSON_DeleteItemFromObject(section, name);
}

void migration_utils_replace_text(cJSON *section, const char *name, const char *text) {
    nimbrelc_utils_replace_json_object(section, name, json_ptr(cJSON_CreateString(text)));
}

void migration_utils_reset_storage_protection(cJSON *root, const char *old_password,
                                              const char *new_password) {
    cJSON *storage = migration_utils_get_section(root, "storage");
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
    // Text ends where a terminator stands.
    plain->resize(plain->find('\0') == std::string::npos ? plain->size() : plain->find('\0'));
    return plain;
}

// Encryption of stored secrets. A blob is {32-byte salt, 16-byte initialisation vector, AES-256-CBC
// ciphertext with PKCS#7 padding}; its key is PBKDF2-HMAC-SHA1 of the passphrase and the salt, 1000
// iterations, 32 bytes. Stored form: the blob as one line of base64.
// Every failure is logged and gives nothing.
#pragma once

#include <openssl/evp.h>

#include <optional>
#include <string>
#include <string_view>

#include "common/logger.h"

std::optional<std::string> nimbrelc_utils_encrypt_data(std::string_view data,
                                                       std::string_view passphrase);
std::optional<std::string> nimbrelc_utils_decrypt_data(std::string_view blob,
                                                       std::string_view passphrase);

// Fails for no data.
std::optional<std::string> nimbrelc_utils_base64_encode(std::string_view data);
// Fails for null, and for a text that decodes to nothing.
std::optional<std::string> nimbrelc_utils_base64_decode(const char *text);

std::optional<std::string> nimbrelc_utils_encrypt_and_base64_encode_data(
    std::string_view data, std::string_view passphrase);
std::optional<std::string> nimbrelc_utils_decrypt_base64_encoded_data(const char *text,
                                                                      std::string_view passphrase);

// What was decrypted, as a text: up to its first zero byte. None for what is no UTF-8: one in 256
// wrong passphrases leaves a valid padding behind bytes without a meaning.
std::optional<std::string> decrypted_text(std::optional<std::string> plain);

// The plain text of a stored secret: "" for null or "", otherwise up to its first zero byte. Fails
// for what is no UTF-8.
std::optional<std::string> nimbrelc_utils_get_decrypted_string(const char *stored,
                                                               std::string_view passphrase);

enum class cipher_direction { encrypt, decrypt };

// A key that is no stored secret's: EVP_BytesToKey with SHA-1. Salt and initialisation vector are
// null where there are none.
struct bytes_to_key {
    const EVP_CIPHER *cipher;
    std::string_view passphrase;
    int iterations;
    const unsigned char *salt = nullptr;
    const unsigned char *iv = nullptr;
};

// Runs the cipher over the whole data, with the standard block padding.
std::optional<std::string> run_cipher(const log_source &caller, cipher_direction direction,
                                      const bytes_to_key &key, std::string_view data);

inline const unsigned char *bytes_of(std::string_view text) {
    return reinterpret_cast<const unsigned char *>(text.data());
}
inline unsigned char *bytes_of(std::string &text) {
    return reinterpret_cast<unsigned char *>(text.data());
}

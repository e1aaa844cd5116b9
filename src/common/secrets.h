// Encryption of stored secrets. A blob is {32-byte salt, 16-byte initialisation vector, AES-256-CBC
// ciphertext with PKCS#7 padding}; its key is PBKDF2-HMAC-SHA1 of the passphrase and the salt, 1000
// iterations, 32 bytes. Stored form: the blob as one line of base64.
// main registers the ciphers before first use. Every failure is logged and gives nothing.
#pragma once

#include <openssl/evp.h>

#include <optional>
#include <string>
#include <string_view>

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

// The plain text of a stored secret: "" for null or "", otherwise up to its first zero byte.
std::optional<std::string> nimbrelc_utils_get_decrypted_string(const char *stored,
                                                               std::string_view passphrase);

enum class cipher_direction { encrypt, decrypt };

// Runs one cipher over the whole data, with the standard block padding. Key and iv (null where the
// cipher has none) are of the cipher's sizes. Failures are logged under the caller's category.
std::optional<std::string> nimbrelc_utils_run_cipher(
    const char *category, cipher_direction direction, const EVP_CIPHER *cipher,
    const unsigned char *key, const unsigned char *iv, std::string_view data);

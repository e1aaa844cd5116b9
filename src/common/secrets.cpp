// Logs as "nimbrelc_utils".
#include "common/secrets.h"

#include <dbus/dbus.h>
#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evperr.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>

#include "common/handle.h"
#include "common/texts.h"

namespace {

constexpr const char *log_category = "nimbrelc_utils";

constexpr size_t salt_size = 32;
constexpr size_t iv_size = 16;
constexpr size_t header_size = salt_size + iv_size;
constexpr int key_size = 32;
constexpr int key_iterations = 1000;
constexpr const char *blanks = " \t\r\n";

struct secret_key {
    unsigned char bytes[EVP_MAX_KEY_LENGTH] = {};

    secret_key() = default;
    secret_key(const secret_key &) = delete;
    secret_key &operator=(const secret_key &) = delete;
    ~secret_key() {
        OPENSSL_cleanse(bytes, sizeof bytes);
    }
};

using bio_ptr = handle<BIO, BIO_free_all>;

// The library's text for its latest error; forgets it and the earlier ones.
std::string crypto_error() {
    char text[256];
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    ERR_error_string_n(ERR_peek_last_error(), text, sizeof text);
    ERR_clear_error();
    return text;
}

bool derive_key(secret_key &key, std::string_view passphrase, const unsigned char *salt) {
    return or_log(log_category,
                  PKCS5_PBKDF2_HMAC_SHA1(passphrase.data(), static_cast<int>(passphrase.size()),
                                         salt, salt_size, key_iterations, key_size, key.bytes) == 1,
                  "Keygen failed");
}

// Key and iv (null where the cipher has none) are of the cipher's sizes.
std::optional<std::string> run_cipher(const log_source &caller, cipher_direction direction,
                                      const EVP_CIPHER *cipher, const unsigned char *key,
                                      const unsigned char *iv, std::string_view data) {
    const bool encrypt = direction == cipher_direction::encrypt;
    const auto fail = [&caller](const char *format) {
        LOG_FOR(caller, LOG_LEVEL_ERROR, format, crypto_error().c_str());
        return std::nullopt;
    };
    const handle<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free> context(EVP_CIPHER_CTX_new());
    if (context == nullptr) {
        LOG_FOR(caller, LOG_LEVEL_ERROR, "EVP_CIPHER_CTX_new failed");
        return std::nullopt;
    }
    if (EVP_CipherInit_ex(context.get(), cipher, nullptr, key, iv, encrypt) != 1) {
        return fail(encrypt ? "EVP_EncryptInit_ex failed: %s" : "EVP_DecryptInit_ex failed: %s");
    }
    // Room for the padding, and for the library's right to write one block more than it is given.
    std::string result(data.size() + EVP_MAX_BLOCK_LENGTH, '\0');
    int updated = 0;
    if (EVP_CipherUpdate(context.get(), bytes_of(result), &updated, bytes_of(data),
                         static_cast<int>(data.size())) != 1) {
        OPENSSL_cleanse(result.data(), result.size());
        return fail(encrypt ? "EVP_EncryptUpdate failed: %s" : "EVP_DecryptUpdate failed: %s");
    }
    int finished = 0;
    if (EVP_CipherFinal_ex(context.get(), bytes_of(result) + updated, &finished) != 1) {
        OPENSSL_cleanse(result.data(), result.size());
        return fail(encrypt ? "EVP_EncryptFinal_ex failed: %s" : "EVP_DecryptFinal_ex failed: %s");
    }
    result.resize(static_cast<size_t>(updated) + static_cast<size_t>(finished));
    return result;
}

}  // namespace

std::optional<std::string> run_cipher(const log_source &caller, cipher_direction direction,
                                      const bytes_to_key &key, std::string_view data) {
    secret_key bytes;
    const int size = EVP_BytesToKey(key.cipher, EVP_sha1(), key.salt, bytes_of(key.passphrase),
                                    static_cast<int>(key.passphrase.size()), key.iterations,
                                    bytes.bytes, nullptr);
    if (size != EVP_CIPHER_key_length(key.cipher)) {
        LOG_FOR(caller, LOG_LEVEL_ERROR, "Incorrect key size: %d", size);
        return std::nullopt;
    }
    return run_cipher(caller, direction, key.cipher, bytes.bytes, key.iv, data);
}

std::optional<std::string> nimbrelc_utils_encrypt_data(std::string_view data,
                                                       std::string_view passphrase) {
    std::string blob(header_size, '\0');
    unsigned char *salt = bytes_of(blob);
    unsigned char *iv = salt + salt_size;

    if (RAND_bytes(salt, salt_size) != 1) {
        LOG_ERROR("RAND_bytes for salt failed: %s", crypto_error().c_str());
        return std::nullopt;
    }
    secret_key key;
    if (!derive_key(key, passphrase, salt)) {
        return std::nullopt;
    }
    if (RAND_bytes(iv, iv_size) != 1) {
        LOG_ERROR("RAND_bytes for iv failed: %s", crypto_error().c_str());
        return std::nullopt;
    }
    const auto cipher_text =
        run_cipher(log_category, cipher_direction::encrypt, EVP_aes_256_cbc(), key.bytes, iv, data);
    return cipher_text ? std::optional(blob + *cipher_text) : std::nullopt;
}

std::optional<std::string> nimbrelc_utils_decrypt_data(std::string_view blob,
                                                       std::string_view passphrase) {
    if (blob.size() < header_size) {
        // Ends as a blob does whose cipher text was cut off.
        EVPerr(EVP_F_EVP_DECRYPTFINAL_EX, EVP_R_WRONG_FINAL_BLOCK_LENGTH);
        LOG_ERROR("EVP_DecryptFinal_ex failed: %s", crypto_error().c_str());
        return std::nullopt;
    }
    secret_key key;
    if (!derive_key(key, passphrase, bytes_of(blob))) {
        return std::nullopt;
    }
    return run_cipher(log_category, cipher_direction::decrypt, EVP_aes_256_cbc(), key.bytes,
                      bytes_of(blob.substr(salt_size)), blob.substr(header_size));
}

std::optional<std::string> nimbrelc_utils_base64_encode(std::string_view data) {
    if (!or_log(log_category, data.data() != nullptr, "Passed buffer must be non null") ||
        !or_log(log_category, !data.empty(), "Length of passed buffer must be greater than zero")) {
        return std::nullopt;
    }
    const bio_ptr encoder =
        or_log(log_category, bio_ptr(BIO_new(BIO_f_base64())), "Creating BIO base64 failed");
    BIO *sink =
        encoder ? or_log(log_category, BIO_new(BIO_s_mem()), "Creating BIO mem failed") : nullptr;
    if (sink == nullptr) {
        return std::nullopt;
    }
    BIO_set_flags(encoder.get(), BIO_FLAGS_BASE64_NO_NL);
    BIO_push(encoder.get(), sink);
    const int length = static_cast<int>(data.size());
    const int written = BIO_write(encoder.get(), data.data(), length);
    if (written != length) {
        LOG_ERROR("Base64 encode failed with code: %d", written);
        return std::nullopt;
    }
    const int flushed = BIO_flush(encoder.get());
    if (flushed != 1) {
        LOG_ERROR("Base64 encode flush failed with code: %d", flushed);
        return std::nullopt;
    }
    const BUF_MEM *encoded = nullptr;
    BIO_get_mem_ptr(sink, &encoded);
    return std::string(encoded->data, encoded->length);
}

std::optional<std::string> nimbrelc_utils_base64_decode(const char *text) {
    if (!or_log(log_category, text, "Passed buffer must be non null")) {
        return std::nullopt;
    }
    // Portion by portion, as the library's filter for one line did before OpenSSL 3.4, where it
    // began to take line breaks: a text means the same whatever the library.
    constexpr size_t portion_size = 1024;
    const std::string_view view = text;
    std::string data((view.size() / 4 + 1) * 3, '\0');
    int count = 0;
    for (std::string_view rest = view; rest.size() >= 4;) {
        const std::string_view portion =
            rest.substr(0, std::min(portion_size, rest.size() / 4 * 4));
        int decoded = EVP_DecodeBlock(bytes_of(data) + count, bytes_of(portion),
                                      static_cast<int>(portion.size()));
        if (portion.ends_with('=')) {
            decoded -= portion.ends_with("==") ? 2 : 1;
        }
        if (decoded <= 0) {
            break;
        }
        count += decoded;
        rest.remove_prefix(portion.size());
    }
    // A text that gave fewer bytes than its length promises is damaged too.
    const size_t end = view.find_last_not_of(blanks) + 1;
    const size_t length = end - std::min(end, view.find_first_not_of(blanks));
    if (count == 0 || static_cast<size_t>(count) + 2 < length / 4 * 3) {
        LOG_ERROR("Base64 decode failed with code: %d", count);
        return std::nullopt;
    }
    data.resize(static_cast<size_t>(count));
    return data;
}

std::optional<std::string> nimbrelc_utils_encrypt_and_base64_encode_data(
    std::string_view data, std::string_view passphrase) {
    const auto blob = or_log(log_category, nimbrelc_utils_encrypt_data(data, passphrase),
                             "encrypt_and_base64_encode: data encryption failed");
    return blob ? or_log(log_category, nimbrelc_utils_base64_encode(*blob),
                         "encrypt_and_base64_encode: data encoding failed")
                : std::nullopt;
}

std::optional<std::string> nimbrelc_utils_decrypt_base64_encoded_data(const char *text,
                                                                      std::string_view passphrase) {
    const auto blob = or_log(log_category, nimbrelc_utils_base64_decode(text),
                             "decrypt_base64_encoded_data: data decoding failed");
    return blob ? or_log(log_category, nimbrelc_utils_decrypt_data(*blob, passphrase),
                         "decrypt_base64_encoded_data: data decryption failed")
                : std::nullopt;
}

std::optional<std::string> decrypted_text(std::optional<std::string> plain) {
    if (!plain || !dbus_validate_utf8(plain->c_str(), nullptr)) {
        return std::nullopt;
    }
    plain->resize(strlen(plain->c_str()));
    return plain;
}

std::optional<std::string> nimbrelc_utils_get_decrypted_string(const char *stored,
                                                               std::string_view passphrase) {
    if (nimbrelc_utils_is_null_or_empty(stored)) {
        return "";
    }
    return or_log(log_category,
                  decrypted_text(nimbrelc_utils_decrypt_base64_encoded_data(stored, passphrase)),
                  "Decryption failed");
}

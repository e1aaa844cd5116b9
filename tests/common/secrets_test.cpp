#include "common/secrets.h"

#include <gtest/gtest.h>

#include <string>

#include "config/stored_secrets.h"
#include "sharing/sharing.h"

using namespace std::string_literals;

namespace {

// Made with another implementation: salt and vector count up.
constexpr const char *stored =
    "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh9AQUJDREVGR0hJSktMTU5PgFYuDqsnlAgnndiEfOjHzg==";
constexpr const char *passphrase = "GLdRwc9b93";

TEST(secrets, decrypts_known_secrets_and_refuses_damaged_ones) {
    EXPECT_EQ(nimbrelc_utils_get_decrypted_string(stored, passphrase), "p\xC3\xA4ss");
    EXPECT_EQ(nimbrelc_utils_decrypt_base64_encoded_data(stored, passphrase), "p\xC3\xA4ss\0rest"s);
    const std::string blob = nimbrelc_utils_base64_decode(stored).value_or("");
    for (size_t size = 0; size < blob.size(); ++size) {
        EXPECT_FALSE(nimbrelc_utils_decrypt_data(blob.substr(0, size), passphrase)) << size;
    }
    EXPECT_FALSE(nimbrelc_utils_get_decrypted_string("not base64!", passphrase));
    const auto no_text = nimbrelc_utils_encrypt_and_base64_encode_data("\xFF", passphrase);
    EXPECT_FALSE(nimbrelc_utils_get_decrypted_string(no_text.value_or("").c_str(), passphrase));
    const auto no_password =
        nimbrelc_utils_encrypt_and_base64_encode_data("\xFF", stored_storage_password.passphrase);
    EXPECT_FALSE(
        file_services_request_handler_decrypt_storage_password(no_password.value_or("").c_str()));
}

TEST(secrets, encrypts_with_fresh_salt_and_vector) {
    const auto first = nimbrelc_utils_encrypt_data("plain", "pass");
    const auto second = nimbrelc_utils_encrypt_data("plain", "pass");
    ASSERT_TRUE(first && second);
    EXPECT_NE(first->substr(0, 32), second->substr(0, 32));
    EXPECT_NE(first->substr(32, 16), second->substr(32, 16));
}

TEST(secrets, codes_base64_in_one_line) {
    std::string text = nimbrelc_utils_base64_encode(std::string(5000, 'x')).value_or("");
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_FALSE(nimbrelc_utils_base64_encode(""));
    text[3000] = '\n';  // far behind the decoder's first portion
    for (const char *bad : {"", "QUJD\nREVG", "\nQUJD", "QUI", "!!!!", text.c_str()}) {
        EXPECT_FALSE(nimbrelc_utils_base64_decode(bad)) << bad;
    }
}

}  // namespace

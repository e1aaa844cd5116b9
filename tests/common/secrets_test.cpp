#include "common/secrets.h"

#include <gtest/gtest.h>

#include <string>

using namespace std::string_literals;

namespace {

// Made with another implementation, with salts and vectors that count up or down.
constexpr const char *stored_text =
    "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh9AQUJDREVGR0hJSktMTU5PmNKvMoJPy1LAeRrjmJ8SvQ==";
constexpr const char *stored_block =
    "Hx4dHBsaGRgXFhUUExIREA8ODQwLCgkIBwYFBAMCAQBPTk1MS0pJSEdGRURDQkFA3gSIR63a8iCGg9hIvGB9Njv1d64d"
    "73LxYku1CG0tRDc=";
constexpr const char *stored_nothing =
    "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh9AQUJDREVGR0hJSktMTU5PI++DoZuTfcITqSG9QxNPUg==";
constexpr const char *stored_with_zero =
    "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh9AQUJDREVGR0hJSktMTU5PgFYuDqsnlAgnndiEfOjHzg==";

TEST(secrets, decrypts_known_secrets) {
    EXPECT_EQ(nimbrelc_utils_get_decrypted_string(stored_text, "d9jrV2d9sU"), "correct horse");
    EXPECT_EQ(nimbrelc_utils_get_decrypted_string(stored_block, "k26u0crDLs"), "0123456789abcdef");
    EXPECT_EQ(nimbrelc_utils_get_decrypted_string(stored_nothing, "x"), "");
    EXPECT_EQ(nimbrelc_utils_get_decrypted_string(stored_with_zero, "GLdRwc9b93"), "p\xC3\xA4ss");
    EXPECT_EQ(nimbrelc_utils_decrypt_base64_encoded_data(stored_with_zero, "GLdRwc9b93"),
              "p\xC3\xA4ss\0rest"s);
}

TEST(secrets, encrypts_with_fresh_salt_and_padding) {
    for (const size_t size : {0U, 1U, 15U, 16U, 17U, 1000U}) {
        const std::string plain(size, 'p');
        const auto first = nimbrelc_utils_encrypt_data(plain, "pass");
        const auto second = nimbrelc_utils_encrypt_data(plain, "pass");
        ASSERT_TRUE(first && second);
        EXPECT_EQ(first->size(), 48 + (size / 16 + 1) * 16);
        EXPECT_NE(first->substr(0, 32), second->substr(0, 32));
        EXPECT_NE(first->substr(32, 16), second->substr(32, 16));
        EXPECT_EQ(nimbrelc_utils_decrypt_data(*first, "pass"), plain);
    }
}

TEST(secrets, refuses_damaged_secrets) {
    const std::string blob = nimbrelc_utils_base64_decode(stored_block).value_or("");
    for (size_t size = 0; size < blob.size(); ++size) {
        EXPECT_FALSE(nimbrelc_utils_decrypt_data(blob.substr(0, size), "k26u0crDLs")) << size;
    }
    EXPECT_TRUE(nimbrelc_utils_decrypt_base64_encoded_data(stored_block, "k26u0crDLs43"));
    EXPECT_FALSE(nimbrelc_utils_get_decrypted_string(stored_block, "k26u0crDLs43"));  // no UTF-8
    EXPECT_FALSE(nimbrelc_utils_get_decrypted_string("AAAA", "k26u0crDLs"));
    EXPECT_FALSE(nimbrelc_utils_get_decrypted_string("not base64!", "k26u0crDLs"));
}

TEST(secrets, codes_base64_in_one_line) {
    std::string text = nimbrelc_utils_base64_encode(std::string(5000, 'x')).value_or("");
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(nimbrelc_utils_base64_encode("\xFB\xFF\xFE"), "+//+");
    EXPECT_FALSE(nimbrelc_utils_base64_encode(""));

    for (const char *bad : {"", "QUJD\nREVG", "\nQUJD", "QUI", "!!!!"}) {
        EXPECT_FALSE(nimbrelc_utils_base64_decode(bad)) << bad;
    }
    // A break far behind the decoder's first portion.
    text[3000] = '\n';
    EXPECT_FALSE(nimbrelc_utils_base64_decode(text.c_str()));
}

}  // namespace

#include "backup.h"

#include <gtest/gtest.h>

#include <string>

#include "nimbrelc_utils_crypto.h"
#include "nimbrelc_utils_json.h"
#include "secrets.h"

namespace {

json_ptr parse(const std::string &text) {
    return json_ptr(cJSON_Parse(text.c_str()));
}

std::string text_of(const json_ptr &document) {
    return nimbrelc_utils_print_json_unformatted(document.get()).value_or("");
}

std::string encrypted(const char *plain, const char *passphrase) {
    return nimbrelc_utils_encrypt_and_base64_encode_data(plain, passphrase).value_or("");
}

std::string decrypted(const json_ptr &config, const char *path, const char *passphrase) {
    const cJSON *item = nimbrelc_utils_get_json_object(config.get(), path, nullptr);
    return nimbrelc_utils_get_decrypted_string(nimbrelc_utils_empty_if_null_json(item), passphrase)
        .value_or("undecipherable");
}

TEST(Backup, CarriesFieldsInOrderAndSecretsTwice) {
    const std::string stored = encrypted("photos2024", storage_passphrase);
    const json_ptr config =
        parse(R"({"cpeDevice":{"deviceInfo":{"softwareVersion":"08.05.09"}},"vpn":{"enable":2.7,)"
              R"("username":["a list"],"password4":"bm9uc2Vuc2U=","presharedkey4":null},)"
              R"("storage":{"password4":")" +
              stored + R"(","enabled":true},"centralStorage":{"enabled":false}})");
    const json_ptr document = backup_create(config.get());
    EXPECT_EQ(text_of(document),
              R"({"version":"08.05.09","config":{"centralStorage.enabled":false,)"
              R"("storage.enabled":true,"storage.password4":")" +
                  stored +
                  R"(","vpn.enable":2,"vpn.password4":"bm9uc2Vuc2U=","vpn.presharedkey4":null,)"
                  R"("storage.password":"photos2024","vpn.password":"","vpn.presharedkey":""}})");
    EXPECT_EQ(backup_create(nullptr), nullptr);
}

TEST(Backup, FileFormatIsTheFieldsOne) {
    // openssl enc -aes-128-ecb -K <first 16 bytes of sha1("7v!n5&s7")> of {"config":{}}
    const std::string file = nimbrelc_utils_base64_decode("eXosDWYKsUSAtbvRshXYnA==").value_or("");
    EXPECT_EQ(backup_encrypt(R"({"config":{}})"), file);
    EXPECT_EQ(backup_decrypt(file), R"({"config":{}})");
    EXPECT_EQ(backup_decrypt(file.substr(1)), std::nullopt);
    EXPECT_EQ(backup_decrypt(""), std::nullopt);
}

TEST(Backup, RestoresValuesByTheBackupsKind) {
    const json_ptr config =
        parse(R"({"dlna":{"mediaStreamingEnabled":false},"devices":{"usbMode":"host"},)"
              R"("storage":{"enabled":false,"username":"old","password4":"p"},)"
              R"("vpn":{"password4":"","presharedkey4":"","enable":true}})");
    EXPECT_TRUE(backup_restore(
        config.get(),
        parse(R"({"config":{"dlna.mediaStreamingEnabled":true,"devices.usbMode":2.7,)"
              R"("storage.username":"new","storage.password4":"q","storage.password":"plain",)"
              R"("vpn.password4":"v","vpn.presharedkey4":null,"no.such.field":1,)"
              R"("storage":1,"":1,"vpn.enable":[1],"storage.enabled":{"a":1}}})")
            .get()));
    EXPECT_EQ(text_of(config), R"({"dlna":{"mediaStreamingEnabled":true},"devices":{"usbMode":2},)"
                               R"("storage":{"enabled":false,"username":"new","password4":"q"},)"
                               R"("vpn":{"password4":"v","presharedkey4":null,"enable":true}})");
    const std::string before = text_of(config);
    for (const char *text : {"{}", "[]", "5", R"({"config":[1]})", R"({"config":"x"})"}) {
        EXPECT_FALSE(backup_restore(config.get(), parse(text).get())) << text;
    }
    EXPECT_EQ(text_of(config), before);
}

TEST(Backup, RestoresOlderFormsByEncryptingAnew) {
    const json_ptr config = parse(R"({"storage":{"password4":"p"},)"
                                  R"("vpn":{"password4":"v","presharedkey4":"k"}})");
    EXPECT_TRUE(backup_restore(config.get(), parse(R"({"config":{"storage.password":"photos2024",)"
                                                   R"("vpn.presharedkey":"shared-key-1"}})")
                                                 .get()));
    EXPECT_EQ(decrypted(config, "storage.password4", storage_passphrase), "photos2024");
    EXPECT_EQ(decrypted(config, "vpn.presharedkey4", vpn_preshared_key_passphrase), "shared-key-1");
    EXPECT_EQ(decrypted(config, "vpn.password4", vpn_password_passphrase), "");
    const json_ptr bare = parse("{}");
    EXPECT_TRUE(backup_restore(bare.get(), parse(R"({"config":{}})").get()));
    EXPECT_EQ(text_of(bare), "{}");
}

}  // namespace

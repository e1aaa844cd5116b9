#include "maintenance/backup.h"

#include <gtest/gtest.h>

#include <string>

#include "common/secrets.h"
#include "config/stored_secrets.h"
#include "helpers.h"

namespace {

std::string decrypted(const json_ptr &config, const char *path, const char *passphrase) {
    const cJSON *item = nimbrelc_utils_get_json_object(config.get(), path, nullptr);
    return nimbrelc_utils_get_decrypted_string(nimbrelc_utils_empty_if_null_json(item), passphrase)
        .value_or("undecipherable");
}

TEST(backup, carries_fields_of_any_kind) {
    const json_ptr config =
        parse(R"({"cpeDevice":{"deviceInfo":{"softwareVersion":"08.05.09"}},"vpn":{"enable":2.7,)"
              R"("username":["a list"],"password4":"bm9uc2Vuc2U=","presharedkey4":null},)"
              R"("storage":{"enabled":true},"centralStorage":{"enabled":false}})");
    EXPECT_EQ(print(backup_create(config.get())),
              R"({"version":"08.05.09","config":{"centralStorage.enabled":false,)"
              R"("storage.enabled":true,"vpn.enable":2,"vpn.password4":"bm9uc2Vuc2U=",)"
              R"("vpn.presharedkey4":null,"storage.password":"","vpn.password":"",)"
              R"("vpn.presharedkey":""}})");
}

TEST(backup, is_encrypted_as_in_the_field) {
    // openssl enc -aes-128-ecb -K <first 16 bytes of sha1("7v!n5&s7")> of {"config":{}}
    const std::string file = nimbrelc_utils_base64_decode("eXosDWYKsUSAtbvRshXYnA==").value_or("");
    EXPECT_EQ(backup_encrypt(R"({"config":{}})"), file);
    EXPECT_EQ(backup_decrypt(file), R"({"config":{}})");
    EXPECT_EQ(backup_decrypt(file.substr(1)), std::nullopt);
}

TEST(backup, restores_values_by_the_backups_kind) {
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
    EXPECT_EQ(print(config), R"({"dlna":{"mediaStreamingEnabled":true},"devices":{"usbMode":2},)"
                             R"("storage":{"enabled":false,"username":"new","password4":"q"},)"
                             R"("vpn":{"password4":"v","presharedkey4":null,"enable":true}})");
}

TEST(backup, restores_older_forms_by_encrypting_anew) {
    const json_ptr config = parse(R"({"storage":{"password4":"p"},)"
                                  R"("vpn":{"password4":"v","presharedkey4":"k"}})");
    const json_ptr older =
        parse(R"({"config":{"storage.password":"photos2024","vpn.presharedkey":"shared-key-1"}})");
    EXPECT_TRUE(backup_restore(config.get(), older.get()));
    EXPECT_EQ(decrypted(config, "storage.password4", stored_storage_password.passphrase),
              "photos2024");
    EXPECT_EQ(decrypted(config, "vpn.presharedkey4", stored_vpn_preshared_key.passphrase),
              "shared-key-1");
    EXPECT_EQ(decrypted(config, "vpn.password4", stored_vpn_password.passphrase), "");
    const json_ptr bare = parse("{}");
    EXPECT_TRUE(backup_restore(bare.get(), older.get()));
    EXPECT_EQ(print(bare), "{}");
}

}  // namespace

#include "migration/migration.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "common/secrets.h"
#include "config/stored_secrets.h"
#include "helpers.h"
#include "migration/migration_steps.h"
#include "migration/migration_utils.h"

namespace {

std::string steps_run;

template <char Name>
bool step(cJSON *) {
    steps_run += Name;
    return Name != 'x';
}

TEST(migration, runs_the_steps_between_two_versions) {
    const migration steps[] = {{"08.04.99", "08.05.01", step<'0'>},
                               {"08.05.08", "08.05.09", step<'1'>},
                               {"08.07.00", "08.08.00", step<'x'>},
                               {"08.08.00", "08.09.00", step<'2'>}};
    const std::tuple<const char *, const char *, bool, const char *> rows[] = {
        {"08.04.99", "08.05.09", true, "01"},
        {"08.04.98", "08.06.00", true, "01"},
        {"08.05.01", "08.05.09", true, "1"},
        {"08.05.00", "08.05.09", true, "1"},  // inside a step: that step is skipped
        {"08.05.02", "08.05.03", true, ""},   // no whole step between
        {"08.04.99", "08.05.00", true, ""},
        {"08.05.09", "08.05.09", true, ""},
        {"08.05.08", "08.09.00", false, "1x"},  // ends at a failed step
        {"08.05.09", "08.04.99", false, ""},
        {"8.5.9", "08.05.09", false, ""},
        {"08.04.99", "08.05.09a", false, ""},
    };
    for (const auto &[from, to, result, run] : rows) {
        steps_run.clear();
        EXPECT_EQ(run_migration(steps, 4, from, to, nullptr), result) << from << to;
        EXPECT_EQ(steps_run, run) << from << to;
    }
    const migration backwards[] = {{"02.00.00", "01.00.00", step<'0'>}};
    const migration overlapping[] = {{"01.00.00", "03.00.00", step<'0'>},
                                     {"02.00.00", "04.00.00", step<'1'>}};
    EXPECT_FALSE(run_migration(backwards, 1, "01.00.00", "01.00.00", nullptr));
    EXPECT_FALSE(run_migration(overlapping, 2, "01.00.00", "04.00.00", nullptr));
    EXPECT_EQ(steps_run, "");
}

TEST(migration_steps, move_legacy_secrets_that_decrypt) {
    const std::string secret = nimbrelc_utils_encrypt_and_base64_encode_data(
                                   "photos2024", stored_storage_password.passphrase)
                                   .value_or("");
    const std::string legacy = R"({"password_legacy":")" + secret + "\"";
    const std::pair<std::string, std::string> rows[] = {
        {legacy + R"(,"password4":"old","password3":"x"})", R"({"password4":")" + secret + R"("})"},
        {R"({"password_legacy":"bm9uc2Vuc2U=","password4":"kept"})", R"({"password4":"kept"})"},
        // kept: a replace, so where the new member was missing the secret is lost.
        {legacy + "}", R"({"password4":""})"},
    };
    for (const auto &[before, after] : rows) {
        const json_ptr object = parse(before);
        migrate_encrypted_field(object.get(), "password_legacy", "password3", "password4",
                                stored_storage_password.passphrase);
        EXPECT_EQ(print(object), after);
    }
}

TEST(migration_steps, of_no_flavour_still_work) {
    const json_ptr document = parse(
        R"({"procmon":{},"nas":{"fileServices":{"samba":{"daemon":1,"enabled":true,)"
        R"("startTimeOut[ms]":5}}},"ssh":{},"storage":{"enabled":true,"username":"u","password":"p"}})");
    EXPECT_TRUE(upgrade_from_07_71_99_to_07_77_00(document.get()));
    EXPECT_TRUE(upgrade_from_08_00_37_to_08_00_38(document.get()));
    EXPECT_TRUE(upgrade_from_07_70_13_to_07_70_14(document.get()));
    EXPECT_EQ(print(document), R"({"nas":{"fileServices":{"samba":{"enabled":true}}},)"
                               R"("storage":{"enabled":false,"username":"","password3":""},)"
                               R"("centralStorage":{"enabled":true}})");

    // Made with Python: EVP_BytesToKey(SHA-1, 1000 iterations) written out by hand, and the package
    // `cryptography` for AES-256-CBC.
    const char *secret = "AQIDBAUGBwhkZWZnaGlqa2xtbm9wcXJzWEZRT67ZCJXItBOZUrTBSQ==";
    cJSON *storage = cJSON_GetObjectItem(document.get(), "storage");
    migration_utils_replace_text(storage, "password3", secret);
    cJSON_AddStringToObject(storage, "password4", "first");
    EXPECT_TRUE(upgrade_from_08_05_08_to_08_05_09(document.get()));
    ASSERT_EQ(cJSON_GetArraySize(storage), 4);  // kept: added beside the existing one
    EXPECT_EQ(nimbrelc_utils_get_decrypted_string(cJSON_GetArrayItem(storage, 3)->valuestring,
                                                  stored_storage_password.passphrase),
              "summer-2019");
    EXPECT_EQ(migration_utils_decrypt_string_R8("", "lj3Z2W3#"), "");
    for (const char *damaged : {"c2hvcnQ=", "****"}) {
        EXPECT_EQ(migration_utils_decrypt_string_R8(damaged, "lj3Z2W3#"), std::nullopt);
    }
}

}  // namespace

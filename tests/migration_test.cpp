#include "migration.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/json_ptr.h"
#include "migration/kq3_migration_08.05.08_08.05.09.h"
#include "migration/migration_steps.h"
#include "migration/migration_utils.h"
#include "nimbrelc_utils_crypto.h"
#include "nimbrelc_utils_json.h"
#include "secrets.h"

namespace {

std::vector<std::string> steps_run;

template <int Number>
bool record(cJSON *) {
    steps_run.push_back(std::to_string(Number));
    return true;
}

bool refuse(cJSON *) {
    steps_run.push_back("refused");
    return false;
}

constexpr migration two_steps[] = {
    {"08.04.99", "08.05.01", record<0>},
    {"08.05.08", "08.05.09", record<1>},
};

std::string text_of(const json_ptr &document) {
    return nimbrelc_utils_print_json_unformatted(document.get()).value_or("");
}

json_ptr parse(const std::string &text) {
    return json_ptr(cJSON_Parse(text.c_str()));
}

TEST(MigrationEngine, RunsTheStepsBetweenTwoVersions) {
    struct {
        const char *from, *to;
        bool result;
        std::vector<std::string> steps;
    } const cases[] = {
        {"08.04.99", "08.05.09", true, {"0", "1"}},
        {"08.04.98", "08.06.00", true, {"0", "1"}},
        {"08.05.01", "08.05.09", true, {"1"}},
        {"08.05.00", "08.05.09", true, {"1"}},  // inside a step: that step is skipped
        {"08.05.02", "08.05.03", true, {}},     // no whole step between
        {"08.05.09", "08.05.10", true, {}},
        {"08.04.99", "08.05.00", true, {}},
        {"08.05.09", "08.05.09", true, {}},
        {"08.05.09", "08.04.99", false, {}},
        {"8.5.9", "08.05.09", false, {}},
        {"08.04.99", "08.05.09a", false, {}},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::string(row.from) + " to " + row.to);
        steps_run.clear();
        EXPECT_EQ(run_migration(two_steps, 2, row.from, row.to, nullptr), row.result);
        EXPECT_EQ(steps_run, row.steps);
    }
}

TEST(MigrationEngine, StopsAtTheFirstFailedStep) {
    const migration table[] = {
        {"01.00.00", "02.00.00", record<0>},
        {"02.00.00", "03.00.00", refuse},
        {"03.00.00", "04.00.00", record<2>},
    };
    steps_run.clear();
    EXPECT_FALSE(run_migration(table, 3, "01.00.00", "04.00.00", nullptr));
    EXPECT_EQ(steps_run, (std::vector<std::string>{"0", "refused"}));
}

TEST(MigrationEngine, RefusesAWrongTableBeforeAnythingElse) {
    const migration backwards[] = {{"02.00.00", "01.00.00", record<0>}};
    const migration overlapping[] = {{"01.00.00", "03.00.00", record<0>},
                                     {"02.00.00", "04.00.00", record<1>}};
    steps_run.clear();
    EXPECT_FALSE(run_migration(backwards, 1, "01.00.00", "01.00.00", nullptr));
    EXPECT_FALSE(run_migration(overlapping, 2, "01.00.00", "04.00.00", nullptr));
    EXPECT_TRUE(steps_run.empty());
    EXPECT_TRUE(run_migration(nullptr, 0, "01.00.00", "02.00.00", nullptr));
}

TEST(MigrationSteps, ConvertDatesAndForgetOldCrashes) {
    const json_ptr document = parse(
        R"({"cpeDevice":{"deviceInfo":{"firstUseDate":"2019-05-03T10:20:30.123+02:00"}},)"
        R"("ssh":{"activationDate":"2020-01-01T00:00:00"},"vpn":{"lastConnectTimestamp":null},)"
        R"("syslog":{"activationDate":"2020-01-01T00:00:00Z"},)"
        R"("segfault":{"count":4,"lastTimestamp":"x","dumps":[]}})");
    EXPECT_TRUE(kq3_upgrade_from_08_04_99_to_08_05_01(document.get()));
    EXPECT_EQ(text_of(document),
              R"({"cpeDevice":{"deviceInfo":{"firstUseDate":"2019-05-03T10:20:30Z"}},)"
              R"("ssh":{"activationDate":null},"vpn":{"lastConnectTimestamp":null},)"
              R"("syslog":{"activationDate":"2020-01-01T00:00:00Z"},)"
              R"("segfault":{"count":0,"lastTimestamp":null,"dumps":[]}})");
}

TEST(MigrationSteps, MoveLegacySecretsThatDecrypt) {
    const std::string secret =
        nimbrelc_utils_encrypt_and_base64_encode_data("photos2024", storage_passphrase)
            .value_or("");
    struct {
        std::string before, after;
    } const cases[] = {
        {R"({"password_legacy":")" + secret + R"(","password4":"old","password3":"x"})",
         R"({"password4":")" + secret + R"("})"},
        {R"({"password_legacy":"","password3":"x"})", R"({"password4":""})"},
        {R"({"password_legacy":"bm9uc2Vuc2U=","password4":"kept"})", R"({"password4":"kept"})"},
        // Kept: a replace, so where the new member was missing the secret is lost.
        {R"({"password_legacy":")" + secret + R"("})", R"({"password4":""})"},
        {"{}", R"({"password4":""})"},
    };
    for (const auto &row : cases) {
        const json_ptr object = parse(row.before);
        migrate_encrypted_field(object.get(), "password_legacy", "password3", "password4",
                                storage_passphrase);
        EXPECT_EQ(text_of(object), row.after);
    }
    migrate_encrypted_field(nullptr, "a", "b", "c", storage_passphrase);
}

TEST(MigrationSteps, ReadTheOlderEncryption) {
    // Made with Python: EVP_BytesToKey(SHA-1, 1000 iterations) written out by hand, and the package
    // `cryptography` for AES-256-CBC.
    const char *secret = "AQIDBAUGBwhkZWZnaGlqa2xtbm9wcXJzWEZRT67ZCJXItBOZUrTBSQ==";
    EXPECT_EQ(migration_utils_decrypt_string_R8(secret, "lj3Z2W3#"), "summer-2019");
    EXPECT_EQ(migration_utils_decrypt_string_R8("", "lj3Z2W3#"), "");
    EXPECT_EQ(migration_utils_decrypt_string_R8(nullptr, "lj3Z2W3#"), "");
    EXPECT_EQ(migration_utils_decrypt_string_R8("c2hvcnQ=", "lj3Z2W3#"), std::nullopt);
    EXPECT_EQ(migration_utils_decrypt_string_R8("****", "lj3Z2W3#"), std::nullopt);

    const json_ptr document =
        parse(std::string(R"({"storage":{"password4":"first","password3":")") + secret + R"("}})");
    EXPECT_TRUE(upgrade_from_08_05_08_to_08_05_09(document.get()));
    const cJSON *storage = cJSON_GetObjectItem(document.get(), "storage");
    ASSERT_EQ(cJSON_GetArraySize(storage), 2);  // kept: added beside the existing one
    EXPECT_STREQ(storage->child->valuestring, "first");
    EXPECT_EQ(
        nimbrelc_utils_get_decrypted_string(storage->child->next->valuestring, storage_passphrase),
        "summer-2019");
}

TEST(MigrationSteps, DropObsoleteEntriesAndCredentials) {
    const json_ptr document = parse(
        R"({"procmon":{},"nas":{"fileServices":{"samba":{"daemon":1,"enabled":true,)"
        R"("startTimeOut[ms]":5}}},"ssh":{},"storage":{"enabled":true,"username":"u","password":"p"}})");
    EXPECT_TRUE(upgrade_from_07_71_99_to_07_77_00(document.get()));
    EXPECT_EQ(text_of(document), R"({"nas":{"fileServices":{"samba":{"enabled":true}}},)"
                                 R"("storage":{"enabled":false,"username":"","password2":""}})");
    EXPECT_TRUE(upgrade_from_08_00_37_to_08_00_38(document.get()));
    EXPECT_TRUE(upgrade_from_07_70_13_to_07_70_14(document.get()));
    EXPECT_EQ(text_of(document), R"({"nas":{"fileServices":{"samba":{"enabled":true}}},)"
                                 R"("storage":{"enabled":false,"username":"","password3":""},)"
                                 R"("centralStorage":{"enabled":true}})");
}

TEST(MigrationSteps, LeaveOddDocumentsStanding) {
    for (const char *text :
         {"[]", "5", "{}", R"({"storage":[],"vpn":7,"segfault":"x","ssh":null})"}) {
        const json_ptr document = parse(text);
        for (const auto step :
             {kq3_upgrade_from_08_04_99_to_08_05_01, kq3_upgrade_from_08_05_08_to_08_05_09,
              upgrade_from_07_71_99_to_07_77_00, upgrade_from_08_00_37_to_08_00_38,
              upgrade_from_08_05_08_to_08_05_09}) {
            EXPECT_TRUE(step(document.get()));
        }
    }
}

}  // namespace

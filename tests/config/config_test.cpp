#include "config/config.h"

#include <gtest/gtest.h>

#include <string>

#include "common/files.h"
#include "helpers.h"

TEST(config, edits_and_saves_one_document) {
    const temporary_directory directory;
    const std::string file = directory / "nimbrelc.json";
    EXPECT_FALSE(nimbrelc_config_save());
    EXPECT_STREQ(nimbrelc_config_get_software_version(), "");

    const char *text = R"({"cpeDevice":{"deviceInfo":{"softwareVersion":"08.05.09"}},"ssh":{}})";
    ASSERT_TRUE(dump_string_to_file(file.c_str(), text));
    ASSERT_TRUE(nimbrelc_config_load(file.c_str()));
    EXPECT_STREQ(nimbrelc_config_get_software_version(), "08.05.09");
    EXPECT_EQ(std::filesystem::status(file).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    // A load that fails leaves the document, yet the next save goes to its path.
    const std::string broken = directory / "broken.json";
    ASSERT_TRUE(dump_string_to_file(broken.c_str(), std::string(2000, '[').c_str()));
    EXPECT_FALSE(nimbrelc_config_load(broken.c_str()));
    ASSERT_NE(get_config_item("ssh"), nullptr);
    cJSON_AddTrueToObject(get_config_item("ssh"), "enabled");
    EXPECT_TRUE(nimbrelc_config_save());
    EXPECT_EQ(nimbrelc_utils_read_file(file.c_str()), text);
    ASSERT_TRUE(nimbrelc_config_load(broken.c_str()));
    EXPECT_TRUE(cJSON_IsTrue(get_config_item("ssh.enabled")));

    EXPECT_TRUE(nimbrelc_config_free());
    EXPECT_EQ(get_config_root(), nullptr);
}

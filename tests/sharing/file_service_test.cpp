// What the file services make of their settings and disks.
#include "sharing/file_service.h"

#include <gtest/gtest.h>

#include <array>
#include <utility>
#include <vector>

#include "config/config.h"
#include "helpers.h"
#include "sharing/file_service_config.h"
#include "sharing/file_services_table.h"
#include "sharing/share_names.h"
#include "sharing/share_settings.h"

namespace {

TEST(file_service_samba, writes_its_configuration) {
    const json_ptr disks = parse(R"([
        {"label": "skipped", "mount_point": ""},
        {"label": "My Data", "mount_point": "/media/My Data", "read_only": true},
        {"label": "none", "mount_point": null}, "no record",
        {"LABEL": "b", "mount_point": "/media/b", "read_only": "true"}])");
    const json_ptr settings = parse(R"({
        "serverName": "Home gateway", "workgroup": "WORKGROUP", "maxConnections": 16.9,
        "anonymousUserLogin": "default", "defaultGlobalSettings": [
            7, {"directive": "interfaces", "args": ["lo", "eth1"]}, {"args": "x"}]})");
    for (const bool is_protected : {false, true}) {
        const std::string guest = is_protected ? "no" : "yes";
        EXPECT_EQ(samba_config_text(settings.get(), disks.get(), is_protected),
                  "[global]\n  server string = \"Home gateway\"\n  workgroup = WORKGROUP\n"
                  "  max connections = 16\n  guest account = default\n  interfaces = lo eth1\n" +
                      std::string(is_protected ? "  username map = "
                                                 "/tmp/nimbrel/configs/sambausers.map\n"
                                               : "") +
                      "\n\n[My Data]\n  path = \"/media/My Data\"\n  guest ok = " + guest +
                      "\n  guest only = no\n  writeable = no\n  oplocks = yes\n"
                      "\n[b]\n  path = /media/b\n  guest ok = " +
                      guest + "\n  guest only = no\n  writeable = yes\n  oplocks = yes\n\n");
    }
}

TEST(file_service_afp, writes_its_configuration) {
    const json_ptr disks = parse(R"([
        {"label": "My Data", "mount_point": "/media/My Data", "read_only": true},
        {"label": "b", "mount_point": "/media/b", "read_only": 1}])");
    const json_ptr settings = parse(R"({
        "defaultUAMsList": "uams_dhx.so, uams_dhx2.so", "anonymousUserLogin": "default",
        "defaultServerOptions": [{"directive": "log level", "args": ["default:warn", "x"]}]})");
    for (const bool is_protected : {false, true}) {
        EXPECT_EQ(afp_config_text(settings.get(), disks.get(), is_protected),
                  std::string("[Global]\n  uam list = uams_dhx.so, uams_dhx2.so") +
                      (is_protected ? "" : ",uams_guest.so") +
                      "\n  guest account = default\n  log level = default:warn x\n\n"
                      "[My Data]\n  path = \"/media/My Data\"\n  time machine = yes\n"
                      "  unix priv = no\n  read only = yes\n\n"
                      "[b]\n  path = /media/b\n  time machine = yes\n"
                      "  unix priv = no\n  read only = no\n\n");
    }
}

TEST(share_names, are_distinct_and_mean_nothing_else) {
    const std::array<const char *, 3> rows[] = {
        // Label, mount point, name.
        {"Gl\u00f6bal #1; 'a' \"b\" %S", "/0", "Gl\u00f6bal #1; 'a' \"b\" %S"},
        {"a]\n[b\\", "/1", "a__[b\\"},
        {"globall", "/2", "globall"},
        {"GLO BAL", "/3", "_GLO BAL"},
        {"IPC$", "/4", "_IPC$"},
        {"_ipc$", "/5", "_ipc$_"},
        {"", "/6", "_"},
        {" ", "/7", "_ "},
        {"My Disk", "/8", "My Disk"},
        {"my  disk", "/9", "my  disk_"},
        {"my  disk", "/9", "my  disk_"},  // announced twice
        {"MY DISK_", "/10", "MY DISK__"},
        {"MyDisk", "/13", "MyDisk"},
        {"My Disk", "/8", "My Disk"},
        {"\u00c9cole", "/11", "\u00c9cole"},
        {"\u00e9cole", "/12", "\u00e9cole_"},
    };
    std::vector<std::string> texts;
    std::vector<std::string> expected;
    for (const auto &[label, mount_point, name] : rows) {
        texts.insert(texts.end(), {label, mount_point});
        expected.emplace_back(name);
    }
    const json_ptr partitions = partitions_of(texts);
    std::vector<std::string> names;
    for (const named_share &share : share_names_of(partitions.get())) {
        names.push_back(share.name);
    }
    EXPECT_EQ(names, expected);
}

TEST(file_service_config, keeps_values_from_changing_other_lines) {
    std::string text;
    for (const char *value : {"a\\b", "a\\\\", "a b\\", "a\t\r\n\x7f[x]", "", " "}) {
        file_service_write_line(text, "k", value);
    }
    EXPECT_EQ(text,
              "  k = a\\b\n  k = a\\_\n  k = \"a b_\"\n  k = a____[x]\n  k = \n  k = \" \"\n");
}

TEST(file_service, stores_a_switch_only_when_it_changes) {
    const stored_document document(R"({"on": {"enabled": true, "unsaved": 1},
        "off": {"Enabled": false}, "odd": {"enabled": 1, "other": 2}, "bare": {}, "list": []})");
    set_config_item("on.unsaved", parse("2"));
    EXPECT_TRUE(file_service_save_state("on", true));
    EXPECT_FALSE(file_service_save_state("list", true));
    EXPECT_EQ(document.saved("on.unsaved"), "1");
    EXPECT_FALSE(file_service_is_enabled("odd"));
    EXPECT_TRUE(file_service_is_switched_on("odd"));
    EXPECT_TRUE(file_service_save_state("off", true) && file_service_save_state("odd", true) &&
                file_service_save_state("bare", true));
    EXPECT_EQ(document.saved("off") + document.saved("odd") + document.saved("bare"),
              R"({"Enabled":true}{"enabled":true,"other":2}{"enabled":true})");
}

TEST(share_settings, take_credentials_by_the_rules) {
    const stored_document document(
        R"({"storage": {"enabled": true, "username": "", "password4": ""}})");
    const std::string long_name(33, 'a');
    const std::pair<const char *, const char *> refused[] = {
        {"ab", "passw0rd"},      {long_name.c_str(), "passw0rd"}, {"aLice", "passw0rd"},
        {"al ice", "passw0rd"},  {"alice\n", "passw0rd"},         {"alice", "passw0r"},
        {"alice", "password"},   {"alice", "12345678"},           {"alice", "passw0rdpassw0rdp"},
        {"alice", "passw0rd\t"}, {"passw0rd", "passw0rd"},        {"alice", ""},
    };
    for (const auto &[name, password] : refused) {
        EXPECT_FALSE(share_settings_change_protection(true, name, password)) << name << password;
    }
    EXPECT_TRUE(share_settings_change_protection(true, "a\\-", "PASSWORD "));
    EXPECT_EQ(document.saved("storage.username"), R"("a\\-")");
}

}  // namespace

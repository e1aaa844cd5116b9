// What the file services make of their queues, settings and disks.
#include "sharing/file_service.h"

#include <gtest/gtest.h>

#include <string_view>
#include <utility>
#include <vector>

#include "config/config.h"
#include "helpers.h"
#include "sharing/file_service_afp.h"
#include "sharing/file_service_config.h"
#include "sharing/file_service_events.h"
#include "sharing/file_service_samba.h"
#include "sharing/share_names.h"

namespace {

const json_ptr disks = parse(R"([
    {"label": "skipped", "mount_point": ""},
    {"label": "My Data", "mount_point": "/media/My Data", "read_only": true},
    {"label": "none", "mount_point": null}, "no record",
    {"LABEL": "b", "mount_point": "/media/b", "read_only": "true"}])");

TEST(file_service_events, reduce_a_queue_to_one_action) {
    const struct {
        std::string_view queue;  // oldest first: U up, D down, R reload, S restart
        const char *action;
    } rows[] = {
        {"", "NO_EVENT"},    {"S", "NO_EVENT"},   {"U", "START"},     {"D", "STOP"},
        {"RRR", "RELOAD"},   {"DU", "RESTART"},   {"UD", "STOP"},     {"DR", "STOP"},
        {"RDR", "STOP"},     {"DUD", "STOP"},     {"DURD", "STOP"},   {"URR", "START"},
        {"RUR", "START"},    {"UDU", "RESTART"},  {"DRU", "RESTART"}, {"DUR", "RESTART"},
        {"DUDU", "RESTART"}, {"SR", "RELOAD"},    {"SU", "START"},    {"DS", "STOP"},
        {"DUDDR", "STOP"},   {"UDRU", "RESTART"},
    };
    for (const auto &row : rows) {
        std::vector<file_service_event> queue;
        for (const char letter : row.queue) {
            queue.push_back(static_cast<file_service_event>(std::string_view("UDRS").find(letter)));
        }
        EXPECT_STREQ(file_service_event_name(file_service_simplify_events(queue)), row.action)
            << row.queue;
    }
}

TEST(file_service_samba, writes_its_configuration) {
    const json_ptr settings = parse(R"({
        "serverName": "Home gateway", "workgroup": "WORKGROUP", "maxConnections": 16.9,
        "anonymousUserLogin": "default", "defaultGlobalSettings": [
            {"directive": "interfaces", "args": ["lo", "eth1"]}]})");
    const std::string global = R"([global]
  server string = "Home gateway"
  workgroup = WORKGROUP
  max connections = 16
  guest account = default
  interfaces = lo eth1
)";
    const std::string shares = R"(
[My Data]
  path = "/media/My Data"
  guest ok = yes
  guest only = no
  writeable = no
  oplocks = yes

[b]
  path = /media/b
  guest ok = yes
  guest only = no
  writeable = yes
  oplocks = yes

)";
    EXPECT_EQ(samba_config_text(settings.get(), disks.get(), false), global + "\n" + shares);
    const json_ptr one = parse(R"([{"label": "a", "mount_point": "/a"}])");
    EXPECT_EQ(samba_config_text(settings.get(), one.get(), true),
              global +
                  "  username map = /tmp/nimbrel/configs/sambausers.map\n\n[a]\n  path = /a\n"
                  "  guest ok = no\n  guest only = no\n  writeable = yes\n  oplocks = yes\n\n");
    const json_ptr wrong = parse(R"({"serverName": 1, "maxConnections": "2",
                                     "defaultGlobalSettings": [7, {"args": "x"}]})");
    EXPECT_EQ(samba_config_text(wrong.get(), settings.get(), false),
              "[global]\n  server string = \n  workgroup = \n  max connections = 0\n"
              "  guest account = \n\n\n");
}

TEST(file_service_afp, writes_its_configuration) {
    const json_ptr settings = parse(R"({
        "defaultUAMsList": "uams_dhx.so, uams_dhx2.so", "anonymousUserLogin": "default",
        "defaultServerOptions": [{"directive": "log level", "args": ["default:warn", "x"]}]})");
    const std::string methods = "[Global]\n  uam list = uams_dhx.so, uams_dhx2.so";
    const std::string rest = R"(
  guest account = default
  log level = default:warn x


[My Data]
  path = "/media/My Data"
  time machine = yes
  unix priv = no
  read only = yes

[b]
  path = /media/b
  time machine = yes
  unix priv = no
  read only = no

)";
    EXPECT_EQ(afp_config_text(settings.get(), disks.get(), false),
              methods + ",uams_guest.so" + rest);
    EXPECT_EQ(afp_config_text(settings.get(), disks.get(), true), methods + rest);
}

TEST(share_names, are_distinct_and_mean_nothing_else) {
    const struct {
        const char *label;
        const char *mount_point;
        const char *name;
    } rows[] = {
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
    const json_ptr partitions(cJSON_CreateArray());
    std::vector<std::string> expected;
    for (const auto &row : rows) {
        cJSON *partition = cJSON_CreateObject();
        cJSON_AddStringToObject(partition, "label", row.label);
        cJSON_AddStringToObject(partition, "mount_point", row.mount_point);
        cJSON_AddItemToArray(partitions.get(), partition);
        expected.emplace_back(row.name);
    }
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
    const std::pair<const char *, const char *> rows[] = {
        {"off", R"({"Enabled":true})"},
        {"odd", R"({"enabled":true,"other":2})"},
        {"bare", R"({"enabled":true})"},
    };
    for (const auto &[section, saved] : rows) {
        EXPECT_TRUE(file_service_save_state(section, true));
        EXPECT_EQ(document.saved(section), saved);
    }
}

}  // namespace

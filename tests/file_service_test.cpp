// What the file services make of their queues, settings and disks.
#include "file_service.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string_view>
#include <vector>

#include "config.h"
#include "file_service_afp.h"
#include "file_service_config.h"
#include "file_service_events.h"
#include "file_service_samba.h"
#include "nimbrelc_utils.h"
#include "nimbrelc_utils_json.h"

namespace {

json_ptr parse(const char *text) {
    json_ptr item(cJSON_Parse(text));
    EXPECT_TRUE(item) << text;
    return item;
}

const json_ptr &disks() {
    static const json_ptr list = parse(R"([
        {"label": "skipped", "mount_point": ""},
        {"label": "My Data", "mount_point": "/media/My Data", "read_only": true},
        {"label": "none", "mount_point": null}, "no record",
        {"LABEL": "b", "mount_point": "/media/b", "read_only": "true"}])");
    return list;
}

}  // namespace

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
    EXPECT_STREQ(file_service_event_name(static_cast<file_service_event>(5)), "UNDEFINED!");
}

TEST(file_service_samba, writes_its_configuration) {
    const json_ptr settings = parse(R"({
        "serverName": "Home gateway", "workgroup": "WORKGROUP", "maxConnections": 16.9,
        "anonymousUserLogin": "default", "defaultGlobalSettings": [
            {"directive": "log level", "args": ["1"]},
            {"directive": "interfaces", "args": ["lo", "eth1"]},
            {"directive": "printcap name"}]})");
    const std::string global =
        "[global]\n"
        "  server string = \"Home gateway\"\n"
        "  workgroup = WORKGROUP\n"
        "  max connections = 16\n"
        "  guest account = default\n"
        "  log level = 1\n"
        "  interfaces = lo eth1\n"
        "  printcap name = \n";
    EXPECT_EQ(samba_config_text(settings.get(), disks().get(), false),
              global +
                  "\n\n"
                  "[My Data]\n"
                  "  path = \"/media/My Data\"\n"
                  "  guest ok = yes\n"
                  "  guest only = no\n"
                  "  writeable = no\n"
                  "  oplocks = yes\n"
                  "\n"
                  "[b]\n"
                  "  path = /media/b\n"
                  "  guest ok = yes\n"
                  "  guest only = no\n"
                  "  writeable = yes\n"
                  "  oplocks = yes\n"
                  "\n");
    const json_ptr one = parse(R"([{"label": "a", "mount_point": "/a"}])");
    EXPECT_EQ(samba_config_text(settings.get(), one.get(), true),
              global +
                  "  username map = /tmp/nimbrel/configs/sambausers.map\n"
                  "\n"
                  "[a]\n"
                  "  path = /a\n"
                  "  guest ok = no\n"
                  "  guest only = no\n"
                  "  writeable = yes\n"
                  "  oplocks = yes\n"
                  "\n");
    const json_ptr no_list = parse(R"({"a": {"label": "a", "mount_point": "/a"}})");
    EXPECT_EQ(samba_config_text(settings.get(), no_list.get(), false), global + "\n\n");
    const json_ptr wrong = parse(R"({"serverName": 1, "maxConnections": "2",
                                     "defaultGlobalSettings": [7, {"args": "x"}]})");
    for (const cJSON *item : {wrong.get(), disks().get(), static_cast<cJSON *>(nullptr)}) {
        EXPECT_EQ(samba_config_text(item, nullptr, false),
                  "[global]\n  server string = \n  workgroup = \n  max connections = 0\n"
                  "  guest account = \n\n\n");
    }
}

TEST(file_service_afp, writes_its_configuration) {
    const json_ptr settings = parse(R"({
        "defaultUAMsList": "uams_dhx.so, uams_dhx2.so", "anonymousUserLogin": "default",
        "defaultServerOptions": [{"directive": "log level", "args": ["default:warn", "x"]}]})");
    const std::string rest =
        "  guest account = default\n"
        "  log level = default:warn x\n"
        "\n\n"
        "[My Data]\n"
        "  path = \"/media/My Data\"\n"
        "  time machine = yes\n"
        "  unix priv = no\n"
        "  read only = yes\n"
        "\n"
        "[b]\n"
        "  path = /media/b\n"
        "  time machine = yes\n"
        "  unix priv = no\n"
        "  read only = no\n"
        "\n";
    const std::string methods = "[Global]\n  uam list = uams_dhx.so, uams_dhx2.so";
    EXPECT_EQ(afp_config_text(settings.get(), disks().get(), false),
              methods + ",uams_guest.so\n" + rest);
    EXPECT_EQ(afp_config_text(settings.get(), disks().get(), true), methods + "\n" + rest);
}

TEST(file_service_afp, keeps_the_directories_of_mounted_volumes) {
    const json_ptr list = parse(R"([{"label": "Data", "mount_point": "/a"},
                                    {"label": "Old", "mount_point": ""},
                                    {"label": "a]\n", "mount_point": "/b"}])");
    EXPECT_TRUE(afp_is_volume(list.get(), "Data"));
    EXPECT_TRUE(afp_is_volume(list.get(), "a__"));  // as the configuration names it
    for (const char *name : {"data", "Old", "a]\n", ""}) {
        EXPECT_FALSE(afp_is_volume(list.get(), name)) << name;
    }
    EXPECT_FALSE(afp_is_volume(nullptr, "Data"));
}

TEST(file_service_config, keeps_values_from_changing_other_lines) {
    const struct {
        const char *label;
        const char *written;
    } labels[] = {
        {"Gl\u00f6bal #1; 'a' \"b\" %S", "Gl\u00f6bal #1; 'a' \"b\" %S"},
        {"a]\n[b\\", "a__[b\\"},
        {"homes", "homes"},
        {"globall", "globall"},
        {"GLOBAL", "_GLOBAL"},
        {" glo bal ", "_ glo bal "},
        {"Globals", "_Globals"},
        {"", "_"},
    };
    for (const auto &row : labels) {
        const json_ptr partition(cJSON_CreateObject());
        cJSON_AddStringToObject(partition.get(), "label", row.label);
        EXPECT_EQ(file_service_written_label(partition.get()), row.written);
    }
    const json_ptr nothing = parse(R"({"label": 5})");
    EXPECT_EQ(file_service_written_label(nothing.get()), "_");

    std::string text;
    for (const char *value : {"a\\b", "a\\\\", "a b\\", "a\t\r\n\x7f[x]", "", " "}) {
        file_service_write_line(text, "k", value);
    }
    EXPECT_EQ(text,
              "  k = a\\b\n  k = a\\_\n  k = \"a b_\"\n  k = a____[x]\n  k = \n  k = \" \"\n");

    const json_ptr directives = parse(R"([
        {"directive": "a\n[b]", "args": ["x\\", "", 5]},
        {"directive": " [c]", "args": ["[y", "z]\n"]},
        {"directive": "=d", "args": ["x"]}, {"directive": " ", "args": ["x"]}, {"args": ["x"]}])");
    text.clear();
    file_service_write_directives(text, directives.get());
    EXPECT_EQ(text, "  a_[b] = x_  \n   _c] = [y z]_\n  _d = x\n");
}

TEST(file_service, stores_a_switch_only_when_it_changes) {
    char directory[] = "/tmp/nimbrelc_test_XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    const std::string path = std::string(directory) + "/config.json";
    const auto is_saved = [&path] { return remove(path.c_str()) == 0; };
    const char *document = R"({"on": {"enabled": true}, "off": {"Enabled": false},
                               "odd": {"enabled": 1, "other": 2}, "bare": {}, "list": []})";
    ASSERT_TRUE(dump_string_to_file(path.c_str(), document));
    ASSERT_TRUE(nimbrelc_config_load(path.c_str()));
    ASSERT_TRUE(is_saved());

    EXPECT_TRUE(file_service_save_state("on", true));
    EXPECT_TRUE(file_service_save_state("off", false));
    EXPECT_FALSE(file_service_save_state("list", true));
    EXPECT_FALSE(file_service_save_state("none", true));
    EXPECT_FALSE(is_saved());

    EXPECT_FALSE(file_service_is_enabled("odd"));
    EXPECT_TRUE(file_service_is_switched_on("odd"));
    EXPECT_FALSE(file_service_is_switched_on("bare"));
    EXPECT_FALSE(file_service_is_switched_on("none"));
    for (const char *section : {"off", "odd", "bare"}) {
        EXPECT_TRUE(file_service_save_state(section, true));
        EXPECT_TRUE(is_saved());
        EXPECT_TRUE(file_service_is_enabled(section));
    }
    EXPECT_EQ(nimbrelc_utils_print_json_unformatted(get_config_root()),
              R"({"on":{"enabled":true},"off":{"Enabled":true},)"
              R"("odd":{"enabled":true,"other":2},"bare":{"enabled":true},"list":[]})");

    std::filesystem::remove_all(directory);
    EXPECT_FALSE(file_service_save_state("on", false));
    EXPECT_FALSE(file_service_is_enabled("on"));  // what failed to be saved stays changed
    nimbrelc_config_free();
}

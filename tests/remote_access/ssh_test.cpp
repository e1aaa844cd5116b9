// What SSH makes of bad sections and of commands that fail, in simulated time and in the flavour of
// the build.
#include <gtest/gtest.h>

#include "common/build_flavour.h"
#include "config/config.h"
#include "helpers.h"
#include "remote_access/remote_access.h"
#include "simulated/simulated_box.h"

namespace {

class ssh : public testing::Test {
protected:
    void SetUp() override {
        simulated_box::reset();
    }

    const stored_document document{R"({"ssh": {"authorizedKey": "k", "enable": true,
        "externalNPPort": 2222, "activationDuration": 1, "activationDate": null}})"};
};

TEST_F(ssh, does_nothing_for_a_bad_section) {
    const struct {
        const char *item;
        const char *value;
        size_t commands;
    } rows[] = {
        {"ssh.externalNPPort", "65535", 0},
        {"ssh.externalNPPort", "-1", 0},
        {"ssh.externalNPPort", "\"22\"", 0},
        {"ssh.activationDuration", "-1", 0},
        {"ssh.activationDate", "5", 0},
        {"ssh.authorizedKey", "null", 0},
        {"ssh.enable", "1", 0},
        {"ssh", R"({"authorizedKey": "k"})", 0},
        {"ssh.activationDate", "\"yesterday\"", 1},  // the key is set before the date is read
    };
    for (const auto &[item, value, commands] : rows) {
        document.load();
        set_config_item(item, parse(value));
        EXPECT_FALSE(ssh_start()) << item << value;
        EXPECT_EQ(simulated_box::take_commands().size(), commands) << item;
    }
}

TEST_F(ssh, says_what_has_failed) {
    const recorded_log log;
    const std::pair<const char *, const char *> rows[] = {
        {"key.sh", "set_auth_key exited with status: 3"},
        {"set_port", "set_port_forwarding.sh exited with status: 3"},
        {"s6-rc -u", "Failed to start SSH"},
        {"s6-rc -d", ""},
    };
    for (const auto &[failing, line] : rows) {
        simulated_box::run = [failing = failing](const std::string &command, std::string &) {
            return command.find(failing) != std::string::npos ? 3 : 0;
        };
        set_config_flag("ssh.enable", *line != '\0');
        EXPECT_EQ(ssh_start(), *line == '\0' && !is_release()) << failing;
        EXPECT_TRUE(log.has(line)) << line;
    }
    // A server that cannot be stopped keeps the session for the next try.
    EXPECT_NE(get_config_text("ssh.activationDate"), std::string());
}

TEST_F(ssh, lets_a_timer_outlive_a_disable) {
    ASSERT_TRUE(ssh_start());
    simulated_box::pass(30);
    set_config_flag("ssh.enable", false);
    EXPECT_TRUE(ssh_configure());
    EXPECT_EQ(simulated_box::timers(), 1U);
    simulated_box::pass(30);
    EXPECT_EQ(simulated_box::timers(), 0U);
    EXPECT_EQ(document.saved("ssh.activationDate"), "null");
}

}  // namespace

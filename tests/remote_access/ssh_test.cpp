// Activations of SSH, their end and what goes on over a restart of the daemon, in simulated time
// and in the flavour of the build.
#include <gtest/gtest.h>

#include "common/build_flavour.h"
#include "common/dates.h"
#include "config/config.h"
#include "helpers.h"
#include "remote_access/remote_access.h"
#include "simulated/simulated_box.h"

namespace {

using simulated_box::pass;
using commands = std::vector<std::string>;

constexpr time_t now = 1700000000;
const std::string key = "sudo /usr/bin/scripts/ssh/set_auth_key.sh \"k\"";
const std::string set =
    "sudo /usr/bin/scripts/firewall/set_port_forwarding.sh internal 100 2222 22 "
    "\"Remote SSH Access\"";
const std::string unset = "sudo /usr/bin/scripts/firewall/delete_port_forwarding.sh internal 100";
const std::string start = "sudo s6-rc -u change dropbear";
const std::string stop = "sudo s6-rc -d change dropbear";
const commands ended = is_release() ? commands{unset, stop} : commands{unset};

class ssh : public testing::Test {
protected:
    void SetUp() override {
        simulated_box::reset(now);
    }
    // A daemon that starts, `age` seconds after an activation of one minute began.
    static bool start_after(int age) {
        set_config_text("ssh.activationDate", print_datetime(timer_now() - age)->c_str());
        return ssh_start();
    }
    void expect_end_after(int seconds) {
        simulated_box::take_commands();
        pass(seconds - 1);
        EXPECT_EQ(simulated_box::take_commands(), commands{});
        pass(1);
        EXPECT_EQ(simulated_box::take_commands(), ended);
        EXPECT_EQ(document.saved("ssh.enable"), "false");
        EXPECT_EQ(document.saved("ssh.activationDate"), "null");
        EXPECT_EQ(simulated_box::timers(), 0U);
    }

    const stored_document document{R"({"ssh": {"authorizedKey": "k", "enable": true,
        "externalNPPort": 2222, "activationDuration": 1, "activationDate": null}})"};
};

TEST_F(ssh, ends_an_activation_in_time) {
    ASSERT_TRUE(ssh_start());
    EXPECT_EQ(simulated_box::take_commands(), (commands{key, set, start}));
    EXPECT_EQ(document.saved("ssh.activationDate"), '"' + *print_datetime(now) + '"');
    expect_end_after(60);
}

TEST_F(ssh, continues_an_activation_for_what_is_left_of_it) {
    for (const int64_t begin : {int64_t{now}, int64_t{0x90000000}}) {
        if (static_cast<time_t>(begin) != begin) {
            continue;  // beyond the box's clock
        }
        simulated_box::reset(static_cast<time_t>(begin));
        set_config_flag("ssh.enable", true);
        ASSERT_TRUE(start_after(40));
        EXPECT_EQ(simulated_box::take_commands(), (commands{key, set, start}));
        EXPECT_EQ(document.saved("ssh.activationDate"), "null");  // as written before this start
        expect_end_after(20);
    }
}

TEST_F(ssh, ends_what_is_past_its_deadline) {
    ASSERT_TRUE(start_after(60));
    if (!is_release()) {
        EXPECT_EQ(simulated_box::take_commands(), (commands{key, set, start}));
        pass(0);
        EXPECT_EQ(simulated_box::take_commands(), commands{unset});
    } else {
        EXPECT_EQ(simulated_box::take_commands(), (commands{key, unset}));
    }
    EXPECT_EQ(document.saved("ssh.activationDate"), "null");
    EXPECT_EQ(simulated_box::timers(), 0U);
}

TEST_F(ssh, re_times_a_running_activation) {
    ASSERT_TRUE(ssh_start());
    pass(30);
    ssh_set_activation_duration(mb_uint32(20000), {});
    EXPECT_EQ(document.saved("ssh.activationDuration"), is_release() ? "14400" : "20000");
    ssh_set_activation_duration(mb_uint32(3), {});
    expect_end_after(150);
    if (!is_release()) {
        set_config_flag("ssh.enable", true);
        ssh_set_activation_duration(mb_uint32(0), {});
        EXPECT_EQ(simulated_box::timers(), 0U);  // without end
        // So many minutes wrap: the deadline is in the past, the session ends at once.
        ssh_set_activation_duration(mb_uint32(4294967295), {});
        pass(0);
        EXPECT_EQ(document.saved("ssh.activationDate"), "null");
    }
}

TEST_F(ssh, does_nothing_for_a_bad_section) {
    const std::pair<const char *, const char *> rows[] = {{"externalNPPort", "65535"},
                                                          {"externalNPPort", "-1"},
                                                          {"externalNPPort", "\"22\""},
                                                          {"activationDuration", "-1"},
                                                          {"activationDate", "5"},
                                                          {"authorizedKey", "null"},
                                                          {"enable", "1"}};
    for (const auto &[member, value] : rows) {
        const stored_document bad{document.saved("ssh").insert(0, "{\"ssh\":") + "}"};
        set_config_item((std::string("ssh.") + member).c_str(), parse(value));
        EXPECT_FALSE(ssh_start()) << member << value;
        EXPECT_EQ(simulated_box::take_commands(), commands{});
    }
    const stored_document none{R"({"ssh": {"authorizedKey": "k"}})"};
    EXPECT_FALSE(ssh_start());
    const stored_document odd{document.saved("ssh").insert(0, "{\"ssh\":") + "}"};
    set_config_text("ssh.activationDate", "yesterday");
    EXPECT_FALSE(ssh_start());
    EXPECT_EQ(simulated_box::take_commands(), commands{key});
}

TEST_F(ssh, undoes_what_a_failing_step_leaves) {
    const recorded_log log;
    const std::pair<const char *, commands> rows[] = {
        {"set_auth_key.sh", {key}},
        {"set_port_forwarding.sh", {key, set}},
        {"s6-rc -u", {key, set, start, unset}},
    };
    for (const auto &[failing, expected] : rows) {
        simulated_box::run = [failing = failing](const std::string &command, std::string &) {
            return command.find(failing) != std::string::npos ? 3 : 0;
        };
        for (const bool continued : {false, true}) {
            set_config_item("ssh.activationDate", json_ptr(cJSON_CreateNull()));
            EXPECT_FALSE(continued ? start_after(0) : ssh_start());
            EXPECT_EQ(simulated_box::take_commands(), expected) << failing;
        }
    }
    for (const char *line : {"set_auth_key exited with status: 3", "Failed to start SSH",
                             "set_port_forwarding.sh exited with status: 3"}) {
        EXPECT_TRUE(log.has(line)) << line;
    }
    // A release build that cannot stop the server keeps the session for the next try.
    simulated_box::run = [](const std::string &command, std::string &) {
        return command == stop ? 3 : 0;
    };
    set_config_flag("ssh.enable", false);
    EXPECT_EQ(start_after(0), !is_release());
    EXPECT_NE(get_config_text("ssh.activationDate"), std::string());
}

TEST_F(ssh, lets_a_timer_outlive_a_disable) {
    ASSERT_TRUE(ssh_start());
    pass(30);
    simulated_box::take_commands();
    set_config_flag("ssh.enable", false);
    EXPECT_TRUE(ssh_configure());
    EXPECT_EQ(simulated_box::take_commands(),
              is_release() ? (commands{key, stop, unset}) : (commands{key, unset, start}));
    EXPECT_EQ(simulated_box::timers(), 1U);
    expect_end_after(30);
}

}  // namespace

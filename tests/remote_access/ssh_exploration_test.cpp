// SSH activations explored: settings, expiries, clock changes, failing commands and restarts of the
// daemon, in the flavour of the build.
#include "common/build_flavour.h"
#include "common/dates.h"
#include "config/config.h"
#include "helpers.h"
#include "remote_access/remote_access.h"
#include "simulated/exploration.h"

namespace {

using simulated_box::act;
using simulated_box::now;
using simulated_box::running_timers;

// The box as the daemon's commands leave it.
struct facts {
    bool server = false;
    bool forwarding = false;
    bool key_set = false;
    bool clock_set = false;
    bool stuck = false;             // the forwarding stayed, as a command failed
    const char *failing = nullptr;  // a part of the command lines that fail
    uint32_t minutes = 1;
    const stored_document *document = nullptr;
} box;

const struct {
    std::string line;
    bool facts::*fact;
    bool value;
} commands[] = {
    {"sudo /usr/bin/scripts/ssh/set_auth_key.sh \"k\"", &facts::key_set, true},
    {"sudo /usr/bin/scripts/firewall/set_port_forwarding.sh internal 100 2222 22 "
     "\"Remote SSH Access\"",
     &facts::forwarding, true},
    {"sudo /usr/bin/scripts/firewall/delete_port_forwarding.sh internal 100", &facts::forwarding,
     false},
    {"sudo s6-rc -u change dropbear", &facts::server, true},
    {"sudo s6-rc -d change dropbear", &facts::server, false},
};

int obey(const std::string &line, std::string &) {
    const auto row = std::find_if(std::begin(commands), std::end(commands),
                                  [&line](const auto &known) { return known.line == line; });
    if (row == std::end(commands)) {
        ADD_FAILURE() << line;
        return 0;
    }
    const bool fails = box.failing != nullptr && line.find(box.failing) != line.npos;
    box.*row->fact = fails ? box.*row->fact && row->fact != &facts::key_set : row->value;
    box.stuck = box.stuck || (fails && line.find("delete") != line.npos);
    // Nothing opens without the key, nor the server before the forwarding; a devel build never
    // stops it.
    EXPECT_TRUE(fails || !row->value || box.key_set) << line;
    if (row->fact == &facts::server) {
        EXPECT_TRUE(row->value || is_release());
        EXPECT_TRUE(fails || !row->value || box.forwarding || !get_config_flag("ssh.enable"));
    }
    return fails ? 3 : 0;
}

// As the data model does it. A release build's timer outlives what it would end.
void enable(bool on) {
    const size_t timers = running_timers.size();
    set_config_flag("ssh.enable", on);
    nimbrelc_config_save();
    ssh_configure();
    EXPECT_TRUE(on || !is_release() || running_timers.size() >= timers);
}

void set_minutes(uint32_t minutes) {
    box.minutes = minutes;
    ssh_set_activation_duration(mb_uint32(minutes), {});
}

// A start after the end of an activation leaves its server alone, and on a devel build lets a timer
// end it.
void start_after(int seconds) {
    simulated_box::reset_timers(now + seconds);
    box.document->load();
    const bool enabled = get_config_flag("ssh.enable");
    const bool served = box.server && enabled;
    ssh_start();
    EXPECT_TRUE(box.server || !served);
    EXPECT_TRUE(get_config_flag("ssh.enable") == enabled || is_release());
}

// The timers do not follow the wall clock.
void set_clock(int seconds) {
    box.clock_set = true;
    now += seconds;
    for (simulated_box::running_timer &timer : running_timers) {
        timer.end += seconds;
    }
}

void fail(const char *part) {
    box.failing = box.failing == nullptr ? part : nullptr;
}

const std::vector<act> acts = {
    {"on", [] { enable(true); }},
    {"off", [] { enable(false); }},
    {"one minute", [] { set_minutes(1); }},
    {"no end", [] { set_minutes(0); }},
    {"too long", [] { set_minutes(4294967295); }},
    {"half a minute passes", [] { simulated_box::pass(30); }},
    {"a minute passes", [] { simulated_box::pass(60); }},
    {"killed", [] { start_after(0); }},
    {"down for half a minute", [] { start_after(30); }},
    {"stopped",
     [] {
         ssh_stop();
         start_after(0);
     }},
    {"clock ahead", [] { set_clock(90); }},
    {"clock back", [] { set_clock(-90); }},
};

const std::vector<act> faults = {
    {"the key fails", [] { fail("key"); }},
    {"forwarding fails", [] { fail("forwarding"); }},
    {"s6 fails", [] { fail("s6"); }},
};

class ssh_exploration : public simulated_box::exploration<std::vector<const act *>> {
protected:
    std::vector<const act *> take() override {
        return path;
    }

    void put(const std::vector<const act *> &there) override {
        simulated_box::reset(start);
        simulated_box::run = obey;
        box = {.document = &document};
        set_config_item("ssh", parse(R"({"authorizedKey": "k", "enable": false,
            "externalNPPort": 2222, "activationDuration": 1, "activationDate": null})"));
        nimbrelc_config_save();
        ssh_start();
        for (const act *each : there) {
            each->run();
        }
    }

    std::string name() override {
        std::string text;
        const auto add = [&text](time_t number) { text += std::to_string(number) + " "; };
        add(get_config_flag("ssh.enable"));
        add(date().value_or(now) - now);
        for (const simulated_box::running_timer &timer : running_timers) {
            add(timer.end - now);
        }
        for (const bool fact : {box.server, box.forwarding, box.clock_set, box.stuck}) {
            add(fact);
        }
        add(box.minutes);
        return text + (box.failing == nullptr ? "" : box.failing);
    }

    static std::optional<time_t> date() {
        return parse_datetime_as_of(get_config_text("ssh.activationDate"), now);
    }

    void check_situation() override {
        EXPECT_TRUE(!box.forwarding || box.server || box.stuck);
        if (with_faults) {
            recover();
        }
        check();
    }

    // What holds whenever no command has failed.
    void check() {
        EXPECT_EQ(document.saved("ssh"), print(get_config_item("ssh")));
        const uint32_t limit = is_release() ? 14400 : INT32_MAX;
        const int minutes = get_config_number("ssh.activationDuration");
        EXPECT_EQ(minutes, std::min(box.minutes, limit));
        const bool enabled = get_config_flag("ssh.enable");
        EXPECT_EQ(box.forwarding, enabled);
        EXPECT_TRUE(!box.forwarding || box.server);
        EXPECT_TRUE(!is_release() || date().has_value() == enabled);
        EXPECT_LE(running_timers.size(), 1U);
        const bool endless = !is_release() && minutes == 0;
        EXPECT_TRUE(!enabled || running_timers.empty() == endless);
        if (enabled && !running_timers.empty() && !box.clock_set) {
            const auto seconds = static_cast<int32_t>(static_cast<uint32_t>(minutes) * 60);
            const time_t end = running_timers.front().end;
            EXPECT_EQ(end, std::max(now, date().value_or(0) + seconds));
            EXPECT_TRUE(end > now || minutes == 0 || !is_release());
        }
    }

    // After anything that failed a new activation works, and ends.
    void recover() {
        box.failing = nullptr;
        set_minutes(1);
        enable(false);
        enable(true);
        check();
        EXPECT_TRUE(box.server && box.forwarding && running_timers.size() == 1);
        simulated_box::pass(14400 * 60);
        EXPECT_FALSE(box.forwarding || (is_release() && box.server));
    }

    const stored_document document{R"({"ssh": {}})", "/dev/shm"};  // saved many thousand times
    bool with_faults = false;
    time_t start = 1700000000;
};

TEST_F(ssh_exploration, opens_and_closes_as_it_is_told) {
    start = sizeof(time_t) > sizeof(int32_t) ? 0x90000000 : start;  // beyond 2038
    put({});
    explore(acts, 5);
}

TEST_F(ssh_exploration, gets_over_commands_that_fail) {
    std::vector<act> all = acts;
    all.insert(all.end(), faults.begin(), faults.end());
    with_faults = true;
    put({});
    explore(all, 4);
}

TEST_F(ssh_exploration, does_nothing_for_a_bad_section) {
    for (const auto &[item, value] : {std::pair("ssh.externalNPPort", "65535"),
                                      {"ssh.externalNPPort", "-1"},
                                      {"ssh.externalNPPort", "\"22\""},
                                      {"ssh.activationDuration", "-1"},
                                      {"ssh.activationDate", "5"},
                                      {"ssh.authorizedKey", "null"},
                                      {"ssh.enable", "1"},
                                      {"ssh", R"({"authorizedKey": "k"})"},
                                      {"ssh.activationDate", "\"yesterday\""}}) {
        put({});
        enable(true);
        simulated_box::take_commands();
        set_config_item(item, parse(value));
        EXPECT_FALSE(ssh_start()) << item << value;
        // The key is set before the date is read.
        EXPECT_EQ(simulated_box::take_commands().size(), *value == '"' && item[7] == 'i')
            << item << value;
    }
}

TEST_F(ssh_exploration, says_what_has_failed) {
    put({});
    const recorded_log log;
    for (const auto &[failing, line] :
         {std::pair("key.sh", "set_auth_key exited with status: 3"),
          {"set_port", "set_port_forwarding.sh exited with status: 3"},
          {"s6-rc -u", "Failed to start SSH"}}) {
        box.failing = failing;
        enable(true);
        EXPECT_TRUE(log.has(line)) << line;
        EXPECT_FALSE(ssh_start()) << line;
    }
    // A server that cannot be stopped keeps the session for the next try.
    box.failing = "s6-rc -d";
    enable(false);
    EXPECT_TRUE(date());
}

}  // namespace

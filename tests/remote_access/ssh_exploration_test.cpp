// SSH activations explored: every sequence of settings, expiries, clock changes and restarts of the
// daemon, up to a depth, in simulated time and in the flavour of the build.
#include <gtest/gtest.h>

#include <string>
#include <unordered_set>
#include <vector>

#include "common/build_flavour.h"
#include "common/dates.h"
#include "config/config.h"
#include "helpers.h"
#include "remote_access/remote_access.h"
#include "simulated/simulated_box.h"

namespace {

using simulated_box::running_timers;

// The box as the daemon's commands leave it.
struct {
    bool server = false;
    bool forwarding = false;
    bool server_fails = false;
    bool scripts_fail = false;
    bool clock_set = false;
    const stored_document *document = nullptr;
} box;

int obey(const std::string &command, std::string &) {
    const auto is = [&command](const char *part) { return command.find(part) != command.npos; };
    if (is("s6-rc") ? box.server_fails : box.scripts_fail) {
        return 3;
    }
    if (is("dropbear")) {
        box.server = is("-u");
    } else if (is("port_forwarding")) {
        box.forwarding = is("set_port");
    }
    return 0;
}

void enable(bool on) {  // as the data model does it
    set_config_flag("ssh.enable", on);
    nimbrelc_config_save();
    ssh_configure();
}

void set_minutes(uint32_t minutes) {
    ssh_set_activation_duration(mb_uint32(minutes), {});
}

// What is left of an activation goes on.
void restart() {
    const auto end = [] { return running_timers.empty() ? 0 : running_timers.front().end; };
    const time_t before = end();
    simulated_box::reset_timers(simulated_box::now);
    box.document->load();
    ssh_start();
    EXPECT_TRUE(before == 0 || end() == 0 || end() == before || box.clock_set);
}

// The timers do not follow the wall clock.
void set_clock(int seconds) {
    box.clock_set = true;
    simulated_box::now += seconds;
    for (simulated_box::running_timer &timer : running_timers) {
        timer.end += seconds;
    }
}

struct step {
    const char *name;
    void (*act)();
};
const std::vector<step> acts = {
    {"on", [] { enable(true); }},
    {"off", [] { enable(false); }},
    {"one minute", [] { set_minutes(1); }},
    {"two minutes", [] { set_minutes(2); }},
    {"no end", [] { set_minutes(0); }},
    {"half a minute passes", [] { simulated_box::pass(30); }},
    {"a minute passes", [] { simulated_box::pass(60); }},
    {"killed", restart},
    {"stopped",
     [] {
         ssh_stop();
         restart();
     }},
    {"clock ahead", [] { set_clock(90); }},
    {"clock back", [] { set_clock(-90); }},
};
const std::vector<step> faults = {
    {"s6 fails", [] { box.server_fails = !box.server_fails; }},
    {"scripts fail", [] { box.scripts_fail = !box.scripts_fail; }},
};

class ssh_exploration : public testing::Test {
protected:
    void begin() {
        simulated_box::reset();
        simulated_box::run = obey;
        box = {.document = &document};
        set_config_item("ssh", parse(R"({"authorizedKey": "k", "enable": false,
            "externalNPPort": 2222, "activationDuration": 1, "activationDate": null})"));
        nimbrelc_config_save();
        ssh_start();
    }

    // What holds whenever no command has failed.
    void check() {
        EXPECT_EQ(document.saved("ssh"),
                  print_json_unformatted(get_config_item("ssh")));
        EXPECT_LE(running_timers.size(), 1U);
        const bool enabled = get_config_flag("ssh.enable");
        const bool ends = !running_timers.empty();
        EXPECT_EQ(box.forwarding, enabled);
        EXPECT_TRUE(!box.forwarding || box.server);
        const bool endless = !is_release() && get_config_number("ssh.activationDuration") == 0;
        EXPECT_TRUE(!enabled || ends || endless) << "open for ever";
        if (is_release()) {
            EXPECT_EQ(cJSON_IsString(get_config_item("ssh.activationDate")) != 0, enabled);
        }
    }

    // After anything that failed a new activation works, and ends.
    void check_recovery() {
        box.server_fails = box.scripts_fail = false;
        set_minutes(1);
        enable(false);
        enable(true);
        check();
        EXPECT_TRUE(box.server && box.forwarding && running_timers.size() == 1);
        simulated_box::pass(14400 * 60);
        check();
        EXPECT_FALSE(box.forwarding || (is_release() && box.server));
    }

    // Two situations with the same name go on alike.
    static std::string name() {
        std::string text;
        const auto add = [&text](time_t number) { text += std::to_string(number) + " "; };
        const time_t now = simulated_box::now;
        add(get_config_flag("ssh.enable"));
        add(get_config_number("ssh.activationDuration"));
        add(parse_datetime_as_of(get_config_text("ssh.activationDate"), now).value_or(now) - now);
        for (const simulated_box::running_timer &timer : running_timers) {
            add(timer.end - now);
        }
        for (const bool fact :
             {box.server, box.forwarding, box.server_fails, box.scripts_fail, box.clock_set}) {
            add(fact);
        }
        return text;
    }

    void explore(const std::vector<step> &actions, int depth, bool with_faults) {
        size_t steps = 0;
        std::unordered_set<std::string> known;
        std::vector<std::vector<step>> ends = {{}};
        for (; depth > 0; --depth) {
            std::vector<std::vector<step>> further;
            for (const std::vector<step> &path : ends) {
                for (const step &last : actions) {
                    begin();
                    std::string described;
                    for (const step &each : path) {
                        each.act();
                        described += std::string(each.name) + ", ";
                    }
                    last.act();
                    ++steps;
                    SCOPED_TRACE(described + last.name);
                    if (!known.insert(name()).second) {
                        continue;
                    }
                    with_faults ? check_recovery() : check();
                    if (HasFailure()) {
                        return;
                    }
                    further.push_back(path);
                    further.back().push_back(last);
                }
            }
            ends = std::move(further);
        }
        printf("%zu steps to %zu situations\n", steps, known.size());
    }

    const stored_document document{R"({"ssh": {}})", "/dev/shm"};  // saved many thousand times
};

TEST_F(ssh_exploration, opens_and_closes_as_it_is_told) {
    explore(acts, 6, false);
}

TEST_F(ssh_exploration, gets_over_commands_that_fail) {
    std::vector<step> all = acts;
    all.insert(all.end(), faults.begin(), faults.end());
    explore(all, 5, true);
}

}  // namespace

#include "platform/service_manager.h"

#include <gtest/gtest.h>

#include <tuple>

#include "simulated/simulated_box.h"

TEST(service_manager, asks_once_until_something_changes) {
    const std::tuple<const char *, int, std::optional<bool>> rows[] = {
        {"up (pid 120) 33 seconds\n", 0, true},
        {"down (exitcode 0) 3 seconds, ready 3 seconds\n", 0, false},
        {"up (pid 120)\n", 1, {}},
        {"s6-svstat: fatal\n", 0, {}},
    };
    simulated_box::reset();
    for (const auto &change : {service_manager_start, service_manager_stop,
                               service_manager_stop_one, service_manager_restart}) {
        for (const auto &[said, code, is_up] : rows) {
            simulated_box::run = [said = said, code = code](const std::string &, std::string &out) {
                out = said;
                return code;
            };
            change("nmbd");
            simulated_box::take_commands();
            EXPECT_EQ(service_manager_is_up("smbd"), is_up) << said;
            EXPECT_EQ(service_manager_is_up("smbd"), is_up) << said;
            EXPECT_EQ(simulated_box::take_commands().size(), 1U) << said;
        }
    }
}

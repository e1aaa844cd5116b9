#include "platform/service_manager.h"

#include <gtest/gtest.h>

#include "simulated/simulated_box.h"

TEST(service_manager, asks_once_until_something_changes) {
    const struct {
        const char *output;
        int code;
        std::optional<bool> is_up;
    } rows[] = {
        {"up (pid 120) 33 seconds\n", 0, true},
        {"down (exitcode 0) 3 seconds, ready 3 seconds\n", 0, false},
        {"up (pid 120)\n", 1, {}},
        {"s6-svstat: fatal\n", 0, {}},
    };
    simulated_box::reset();
    for (const auto &change : {service_manager_start, service_manager_stop,
                               service_manager_stop_one, service_manager_restart}) {
        for (const auto &row : rows) {
            simulated_box::run = [&row](const std::string &, std::string &output) {
                output = row.output;
                return row.code;
            };
            change("nmbd");
            simulated_box::take_commands();
            EXPECT_EQ(service_manager_is_up("smbd"), row.is_up) << row.output;
            EXPECT_EQ(service_manager_is_up("smbd"), row.is_up) << row.output;
            EXPECT_EQ(simulated_box::take_commands().size(), 1U) << row.output;
        }
    }
}

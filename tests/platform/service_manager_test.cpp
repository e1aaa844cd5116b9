#include "platform/service_manager.h"

#include <gtest/gtest.h>

#include "simulated/simulated_box.h"

TEST(service_manager, reads_the_state) {
    const struct {
        const char *output;
        int code;
        int result;
        bool up;
    } rows[] = {
        {"up (pid 120) 33 seconds\n", 0, 0, true},
        {"down (exitcode 0) 3 seconds, ready 3 seconds\n", 0, 0, false},
        {"up (pid 120)\n", 1, -1, false},
        {"s6-svstat: fatal\n", 0, -1, false},
        {"", 0, -1, false},
    };
    simulated_box::reset();
    for (const auto &row : rows) {
        simulated_box::run = [&row](const std::string &, std::string &output) {
            output = row.output;
            return row.code;
        };
        for (const bool before : {false, true}) {
            bool up = before;
            EXPECT_EQ(service_manager_is_up("smbd", &up), row.result) << row.output;
            EXPECT_EQ(up, row.result == 0 ? row.up : before) << row.output;
        }
    }
}

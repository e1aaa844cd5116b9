// How often a media server is asked that owes too many answers, in simulated time.
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "config/config.h"
#include "helpers.h"
#include "sharing/sharing.h"
#include "simulated/simulated_box.h"

namespace {

TEST(dlna_manager, asks_again_what_could_not_be_sent) {
    simulated_box::reset();
    const stored_document document(
        R"({"centralStorage": {"enabled": true}, "dlna": {"mediaStreamingEnabled": true}})");
    const recorded_log log;
    const auto asked = [] {  // a line for the call, one for its failure, one for the retry
        const std::string lines = std::exchange(recorded_log::text, {});
        return std::count(lines.begin(), lines.end(), '\n') / 3;
    };
    EXPECT_TRUE(dlna_manager_start());  // no bus: every call fails
    EXPECT_EQ(asked(), 1);
    simulated_box::pass(29);
    EXPECT_EQ(asked(), 0);
    simulated_box::pass(61);
    EXPECT_EQ(asked(), 3);
    // Each change is told at once, and one timer serves them all.
    for (int i = 0; i < 100; ++i) {
        dlna_manager_stop();
        dlna_manager_start();
    }
    EXPECT_EQ(asked(), 200);
    EXPECT_EQ(simulated_box::timers(), 1U);
    simulated_box::pass(30);
    EXPECT_EQ(asked(), 1);
}

}  // namespace

#include "remote_access/ssh_time.h"

#include <gtest/gtest.h>

namespace {

constexpr time_t noon = 1795608000;

TEST(ssh_time, a_release_build_grants_ten_days_at_most) {
    EXPECT_EQ(ssh_duration_seconds(14399, true), 863940U);
    EXPECT_EQ(ssh_duration_seconds(14400, true), 864000U);
    EXPECT_EQ(ssh_duration_seconds(4294967295U, true), 864000U);
    EXPECT_EQ(ssh_duration_seconds(20000, false), 1200000U);
    EXPECT_EQ(ssh_duration_seconds(4294967295U, false), 4294967236U);  // 60 below the wrap
}

TEST(ssh_time, what_is_left_depends_on_the_flavour) {
    for (const bool release : {false, true}) {
        EXPECT_EQ(ssh_remaining_seconds(noon, 60, noon, release), 60);
        EXPECT_EQ(ssh_remaining_seconds(noon, 60, noon + 59, release), 1);
    }
    const std::optional<int32_t> over;
    EXPECT_EQ(ssh_remaining_seconds(noon, 60, noon + 60, true), over);
    EXPECT_EQ(ssh_remaining_seconds(noon, 0, noon, true), over);
    EXPECT_EQ(ssh_remaining_seconds(noon, 60, noon + 60, false), 0);
    EXPECT_EQ(ssh_remaining_seconds(noon + 1000, 0, noon, false), 0);
}

}  // namespace

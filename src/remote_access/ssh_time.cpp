#include "remote_access/ssh_time.h"

#include <algorithm>

uint32_t ssh_duration_seconds(uint32_t minutes, bool release) {
    return (release ? std::min(minutes, ssh_max_release_minutes) : minutes) * 60;
}

std::optional<int32_t> ssh_remaining_seconds(time_t activation, uint32_t duration, time_t now,
                                             bool release) {
    // Added and subtracted as unsigned numbers: a sum beyond 2038 wraps, as a signed one would.
    const auto deadline = static_cast<int32_t>(static_cast<uint32_t>(activation) + duration);
    const auto clock = static_cast<int32_t>(now);
    if (!release && duration == 0) {
        return 0;
    }
    if (deadline > clock) {
        return static_cast<int32_t>(static_cast<uint32_t>(deadline) - static_cast<uint32_t>(clock));
    }
    return release ? std::nullopt : std::optional<int32_t>(0);
}

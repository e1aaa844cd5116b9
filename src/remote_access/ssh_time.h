// The arithmetic of an SSH activation: its length and what is left of it, for either build flavour.
// All in 32 bits, like the box's own clock.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>

// The most minutes that a release build grants: ten days.
constexpr uint32_t ssh_max_release_minutes = 14400;

// The seconds of an activation of `minutes`, capped on a release build; wraps at 32 bits.
uint32_t ssh_duration_seconds(uint32_t minutes, bool release);

// The seconds that an activation of `duration` seconds, begun at `activation`, lasts after `now`.
// After the deadline nothing on a release build and 0 on a devel build, where a duration of 0,
// which means an activation without end, gives 0 too.
std::optional<int32_t> ssh_remaining_seconds(time_t activation, uint32_t duration, time_t now,
                                             bool release);

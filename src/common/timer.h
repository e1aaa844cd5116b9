// What time it is, and waiting. Everything that happens after some seconds goes through here, so
// that tests can put simulated time in the place of this module.
#pragma once

#include <event2/event.h>

#include <ctime>
#include <memory>

#include "common/unique_function.h"

class timer;
struct timer_deleter {
    void operator()(timer *item) const;
};
// Owning handle; a timer that goes away does not fire.
using timer_ptr = std::unique_ptr<timer, timer_deleter>;

// A timer that is not started yet. `expired` runs from the loop, each time the timer has run down,
// and may let go of the timer. None when the loop has no room for it.
timer_ptr timer_new(event_base *loop, unique_function<void()> expired);

// Starts the timer, anew if it is running; false when that fails.
bool timer_start(timer &item, int seconds);

// Stops the timer; fine if it is not running. False when that fails.
bool timer_stop(timer &item);

// Runs `expired` once, after so many seconds; false when it never will.
bool timer_once(event_base *loop, int seconds, unique_function<void()> expired);

// The wall clock, in seconds since 1970.
time_t timer_now();

// What time it is, and waiting. Everything that happens after some seconds goes through here, so
// that tests can put simulated time in the place of this module.
#pragma once

#include <ctime>

#include "common/handle.h"
#include "common/unique_function.h"

struct event_base;

// The loop that everything here waits on, and that ends the process; set once, before the first
// timer.
void timer_use_loop(event_base *loop);
event_base *timer_loop();

class timer;
void timer_release(timer *item);
// A timer that goes away does not fire.
using timer_ptr = handle<timer, timer_release>;

// A timer that is not started yet. `expired` runs from the loop, each time the timer has run down,
// and may let go of the timer. None when the loop has no room for it.
timer_ptr timer_new(unique_function<void()> expired);

// Starts the timer, anew if it is running; false when that fails.
bool timer_start(timer &item, int seconds);

// Stops the timer; fine if it is not running. False when that fails.
bool timer_stop(timer &item);

// The wall clock, in seconds since 1970.
time_t timer_now();

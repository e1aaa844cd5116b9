// Starts, stops, signals and queries the box's supervised services: s6-svc and s6-svstat on
// /run/service/NAME, s6-rc on service sets, all through sudo. Calls block until the command ends.
// Results that are numbers are 0 on success and negative on failure.
#pragma once

#include <optional>

int service_manager_start_one(const char *name);
int service_manager_stop_one(const char *name);

int service_manager_start(const char *name);
int service_manager_stop(const char *name);

// Stops and starts one supervised service; a stop that fails is not followed by a start.
int service_manager_restart(const char *name);

// Whether a supervised service is up; nothing when that cannot be determined. Whoever asks again
// shares the answer, until something changes a service or the states are forgotten.
std::optional<bool> service_manager_is_up(const char *name);

// After each pass of the loop: what was asked in it may be different now.
void service_manager_forget_states();

// Sends `signal` (a Linux signal number); -1, with nothing run, when s6-svc has no letter for it.
int service_manager_signal(const char *name, int signal);

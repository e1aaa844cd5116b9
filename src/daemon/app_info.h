// The daemon's sign of life on the bus.
#pragma once

#include <event2/event.h>

// Serves "getApplicationStatus"; false when the listener cannot be registered.
bool app_info_start(event_base *base);
bool app_info_stop();

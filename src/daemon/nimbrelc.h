// The daemon's life: connects to the bus, loads the configuration and starts every service of one
// fixed table; at shut-down stops them from the same table.
#pragma once

#include <event2/event.h>

// True when the daemon is up. A single service that fails to start does not make it false.
bool nimbrelc_start(event_base *loop);

// Stops every service and releases the configuration; true only if all of it succeeded.
bool nimbrelc_stop();

// Two small services of the table, which need no header of their own: the sign of life on the bus,
// and what the daemon does on other services' signals. Starting fails when a listener cannot be
// added; stopping leaves the listeners as they are.
bool app_info_start();
bool app_info_stop();
bool dbus_signals_start();
bool dbus_signals_stop();

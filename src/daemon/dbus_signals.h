// Reacts to signals of other services of the box: a new WAN address, and the begin and end of a
// firmware upgrade.
#pragma once

#include <event2/event.h>

// False when a listener could not be added.
bool dbus_signals_start(event_base *base);
// Listeners stay; always true.
bool dbus_signals_stop();

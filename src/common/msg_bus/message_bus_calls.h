// The calls that nobody has answered yet. The bus allows a connection 128 of them and forgets none
// that timed out here, so that a single peer that hangs could use them all up.
#pragma once

#include <dbus/dbus.h>

// Whether another call may go to `destination`: not while 120 are without an answer, or 64 of a
// peer that let one time out and has answered none since.
bool message_bus_calls_may_call(const char *destination);

// A call was queued; `destination` is kept by pointer and must outlive the process.
void message_bus_calls_add(const char *destination, dbus_uint32_t serial);

// What came for a call: an answer, a late one too, ends it; the library's own time-out does not.
void message_bus_calls_reply(DBusMessage *reply);

// A signal of the bus: a new owner of a destination's name owes no answers.
void message_bus_calls_owner_changed(DBusMessage *signal);

// The one connection to the system bus, driven by the event loop.
#pragma once

#include <dbus/dbus.h>

struct event_base;

// Owning handle for an error of the bus library.
struct bus_error : DBusError {
    bus_error() : DBusError(DBUS_ERROR_INIT) {}
    ~bus_error() {
        dbus_error_free(this);
    }
    bus_error(const bus_error &) = delete;
    bus_error &operator=(const bus_error &) = delete;

    bool is_set() const {
        return dbus_error_is_set(this) != FALSE;
    }
};

// Binds the connection to the loop and opens it; `filter` sees every incoming message first. A
// second call with the same loop changes nothing; one with another loop fails.
bool message_bus_connection_open(event_base *base, DBusHandleMessageFunction filter);

// Null until the connection has been opened. It is never closed. For the message bus module alone.
DBusConnection *message_bus_connection();

// Installs the dispatch, watch and timeout functions on the connection (used when it is opened).
bool connection_setup();

// Sets DBUS_SESSION_BUS_ADDRESS; returns what setenv() returned. The system bus is not affected.
// kept: nothing here calls it.
int message_bus_set_dbus_socket(const char *address);

// Asks for a well-known name, replacing an owner that allows it. Queued counts as success.
bool message_bus_request_name(const char *name);

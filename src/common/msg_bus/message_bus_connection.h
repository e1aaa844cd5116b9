// The one connection to the system bus, driven by the event loop. For the message bus module alone.
#pragma once

#include <dbus/dbus.h>
#include <event2/event.h>

struct message_bus_error : DBusError {
    message_bus_error() : DBusError(DBUS_ERROR_INIT) {}
    ~message_bus_error() {
        dbus_error_free(this);
    }
    message_bus_error(const message_bus_error &) = delete;
    message_bus_error &operator=(const message_bus_error &) = delete;

    bool is_set() const {
        return dbus_error_is_set(this) != FALSE;
    }
};

// Binds the connection to the loop and opens it; `filter` sees every incoming message first. A
// second call with the same loop changes nothing; one with another loop fails.
bool message_bus_connection_open(event_base *base, DBusHandleMessageFunction filter);

// Null until the connection has been opened. It is never closed.
DBusConnection *message_bus_connection();

// Owning handle for an error of the bus library.
#pragma once

#include <dbus/dbus.h>

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

// Owning handle for one reference on a bus message.
#pragma once

#include <dbus/dbus.h>

#include <memory>

struct bus_message_deleter {
    void operator()(DBusMessage *message) const {
        dbus_message_unref(message);
    }
};

using bus_message_ptr = std::unique_ptr<DBusMessage, bus_message_deleter>;

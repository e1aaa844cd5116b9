// What the served objects look like to somebody who asks. The descriptions of the interfaces are
// those in data/interfaces, built in.
#pragma once

#include <dbus/dbus.h>

#include <span>
#include <string>

// The description of the object at `path`: these interfaces, and the nodes below it.
std::string message_bus_describe_object(DBusConnection *connection, const char *path,
                                        std::span<const char *const> interfaces);

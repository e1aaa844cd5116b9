// The box's serial console: kernel messages on it, the login prompt, its password. The state lives
// in marker files on the persistent medium; nothing is kept in memory.
#pragma once

#include "common/msg_bus/message_bus.h"

// Data model rows; each answers its request. A setter answers whether the marker or password file
// was changed, false for a value of another type, and returns whether the answer was sent.
void serial_console_traces_enabled_getter(message_bus_request request);
bool serial_console_traces_enabled_setter(const message_bus_arg &value,
                                          message_bus_request request);

void serial_console_login_enabled_getter(message_bus_request request);
bool serial_console_login_enabled_setter(const message_bus_arg &value, message_bus_request request);

void serial_console_login_password_getter(message_bus_request request);  // always ""
bool serial_console_login_password_setter(const message_bus_arg &value,
                                          message_bus_request request);

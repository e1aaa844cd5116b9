// The door of maintenance: backup, the system log's options, the serial console, the record of
// crashed processes, and the upgrade policy.
#pragma once

#include <cstdint>

#include "common/msg_bus/message_bus.h"

// Serves storing and restoring of backups; a restore ends the loop. False when a method cannot be
// served; stopping is always true.
bool backup_start();
bool backup_stop();

// Serves the method that reports a crash and resets the record of another firmware version. Fails
// only when the method cannot be served.
bool segfault_start();
bool segfault_stop();

// Serves the firmware-upgrade component's questions about the upgrade policy; false when one of
// them cannot be served. Stopping is always true.
bool upgrade_config_start();
bool upgrade_config_stop();

// Applies the configuration's section "syslog"; the log service is restarted only when its options
// change. False (logged) on bad values, or when saving, writing or restarting fails.
bool syslog_utils_configure();

// Data model rows; each answers its request. The number of crash slots counts empty ones too; slots
// are numbered from 1, and one that does not exist gives an empty reply.
void segfault_dump_number_of_entries_getter(message_bus_request request);
void segfault_dump_getter(message_bus_request request, uint32_t index, const char *key);

// Data model rows of the serial console; each answers its request. A setter answers whether the
// marker or password file was changed, false for a value of another type, and returns whether the
// answer was sent. The password reads as "".
void serial_console_traces_enabled_getter(message_bus_request request);
bool serial_console_traces_enabled_setter(const message_bus_arg &value,
                                          message_bus_request request);
void serial_console_login_enabled_getter(message_bus_request request);
bool serial_console_login_enabled_setter(const message_bus_arg &value, message_bus_request request);
void serial_console_login_password_getter(message_bus_request request);
bool serial_console_login_password_setter(const message_bus_arg &value,
                                          message_bus_request request);

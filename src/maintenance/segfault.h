// A short record of crashed processes in the configuration: how many, the latest time, and slots
// with time and name of the latest ones, newest first. Reset whenever the firmware changes.
#pragma once

#include <event2/event.h>

#include <cstdint>

#include "common/msg_bus/message_bus.h"

// Serves the method that reports a crash and resets the record of another firmware version. Fails
// only when the method cannot be served.
bool segfault_start(event_base *base);
bool segfault_stop();

// Data model rows; each answers its request. The number of slots counts empty ones too; slots are
// numbered from 1, and one that does not exist gives an empty reply.
void segfault_dump_number_of_entries_getter(message_bus_request request);
void segfault_dump_getter(message_bus_request request, uint32_t index, const char *key);

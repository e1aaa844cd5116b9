// The parameters that the device-management agent reads and writes: a fixed table of names, each
// behind a configuration key, a function of this daemon or a question to another bus service.
#pragma once

#include <event2/event.h>

#include <cstdint>

#include "common/msg_bus/message_bus.h"
#include "datamodel/datamodel_handler.h"

// Fails when a method cannot be served, and when the provisioning state could not be handed to the
// box's agent service; the methods stay served then. `base` goes to the rows' after-set hooks.
bool datamodel_start(event_base *base);
bool datamodel_stop();

// The row of parameter `key`, or null. With `index` (may be null) the indexed families are searched
// too and the number in the name is stored there; whatever follows the number is not looked at.
const datamodel_handler *find_handler(const char *key, uint32_t *index);

// Answers with the configuration's value, a number as argument type `reply_type`; with an empty
// reply when there is no such value.
bool send_value_from_config(const char *config_key, int32_t reply_type,
                            message_bus_request request);

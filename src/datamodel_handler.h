// Shapes of the functions behind a row of the data model. Each answers its request itself.
#pragma once

#include "common/msg_bus/message_bus.h"

using datamodel_getter = void (*)(message_bus_request request);
using datamodel_indexed_getter = void (*)(message_bus_request request, uint32_t index,
                                          const char *key);
// Setters return what the reply operation returned.
using datamodel_setter = bool (*)(const message_bus_arg &value, message_bus_request request);
using datamodel_indexed_setter = bool (*)(const message_bus_arg &value, message_bus_request request,
                                          uint32_t index, const char *key);
// Runs after every SetValue of its row; false means failure.
using datamodel_after_set = bool (*)(event_base *base);

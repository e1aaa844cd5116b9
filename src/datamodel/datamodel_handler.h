// One parameter of the data model and the shapes of the functions behind it: a configuration key, a
// function of this daemon or a question to another bus service. Getters and setters answer their
// request themselves, some of them later.
#pragma once

#include <cstdint>

#include "common/msg_bus/message_bus.h"

using datamodel_getter = void (*)(message_bus_request request);
// `index` is the number in the parameter's name `key`, as it was written there.
using datamodel_indexed_getter = void (*)(message_bus_request request, uint32_t index,
                                          const char *key);
// Setters return what the reply operation returned.
using datamodel_setter = bool (*)(const message_bus_arg &value, message_bus_request request);
using datamodel_indexed_setter = bool (*)(const message_bus_arg &value, message_bus_request request,
                                          uint32_t index, const char *key);
// Runs after every SetValue of its row; false means failure.
using datamodel_after_set = bool (*)();

struct datamodel_handler {
    const char *name = nullptr;
    const char *name_format = nullptr;  // scanf pattern with one "%u": a family of parameters
    const char *config_key = nullptr;   // words between blanks: a path in the configuration
    datamodel_getter get = nullptr;
    datamodel_indexed_getter get_indexed = nullptr;
    datamodel_setter set = nullptr;
    datamodel_indexed_setter set_indexed = nullptr;
    datamodel_after_set after_set = nullptr;
    mb_arg_type reply_type = MB_ARG_INT32;  // of a number from the configuration
    bool config_writable = false;           // SetValue may write `config_key`
};

// The row of parameter `key`, or null. With `index` (may be null) the indexed families are searched
// too and the number in the name is stored there; whatever follows the number is not looked at.
const datamodel_handler *find_handler(const char *key, uint32_t *index);

// Answers with the configuration's value, a number as argument type `reply_type`; with an empty
// reply when there is no such value.
bool send_value_from_config(const char *config_key, mb_arg_type reply_type,
                            message_bus_request request);

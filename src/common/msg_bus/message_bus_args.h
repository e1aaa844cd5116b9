// What calls, replies and signals carry: flat lists of four basic types.
#pragma once

#include <dbus/dbus.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "common/handle.h"

using bus_message_ptr = handle<DBusMessage, dbus_message_unref>;

// Argument types, the same numbers in every direction. An incoming argument of any other bus type
// carries code 0 and no value.
enum mb_arg_type : int32_t {
    MB_ARG_STRING = 1,
    MB_ARG_UINT32 = 2,
    MB_ARG_INT32 = 3,
    MB_ARG_BOOLEAN = 4,
};

// One argument. `string` is borrowed: of an incoming argument it is valid only during the callback,
// and never null for MB_ARG_STRING. `word` holds the three other types.
struct message_bus_arg {
    int32_t type = 0;
    uint32_t word = 0;
    const char *string = nullptr;

    int32_t int32() const {
        return static_cast<int32_t>(word);
    }
    bool boolean() const {
        return word != 0;
    }
};

inline message_bus_arg mb_string(const char *value) {
    return {.type = MB_ARG_STRING, .string = value};
}
inline message_bus_arg mb_string(const std::string &value) {
    return mb_string(value.c_str());
}
inline message_bus_arg mb_uint32(uint32_t value) {
    return {.type = MB_ARG_UINT32, .word = value};
}
inline message_bus_arg mb_int32(int32_t value) {
    return {.type = MB_ARG_INT32, .word = static_cast<uint32_t>(value)};
}
inline message_bus_arg mb_boolean(bool value) {
    return {.type = MB_ARG_BOOLEAN, .word = value};
}

// How many arguments a callback gets to see.
constexpr size_t message_bus_max_args = 16;

// The arguments of one message, for the time of one callback.
class message_bus_args {
public:
    // Those of a call that failed.
    message_bus_args() = default;
    explicit message_bus_args(DBusMessage *message);

    // All that came, also those beyond message_bus_max_args; -1 when the call failed.
    int32_t count() const {
        return count_;
    }
    const message_bus_arg &operator[](size_t index) const {
        return values_[index];
    }
    // The ones to be seen.
    std::span<const message_bus_arg> values() const;

    // Why they are not exactly of the types in `signature` ("sub"; one letter each), null when they
    // are.
    const char *mismatch(std::string_view signature) const;
    bool are(std::string_view signature) const {
        return mismatch(signature) == nullptr;
    }

private:
    int32_t count_ = -1;
    std::array<message_bus_arg, message_bus_max_args> values_;
};

// Appends to an outgoing message. Text that is not UTF-8 has each wrong byte replaced. Gives the
// first argument that could not be appended (it has none of the four types, or the message cannot
// grow), null when all went in.
const message_bus_arg *message_bus_append_args(DBusMessage *message,
                                               std::span<const message_bus_arg> args);

// The same; false, with the reason in the log, when not all went in.
bool message_bus_append_list(DBusMessage *message, std::span<const message_bus_arg> args);

// False for a message with more text than the bus carries: it would end the connection.
bool message_bus_fits(DBusMessage *message);

bool message_bus_is_known_type(int32_t type);

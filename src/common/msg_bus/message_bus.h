// The daemon's only door to D-Bus: one connection to the system bus, driven by the event loop.
// Serves methods, listens to signals, calls other services and emits signals, with flat argument
// lists of four basic types. Everything runs on the loop's thread.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>

#include "common/bus_message_ptr.h"
#include "common/unique_function.h"

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
    return {.type = MB_ARG_BOOLEAN, .word = value ? 1U : 0U};
}

// How many arguments a callback gets to see; `argc` counts all that came.
constexpr int32_t message_bus_max_args = 16;

// An incoming method call that waits for its answer. Each reply operation consumes it; one that
// goes out of scope unanswered leaves the caller to its time-out.
class message_bus_request {
public:
    message_bus_request() = default;
    // Takes a reference of its own on `message`, which may be null.
    explicit message_bus_request(DBusMessage *message)
        : message_(message != nullptr ? dbus_message_ref(message) : nullptr) {}

    // A second reference, for the one method that deliberately answers twice.
    message_bus_request share() const {
        return message_bus_request(message_.get());
    }
    explicit operator bool() const {
        return message_ != nullptr;
    }
    DBusMessage *message() const {
        return message_.get();
    }

private:
    bus_message_ptr message_;
};

// `args` holds the first min(argc, message_bus_max_args) arguments.
using message_bus_method_handler = void (*)(int32_t argc, const message_bus_arg *args,
                                            message_bus_request request);
using message_bus_signal_handler = void (*)(int32_t argc, const message_bus_arg *args);
// argc is -1 and args null when the call failed.
using message_bus_reply_cb = void (*)(int32_t argc, const message_bus_arg *args);
// The same with context, held as captured state and released after the reply.
using message_bus_reply_ctx_cb = unique_function<void(int32_t argc, const message_bus_arg *args)>;

// Binds the module to the loop and connects to the system bus. A second call with the same loop
// changes nothing; one with another loop fails.
bool message_bus_new(event_base *base);

// Installs the dispatch, watch and timeout functions on the connection (used by message_bus_new).
bool connection_setup();

// Sets DBUS_SESSION_BUS_ADDRESS; returns what setenv() returned. The system bus is not affected.
int message_bus_set_dbus_socket(const char *address);

// Asks for a well-known name, replacing an owner that allows it. Queued counts as success.
bool message_bus_request_name(const char *name);

// Serves `interface`.`member` on `path` (and on every other registered path). The texts are kept by
// pointer and must outlive the process. True without being served when the bus refuses the match
// rule; true without a second record when the same listener is already there.
bool message_bus_add_method_listener(const char *path, const char *interface, const char *member,
                                     message_bus_method_handler handler);

// Delivers the signal to `handler`, whoever sent it; otherwise as above.
bool message_bus_add_signal_listener(const char *interface, const char *member,
                                     message_bus_signal_handler handler);

// Asynchronous calls. True when the call was queued; the callback (may be null) then runs once, on
// the reply, on an error or on the library's default time-out. On false it never runs.
bool message_bus_call_method(const char *destination, const char *path, const char *interface,
                             const char *method, message_bus_reply_cb reply_cb);
bool message_bus_call_method_with_context(const char *destination, const char *path,
                                          const char *interface, const char *method,
                                          message_bus_reply_ctx_cb reply_cb);
bool message_bus_call_method_with_args(const char *destination, const char *path,
                                       const char *interface, const char *method,
                                       message_bus_reply_ctx_cb reply_cb,
                                       std::initializer_list<message_bus_arg> args);
// Of a boolean entry only the lowest byte of the word counts.
bool message_bus_call_method_with_args_table(const char *destination, const char *path,
                                             const char *interface, const char *method,
                                             message_bus_reply_ctx_cb reply_cb,
                                             std::span<const message_bus_arg> table);

// Answers. True when the reply was sent. Text that is not UTF-8 has each wrong byte replaced.
bool message_bus_send_no_reply(message_bus_request request);
bool message_bus_send_bool_reply(message_bus_request request, bool value);
bool message_bus_send_string_reply(message_bus_request request, const char *text);
bool message_bus_send_reply(message_bus_request request,
                            std::initializer_list<message_bus_arg> args);

// Signals. True when queued.
bool message_bus_send_signal(const char *path, const char *interface, const char *name,
                             const char *text);
bool message_bus_send_signal_with_args(const char *path, const char *interface, const char *name,
                                       std::initializer_list<message_bus_arg> args);

// True when the arguments have exactly the types `codes`; otherwise logs the reason. The request is
// neither answered nor released. Signals and replies have no request: they pass an empty one.
bool message_bus_validate_params(const message_bus_request &request, int32_t argc,
                                 const message_bus_arg *args, std::initializer_list<int32_t> codes);

// The daemon's only door to D-Bus: one connection to the system bus, driven by the event loop.
// Serves methods, listens to signals, calls other services and emits signals, with flat argument
// lists of four basic types. Everything runs on the loop's thread.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <utility>

#include "common/logger.h"
#include "common/msg_bus/message_bus_args.h"
#include "common/msg_bus/message_bus_connection.h"
#include "common/unique_function.h"

struct event_base;

// An incoming method call that waits for its answer. Each reply operation consumes it; one that
// goes out of scope unanswered leaves the caller to its time-out.
class message_bus_request {
public:
    message_bus_request() = default;
    // Takes a reference of its own on `message`, which may be null.
    explicit message_bus_request(DBusMessage *message)
        : message_(message != nullptr ? dbus_message_ref(message) : nullptr) {}

    // What a reply needs to know, and no more: for a wait. Arguments may be large, and the
    // descriptors among them are the process's own.
    message_bus_request without_arguments() const;

    // A second handle, for the one method that deliberately answers twice.
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

using message_bus_method_handler = void (*)(const message_bus_args &args,
                                            message_bus_request request);
using message_bus_signal_handler = void (*)(const message_bus_args &args);
// The arguments' count is -1 when the call failed.
using message_bus_reply_cb = void (*)(const message_bus_args &args);
// The same with context, held as captured state and released after the reply.
using message_bus_reply_ctx_cb = unique_function<void(const message_bus_args &args)>;
// The same for a call that is made to answer a request, which comes back with the reply.
using message_bus_answer =
    unique_function<void(const message_bus_args &args, message_bus_request request)>;

// What a caller gets whose arguments are refused.
enum class message_bus_refusal { silence, empty_reply, false_reply };

// One served method of an object, one signal that is listened to. All texts are kept by pointer and
// must outlive the process.
struct message_bus_method {
    const char *member;
    message_bus_method_handler handler;
    // The arguments that the handler gets to see, as a D-Bus signature ("" for none); null lets it
    // have whatever comes.
    const char *args = nullptr;
    const char *refusal_text = nullptr;  // logged at WARN when others come
    message_bus_refusal refusal = message_bus_refusal::silence;
    const char *arrival_text = nullptr;  // logged at INFO for every call, before a refusal
};
struct message_bus_signal {
    const char *member;
    message_bus_signal_handler handler;
    const char *args = nullptr;
    const char *refusal_text = nullptr;
};

// Binds the module to the loop and connects to the system bus. A second call with the same loop
// changes nothing; one with another loop fails.
bool message_bus_new(event_base *base);

// Serves `interface`.`member` on `path` (and on every other registered path). The texts are kept by
// pointer and must outlive the process. True without being served when the bus refuses the match
// rule; true without a second record when the same listener is already there.
bool message_bus_add_method_listener(const char *path, const char *interface, const char *member,
                                     message_bus_method_handler handler);

// Delivers the signal to `handler`, whoever sent it; otherwise as above.
bool message_bus_add_signal_listener(const char *interface, const char *member,
                                     message_bus_signal_handler handler);

// The same for the rows of a table, up to the first failure, for which `failure_text` (null for
// none) is logged at ERROR. What the rows have logged is logged for the module.
bool message_bus_add_methods(const log_source &module, const char *path, const char *interface,
                             std::span<const message_bus_method> methods,
                             const char *failure_text = nullptr);
bool message_bus_add_signals(const log_source &module, const char *interface,
                             std::span<const message_bus_signal> signals,
                             const char *failure_text = nullptr);

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
// Of a boolean entry only the lowest byte of the word counts. Kept for callers that build their
// arguments at run time; nothing here calls it.
bool message_bus_call_method_with_args_table(const char *destination, const char *path,
                                             const char *interface, const char *method,
                                             message_bus_reply_ctx_cb reply_cb,
                                             std::span<const message_bus_arg> table);

// Calls another service for `request`. True when the call was queued: the request waits with it,
// without its arguments, and goes to `answer`. On false it stays with the caller.
bool message_bus_call_method_for_request(const char *destination, const char *path,
                                         const char *interface, const char *method,
                                         message_bus_request &request, message_bus_answer answer,
                                         std::initializer_list<message_bus_arg> args);

// Answers. True when the reply was sent. Text that is not UTF-8 has each wrong byte replaced.
bool message_bus_send_no_reply(message_bus_request request);
bool message_bus_send_bool_reply(message_bus_request request, bool value);
bool message_bus_send_string_reply(message_bus_request request, const char *text);
bool message_bus_send_reply(message_bus_request request,
                            std::initializer_list<message_bus_arg> args);

// A method's handler whose caller gets an empty answer, whatever came of `act`.
template <void (*act)(const message_bus_args &args)>
void message_bus_answer_empty(const message_bus_args &args, message_bus_request request) {
    act(args);
    message_bus_send_no_reply(std::move(request));
}

// Signals. True when queued. Kept for services that announce something; nothing here does yet.
bool message_bus_send_signal(const char *path, const char *interface, const char *name,
                             const char *text);
bool message_bus_send_signal_with_args(const char *path, const char *interface, const char *name,
                                       std::initializer_list<message_bus_arg> args);

// True when the arguments have exactly the types of `signature`; otherwise logs the reason. The
// request is neither answered nor released. Signals and replies have no request: they pass an empty
// one.
bool message_bus_validate_params(const message_bus_request &request, const message_bus_args &args,
                                 const char *signature);

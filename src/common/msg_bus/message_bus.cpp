#include "common/msg_bus/message_bus.h"

#include <cstring>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "common/logger.h"
#include "common/msg_bus/message_bus_calls.h"
#include "common/msg_bus/message_bus_introspection.h"

namespace {

constexpr const char *log_category = "message_bus";

// A row of a table, and where it is served or listened to.
template <class Row>
struct listener {
    const char *path;  // "" for a signal
    const char *interface;
    Row row;
    log_source module;
};

std::vector<listener<message_bus_method>> method_listeners;
std::vector<listener<message_bus_signal>> signal_listeners;

template <class Row>
bool is_known(const std::vector<listener<Row>> &listeners, const listener<Row> &added) {
    return std::any_of(listeners.begin(), listeners.end(), [&added](const listener<Row> &known) {
        return known.row.handler == added.row.handler && strcmp(known.path, added.path) == 0 &&
               strcmp(known.interface, added.interface) == 0 &&
               strcmp(known.row.member, added.row.member) == 0;
    });
}

// --- Delivery

// Whether a row's handler gets to see the arguments.
template <class Row>
bool accepts(const listener<Row> &found, const message_bus_args &args,
             const message_bus_request &request) {
    const Row &row = found.row;
    if (row.args == nullptr) {
        return true;
    }
    // kept: where none are taken the log does not say what is wrong.
    const bool accepted = *row.args == '\0' ? args.count() == 0
                                            : message_bus_validate_params(request, args, row.args);
    if (!accepted && row.refusal_text != nullptr) {
        LOG_FOR(found.module, LOG_LEVEL_WARN, "%s", row.refusal_text);
    }
    return accepted;
}

void refuse(message_bus_refusal refusal, message_bus_request request) {
    switch (refusal) {
        case message_bus_refusal::silence:
            break;
        case message_bus_refusal::empty_reply:
            message_bus_send_no_reply(std::move(request));
            break;
        case message_bus_refusal::false_reply:
            message_bus_send_bool_reply(std::move(request), false);
            break;
    }
}

void call_handler(const listener<message_bus_method> &found, DBusMessage *message) {
    const message_bus_args args(message);
    message_bus_request request(message);
    if (found.row.arrival_text != nullptr) {
        LOG_FOR(found.module, LOG_LEVEL_INFO, "%s", found.row.arrival_text);
    }
    if (accepts(found, args, request)) {
        found.row.handler(args, std::move(request));
    } else {
        refuse(found.row.refusal, std::move(request));
    }
}

void introspect(DBusConnection *connection, DBusMessage *message) {
    const char *path = dbus_message_get_path(message);
    std::vector<const char *> interfaces;
    for (const auto &listener : method_listeners) {
        const bool known =
            std::any_of(interfaces.begin(), interfaces.end(), [&listener](const char *interface) {
                return strcmp(interface, listener.interface) == 0;
            });
        if (!known && strcmp(listener.path, path) == 0) {
            interfaces.push_back(listener.interface);
        }
    }
    const std::string text = message_bus_describe_object(connection, path, interfaces);
    message_bus_send_string_reply(message_bus_request(message), text.c_str());
}

// kept: the path of the call is not compared, a listener answers on every registered path.
DBusHandlerResult dispatch_method(DBusConnection *connection, DBusMessage *message, void *) {
    const auto found = std::find_if(
        method_listeners.begin(), method_listeners.end(), [message](const auto &known) {
            return dbus_message_is_method_call(message, known.interface, known.row.member);
        });
    if (found != method_listeners.end()) {
        call_handler(*found, message);
    } else if (dbus_message_is_method_call(message, DBUS_INTERFACE_INTROSPECTABLE, "Introspect")) {
        introspect(connection, message);
    } else {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

// Only the first matching listener hears a signal, whoever sent it.
DBusHandlerResult filter_message(DBusConnection *, DBusMessage *message, void *) {
    if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected")) {
        LOG_WARN("got signal Disconnected");
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    if (dbus_message_get_reply_serial(message) != 0) {
        message_bus_calls_reply(message);  // too late for whoever waited
    } else if (dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameOwnerChanged")) {
        message_bus_calls_owner_changed(message);
    }
    const auto found = std::find_if(
        signal_listeners.begin(), signal_listeners.end(), [message](const auto &known) {
            return dbus_message_is_signal(message, known.interface, known.row.member);
        });
    if (found == signal_listeners.end()) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const message_bus_args args(message);
    if (accepts(*found, args, {})) {
        found->row.handler(args);
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

bool add_match_rule(const char *interface, const char *member) {
    if (message_bus_connection() == nullptr) {
        return false;
    }
    const std::string rule =
        std::string("type='signal',interface='") + interface + "',member='" + member + "'";
    bus_error error;
    dbus_bus_add_match(message_bus_connection(), rule.c_str(), &error);
    if (error.is_set()) {
        LOG_WARN("Failed to dbus_bus_add_match: %s", error.message);
        return false;
    }
    return true;
}

// One path is registered once and then serves every interface and method added on it.
bool register_path(const char *path) {
    static const DBusObjectPathVTable handlers = {.unregister_function = nullptr,
                                                  .message_function = dispatch_method,
                                                  .dbus_internal_pad1 = nullptr,
                                                  .dbus_internal_pad2 = nullptr,
                                                  .dbus_internal_pad3 = nullptr,
                                                  .dbus_internal_pad4 = nullptr};
    bus_error error;
    return dbus_connection_try_register_object_path(message_bus_connection(), path, &handlers,
                                                    nullptr, &error) ||
           dbus_error_has_name(&error, DBUS_ERROR_OBJECT_PATH_IN_USE);
}

// kept: a served method gets a signal's match rule too, and where the bus refuses it the method is
// silently not served.
bool add(const listener<message_bus_method> &added) {
    if (is_known(method_listeners, added) || !add_match_rule(added.interface, added.row.member)) {
        return true;
    }
    if (!register_path(added.path)) {
        LOG_WARN("failed to register dbus object path: %s %s.%s", added.path, added.interface,
                 added.row.member);
        return false;
    }
    method_listeners.push_back(added);
    return true;
}

// kept: a refused match rule counts as success, as for methods.
bool add(const listener<message_bus_signal> &added) {
    if (!is_known(signal_listeners, added) && add_match_rule(added.interface, added.row.member)) {
        signal_listeners.push_back(added);
    }
    return true;
}

template <class Row>
bool add_all(const log_source &module, const char *path, const char *interface,
             std::span<const Row> rows, const char *failure_text) {
    const bool added = std::all_of(rows.begin(), rows.end(), [&](const Row &row) {
        return add(listener<Row>{path, interface, row, module});
    });
    if (!added && failure_text != nullptr) {
        LOG_FOR(module, LOG_LEVEL_ERROR, "%s", failure_text);
    }
    return added;
}

// --- Replies and signals

bool send_reply(const message_bus_request &request, std::initializer_list<message_bus_arg> args) {
    if (!request) {
        return false;
    }
    const bus_message_ptr reply(dbus_message_new_method_return(request.message()));
    if (!reply || !message_bus_append_list(reply.get(), args) || !message_bus_fits(reply.get()) ||
        !dbus_connection_send(message_bus_connection(), reply.get(), nullptr)) {
        LOG_WARN("failed to send DBus method response");
        return false;
    }
    dbus_connection_flush(message_bus_connection());
    return true;
}

bus_message_ptr new_signal(const char *path, const char *interface, const char *name) {
    bus_message_ptr signal(dbus_message_new_signal(path, interface, name));
    if (!signal) {
        LOG_WARN("failed to create message signal");
    }
    return signal;
}

bool send_signal(DBusMessage *signal) {
    dbus_uint32_t serial = 0;
    return message_bus_connection() != nullptr && message_bus_fits(signal) &&
           dbus_connection_send(message_bus_connection(), signal, &serial);
}

}  // namespace

message_bus_request message_bus_request::without_arguments() const {
    const bus_message_ptr call(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL));
    dbus_message_set_sender(call.get(), dbus_message_get_sender(message()));
    dbus_message_set_serial(call.get(), dbus_message_get_serial(message()));
    return message_bus_request(call.get());
}

bool message_bus_new(event_base *base) {
    return message_bus_connection_open(base, filter_message);
}

bool message_bus_add_method_listener(const char *path, const char *interface, const char *member,
                                     message_bus_method_handler handler) {
    const message_bus_method row = {.member = member, .handler = handler};
    return message_bus_add_methods(log_category, path, interface, {&row, 1});
}

bool message_bus_add_signal_listener(const char *interface, const char *member,
                                     message_bus_signal_handler handler) {
    const message_bus_signal row = {.member = member, .handler = handler};
    return message_bus_add_signals(log_category, interface, {&row, 1});
}

bool message_bus_add_methods(const log_source &module, const char *path, const char *interface,
                             std::span<const message_bus_method> methods,
                             const char *failure_text) {
    return add_all(module, path, interface, methods, failure_text);
}

bool message_bus_add_signals(const log_source &module, const char *interface,
                             std::span<const message_bus_signal> signals,
                             const char *failure_text) {
    return add_all(module, "", interface, signals, failure_text);
}

bool message_bus_send_no_reply(message_bus_request request) {
    return send_reply(request, {});
}

bool message_bus_send_bool_reply(message_bus_request request, bool value) {
    return send_reply(request, {mb_boolean(value)});
}

bool message_bus_send_string_reply(message_bus_request request, const char *text) {
    return send_reply(request, {mb_string(text)});
}

bool message_bus_send_reply(message_bus_request request,
                            std::initializer_list<message_bus_arg> args) {
    return send_reply(request, args);
}

bool message_bus_send_signal(const char *path, const char *interface, const char *name,
                             const char *text) {
    const bus_message_ptr signal = new_signal(path, interface, name);
    if (!signal) {
        return false;
    }
    const message_bus_arg arg = mb_string(text);
    if (message_bus_append_args(signal.get(), {&arg, 1}) != nullptr) {
        LOG_WARN("Cannot append arg to signal - Out Of Memory!\n");
        return false;
    }
    if (!send_signal(signal.get())) {
        LOG_WARN("failed to send dbus signal");
        return false;
    }
    return true;
}

bool message_bus_send_signal_with_args(const char *path, const char *interface, const char *name,
                                       std::initializer_list<message_bus_arg> args) {
    const bus_message_ptr signal = new_signal(path, interface, name);
    if (!signal) {
        return false;
    }
    if (!message_bus_append_list(signal.get(), args) || !send_signal(signal.get())) {
        LOG_WARN("failed to send dbus signal");
        return false;
    }
    return true;
}

bool message_bus_validate_params(const message_bus_request &request, const message_bus_args &args,
                                 const char *signature) {
    const char *reason = args.mismatch(signature);
    if (reason == nullptr) {
        return true;
    }
    // Signals and replies come without a message, and a call may come without an interface.
    DBusMessage *message = request.message();
    const char *interface = message != nullptr ? dbus_message_get_interface(message) : nullptr;
    const char *member = message != nullptr ? dbus_message_get_member(message) : nullptr;
    LOG_WARN("Error validating dbus message params for %s.%s: %s",
             interface != nullptr ? interface : "(null)", member != nullptr ? member : "(null)",
             reason);
    return false;
}

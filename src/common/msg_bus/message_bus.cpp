#include "common/msg_bus/message_bus.h"

#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "common/event_ptr.h"
#include "common/logger.h"
#include "common/utf8.h"

namespace {

constexpr const char *log_category = "message_bus";
constexpr int default_time_out = -1;

// A watch or timeout of the bus library together with the event that serves it.
template <class Source>
struct loop_record {
    event_ptr handle;
    Source *source = nullptr;  // borrowed from the bus library
};

using message_bus_watch_record = loop_record<DBusWatch>;
using message_bus_timeout_record = loop_record<DBusTimeout>;

struct method_listener {
    const char *path;
    const char *interface;
    const char *member;
    message_bus_method_handler handler;
};

struct signal_listener {
    const char *interface;
    const char *member;
    message_bus_signal_handler handler;
};

// What the bus library keeps for a call until its reply has been delivered.
struct message_bus_pending_call {
    message_bus_reply_ctx_cb reply_cb;
};

struct message_bus {
    DBusConnection *connection = nullptr;
    event_base *base = nullptr;
    std::vector<method_listener> method_listeners;
    std::vector<signal_listener> signal_listeners;
    std::vector<message_bus_timeout_record> timeouts;
    std::vector<message_bus_watch_record> watches;
    event_ptr dispatch;
};

// One connection for the whole process, never torn down.
message_bus bus;

struct bus_error : DBusError {
    bus_error() : DBusError(DBUS_ERROR_INIT) {}
    ~bus_error() {
        dbus_error_free(this);
    }
    bus_error(const bus_error &) = delete;
    bus_error &operator=(const bus_error &) = delete;

    bool is_set() const {
        return dbus_error_is_set(this) != FALSE;
    }
};

// --- The connection inside the event loop

template <class Source>
auto find_record(std::vector<loop_record<Source>> &records, const Source *source) {
    return std::find_if(records.begin(), records.end(),
                        [source](const auto &record) { return record.source == source; });
}

template <class Source>
void remove_record(std::vector<loop_record<Source>> &records, const Source *source) {
    const auto record = find_record(records, source);
    if (record != records.end()) {
        records.erase(record);
    }
}

void dispatch_callback(evutil_socket_t, short, void *) {
    while (dbus_connection_get_dispatch_status(bus.connection) == DBUS_DISPATCH_DATA_REMAINS) {
        dbus_connection_dispatch(bus.connection);
    }
}

// Dispatching waits for the next pass of the loop: never inside a call of the bus library.
void dispatch_status_changed(DBusConnection *, DBusDispatchStatus status, void *) {
    if (status != DBUS_DISPATCH_DATA_REMAINS ||
        event_pending(bus.dispatch.get(), EV_TIMEOUT, nullptr) != 0) {
        return;
    }
    const timeval at_once = {};
    event_add(bus.dispatch.get(), &at_once);
}

void schedule_dispatch() {
    dispatch_status_changed(bus.connection, DBUS_DISPATCH_DATA_REMAINS, nullptr);
}

void watch_callback(evutil_socket_t, short what, void *data) {
    unsigned int flags = 0;
    if ((what & EV_READ) != 0) {
        flags |= DBUS_WATCH_READABLE;
    }
    if ((what & EV_WRITE) != 0) {
        flags |= DBUS_WATCH_WRITABLE;
    }
    dbus_watch_handle(static_cast<DBusWatch *>(data), flags);
    schedule_dispatch();
}

dbus_bool_t add_watch(DBusWatch *watch, void *data) {
    const unsigned int flags = dbus_watch_get_flags(watch);
    int events = 0;
    if ((flags & DBUS_WATCH_READABLE) != 0) {
        events |= EV_READ | EV_PERSIST;
    }
    // Kept: a watch that is only writable is not persistent, it fires once for each time that the
    // library adds or enables it.
    if ((flags & DBUS_WATCH_WRITABLE) != 0) {
        events |= EV_WRITE;
    }
    event_ptr io(event_new(bus.base, dbus_watch_get_unix_fd(watch), static_cast<short>(events),
                           watch_callback, watch));
    if (!io) {
        return FALSE;
    }
    dbus_watch_set_data(watch, data, nullptr);
    // Kept: armed at once, whether or not the library reports the watch enabled.
    event_add(io.get(), nullptr);
    bus.watches.push_back({std::move(io), watch});
    return TRUE;
}

void toggle_watch(DBusWatch *watch, void *) {
    const auto record = find_record(bus.watches, watch);
    if (record == bus.watches.end()) {
        return;
    }
    if (dbus_watch_get_enabled(watch)) {
        event_add(record->handle.get(), nullptr);
    } else {
        event_del(record->handle.get());
    }
}

void remove_watch(DBusWatch *watch, void *) {
    remove_record(bus.watches, watch);
}

void timeout_callback(evutil_socket_t, short, void *data) {
    dbus_timeout_handle(static_cast<DBusTimeout *>(data));
    schedule_dispatch();
}

// Kept: armed whether or not it is enabled, and not persistent: it fires at most once per add.
dbus_bool_t add_timeout(DBusTimeout *timeout, void *data) {
    event_ptr timer(event_new(bus.base, -1, 0, timeout_callback, timeout));
    if (!timer) {
        return FALSE;
    }
    dbus_timeout_set_data(timeout, data, nullptr);
    const int interval = dbus_timeout_get_interval(timeout);
    const timeval delay = {.tv_sec = interval / 1000, .tv_usec = (interval % 1000) * 1000L};
    event_add(timer.get(), &delay);
    bus.timeouts.push_back({std::move(timer), timeout});
    return TRUE;
}

void remove_timeout(DBusTimeout *timeout, void *) {
    remove_record(bus.timeouts, timeout);
}

// --- Arguments

// The arguments of one message, for the time of one callback.
struct incoming_arguments {
    explicit incoming_arguments(DBusMessage *message) {
        DBusMessageIter iterator;
        if (!dbus_message_iter_init(message, &iterator)) {
            return;
        }
        int type = DBUS_TYPE_INVALID;
        while ((type = dbus_message_iter_get_arg_type(&iterator)) != DBUS_TYPE_INVALID) {
            if (count < message_bus_max_args) {
                values[static_cast<size_t>(count)] = read(iterator, type);
            }
            ++count;
            dbus_message_iter_next(&iterator);
        }
    }

    const message_bus_arg *data() const {
        return count == 0 ? nullptr : values.data();
    }

    int32_t count = 0;

private:
    static message_bus_arg read(DBusMessageIter &iterator, int type) {
        message_bus_arg arg;
        switch (type) {
            case DBUS_TYPE_STRING:
                arg.type = MB_ARG_STRING;
                dbus_message_iter_get_basic(&iterator, &arg.string);
                break;
            case DBUS_TYPE_UINT32:
                arg.type = MB_ARG_UINT32;
                dbus_message_iter_get_basic(&iterator, &arg.word);
                break;
            case DBUS_TYPE_INT32:
                arg.type = MB_ARG_INT32;
                dbus_message_iter_get_basic(&iterator, &arg.word);
                break;
            case DBUS_TYPE_BOOLEAN:
                arg.type = MB_ARG_BOOLEAN;
                dbus_message_iter_get_basic(&iterator, &arg.word);
                break;
            default:
                // Not read: a wider value would not fit, and a descriptor would be left open.
                break;
        }
        return arg;
    }

    std::array<message_bus_arg, message_bus_max_args> values;
};

bool append_string(DBusMessageIter &iterator, const char *text) {
    const char *value = text != nullptr ? text : "";
    std::string repaired;
    if (!utf8_is_valid(value)) {
        // The library ends the process when it is given anything else.
        repaired = utf8_repaired(value);
        value = repaired.c_str();
    }
    return dbus_message_iter_append_basic(&iterator, DBUS_TYPE_STRING, &value);
}

// False for an argument without one of the four types, and when the message cannot grow.
bool append_argument(DBusMessageIter &iterator, const message_bus_arg &arg) {
    switch (arg.type) {
        case MB_ARG_STRING:
            return append_string(iterator, arg.string);
        case MB_ARG_UINT32:
            return dbus_message_iter_append_basic(&iterator, DBUS_TYPE_UINT32, &arg.word);
        case MB_ARG_INT32:
            return dbus_message_iter_append_basic(&iterator, DBUS_TYPE_INT32, &arg.word);
        case MB_ARG_BOOLEAN: {
            const dbus_bool_t value = arg.word != 0 ? TRUE : FALSE;
            return dbus_message_iter_append_basic(&iterator, DBUS_TYPE_BOOLEAN, &value);
        }
        default:
            return false;
    }
}

bool is_known_type(int32_t type) {
    return type >= MB_ARG_STRING && type <= MB_ARG_BOOLEAN;
}

bool append_list(DBusMessage *message, std::initializer_list<message_bus_arg> args) {
    DBusMessageIter iterator;
    dbus_message_iter_init_append(message, &iterator);
    for (const message_bus_arg &arg : args) {
        if (!is_known_type(arg.type)) {
            LOG_WARN("Unknown arg type");
        }
        if (!append_argument(iterator, arg)) {
            LOG_WARN("failed to pass argument");
            return false;
        }
    }
    return true;
}

bool append_table(DBusMessage *message, std::span<const message_bus_arg> table) {
    DBusMessageIter iterator;
    dbus_message_iter_init_append(message, &iterator);
    for (message_bus_arg arg : table) {
        if (!is_known_type(arg.type)) {
            LOG_WARN("Unknown arg type %d", arg.type);
        }
        // Kept: in a table a boolean is one byte wide, in a list the whole word counts.
        if (arg.type == MB_ARG_BOOLEAN) {
            arg.word &= 0xffU;
        }
        if (!append_argument(iterator, arg)) {
            LOG_WARN("Failed to add table args to a dbus message");
            return false;
        }
    }
    return true;
}

// --- Delivery

// A method call may leave its interface out: it then fits every listener of that member, as in
// dbus_message_is_method_call(). Calls and signals always carry a member.
template <class Listener>
const Listener *find_listener(const std::vector<Listener> &listeners, DBusMessage *message) {
    const char *interface = dbus_message_get_interface(message);
    const char *member = dbus_message_get_member(message);
    const auto found = std::find_if(
        listeners.begin(), listeners.end(), [interface, member](const Listener &listener) {
            return strcmp(listener.member, member) == 0 &&
                   (interface == nullptr || strcmp(listener.interface, interface) == 0);
        });
    return found == listeners.end() ? nullptr : &*found;
}

// Kept: the path of the call is not compared, a listener answers on every registered path.
DBusHandlerResult dispatch_method(DBusConnection *, DBusMessage *message, void *) {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const method_listener *listener = find_listener(bus.method_listeners, message);
    if (listener == nullptr) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const incoming_arguments arguments(message);
    listener->handler(arguments.count, arguments.data(), message_bus_request(message));
    return DBUS_HANDLER_RESULT_HANDLED;
}

// Only the first matching listener hears a signal, whoever sent it.
DBusHandlerResult filter_message(DBusConnection *, DBusMessage *message, void *) {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_SIGNAL) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected")) {
        LOG_WARN("got signal Disconnected");
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    const signal_listener *listener = find_listener(bus.signal_listeners, message);
    if (listener == nullptr) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const incoming_arguments arguments(message);
    listener->handler(arguments.count, arguments.data());
    return DBUS_HANDLER_RESULT_HANDLED;
}

bool add_match_rule(const char *interface, const char *member) {
    if (bus.connection == nullptr) {
        return false;
    }
    const std::string rule =
        std::string("type='signal',interface='") + interface + "',member='" + member + "'";
    bus_error error;
    dbus_bus_add_match(bus.connection, rule.c_str(), &error);
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
    return dbus_connection_try_register_object_path(bus.connection, path, &handlers, nullptr,
                                                    &error) ||
           dbus_error_has_name(&error, DBUS_ERROR_OBJECT_PATH_IN_USE);
}

// --- Calls

void call_failed(message_bus_reply_ctx_cb &reply_cb) {
    if (reply_cb) {
        reply_cb(-1, nullptr);
    }
}

void reply_arrived(DBusPendingCall *pending, void *data) {
    auto &call = *static_cast<message_bus_pending_call *>(data);
    bus_error error;
    DBusConnection *connection = dbus_bus_get(DBUS_BUS_SYSTEM, &error);
    if (connection == nullptr) {
        LOG_WARN("Failed to open connection to activating message bus: %s", error.message);
        call_failed(call.reply_cb);
        return;
    }
    const bus_message_ptr reply(dbus_pending_call_steal_reply(pending));
    switch (dbus_message_get_type(reply.get())) {
        case DBUS_MESSAGE_TYPE_METHOD_RETURN: {
            const incoming_arguments arguments(reply.get());
            if (call.reply_cb) {
                call.reply_cb(arguments.count, arguments.data());
            }
            break;
        }
        case DBUS_MESSAGE_TYPE_ERROR:
            call_failed(call.reply_cb);
            break;
        default:
            LOG_WARN("Unexpected message received");
            break;
    }
    dbus_connection_unref(connection);
}

void free_pending_call(void *data) {
    const std::unique_ptr<message_bus_pending_call> record(
        static_cast<message_bus_pending_call *>(data));
}

struct pending_call_deleter {
    void operator()(DBusPendingCall *pending) const {
        dbus_pending_call_unref(pending);
    }
};

bool call_method(const char *destination, const char *path, const char *interface,
                 const char *method, message_bus_reply_ctx_cb reply_cb,
                 std::span<const message_bus_arg> table,
                 std::initializer_list<message_bus_arg> args) {
    LOG_INFO("calling dbus function: %s %s %s.%s", destination, path, interface, method);
    const bus_message_ptr message(
        dbus_message_new_method_call(destination, path, interface, method));
    if (!message) {
        LOG_WARN("failed to create");
        return false;
    }
    if (!append_list(message.get(), args)) {
        LOG_WARN("Failed to add valist args to a dbus message");
        return false;
    }
    if (!append_table(message.get(), table)) {
        return false;
    }
    DBusPendingCall *queued = nullptr;
    // A connection that is gone gives success without a pending call.
    if (bus.connection == nullptr ||
        !dbus_connection_send_with_reply(bus.connection, message.get(), &queued,
                                         default_time_out) ||
        queued == nullptr) {
        LOG_WARN("failed to call dbus method");
        return false;
    }
    // The library keeps a reference of its own until the reply has been delivered.
    const std::unique_ptr<DBusPendingCall, pending_call_deleter> pending(queued);
    auto record =
        std::make_unique<message_bus_pending_call>(message_bus_pending_call{std::move(reply_cb)});
    if (!dbus_pending_call_set_notify(pending.get(), reply_arrived, record.get(),
                                      free_pending_call)) {
        LOG_WARN("failed to set dbus method call notify function");
        return false;
    }
    static_cast<void>(record.release());  // freed by free_pending_call
    return true;
}

// --- Replies and signals

bool send_reply(const message_bus_request &request, std::initializer_list<message_bus_arg> args) {
    if (!request) {
        return false;
    }
    const bus_message_ptr reply(dbus_message_new_method_return(request.message()));
    if (!reply || !append_list(reply.get(), args) ||
        !dbus_connection_send(bus.connection, reply.get(), nullptr)) {
        LOG_WARN("failed to send DBus method response");
        return false;
    }
    dbus_connection_flush(bus.connection);
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
    return bus.connection != nullptr && dbus_connection_send(bus.connection, signal, &serial);
}

}  // namespace

bool connection_setup() {
    if (bus.connection == nullptr) {
        return false;
    }
    dbus_connection_set_dispatch_status_function(bus.connection, dispatch_status_changed, nullptr,
                                                 nullptr);
    if (!bus.dispatch) {
        bus.dispatch.reset(event_new(bus.base, -1, 0, dispatch_callback, nullptr));
    }
    if (dbus_connection_set_watch_functions(bus.connection, add_watch, remove_watch, toggle_watch,
                                            nullptr, nullptr) &&
        dbus_connection_set_timeout_functions(bus.connection, add_timeout, remove_timeout, nullptr,
                                              nullptr, nullptr)) {
        return true;
    }
    dbus_connection_set_dispatch_status_function(bus.connection, nullptr, nullptr, nullptr);
    dbus_connection_set_watch_functions(bus.connection, nullptr, nullptr, nullptr, nullptr,
                                        nullptr);
    dbus_connection_set_timeout_functions(bus.connection, nullptr, nullptr, nullptr, nullptr,
                                          nullptr);
    return false;
}

bool message_bus_new(event_base *base) {
    if (bus.base != nullptr && bus.base != base) {
        LOG_WARN("Cannot use more than one event_base for dbus");
        return false;
    }
    bus.base = base;
    if (bus.connection != nullptr) {
        return true;
    }
    bus_error error;
    bus.connection = dbus_bus_get(DBUS_BUS_SYSTEM, &error);
    if (bus.connection == nullptr) {
        LOG_WARN("Failed to open connection to activating message bus: %s", error.message);
        return false;
    }
    const char *failure = nullptr;
    if (!connection_setup()) {
        failure = "failed to setup dbus connection";
    } else if (!dbus_connection_add_filter(bus.connection, filter_message, nullptr, nullptr)) {
        failure = "failed to add filter to dbus connection";
    }
    if (failure != nullptr) {
        LOG_WARN("%s", failure);
        dbus_connection_unref(bus.connection);
        bus.connection = nullptr;
        return false;
    }
    return true;
}

int message_bus_set_dbus_socket(const char *address) {
    LOG_INFO("setting dbus socket to %s", address);
    return setenv("DBUS_SESSION_BUS_ADDRESS", address, 1);
}

bool message_bus_request_name(const char *name) {
    if (bus.connection == nullptr) {
        return false;
    }
    bus_error error;
    const int result =
        dbus_bus_request_name(bus.connection, name, DBUS_NAME_FLAG_REPLACE_EXISTING, &error);
    if (error.is_set()) {
        LOG_WARN("failed to request message bus name: %s. Error:\n %s", name, error.message);
    }
    return result != -1;
}

bool message_bus_add_method_listener(const char *path, const char *interface, const char *member,
                                     message_bus_method_handler handler) {
    const bool known = std::any_of(
        bus.method_listeners.begin(), bus.method_listeners.end(), [&](const auto &listener) {
            return listener.handler == handler && strcmp(listener.path, path) == 0 &&
                   strcmp(listener.interface, interface) == 0 &&
                   strcmp(listener.member, member) == 0;
        });
    if (known) {
        return true;
    }
    // Kept: a served method gets a signal's match rule too, and where the bus refuses it the method
    // is silently not served.
    if (!add_match_rule(interface, member)) {
        return true;
    }
    if (!register_path(path)) {
        LOG_WARN("failed to register dbus object path: %s %s.%s", path, interface, member);
        return false;
    }
    bus.method_listeners.push_back({path, interface, member, handler});
    return true;
}

bool message_bus_add_signal_listener(const char *interface, const char *member,
                                     message_bus_signal_handler handler) {
    const bool known = std::any_of(
        bus.signal_listeners.begin(), bus.signal_listeners.end(), [&](const auto &listener) {
            return listener.handler == handler && strcmp(listener.interface, interface) == 0 &&
                   strcmp(listener.member, member) == 0;
        });
    // Kept: a refused match rule counts as success, as for methods.
    if (!known && add_match_rule(interface, member)) {
        bus.signal_listeners.push_back({interface, member, handler});
    }
    return true;
}

bool message_bus_call_method(const char *destination, const char *path, const char *interface,
                             const char *method, message_bus_reply_cb reply_cb) {
    message_bus_reply_ctx_cb callback;
    if (reply_cb != nullptr) {
        callback = reply_cb;
    }
    return call_method(destination, path, interface, method, std::move(callback), {}, {});
}

bool message_bus_call_method_with_context(const char *destination, const char *path,
                                          const char *interface, const char *method,
                                          message_bus_reply_ctx_cb reply_cb) {
    return call_method(destination, path, interface, method, std::move(reply_cb), {}, {});
}

bool message_bus_call_method_with_args(const char *destination, const char *path,
                                       const char *interface, const char *method,
                                       message_bus_reply_ctx_cb reply_cb,
                                       std::initializer_list<message_bus_arg> args) {
    return call_method(destination, path, interface, method, std::move(reply_cb), {}, args);
}

bool message_bus_call_method_with_args_table(const char *destination, const char *path,
                                             const char *interface, const char *method,
                                             message_bus_reply_ctx_cb reply_cb,
                                             std::span<const message_bus_arg> table) {
    return call_method(destination, path, interface, method, std::move(reply_cb), table, {});
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
    DBusMessageIter iterator;
    dbus_message_iter_init_append(signal.get(), &iterator);
    if (!append_string(iterator, text)) {
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
    if (!append_list(signal.get(), args) || !send_signal(signal.get())) {
        LOG_WARN("failed to send dbus signal");
        return false;
    }
    return true;
}

bool message_bus_validate_params(const message_bus_request &request, int32_t argc,
                                 const message_bus_arg *args,
                                 std::initializer_list<int32_t> codes) {
    const char *reason = nullptr;
    if (argc < 0) {
        reason = "error reading parameters";
    } else if (static_cast<size_t>(argc) != codes.size()) {
        reason = "count mismatch";
    } else if (!std::equal(
                   codes.begin(), codes.end(), args,
                   [](int32_t code, const message_bus_arg &arg) { return arg.type == code; })) {
        reason = "type mismatch";
    }
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

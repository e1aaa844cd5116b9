// The floor: what the daemon's own libraries cost without the daemon, in a C++ program linked as
// usual. Answers Get(s) with a text.
#include <dbus/dbus.h>
#include <event2/event.h>

#include <memory>
#include <string>

#include "same_libraries.h"

namespace {

event_base *loop = nullptr;
DBusConnection *connection = nullptr;

void ready(evutil_socket_t, short what, void *watch) {
    const unsigned int flags =
        (what & EV_READ) != 0 ? unsigned{DBUS_WATCH_READABLE} : unsigned{DBUS_WATCH_WRITABLE};
    dbus_watch_handle(static_cast<DBusWatch *>(watch), flags);
    while (dbus_connection_dispatch(connection) == DBUS_DISPATCH_DATA_REMAINS) {
    }
}

void toggle(DBusWatch *watch, void *) {
    auto *io = static_cast<event *>(dbus_watch_get_data(watch));
    if (dbus_watch_get_enabled(watch)) {
        event_add(io, nullptr);
    } else {
        event_del(io);
    }
}

dbus_bool_t add(DBusWatch *watch, void *) {
    const bool readable = (dbus_watch_get_flags(watch) & DBUS_WATCH_READABLE) != 0;
    event *io =
        event_new(loop, dbus_watch_get_unix_fd(watch),
                  static_cast<short>(EV_PERSIST | (readable ? EV_READ : EV_WRITE)), ready, watch);
    dbus_watch_set_data(watch, io, nullptr);
    toggle(watch, nullptr);
    return TRUE;
}

DBusHandlerResult answer(DBusConnection *, DBusMessage *message, void *) {
    if (!dbus_message_is_method_call(message, "com.kelvanto.bench", "Get")) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const char *text = nullptr;
    dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    static const auto version = std::make_unique<std::string>("08.05.09");
    const char *value = version->c_str();
    DBusMessage *reply = dbus_message_new_method_return(message);
    dbus_message_append_args(reply, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
    dbus_connection_send(connection, reply, nullptr);
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace

int main(int argc, char *argv[]) {
    load_same_libraries();
    loop = event_base_new();
    connection = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
    DBusObjectPathVTable handlers = {};
    handlers.message_function = answer;
    if (connection == nullptr ||
        !dbus_connection_set_watch_functions(connection, add, nullptr, toggle, nullptr, nullptr) ||
        !dbus_connection_register_object_path(connection, "/bench", &handlers, nullptr)) {
        return 1;
    }
    for (int i = 1; i < argc; ++i) {
        if (dbus_bus_request_name(connection, argv[i], DBUS_NAME_FLAG_REPLACE_EXISTING, nullptr) ==
            -1) {
            return 1;
        }
    }
    return event_base_dispatch(loop);
}

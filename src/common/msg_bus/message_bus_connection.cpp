// Logs as "message_bus".
#include "common/msg_bus/message_bus_connection.h"

#include <event2/event.h>

#include <cstdlib>

#include "common/handle.h"
#include "common/logger.h"

namespace {

constexpr const char *log_category = "message_bus";

// One connection for the whole process, never torn down.
struct {
    DBusConnection *connection = nullptr;
    event_base *base = nullptr;
    handle<event, event_free> dispatch;
} bus;

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

// The event that serves a watch or time-out is the bus library's data of it, and freed with it.
void free_event(void *data) {
    event_free(static_cast<event *>(data));
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

dbus_bool_t add_watch(DBusWatch *watch, void *) {
    const unsigned int flags = dbus_watch_get_flags(watch);
    int events = 0;
    if ((flags & DBUS_WATCH_READABLE) != 0) {
        events |= EV_READ | EV_PERSIST;
    }
    // kept: a watch that is only writable is not persistent, it fires once for each time that the
    // library adds or enables it.
    if ((flags & DBUS_WATCH_WRITABLE) != 0) {
        events |= EV_WRITE;
    }
    event *io = event_new(bus.base, dbus_watch_get_unix_fd(watch), static_cast<short>(events),
                          watch_callback, watch);
    dbus_watch_set_data(watch, io, free_event);
    // kept: armed at once, whether or not the library reports the watch enabled.
    event_add(io, nullptr);
    return TRUE;
}

void toggle_watch(DBusWatch *watch, void *) {
    auto *io = static_cast<event *>(dbus_watch_get_data(watch));
    if (io == nullptr) {
        return;
    }
    if (dbus_watch_get_enabled(watch)) {
        event_add(io, nullptr);
    } else {
        event_del(io);
    }
}

void remove_watch(DBusWatch *watch, void *) {
    dbus_watch_set_data(watch, nullptr, nullptr);
}

void timeout_callback(evutil_socket_t, short, void *data) {
    dbus_timeout_handle(static_cast<DBusTimeout *>(data));
    schedule_dispatch();
}

// kept: armed whether or not it is enabled, and not persistent: it fires at most once per add.
dbus_bool_t add_timeout(DBusTimeout *timeout, void *) {
    event *timer = event_new(bus.base, -1, 0, timeout_callback, timeout);
    dbus_timeout_set_data(timeout, timer, free_event);
    const int interval = dbus_timeout_get_interval(timeout);
    const timeval delay = {.tv_sec = interval / 1000, .tv_usec = (interval % 1000) * 1000L};
    event_add(timer, &delay);
    return TRUE;
}

void remove_timeout(DBusTimeout *timeout, void *) {
    dbus_timeout_set_data(timeout, nullptr, nullptr);
}

}  // namespace

DBusConnection *message_bus_connection() {
    return bus.connection;
}

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

bool message_bus_connection_open(event_base *base, DBusHandleMessageFunction filter) {
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
    } else if (!dbus_connection_add_filter(bus.connection, filter, nullptr, nullptr)) {
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

// Logs as "message_bus".
// The message bus's calls to other daemons, and the way of their replies.
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/msg_bus/message_bus_calls.h"

namespace {

constexpr const char *log_category = "message_bus";
constexpr int default_time_out = -1;

bool append_table(DBusMessage *message, std::span<const message_bus_arg> table) {
    std::vector<message_bus_arg> args(table.begin(), table.end());
    for (message_bus_arg &arg : args) {
        // kept: in a table a boolean is one byte wide, in a list the whole word counts.
        if (arg.type == MB_ARG_BOOLEAN) {
            arg.word &= 0xffU;
        }
    }
    const message_bus_arg *refused = message_bus_append_args(message, args);
    if (refused == nullptr) {
        return true;
    }
    if (!message_bus_is_known_type(refused->type)) {
        LOG_WARN("Unknown arg type %d", refused->type);
    }
    LOG_WARN("Failed to add table args to a dbus message");
    return false;
}

void deliver(message_bus_reply_ctx_cb &reply_cb, const message_bus_args &args) {
    if (reply_cb) {
        reply_cb(args);
    }
}

void reply_arrived(DBusPendingCall *pending, void *data) {
    auto &reply_cb = *static_cast<message_bus_reply_ctx_cb *>(data);
    bus_error error;
    DBusConnection *connection = dbus_bus_get(DBUS_BUS_SYSTEM, &error);
    if (connection == nullptr) {
        LOG_WARN("Failed to open connection to activating message bus: %s", error.message);
        deliver(reply_cb, {});
        return;
    }
    const bus_message_ptr reply(dbus_pending_call_steal_reply(pending));
    message_bus_calls_reply(reply.get());
    switch (dbus_message_get_type(reply.get())) {
        case DBUS_MESSAGE_TYPE_METHOD_RETURN:
            deliver(reply_cb, message_bus_args(reply.get()));
            break;
        case DBUS_MESSAGE_TYPE_ERROR:
            deliver(reply_cb, {});
            break;
        default:
            LOG_WARN("Unexpected message received");
            break;
    }
    dbus_connection_unref(connection);
}

void free_reply_cb(void *data) {
    const std::unique_ptr<message_bus_reply_ctx_cb> record(
        static_cast<message_bus_reply_ctx_cb *>(data));
}

using pending_call_ptr = handle<DBusPendingCall, dbus_pending_call_unref>;

// Queues the call; none on failure.
pending_call_ptr queue_call(const char *destination, const char *path, const char *interface,
                            const char *method, std::span<const message_bus_arg> args,
                            std::span<const message_bus_arg> table) {
    LOG_INFO("calling dbus function: %s %s %s.%s", destination, path, interface, method);
    const bus_message_ptr message(
        dbus_message_new_method_call(destination, path, interface, method));
    if (!message) {
        LOG_WARN("failed to create");
        return nullptr;
    }
    if (!message_bus_append_list(message.get(), args)) {
        LOG_WARN("Failed to add valist args to a dbus message");
        return nullptr;
    }
    if (!append_table(message.get(), table)) {
        return nullptr;
    }
    DBusPendingCall *queued = nullptr;
    // A connection that is gone gives success without a pending call.
    if (message_bus_connection() == nullptr || !message_bus_calls_may_call(destination) ||
        !message_bus_fits(message.get()) ||
        !dbus_connection_send_with_reply(message_bus_connection(), message.get(), &queued,
                                         default_time_out) ||
        queued == nullptr) {
        LOG_WARN("failed to call dbus method");
        return nullptr;
    }
    message_bus_calls_add(destination, dbus_message_get_serial(message.get()));
    return pending_call_ptr(queued);
}

// The library keeps a reference of its own on the call until the reply has been delivered.
bool deliver_to(const pending_call_ptr &pending, message_bus_reply_ctx_cb reply_cb) {
    auto record = std::make_unique<message_bus_reply_ctx_cb>(std::move(reply_cb));
    if (!dbus_pending_call_set_notify(pending.get(), reply_arrived, record.get(), free_reply_cb)) {
        LOG_WARN("failed to set dbus method call notify function");
        return false;
    }
    static_cast<void>(record.release());  // freed by free_reply_cb
    return true;
}

bool call_method(const char *destination, const char *path, const char *interface,
                 const char *method, message_bus_reply_ctx_cb reply_cb,
                 std::span<const message_bus_arg> args, std::span<const message_bus_arg> table) {
    const pending_call_ptr pending = queue_call(destination, path, interface, method, args, table);
    return pending && deliver_to(pending, std::move(reply_cb));
}

}  // namespace

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
    return call_method(destination, path, interface, method, std::move(reply_cb), args, {});
}

bool message_bus_call_method_with_args_table(const char *destination, const char *path,
                                             const char *interface, const char *method,
                                             message_bus_reply_ctx_cb reply_cb,
                                             std::span<const message_bus_arg> table) {
    return call_method(destination, path, interface, method, std::move(reply_cb), {}, table);
}

bool message_bus_call_method_for_request(const char *destination, const char *path,
                                         const char *interface, const char *method,
                                         message_bus_request &request, message_bus_answer answer,
                                         std::initializer_list<message_bus_arg> args) {
    const pending_call_ptr pending = queue_call(destination, path, interface, method, args, {});
    if (!pending ||
        !deliver_to(pending, [waiting = request.without_arguments(), answer = std::move(answer)](
                                 const message_bus_args &args_of_reply) mutable {
            answer(args_of_reply, std::move(waiting));
        })) {
        return false;
    }
    request = {};
    return true;
}

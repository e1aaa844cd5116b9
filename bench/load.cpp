// The callers: load NAME PATH INTERFACE MEMBER ARGUMENT CLIENTS IN_FLIGHT CALLS
// Each client keeps that many calls on their way until all are answered. Exit code 0 when they
// were.
#include <dbus/dbus.h>
#include <poll.h>

#include <cstdlib>
#include <vector>

namespace {

struct client {
    DBusConnection *connection;
    int to_send;
    int to_come;
    bool failed = false;
};

bool send(client &caller, char *argv[]) {
    DBusMessage *call = dbus_message_new_method_call(argv[1], argv[2], argv[3], argv[4]);
    dbus_message_append_args(call, DBUS_TYPE_STRING, &argv[5], DBUS_TYPE_INVALID);
    const bool sent = dbus_connection_send(caller.connection, call, nullptr) != FALSE;
    dbus_message_unref(call);
    --caller.to_send;
    return sent;
}

// All that has come, each answered by the next call; false when an error was among it.
bool receive(client &caller, char *argv[]) {
    while (DBusMessage *message = dbus_connection_pop_message(caller.connection)) {
        const int type = dbus_message_get_type(message);
        const bool is_answer = dbus_message_get_reply_serial(message) != 0;
        dbus_message_unref(message);
        if (!is_answer) {
            continue;
        }
        --caller.to_come;
        if (type != DBUS_MESSAGE_TYPE_METHOD_RETURN ||
            (caller.to_send > 0 && !send(caller, argv))) {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char *argv[]) {
    if (argc != 9) {
        return 2;
    }
    const int clients = atoi(argv[6]);
    const int in_flight = atoi(argv[7]);
    const int calls = atoi(argv[8]) / clients;
    std::vector<client> callers;
    for (int i = 0; i < clients; ++i) {
        DBusConnection *connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        if (connection == nullptr) {
            return 1;
        }
        callers.push_back({connection, calls, calls});
    }
    for (client &caller : callers) {
        for (int i = 0; i < in_flight; ++i) {
            send(caller, argv);
        }
    }
    std::vector<pollfd> sockets;
    for (client &caller : callers) {
        pollfd socket = {.fd = -1, .events = POLLIN, .revents = 0};
        dbus_connection_get_unix_fd(caller.connection, &socket.fd);
        sockets.push_back(socket);
        dbus_connection_flush(caller.connection);
    }
    int open = clients;
    while (open > 0) {
        poll(sockets.data(), sockets.size(), -1);
        for (size_t i = 0; i < callers.size(); ++i) {
            client &caller = callers[i];
            if (sockets[i].revents == 0) {
                continue;
            }
            if (!dbus_connection_read_write(caller.connection, 0) || !receive(caller, argv)) {
                return 1;
            }
            dbus_connection_flush(caller.connection);
            if (caller.to_come == 0) {
                sockets[i].fd = -1;
                --open;
            }
        }
    }
    return 0;
}

#include "common/msg_bus/message_bus_calls.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "common/msg_bus/message_bus_connection.h"

namespace {

// What is left of the bus's 128 is for other peers: a healthy one answers soon, one that hangs
// would take it for good.
constexpr size_t max_unanswered = 120;
constexpr size_t max_unanswered_by_a_hung_peer = 64;

struct peer {
    const char *name;
    std::vector<dbus_uint32_t> unanswered;  // serials
    bool hangs = false;                     // a call timed out, and no answer came since
    bool is_watched = false;                // a new owner of the name is announced
};

std::vector<peer> peers;

auto find_peer(const char *name) {
    return std::find_if(peers.begin(), peers.end(),
                        [name](const peer &known) { return strcmp(known.name, name) == 0; });
}

void watch_owner(peer &hung) {
    if (hung.is_watched) {
        return;
    }
    const std::string rule =
        std::string("type='signal',sender='" DBUS_SERVICE_DBUS "',interface='" DBUS_INTERFACE_DBUS
                    "',member='NameOwnerChanged',arg0='") +
        hung.name + "'";
    dbus_bus_add_match(message_bus_connection(), rule.c_str(), nullptr);  // not waited for
    hung.is_watched = true;
}

}  // namespace

bool message_bus_calls_may_call(const char *destination) {
    const auto known = find_peer(destination);
    return known == peers.end() ||
           known->unanswered.size() <
               (known->hangs ? max_unanswered_by_a_hung_peer : max_unanswered);
}

void message_bus_calls_add(const char *destination, dbus_uint32_t serial) {
    auto known = find_peer(destination);
    if (known == peers.end()) {
        known = peers.insert(known, {.name = destination, .unanswered = {}});
    }
    known->unanswered.push_back(serial);
}

void message_bus_calls_reply(DBusMessage *reply) {
    const dbus_uint32_t serial = dbus_message_get_reply_serial(reply);
    // What came over the bus has a sender.
    const bool timed_out = dbus_message_get_sender(reply) == nullptr;
    for (peer &known : peers) {
        const auto call = std::find(known.unanswered.begin(), known.unanswered.end(), serial);
        if (call == known.unanswered.end()) {
            continue;
        }
        known.hangs = timed_out;
        if (timed_out) {
            watch_owner(known);
        } else {
            known.unanswered.erase(call);
        }
        return;
    }
}

void message_bus_calls_owner_changed(DBusMessage *signal) {
    const char *name = nullptr;
    const char *before = nullptr;
    const char *after = nullptr;
    if (!dbus_message_has_sender(signal, DBUS_SERVICE_DBUS) ||
        !dbus_message_get_args(signal, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &before,
                               DBUS_TYPE_STRING, &after, DBUS_TYPE_INVALID)) {
        return;
    }
    const auto known = find_peer(name);
    if (known != peers.end() && *after != '\0') {
        known->unanswered.clear();
        known->hangs = false;
    }
}

// What comes over the bus: bursts of disk signals, and the web list, against the same connection,
// notation and JSON library used plainly.
#include <event2/event.h>

#include <string>
#include <unordered_map>

#include "common/msg_bus/message_bus.h"
#include "common/timer.h"
#include "disks/disks.h"
#include "figures.h"
#include "private_bus.h"
#include "sharing/sharing.h"
#include "simulated/simulated_box.h"

namespace {

constexpr const char *service = "com.kelvanto.bench";
constexpr const char *list_path = "/ws/nas/devices";
constexpr const char *list_interface = "com.kelvanto.nimbrel.nas.devices";
constexpr const char *ddm = "com.kelvanto.ddm";
constexpr int partitions_of_a_disk = 16;

event_base *loop = nullptr;

// Serves until the caller closes `stop`, then writes the processor time to `result`. A first byte
// says that it serves.
[[noreturn]] void respond(bool (*start)(), int stop, int result) {
    loop = event_base_new();
    timer_use_loop(loop);
    const auto end = [](evutil_socket_t, short, void *) { event_base_loopbreak(loop); };
    event_add(event_new(loop, stop, EV_READ, end, nullptr), nullptr);
    if (!start() || !message_bus_request_name(service) || write(result, "", 1) != 1) {
        _exit(1);
    }
    const double begin = seconds(CLOCK_PROCESS_CPUTIME_ID);
    event_base_dispatch(loop);
    const double used = seconds(CLOCK_PROCESS_CPUTIME_ID) - begin;
    _exit(write(result, &used, sizeof used) == sizeof used ? 0 : 1);
}

// Processor seconds of a process that starts so, while `drive` talks to it; negative on failure.
double measure(bool (*start)(), const std::function<bool(DBusConnection *)> &drive) {
    int stop[2];
    int result[2];
    if (pipe(stop) != 0 || pipe(result) != 0) {
        return -1;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(stop[1]);
        respond(start, stop[0], result[1]);
    }
    close(stop[0]);
    close(result[1]);
    char ready = 0;
    double used = -1;
    bool driven = false;
    if (read(result[0], &ready, 1) == 1) {
        DBusConnection *connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        dbus_bus_request_name(connection, ddm, DBUS_NAME_FLAG_REPLACE_EXISTING, nullptr);
        driven = drive(connection);
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
    close(stop[1]);
    if (read(result[0], &used, sizeof used) != sizeof used || !driven) {
        used = -1;
    }
    close(result[0]);
    waitpid(child, nullptr, 0);
    return used;
}

bus_message_ptr new_call(const char *path, const char *interface, const char *member) {
    return bus_message_ptr(dbus_message_new_method_call(service, path, interface, member));
}

// --- A burst of signals

std::string record_of(int number) {
    const std::string disk = "/sys/block/sd" + std::to_string(number / partitions_of_a_disk);
    return "{syspath: '" + disk + "/" + std::to_string(number) + "', disk_syspath: '" + disk +
           "', mount_point: '/media/" + std::to_string(number) + "', label: 'Disk " +
           std::to_string(number) + "', type: 'vfat', capacity: 1000000, free: 750000}";
}

bool start_manager() {
    simulated_box::reset();
    return message_bus_new(loop) && removable_devices_manager_start() &&
           file_services_manager_start();
}

// Plugs so many partitions in and pulls them out again, the last one of every three first.
bool send_burst(DBusConnection *connection, int count) {
    const auto signal = [connection](const char *member, int number) {
        const bus_message_ptr message(dbus_message_new_signal("/status", ddm, member));
        const std::string record = record_of(number);
        const char *text = record.c_str();
        dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        dbus_connection_send(connection, message.get(), nullptr);
    };
    for (int i = 0; i < count; ++i) {
        signal("PartitionConnected", i);
    }
    for (int first : {2, 0, 1}) {
        for (int i = first; i < count; i += 3) {
            signal("PartitionDisconnected", i);
        }
    }
    // Answered behind all of them, be it with an error.
    const bus_message_ptr last = new_call("/", service, "Last");
    const bus_message_ptr reply(
        dbus_connection_send_with_reply_and_block(connection, last.get(), 60000, nullptr));
    return dbus_connection_get_is_connected(connection) != FALSE;
}

struct {
    json_ptr list{cJSON_CreateArray()};
    std::unordered_map<std::string, cJSON *> by_syspath;
    int mounted = 0;
} plain;

DBusHandlerResult take_signal(DBusConnection *, DBusMessage *message, void *) {
    const bool came = dbus_message_is_signal(message, ddm, "PartitionConnected");
    if (!came && !dbus_message_is_signal(message, ddm, "PartitionDisconnected")) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const char *text = "";
    dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    json_ptr record = convert_ddm_respone_data_to_json(text);
    const char *syspath = json_text(record.get(), "syspath");
    if (came) {
        plain.mounted += disk_record_is_mounted(record.get()) ? 1 : 0;
        plain.by_syspath[syspath] = record.get();
        cJSON_AddItemToArray(plain.list.get(), record.release());
    } else if (const auto found = plain.by_syspath.find(syspath); found != plain.by_syspath.end()) {
        cJSON_Delete(cJSON_DetachItemViaPointer(plain.list.get(), found->second));
        plain.by_syspath.erase(found);
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

bool start_plain_list() {
    if (!message_bus_connection_open(loop, take_signal)) {
        return false;
    }
    for (const char *member : {"PartitionConnected", "PartitionDisconnected"}) {
        const std::string rule =
            std::string("type='signal',interface='com.kelvanto.ddm',member='") + member + "'";
        dbus_bus_add_match(message_bus_connection(), rule.c_str(), nullptr);
    }
    return true;
}

void bench_burst(const char *name, int count) {
    const auto burst = [count](DBusConnection *connection) {
        return send_burst(connection, count);
    };
    print_figure(
        name, 9, [&] { return measure(start_manager, burst); },
        [&] { return measure(start_plain_list, burst); });
}

// --- The web list

std::string lists[2];  // of devices, of partitions

bool start_list() {
    return message_bus_new(loop) && device_request_handler_start();
}

bus_message_ptr request;
json_ptr devices;

void ask(const char *member, DBusPendingCallNotifyFunction notify) {
    const bus_message_ptr call(dbus_message_new_method_call(ddm, "/status", ddm, member));
    DBusPendingCall *pending = nullptr;
    dbus_connection_send_with_reply(message_bus_connection(), call.get(), &pending, -1);
    dbus_pending_call_set_notify(pending, notify, nullptr, nullptr);
    dbus_pending_call_unref(pending);
}

json_ptr list_in(DBusPendingCall *pending) {
    const bus_message_ptr reply(dbus_pending_call_steal_reply(pending));
    const char *text = "";
    dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    return convert_ddm_respone_data_to_json(text);
}

void print_both(DBusPendingCall *pending, void *) {
    const json_ptr partitions = list_in(pending);
    char *text = cJSON_PrintUnformatted(partitions.get());
    char *more = cJSON_PrintUnformatted(devices.get());
    const bus_message_ptr reply(dbus_message_new_method_return(request.get()));
    dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    dbus_connection_send(message_bus_connection(), reply.get(), nullptr);
    cJSON_free(text);
    cJSON_free(more);
}

DBusHandlerResult take_request(DBusConnection *, DBusMessage *message, void *) {
    if (!dbus_message_is_method_call(message, list_interface, "list")) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    request.reset(dbus_message_ref(message));
    ask("DeviceList", [](DBusPendingCall *pending, void *) {
        devices = list_in(pending);
        ask("PartitionList", print_both);
    });
    return DBUS_HANDLER_RESULT_HANDLED;
}

bool start_plain_printer() {
    return message_bus_connection_open(loop, take_request);
}

// Asks for the list so often, and is the disk daemon too.
bool ask_for_lists(DBusConnection *connection, int count) {
    for (int answered = 0; answered < count; ++answered) {
        const bus_message_ptr call = new_call(list_path, list_interface, "list");
        dbus_uint32_t serial = 0;
        dbus_connection_send(connection, call.get(), &serial);
        for (bool done = false; !done;) {
            if (!dbus_connection_read_write(connection, 30000)) {
                return false;
            }
            while (const bus_message_ptr message{dbus_connection_pop_message(connection)}) {
                if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
                    const char *text =
                        lists[dbus_message_has_member(message.get(), "PartitionList") ? 1 : 0]
                            .c_str();
                    const bus_message_ptr reply(dbus_message_new_method_return(message.get()));
                    dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &text,
                                             DBUS_TYPE_INVALID);
                    dbus_connection_send(connection, reply.get(), nullptr);
                } else if (dbus_message_get_reply_serial(message.get()) == serial) {
                    if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_ERROR) {
                        return false;
                    }
                    done = true;
                }
            }
        }
    }
    return true;
}

void bench_list(const char *name, int disks, int count) {
    lists[0] = lists[1] = "[";
    for (int disk = 0; disk < disks; ++disk) {
        const std::string comma = disk == 0 ? "" : ",";
        const std::string path = "/sys/block/sd" + std::to_string(disk);
        lists[0] += comma + "{syspath: '" + path +
                    "', device_type: 'STORAGE', connection_type: 'USB', vendor: 'Acme', "
                    "model: 'Stick', partitions_count: " +
                    std::to_string(disks) + "}";
        for (int number = 0; number < disks; ++number) {
            lists[1] += (disk + number == 0 ? "" : ",") +
                        ("{syspath: '" + path + "/" + std::to_string(number)) +
                        "', disk_syspath: '" + path +
                        "', mount_point: '/media/x', label: 'Photos', type: 'vfat', uuid: 'AAAA', "
                        "capacity: 1000000, free: 750000}";
        }
    }
    lists[0] += "]";
    lists[1] += "]";
    const auto drive = [count](DBusConnection *connection) {
        return ask_for_lists(connection, count);
    };
    print_figure(
        name, 9, [&] { return measure(start_list, drive) / count; },
        [&] { return measure(start_plain_printer, drive) / count; });
}

}  // namespace

void bench_bus() {
    const private_bus bus;
    bench_burst("burst of 500 partitions", 500);
    bench_burst("burst of 1000 partitions", 1000);
    bench_burst("burst of 2500 partitions", 2500);
    bench_burst("burst of 5000 partitions", 5000);
    bench_list("list of 4 disks with 4 partitions", 4, 200);
    bench_list("list of 32 disks with 32 partitions", 32, 10);
}

// The bus side of what is plugged in: keeps the lists current from the disk daemon's signals, tells
// one listener when partitions come and go, shows LCD messages for disks, and forwards requests.
#include <cstring>
#include <string>
#include <utility>

#include "common/json.h"
#include "common/logger.h"
#include "common/texts.h"
#include "disks/disk_lists.h"
#include "disks/disks.h"
#include "platform/lcd.h"

namespace {

constexpr const char *log_category = "removable_devices_manager";
constexpr const char *ddm = "com.kelvanto.ddm";  // bus name and interface alike

struct {
    removable_devices_callback list_received = nullptr;
    removable_devices_callback connected = nullptr;
    removable_devices_callback disconnected = nullptr;
} listener;

// What is logged about one kind of record.
struct record_texts {
    const char *arrival;
    const char *not_convertible;
    const char *empty_syspath;
};

bool field_is(const cJSON *record, const char *key, const char *value) {
    return strcmp(json_text(record, key), value) == 0;
}

void notify(removable_devices_callback callback) {
    if (callback != nullptr) {
        callback();
    }
}

// The record with a syspath that a signal carries; otherwise logs why there is none.
json_ptr take_record(const message_bus_args &args, const record_texts &texts) {
    LOG_INFO("%s", texts.arrival);
    json_ptr record = convert_ddm_respone_data_to_json(args[0].string);
    if (!record) {
        LOG_ERROR("%s", texts.not_convertible);
        LOG_ERROR("%s", printable(args[0].string).c_str());
        return nullptr;
    }
    if (*json_text(record.get(), "syspath") == '\0') {
        LOG_ERROR("%s", texts.empty_syspath);
        return nullptr;
    }
    return record;
}

// What is logged about a list.
struct list_texts {
    const char *bad_params;
    const char *arrival;
    const char *not_convertible;
};

// The list that a reply carries; otherwise logs why there is none.
json_ptr take_list(const message_bus_args &args, const list_texts &texts) {
    if (!message_bus_validate_params({}, args, "s")) {
        LOG_WARN("%s", texts.bad_params);
        return nullptr;
    }
    LOG_INFO("%s", texts.arrival);
    json_ptr list = convert_ddm_list(args[0].string);
    if (!list) {
        LOG_ERROR("%s", texts.not_convertible);
    }
    return list;
}

// Shows what became of a disk; connection types without a row are not shown.
void show_disk_event(const cJSON *device, bool mounted) {
    constexpr struct {
        const char *connection_type;
        lcd_event mounted;
        lcd_event unsupported;
    } rows[] = {
        {"SD", LCD_EVENT_SD_ATTACHED, LCD_EVENT_SD_UNSUPPORTED},
        {"USB", LCD_EVENT_USB_ATTACHED, LCD_EVENT_USB_UNSUPPORTED},
    };
    for (const auto &row : rows) {
        if (field_is(device, "connection_type", row.connection_type)) {
            lcd_show_event(json_text(device, "syspath"), mounted ? row.mounted : row.unsupported,
                           false);
        }
    }
}

// Shows the disk once the last of its partitions has been announced.
void show_disk_when_complete(const char *disk_syspath) {
    const cJSON *device = disk_lists_find_device(disk_syspath);
    if (device == nullptr) {
        return;
    }
    const disk_partitions found = disk_lists_partitions_of(disk_syspath);
    if (found.count ==
        nimbrelc_utils_zero_if_null(cJSON_GetObjectItem(device, "partitions_count"))) {
        show_disk_event(device, found.mounted > 0);
    }
}

// What signals brought before a list reply arrives is lost on purpose: the list replaces it.
void device_list_callback(const message_bus_args &args) {
    if (json_ptr list = take_list(args, {.bad_params = "Bad params passed to device_list_callback",
                                         .arrival = "Device list received",
                                         .not_convertible = "Cannot parse device list"});
        list) {
        disk_lists_set_devices(std::move(list));
    }
}

void partition_list_callback(const message_bus_args &args) {
    if (json_ptr list =
            take_list(args, {.bad_params = "Bad params passed to partition_list_callback",
                             .arrival = "Partition list received",
                             .not_convertible = "Cannot parse partition list"});
        list) {
        disk_lists_set_partitions(std::move(list));
        notify(listener.list_received);
    }
}

void partition_connected_callback(const message_bus_args &args) {
    json_ptr record = take_record(args, {.arrival = "Partition connected signal received",
                                         .not_convertible = "Cannot parse partition connected",
                                         .empty_syspath = "Syspath is empty"});
    if (!record) {
        return;
    }
    const std::string disk_syspath = json_text(record.get(), "disk_syspath");
    disk_lists_add_partition(std::move(record));
    notify(listener.connected);
    if (!disk_syspath.empty()) {
        show_disk_when_complete(disk_syspath.c_str());
    }
}

void partition_disconnected_callback(const message_bus_args &args) {
    const json_ptr record =
        take_record(args, {.arrival = "Partition disconnected signal received",
                           .not_convertible = "Cannot parse partition disconnected",
                           .empty_syspath = "Syspath is empty"});
    if (!record) {
        return;
    }
    disk_lists_remove_partition(json_text(record.get(), "syspath"));
    notify(listener.disconnected);
}

void device_attached_callback(const message_bus_args &args) {
    json_ptr record = take_record(args, {.arrival = "Device attached signal received",
                                         .not_convertible = "Cannot parse device attached",
                                         .empty_syspath = "Device syspath is empty"});
    if (!record) {
        return;
    }
    const cJSON *device = record.get();
    disk_lists_add_device(std::move(record));
    // Storage disks get their message when their partitions are in.
    if (field_is(device, "device_type", "LTE")) {
        lcd_show_event(json_text(device, "syspath"), LCD_EVENT_STICK_IN_WRONG_PORT, true);
    } else if (field_is(device, "device_type", "UNRECOGNIZED")) {
        show_disk_event(device, false);
    }
}

void device_detached_callback(const message_bus_args &args) {
    const json_ptr record = take_record(args, {.arrival = "Device detached signal received",
                                               .not_convertible = "Cannot parse device detached",
                                               .empty_syspath = "Device syspath is empty"});
    if (!record) {
        return;
    }
    const char *syspath = json_text(record.get(), "syspath");
    disk_lists_remove_device(syspath);
    // kept: the message of a storage disk stays on the display.
    if (!field_is(record.get(), "device_type", "STORAGE")) {
        lcd_dismiss_event(syspath);
    }
}

constexpr message_bus_signal signals[] = {
    {.member = "PartitionConnected",
     .handler = partition_connected_callback,
     .args = "s",
     .refusal_text = "Bad params passed to partition_connected_callback"},
    {.member = "PartitionDisconnected",
     .handler = partition_disconnected_callback,
     .args = "s",
     .refusal_text = "Bad params passed to partition_disconnected_callback"},
    {.member = "DeviceAttached",
     .handler = device_attached_callback,
     .args = "s",
     .refusal_text = "Bad params passed to device_attached_callback"},
    {.member = "DeviceDetached",
     .handler = device_detached_callback,
     .args = "s",
     .refusal_text = "Bad params passed to device_detached_callback"},
};

bool ask_for_list(const char *method, message_bus_reply_ctx_cb reply) {
    return message_bus_call_method_with_context(ddm, "/status", ddm, method, std::move(reply));
}

bool ask_for_list(const char *method, message_bus_request &request, message_bus_answer answer) {
    return message_bus_call_method_for_request(ddm, "/status", ddm, method, request,
                                               std::move(answer), {});
}

}  // namespace

bool removable_devices_manager_start() {
    LOG_INFO("Adding listeners for devices and partitions");
    if (!message_bus_add_signals(log_category, ddm, signals, "Failed to add a signal listener")) {
        return false;
    }
    LOG_INFO("Calling devices list method on startup");
    if (!removable_devices_list(device_list_callback)) {
        LOG_WARN("removable_devices_list failed");
        return false;
    }
    LOG_INFO("Calling partitions list method on startup");
    if (!removable_partitions_list(partition_list_callback)) {
        LOG_WARN("removable_partitions_list failed");
        return false;
    }
    // kept: the list-received callback survives a start.
    listener.connected = nullptr;
    listener.disconnected = nullptr;
    disk_lists_reset();
    return true;
}

bool removable_devices_manager_stop() {
    listener.connected = nullptr;
    listener.disconnected = nullptr;
    disk_lists_forget();
    return true;
}

void removable_devices_set_listener(removable_devices_callback list_received,
                                    removable_devices_callback connected,
                                    removable_devices_callback disconnected) {
    listener = {list_received, connected, disconnected};
}

bool removable_devices_list(message_bus_reply_ctx_cb reply) {
    return ask_for_list("DeviceList", std::move(reply));
}

bool removable_partitions_list(message_bus_reply_ctx_cb reply) {
    return ask_for_list("PartitionList", std::move(reply));
}

bool removable_devices_list(message_bus_request &request, message_bus_answer answer) {
    return ask_for_list("DeviceList", request, std::move(answer));
}

bool removable_partitions_list(message_bus_request &request, message_bus_answer answer) {
    return ask_for_list("PartitionList", request, std::move(answer));
}

bool removable_devices_unmount_device(const char *uuid) {
    LOG_INFO("Unmount requested for uuid = %s", printable(uuid).c_str());
    return message_bus_call_method_with_args(ddm, "/control", ddm, "UnmountDevice", nullptr,
                                             {mb_string(uuid)});
}

bool removable_devices_change_label(const char *uuid, const char *label) {
    LOG_INFO("Change label requested for uuid = %s", printable(uuid).c_str());
    return message_bus_call_method_with_args(ddm, "/control", ddm, "ChangeLabel", nullptr,
                                             {mb_string(uuid), mb_string(label)});
}

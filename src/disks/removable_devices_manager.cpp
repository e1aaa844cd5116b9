#include "disks/removable_devices_manager.h"

#include <cstring>
#include <string>
#include <utility>

#include "common/json.h"
#include "common/json_ptr.h"
#include "common/logger.h"
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

// What is logged about one kind of message from the disk daemon.
struct message_texts {
    const char *bad_params;
    const char *arrival;
    const char *not_convertible;
    const char *empty_syspath;  // null for a list, which has no syspath of its own
};

constexpr message_texts device_list = {
    "Bad params passed to device_list_callback",
    "Device list received",
    "Cannot parse device list",
    nullptr,
};
constexpr message_texts partition_list = {
    "Bad params passed to partition_list_callback",
    "Partition list received",
    "Cannot parse partition list",
    nullptr,
};
constexpr message_texts partition_connected = {
    "Bad params passed to partition_connected_callback",
    "Partition connected signal received",
    "Cannot parse partition connected",
    "Syspath is empty",
};
constexpr message_texts partition_disconnected = {
    "Bad params passed to partition_disconnected_callback",
    "Partition disconnected signal received",
    "Cannot parse partition disconnected",
    "Syspath is empty",
};
constexpr message_texts device_attached = {
    "Bad params passed to device_attached_callback",
    "Device attached signal received",
    "Cannot parse device attached",
    "Device syspath is empty",
};
constexpr message_texts device_detached = {
    "Bad params passed to device_detached_callback",
    "Device detached signal received",
    "Cannot parse device detached",
    "Device syspath is empty",
};

bool field_is(const cJSON *record, const char *key, const char *value) {
    return strcmp(nimbrelc_utils_get_json_text(record, key), value) == 0;
}

void notify(removable_devices_callback callback) {
    if (callback != nullptr) {
        callback();
    }
}

// The list, or the record with a syspath, that the message carries; otherwise logs why there is
// none.
json_ptr take_message(int32_t argc, const message_bus_arg *args, const message_texts &texts) {
    if (!message_bus_validate_params({}, argc, args, {MB_ARG_STRING})) {
        LOG_WARN("%s", texts.bad_params);
        return nullptr;
    }
    LOG_INFO("%s", texts.arrival);
    json_ptr value = convert_ddm_respone_data_to_json(args[0].string);
    const bool is_list = texts.empty_syspath == nullptr;
    if (!value || (is_list && !cJSON_IsArray(value.get()))) {
        LOG_ERROR("%s", texts.not_convertible);
        if (!is_list) {
            LOG_ERROR("%s", args[0].string);
        }
        return nullptr;
    }
    if (!is_list && *nimbrelc_utils_get_json_text(value.get(), "syspath") == '\0') {
        LOG_ERROR("%s", texts.empty_syspath);
        return nullptr;
    }
    return value;
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
            lcd_show_event(nimbrelc_utils_get_json_text(device, "syspath"),
                           mounted ? row.mounted : row.unsupported, false);
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
void device_list_callback(int32_t argc, const message_bus_arg *args) {
    if (json_ptr list = take_message(argc, args, device_list); list) {
        disk_lists_set_devices(std::move(list));
    }
}

void partition_list_callback(int32_t argc, const message_bus_arg *args) {
    if (json_ptr list = take_message(argc, args, partition_list); list) {
        disk_lists_set_partitions(std::move(list));
        notify(listener.list_received);
    }
}

void partition_connected_callback(int32_t argc, const message_bus_arg *args) {
    json_ptr record = take_message(argc, args, partition_connected);
    if (!record) {
        return;
    }
    const std::string disk_syspath = nimbrelc_utils_get_json_text(record.get(), "disk_syspath");
    disk_lists_add_partition(std::move(record));
    notify(listener.connected);
    if (!disk_syspath.empty()) {
        show_disk_when_complete(disk_syspath.c_str());
    }
}

void partition_disconnected_callback(int32_t argc, const message_bus_arg *args) {
    const json_ptr record = take_message(argc, args, partition_disconnected);
    if (!record) {
        return;
    }
    disk_lists_remove_partition(nimbrelc_utils_get_json_text(record.get(), "syspath"));
    notify(listener.disconnected);
}

void device_attached_callback(int32_t argc, const message_bus_arg *args) {
    json_ptr record = take_message(argc, args, device_attached);
    if (!record) {
        return;
    }
    const cJSON *device = record.get();
    disk_lists_add_device(std::move(record));
    // Storage disks get their message when their partitions are in.
    if (field_is(device, "device_type", "LTE")) {
        lcd_show_event(nimbrelc_utils_get_json_text(device, "syspath"),
                       LCD_EVENT_STICK_IN_WRONG_PORT, true);
    } else if (field_is(device, "device_type", "UNRECOGNIZED")) {
        show_disk_event(device, false);
    }
}

void device_detached_callback(int32_t argc, const message_bus_arg *args) {
    const json_ptr record = take_message(argc, args, device_detached);
    if (!record) {
        return;
    }
    const char *syspath = nimbrelc_utils_get_json_text(record.get(), "syspath");
    disk_lists_remove_device(syspath);
    // kept: the message of a storage disk stays on the display.
    if (!field_is(record.get(), "device_type", "STORAGE")) {
        lcd_dismiss_event(syspath);
    }
}

constexpr struct {
    const char *member;
    message_bus_signal_handler handler;
} signals[] = {
    {"PartitionConnected", partition_connected_callback},
    {"PartitionDisconnected", partition_disconnected_callback},
    {"DeviceAttached", device_attached_callback},
    {"DeviceDetached", device_detached_callback},
};

bool ask_for_list(const char *method, message_bus_reply_ctx_cb reply) {
    return message_bus_call_method_with_context(ddm, "/status", ddm, method, std::move(reply));
}

bool ask_for_list(const char *method, message_bus_request &request, message_bus_answer answer) {
    return message_bus_call_method_for_request(ddm, "/status", ddm, method, request,
                                               std::move(answer), {});
}

}  // namespace

bool removable_devices_manager_start(event_base * /*base*/) {
    LOG_INFO("Adding listeners for devices and partitions");
    for (const auto &signal : signals) {
        if (!message_bus_add_signal_listener(ddm, signal.member, signal.handler)) {
            LOG_ERROR("Failed to add a signal listener");
            return false;
        }
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
    LOG_INFO("Unmount requested for uuid = %s", uuid);
    return message_bus_call_method_with_args(ddm, "/control", ddm, "UnmountDevice", nullptr,
                                             {mb_string(uuid)});
}

bool removable_devices_change_label(const char *uuid, const char *label) {
    LOG_INFO("Change label requested for uuid = %s", uuid);
    return message_bus_call_method_with_args(ddm, "/control", ddm, "ChangeLabel", nullptr,
                                             {mb_string(uuid), mb_string(label)});
}

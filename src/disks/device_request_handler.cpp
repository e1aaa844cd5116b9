#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/json.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "disks/disks.h"

namespace {

constexpr const char *log_category = "device_request_handler";

constexpr const char *done_reply = R"({"status":204})";
constexpr const char *executing_failed = R"({"status":500,"error":"Error executing DeviceList"})";
constexpr const char *devices_failed = R"({"status":500,"error":"Error handling DeviceList"})";
constexpr const char *partitions_failed =
    R"({"status":500,"error":"Error handling PartitionList"})";

// The device list of the latest "list" request that got one.
json_ptr cached_devices;

// A partition record with its most compared field.
struct partition_record {
    std::string_view disk_syspath;
    const cJSON *record;
};

const char *storage_type(const cJSON *device) {
    const cJSON *connection_type = cJSON_GetObjectItem(device, "connection_type");
    if (connection_type == nullptr) {
        LOG_WARN("Unsupported storage type");
        return "undefined-storage";
    }
    if (!cJSON_IsString(connection_type)) {
        LOG_WARN("NULL valuestring");
        return "undefined-storage";
    }
    const std::string_view type = connection_type->valuestring;
    if (type == "SD") {
        return "sd-card";
    }
    return type == "USB" ? "usb-disk" : "undefined-storage";
}

// A full box has some thousand entries. They are written as text straight away: building them as
// items of the JSON library and printing those would add more than half to a request's CPU time.
// What is not plain is still printed by the library.

void append_printed(std::string &json, json_ptr value) {
    json += print_json_unformatted(value.get());
}

void append_text(std::string &json, std::string_view text) {
    const bool plain = std::none_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == '"' || c == '\\';
    });
    if (!plain) {
        append_printed(json, json_ptr(cJSON_CreateString(std::string(text).c_str())));
        return;
    }
    json += '"';
    json += text;
    json += '"';
}

void append_number(std::string &json, double number) {
    constexpr double exact = 1e15;  // whole numbers below are printed with all their digits
    if (std::abs(number) < exact && number == std::trunc(number)) {
        json += std::to_string(static_cast<int64_t>(number));
    } else {
        append_printed(json, json_ptr(cJSON_CreateNumber(number)));
    }
}

void append_number_field(std::string &json, const cJSON *record, const char *key) {
    append_number(json, nimbrelc_utils_zero_if_null(cJSON_GetObjectItem(record, key)));
}

void append_partition_entry(std::string &data, const cJSON *device, const cJSON *partition) {
    const bool mounted = disk_record_is_mounted(partition);
    data += data.empty() ? R"({"id":)" : R"(,{"id":)";
    append_text(data, json_text(partition, mounted ? "uuid" : "syspath"));
    data += R"(,"type":)";
    append_text(data, storage_type(device));
    data += R"(,"label":)";
    append_text(data, json_text(partition, "label"));
    data += R"(,"fsType":)";
    append_text(data, json_text(partition, "type"));
    if (!mounted) {
        data += R"(,"capacity":null,"freeSpace":null,"supported":false})";
        return;
    }
    data += R"(,"capacity":)";
    append_number_field(data, partition, "capacity");
    data += R"(,"freeSpace":)";
    append_number_field(data, partition, "free");
    data += R"(,"supported":true})";
}

// kept: here the label comes first.
void append_device_entry(std::string &data, const cJSON *device) {
    data += data.empty() ? R"({"label":)" : R"(,{"label":)";
    append_text(data, std::string(json_text(device, "vendor")) + " " + json_text(device, "model"));
    data += R"(,"id":)";
    append_text(data, json_text(device, "syspath"));
    data += R"(,"type":)";
    append_text(data, storage_type(device));
    data += R"(,"fsType":null,"capacity":null,"freeSpace":null,"supported":false})";
}

void append_partition_entries(std::string &data, const cJSON *device,
                              const std::vector<partition_record> &partitions) {
    const std::string_view syspath = json_text(device, "syspath");
    if (syspath.empty()) {
        LOG_WARN("Unidentified syspath for device");
        return;
    }
    for (const auto &[disk_syspath, partition] : partitions) {
        if (disk_syspath.empty()) {
            LOG_WARN("Unidentified disk syspath for partition");
        } else if (disk_syspath == syspath) {
            append_partition_entry(data, device, partition);
        }
    }
}

json_ptr build_document(const cJSON *devices, const cJSON *partition_list) {
    std::vector<partition_record> partitions;
    const cJSON *partition = nullptr;
    cJSON_ArrayForEach(partition, partition_list) {
        partitions.push_back({json_text(partition, "disk_syspath"), partition});
    }
    std::string data;
    const cJSON *device = nullptr;
    cJSON_ArrayForEach(device, devices) {
        if (std::string_view(json_text(device, "device_type")) == "STORAGE") {
            append_partition_entries(data, device, partitions);
        } else {
            append_device_entry(data, device);
        }
    }
    json_ptr document(cJSON_CreateObject());
    cJSON_AddNumberToObject(document.get(), "status", 200);
    cJSON_AddRawToObject(document.get(), "data", ("[" + data + "]").c_str());
    return document;
}

void removable_partitions_list_callback(const message_bus_args &args, message_bus_request request) {
    LOG_INFO("Partitions list received");
    if (!message_bus_validate_params({}, args, "s")) {
        LOG_WARN("Bad params passed to removable_partitions_list_callback");
        return;
    }
    const json_ptr partitions = convert_ddm_list(args[0].string);
    if (!partitions) {
        // kept: the caller is left to its time-out.
        LOG_ERROR("convert_ddm_respone_data_to_json failed");
        return;
    }
    const std::string text =
        print_json_unformatted(build_document(cached_devices.get(), partitions.get()).get());
    if (text.empty()) {
        LOG_ERROR("cJSON_PrintUnformatted failed");
        message_bus_send_string_reply(std::move(request), partitions_failed);
        return;
    }
    message_bus_send_string_reply(std::move(request), text.c_str());
}

void removable_devices_list_callback(const message_bus_args &args, message_bus_request request) {
    if (!message_bus_validate_params({}, args, "s")) {
        LOG_WARN("Bad params passed to removable_devices_list_callback");
        return;
    }
    json_ptr devices = convert_ddm_list(args[0].string);
    if (!devices) {
        message_bus_send_string_reply(std::move(request), devices_failed);
        return;
    }
    cached_devices = std::move(devices);
    if (!removable_partitions_list(request, removable_partitions_list_callback)) {
        message_bus_send_string_reply(std::move(request), devices_failed);
    }
}

void request_list_callback(const message_bus_args & /*args*/, message_bus_request request) {
    if (!removable_devices_list(request, removable_devices_list_callback)) {
        message_bus_send_string_reply(std::move(request), executing_failed);
    }
}

void request_unmount_callback(const message_bus_args &args, message_bus_request request) {
    if (!removable_devices_unmount_device(args[0].string)) {
        LOG_ERROR("removable_devices_unmount_device failed");
        return;
    }
    message_bus_send_string_reply(std::move(request), done_reply);
}

void request_rename_callback(const message_bus_args &args, message_bus_request request) {
    if (!removable_devices_change_label(args[0].string, args[1].string)) {
        LOG_ERROR("removable_devices_change_label failed");
        return;
    }
    message_bus_send_string_reply(std::move(request), done_reply);
}

constexpr message_bus_method methods[] = {
    {.member = "list", .handler = request_list_callback},
    {.member = "unmount",
     .handler = request_unmount_callback,
     .args = "s",
     .refusal_text = "Bad params passed to request_unmount_callback"},
    {.member = "rename",
     .handler = request_rename_callback,
     .args = "ss",
     .refusal_text = "Bad params passed to request_rename_callback"},
};

}  // namespace

bool device_request_handler_start() {
    return message_bus_add_methods(log_category, "/ws/nas/devices",
                                   "com.kelvanto.nimbrel.nas.devices", methods,
                                   "Failed to add a method listener");
}

bool device_request_handler_stop() {
    cached_devices.reset();
    return true;
}

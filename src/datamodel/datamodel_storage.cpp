#include "datamodel/datamodel_storage.h"

#include <strings.h>

#include <cmath>
#include <string_view>
#include <utility>

#include "common/json.h"
#include "common/logger.h"
#include "disks/disks.h"

namespace {

constexpr const char *log_category = "datamodel";

// --- The disk daemon's lists

struct list_source {
    bool (*ask)(message_bus_request &request, message_bus_answer answer);
    const char *not_asked;
    const char *bad_reply;
};
constexpr list_source device_list = {removable_devices_list, "error on removable_devices_list",
                                     "removable_devices_list wrong out arg"};
constexpr list_source partition_list = {removable_partitions_list,
                                        "error on removable_partitions_list",
                                        "removable_partitions_list wrong out arg"};

// The array in a reply, or none, logged with `text_format`.
json_ptr read_list(const list_source &source, const char *text_format,
                   const message_bus_args &args) {
    if (!args.are("s")) {
        LOG_ERROR(text_format, source.bad_reply);
        return nullptr;
    }
    json_ptr list = convert_ddm_respone_data_to_json(args[0].string);
    if (!cJSON_IsArray(list.get())) {
        LOG_ERROR(text_format, "cannot convert to json");
        return nullptr;
    }
    return list;
}

double number_of(const cJSON *record, const char *member) {
    return nimbrelc_utils_zero_if_null(cJSON_GetObjectItem(record, member));
}

bool is_text(const cJSON *record, const char *member, std::string_view text) {
    return text == json_text(record, member);
}

// --- Counts and summaries

bool is_any(const cJSON * /*record*/) {
    return true;
}

bool is_usb_storage(const cJSON *device) {
    return is_text(device, "device_type", "STORAGE") && is_text(device, "connection_type", "USB");
}

bool is_sd_storage(const cJSON *device) {
    return is_text(device, "device_type", "STORAGE") && is_text(device, "connection_type", "SD");
}

struct counter {
    const char *text_format;
    const char *number_format;
    const list_source &source;
    bool (*counts)(const cJSON *record);
    int32_t reply_type;  // kept: of three kinds
};
constexpr counter media_counter = {"physical_medium_number_of_entries_getter: %s",
                                   "physical_medium_number_of_entries_getter: %d", device_list,
                                   is_any, MB_ARG_UINT32};
constexpr counter volume_counter = {"logical_volume_number_of_entries_getter: %s",
                                    "logical_volume_number_of_entries_getter: %d", partition_list,
                                    disk_record_is_mounted, MB_ARG_UINT32};
constexpr counter usb_counter = {"usb_storage_devices_count_getter: %s",
                                 "usb_storage_devices_count_getter: %d", device_list,
                                 is_usb_storage, MB_ARG_INT32};
constexpr counter sd_counter = {"sd_card_present_getter: %s", "sd_card_present_getter: %d",
                                device_list, is_sd_storage, MB_ARG_BOOLEAN};

void answer_count(const counter &row, const message_bus_args &args, message_bus_request request) {
    const json_ptr list = read_list(row.source, row.text_format, args);
    if (!list) {
        message_bus_send_no_reply(std::move(request));
        return;
    }
    int count = 0;
    const cJSON *record = nullptr;
    cJSON_ArrayForEach(record, list.get()) {
        count += int{row.counts(record)};
    }
    message_bus_send_reply(std::move(request),
                           {{.type = row.reply_type, .word = static_cast<uint32_t>(count)}});
    LOG_INFO(row.number_format, count);
    LOG_INFO(row.text_format, "end");
}

void get_count(const counter &row, message_bus_request request) {
    LOG_INFO(row.text_format, "start");
    const bool asked =
        row.source.ask(request, [&row](const message_bus_args &args, message_bus_request waiting) {
            answer_count(row, args, std::move(waiting));
        });
    if (!asked) {
        LOG_ERROR(row.text_format, row.source.not_asked);
        message_bus_send_no_reply(std::move(request));
    }
}

// --- One medium or volume

struct object_row {
    const char *text_format;
    // The object as text; none, and logged, when there is no such object.
    std::optional<std::string> (*build)(const cJSON *devices, const cJSON *partitions,
                                        uint32_t index);
};
constexpr object_row physical_medium = {"physical_medium_getter: %s", build_physical_medium};
constexpr object_row logical_volume = {"logical_volume_getter: %s", build_logical_volume};

constexpr const char *reading_format = "read_devices_and_partitions: %s";

void send_failure(message_bus_request request, const char *reason) {
    LOG_ERROR(reading_format, reason);
    message_bus_send_no_reply(std::move(request));
}

void answer_object(const object_row &row, uint32_t index, const cJSON *devices,
                   const cJSON *partitions, message_bus_request request) {
    if (row.build == nullptr) {  // kept: no row is without
        send_failure(std::move(request), "no callback method");
        return;
    }
    const std::optional<std::string> text = row.build(devices, partitions, index);
    if (!text) {
        send_failure(std::move(request), "callback error");
        return;
    }
    message_bus_send_string_reply(std::move(request), text->c_str());
    LOG_INFO(row.text_format, "end");
    LOG_INFO(reading_format, "end");
}

// The second question, once the devices are known.
void ask_partitions(const object_row &row, uint32_t index, json_ptr devices,
                    message_bus_request request) {
    const bool asked =
        partition_list.ask(request, [&row, index, devices = std::move(devices)](
                                        const message_bus_args &args, message_bus_request waiting) {
            const json_ptr partitions = read_list(partition_list, reading_format, args);
            if (partitions) {
                answer_object(row, index, devices.get(), partitions.get(), std::move(waiting));
            } else {
                message_bus_send_no_reply(std::move(waiting));
            }
        });
    if (!asked) {
        send_failure(std::move(request), partition_list.not_asked);
    }
}

void get_object(const object_row &row, uint32_t index, message_bus_request request) {
    LOG_INFO(row.text_format, "start");
    const bool asked = device_list.ask(
        request, [&row, index](const message_bus_args &args, message_bus_request waiting) {
            json_ptr devices = read_list(device_list, reading_format, args);
            if (devices) {
                ask_partitions(row, index, std::move(devices), std::move(waiting));
            } else {
                message_bus_send_no_reply(std::move(waiting));
            }
        });
    if (!asked) {
        LOG_ERROR(reading_format, device_list.not_asked);
        LOG_ERROR(row.text_format, "error on read_devices_and_partitions");
        message_bus_send_no_reply(std::move(request));
    }
}

// Whole units of 1024. A number that is none, as JSON allows by its size, counts as 0.
void add_capacity(cJSON *object, const char *name, double number) {
    cJSON_AddNumberToObject(object, name, std::isfinite(number) ? std::trunc(number / 1024) : 0.0);
}

std::optional<std::string> print_entry(const cJSON *entry, const char *text_format) {
    std::optional<std::string> text = print_json_unformatted(entry);
    if (!text) {
        LOG_ERROR(text_format, "cannot print entry");
    }
    return text;
}

const cJSON *find_mounted(const cJSON *partitions, uint32_t index) {
    uint32_t position = 0;
    const cJSON *partition = nullptr;
    cJSON_ArrayForEach(partition, partitions) {
        if (disk_record_is_mounted(partition) && ++position == index) {
            return partition;
        }
    }
    return nullptr;
}

// The position, from 1, of the first device with this path; 0 for none.
int find_device(const cJSON *devices, const char *syspath) {
    int position = 0;
    const cJSON *device = nullptr;
    cJSON_ArrayForEach(device, devices) {
        ++position;
        if (is_text(device, "syspath", syspath)) {
            return position;
        }
    }
    return 0;
}

}  // namespace

void physical_medium_number_of_entries_getter(message_bus_request request) {
    get_count(media_counter, std::move(request));
}

void logical_volume_number_of_entries_getter(message_bus_request request) {
    get_count(volume_counter, std::move(request));
}

void usb_storage_devices_count_getter(message_bus_request request) {
    get_count(usb_counter, std::move(request));
}

void sd_card_present_getter(message_bus_request request) {
    get_count(sd_counter, std::move(request));
}

void physical_medium_getter(message_bus_request request, uint32_t index, const char * /*key*/) {
    get_object(physical_medium, index, std::move(request));
}

void logical_volume_getter(message_bus_request request, uint32_t index, const char * /*key*/) {
    get_object(logical_volume, index, std::move(request));
}

bool logical_volume_name_setter(const message_bus_arg &value, message_bus_request request,
                                uint32_t /*index*/, const char *key) {
    LOG_INFO("logical_volume_name_setter: start");
    if (std::string_view(key).ends_with(".Name") && value.type == MB_ARG_STRING &&
        value.string[0] != '\0') {
        LOG_WARN("logical_volume_name_setter: not supported");
    } else {
        LOG_WARN("logical_volume_name_setter: failed to set value of parameter %s", key);
    }
    return message_bus_send_bool_reply(std::move(request), false);
}

std::string file_system_name(const char *type) {
    // kept: the spelling of "HSFJ".
    static constexpr const char *names[] = {"FAT16", "FAT32", "NTFS", "HFS", "HFS+",
                                            "HSFJ",  "ext2",  "ext3", "XFS", "REISER"};
    for (const char *name : names) {
        if (strcasecmp(type, name) == 0) {
            return name;
        }
    }
    return std::string("X_KELVANTO-COM_") + type;
}

std::optional<std::string> build_physical_medium(const cJSON *devices, const cJSON *partitions,
                                                 uint32_t index) {
    const auto i = static_cast<int32_t>(index - 1);
    if (i < 0 || i >= cJSON_GetArraySize(devices)) {
        LOG_ERROR("physical_medium_getter: invalid index %d", i);
        return std::nullopt;
    }
    const cJSON *device = cJSON_GetArrayItem(devices, i);
    const char *syspath = json_text(device, "syspath");
    double capacity = 0;
    const cJSON *partition = nullptr;
    cJSON_ArrayForEach(partition, partitions) {
        if (is_text(partition, "disk_syspath", syspath)) {
            capacity += number_of(partition, "capacity");
        }
    }
    const std::string name =
        std::string(json_text(device, "vendor")) + " " + json_text(device, "model");
    const json_ptr entry(cJSON_CreateObject());
    cJSON_AddStringToObject(entry.get(), "Name", name.c_str());
    cJSON_AddStringToObject(entry.get(), "Vendor", json_text(device, "vendor"));
    cJSON_AddStringToObject(entry.get(), "Model", json_text(device, "model"));
    cJSON_AddStringToObject(entry.get(), "SerialNumber", json_text(device, "serial"));
    cJSON_AddStringToObject(entry.get(), "ConnectionType", json_text(device, "connection_type"));
    cJSON_AddTrueToObject(entry.get(), "Removable");
    cJSON_AddStringToObject(entry.get(), "Status", "Online");
    add_capacity(entry.get(), "Capacity", capacity);
    return print_entry(entry.get(), physical_medium.text_format);
}

std::optional<std::string> build_logical_volume(const cJSON *devices, const cJSON *partitions,
                                                uint32_t index) {
    const cJSON *partition = find_mounted(partitions, index);
    if (partition == nullptr) {
        LOG_ERROR("logical_volume_getter: invalid index %d", static_cast<int32_t>(index - 1));
        return std::nullopt;
    }
    const char *disk_syspath = json_text(partition, "disk_syspath");
    if (disk_syspath[0] == '\0') {
        LOG_ERROR(logical_volume.text_format, "undefined disk syspath");
        return std::nullopt;
    }
    const int device = find_device(devices, disk_syspath);
    if (device == 0) {
        LOG_ERROR(logical_volume.text_format, "cannot find device for volume");
        return std::nullopt;
    }
    const double capacity = number_of(partition, "capacity");
    const std::string reference =
        "Device.StorageService.1.PhysicalMedium." + std::to_string(device) + ".";
    const json_ptr entry(cJSON_CreateObject());
    cJSON_AddStringToObject(entry.get(), "Name", json_text(partition, "label"));
    cJSON_AddStringToObject(entry.get(), "Status", "Online");
    cJSON_AddTrueToObject(entry.get(), "Enable");
    cJSON_AddStringToObject(entry.get(), "PhysicalReference", reference.c_str());
    cJSON_AddStringToObject(entry.get(), "FileSystem",
                            file_system_name(json_text(partition, "type")).c_str());
    add_capacity(entry.get(), "Capacity", capacity);
    add_capacity(entry.get(), "UsedSpace", capacity - number_of(partition, "free"));
    return print_entry(entry.get(), logical_volume.text_format);
}

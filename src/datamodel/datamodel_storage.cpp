// Logs as "datamodel".
#include "datamodel/datamodel_storage.h"

#include <strings.h>

#include <cmath>
#include <string_view>
#include <utility>

#include "common/json.h"
#include "common/logger.h"
#include "common/texts.h"
#include "disks/disks.h"

namespace {

constexpr const char *log_category = "datamodel";

// --- The disk daemon's lists

// What is logged when a list cannot be had.
struct list_texts {
    const char *not_asked;
    const char *bad_reply;
    const char *not_converted;
};

// The array in a reply; none, and the caller gets an empty reply, when there is no such thing.
json_ptr read_list(const list_texts &texts, const message_bus_args &args,
                   message_bus_request &request) {
    json_ptr list;
    if (!args.are("s")) {
        LOG_ERROR("%s", texts.bad_reply);
    } else if (list = convert_ddm_list(args[0].string); !list) {
        LOG_ERROR("%s", texts.not_converted);
    }
    if (!list) {
        message_bus_send_no_reply(std::move(request));
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

using list_question = bool (*)(message_bus_request &request, message_bus_answer answer);

struct counter {
    list_question ask;
    bool (*counts)(const cJSON *record);
    mb_arg_type reply_type;  // kept: of three kinds
    const char *start;
    list_texts failures;
    const char *number_format;
    const char *end;
};
constexpr counter media_counter = {
    .ask = removable_devices_list,
    .counts = is_any,
    .reply_type = MB_ARG_UINT32,
    .start = "physical_medium_number_of_entries_getter: start",
    .failures =
        {
            .not_asked =
                "physical_medium_number_of_entries_getter: error on removable_devices_list",
            .bad_reply =
                "physical_medium_number_of_entries_getter: removable_devices_list wrong out arg",
            .not_converted = "physical_medium_number_of_entries_getter: cannot convert to json",
        },
    .number_format = "physical_medium_number_of_entries_getter: %d",
    .end = "physical_medium_number_of_entries_getter: end",
};
constexpr counter volume_counter = {
    .ask = removable_partitions_list,
    .counts = disk_record_is_mounted,
    .reply_type = MB_ARG_UINT32,
    .start = "logical_volume_number_of_entries_getter: start",
    .failures =
        {
            .not_asked =
                "logical_volume_number_of_entries_getter: error on removable_partitions_list",
            .bad_reply =
                "logical_volume_number_of_entries_getter: removable_partitions_list wrong out arg",
            .not_converted = "logical_volume_number_of_entries_getter: cannot convert to json",
        },
    .number_format = "logical_volume_number_of_entries_getter: %d",
    .end = "logical_volume_number_of_entries_getter: end",
};
constexpr counter usb_counter = {
    .ask = removable_devices_list,
    .counts = is_usb_storage,
    .reply_type = MB_ARG_INT32,
    .start = "usb_storage_devices_count_getter: start",
    .failures =
        {
            .not_asked = "usb_storage_devices_count_getter: error on removable_devices_list",
            .bad_reply = "usb_storage_devices_count_getter: removable_devices_list wrong out arg",
            .not_converted = "usb_storage_devices_count_getter: cannot convert to json",
        },
    .number_format = "usb_storage_devices_count_getter: %d",
    .end = "usb_storage_devices_count_getter: end",
};
constexpr counter sd_counter = {
    .ask = removable_devices_list,
    .counts = is_sd_storage,
    .reply_type = MB_ARG_BOOLEAN,
    .start = "sd_card_present_getter: start",
    .failures =
        {
            .not_asked = "sd_card_present_getter: error on removable_devices_list",
            .bad_reply = "sd_card_present_getter: removable_devices_list wrong out arg",
            .not_converted = "sd_card_present_getter: cannot convert to json",
        },
    .number_format = "sd_card_present_getter: %d",
    .end = "sd_card_present_getter: end",
};

void get_count(const counter &row, message_bus_request request) {
    LOG_INFO("%s", row.start);
    const auto answer = [&row](const message_bus_args &args, message_bus_request waiting) {
        const json_ptr list = read_list(row.failures, args, waiting);
        if (!list) {
            return;
        }
        int count = 0;
        const cJSON *record = nullptr;
        cJSON_ArrayForEach(record, list.get()) {
            count += int{row.counts(record)};
        }
        message_bus_send_reply(std::move(waiting),
                               {{.type = row.reply_type, .word = static_cast<uint32_t>(count)}});
        LOG_INFO(row.number_format, count);
        LOG_INFO("%s", row.end);
    };
    if (!row.ask(request, answer)) {
        LOG_ERROR("%s", row.failures.not_asked);
        message_bus_send_no_reply(std::move(request));
    }
}

// --- One medium or volume

struct object_row {
    // The object as text; "", and logged, when there is no such object.
    std::string (*build)(const cJSON *devices, const cJSON *partitions, uint32_t index);
    const char *start;
    const char *not_asked;
    const char *end;
};
constexpr object_row physical_medium = {
    .build = build_physical_medium,
    .start = "physical_medium_getter: start",
    .not_asked = "physical_medium_getter: error on read_devices_and_partitions",
    .end = "physical_medium_getter: end",
};
constexpr object_row logical_volume = {
    .build = build_logical_volume,
    .start = "logical_volume_getter: start",
    .not_asked = "logical_volume_getter: error on read_devices_and_partitions",
    .end = "logical_volume_getter: end",
};

constexpr list_texts reading_devices = {
    .not_asked = "read_devices_and_partitions: error on removable_devices_list",
    .bad_reply = "read_devices_and_partitions: removable_devices_list wrong out arg",
    .not_converted = "read_devices_and_partitions: cannot convert to json",
};
constexpr list_texts reading_partitions = {
    .not_asked = "read_devices_and_partitions: error on removable_partitions_list",
    .bad_reply = "read_devices_and_partitions: removable_partitions_list wrong out arg",
    .not_converted = "read_devices_and_partitions: cannot convert to json",
};

void answer_object(const object_row &row, uint32_t index, const cJSON *devices,
                   const cJSON *partitions, message_bus_request request) {
    if (row.build == nullptr) {  // kept: no row is without
        LOG_ERROR("read_devices_and_partitions: no callback method");
        message_bus_send_no_reply(std::move(request));
    } else if (const std::string text = row.build(devices, partitions, index); !text.empty()) {
        message_bus_send_string_reply(std::move(request), text.c_str());
        LOG_INFO("%s", row.end);
        LOG_INFO("read_devices_and_partitions: end");
    } else {
        LOG_ERROR("read_devices_and_partitions: callback error");
        message_bus_send_no_reply(std::move(request));
    }
}

// The second question, once the devices are known.
void ask_partitions(const object_row &row, uint32_t index, json_ptr devices,
                    message_bus_request request) {
    auto answer = [&row, index, devices = std::move(devices)](const message_bus_args &args,
                                                              message_bus_request waiting) {
        if (const json_ptr partitions = read_list(reading_partitions, args, waiting)) {
            answer_object(row, index, devices.get(), partitions.get(), std::move(waiting));
        }
    };
    if (!removable_partitions_list(request, std::move(answer))) {
        LOG_ERROR("%s", reading_partitions.not_asked);
        message_bus_send_no_reply(std::move(request));
    }
}

void get_object(const object_row &row, uint32_t index, message_bus_request request) {
    LOG_INFO("%s", row.start);
    const auto answer = [&row, index](const message_bus_args &args, message_bus_request waiting) {
        if (json_ptr devices = read_list(reading_devices, args, waiting)) {
            ask_partitions(row, index, std::move(devices), std::move(waiting));
        }
    };
    if (!removable_devices_list(request, answer)) {
        LOG_ERROR("%s", reading_devices.not_asked);
        LOG_ERROR("%s", row.not_asked);
        message_bus_send_no_reply(std::move(request));
    }
}

// Whole units of 1024. A number that is none, as JSON allows by its size, counts as 0.
void add_capacity(cJSON *object, const char *name, double number) {
    cJSON_AddNumberToObject(object, name, std::isfinite(number) ? std::trunc(number / 1024) : 0.0);
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
        LOG_WARN("logical_volume_name_setter: failed to set value of parameter %s",
                 printable(key).c_str());
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

std::string build_physical_medium(const cJSON *devices, const cJSON *partitions, uint32_t index) {
    const auto i = static_cast<int32_t>(index - 1);
    if (i < 0 || i >= cJSON_GetArraySize(devices)) {
        LOG_ERROR("physical_medium_getter: invalid index %d", i);
        return "";
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
    for (const auto &[member, source] : {std::pair("Vendor", "vendor"),
                                         {"Model", "model"},
                                         {"SerialNumber", "serial"},
                                         {"ConnectionType", "connection_type"}}) {
        cJSON_AddStringToObject(entry.get(), member, json_text(device, source));
    }
    cJSON_AddTrueToObject(entry.get(), "Removable");
    cJSON_AddStringToObject(entry.get(), "Status", "Online");
    add_capacity(entry.get(), "Capacity", capacity);
    std::string text = print_json_unformatted(entry.get());
    or_log(log_category, !text.empty(), "physical_medium_getter: cannot print entry");
    return text;
}

std::string build_logical_volume(const cJSON *devices, const cJSON *partitions, uint32_t index) {
    const cJSON *partition = find_mounted(partitions, index);
    if (partition == nullptr) {
        LOG_ERROR("logical_volume_getter: invalid index %d", static_cast<int32_t>(index - 1));
        return "";
    }
    const char *disk_syspath = json_text(partition, "disk_syspath");
    if (!or_log(log_category, disk_syspath[0] != '\0',
                "logical_volume_getter: undefined disk syspath")) {
        return "";
    }
    const int device = or_log(log_category, find_device(devices, disk_syspath),
                              "logical_volume_getter: cannot find device for volume");
    if (device == 0) {
        return "";
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
    std::string text = print_json_unformatted(entry.get());
    or_log(log_category, !text.empty(), "logical_volume_getter: cannot print entry");
    return text;
}

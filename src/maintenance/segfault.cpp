// A short record of crashed processes in the configuration: how many, the latest time, and slots
// with time and name of the latest ones, newest first. Reset whenever the firmware changes.
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "common/dates.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/texts.h"
#include "common/timer.h"
#include "config/config.h"
#include "maintenance/maintenance.h"

namespace {

constexpr const char *log_category = "segfault";

// The slots, or null when the document has no list of them.
cJSON *get_dumps() {
    cJSON *dumps = get_config_item("segfault.dumps");
    return cJSON_IsArray(dumps) ? dumps : nullptr;
}

cJSON *get_record() {
    return json_section(get_config_root(), "segfault");
}

// Also where a member is missing: without the version the record would be reset at every start.
void reset_record(const char *software_version) {
    json_set(get_record(), "count", json_ptr(cJSON_CreateNumber(0)));
    json_set(get_record(), "lastTimestamp", json_ptr(cJSON_CreateNull()));
    json_set(get_record(), "firmwareVersion", json_ptr(cJSON_CreateString(software_version)));
    cJSON *slot = nullptr;
    cJSON_ArrayForEach(slot, get_dumps()) {
        json_set(slot, "time", json_ptr(cJSON_CreateNull()));
        json_set(slot, "processName", json_ptr(cJSON_CreateNull()));
    }
}

// The new entry pushes the oldest slot out; without slots nothing is kept.
void push_dump(const char *stamp, const char *process_name) {
    cJSON *dumps = get_dumps();
    if (dumps == nullptr) {
        return;
    }
    cJSON *entry = cJSON_CreateObject();
    cJSON_AddStringToObject(entry, "time", stamp);
    cJSON_AddStringToObject(entry, "processName", process_name);
    cJSON_InsertItemInArray(dumps, 0, entry);
    cJSON_DeleteItemFromArray(dumps, cJSON_GetArraySize(dumps) - 1);
}

void add_dump(const message_bus_args &args) {
    // kept: checked here, for what is refused is an error without a reason.
    if (!args.are("s")) {
        LOG_ERROR("add_dump_callback wrong out arg");
        return;
    }
    const char *process_name = args[0].string;
    LOG_INFO("Adding segfault dump for process %s", printable(process_name).c_str());
    if (!nimbrelc_config_has_room_for(process_name)) {
        return;
    }
    const auto stamp = or_log(log_category, print_datetime(timer_now()), "Cannot print timestamp");
    if (!stamp) {
        return;
    }
    push_dump(stamp->c_str(), process_name);
    const double count = nimbrelc_utils_zero_if_null(get_config_item("segfault.count"));
    set_config_item("segfault.count", json_ptr(cJSON_CreateNumber(count + 1)));
    json_set(get_record(), "lastTimestamp", json_ptr(cJSON_CreateString(stamp->c_str())));
    nimbrelc_config_save();
}

constexpr message_bus_method methods[] = {
    {.member = "AddDump", .handler = message_bus_answer_empty<add_dump>},
};

}  // namespace

bool segfault_start() {
    if (!message_bus_add_methods(log_category, "/debug/segfault",
                                 "com.kelvanto.nimbrel.debug.segfault", methods,
                                 "message_bus_add_method_listener failed")) {
        return false;
    }
    const char *current = nimbrelc_config_get_software_version();
    const char *recorded = get_config_text("segfault.firmwareVersion");
    if (recorded[0] == '\0' || strcmp(recorded, current) != 0) {
        reset_record(current);
        nimbrelc_config_save();
    }
    return true;
}

bool segfault_stop() {
    return true;
}

void segfault_dump_number_of_entries_getter(message_bus_request request) {
    message_bus_send_reply(std::move(request),
                           {mb_uint32(static_cast<uint32_t>(cJSON_GetArraySize(get_dumps())))});
}

void segfault_dump_getter(message_bus_request request, uint32_t index, const char * /*key*/) {
    const cJSON *dumps = get_dumps();
    const auto i = static_cast<int32_t>(index - 1);
    if (i < 0 || i >= cJSON_GetArraySize(dumps)) {
        LOG_ERROR("segfault_dump_getter: invalid index %d", i);
        message_bus_send_no_reply(std::move(request));
        return;
    }
    const cJSON *slot = cJSON_GetArrayItem(dumps, i);
    const json_ptr entry(cJSON_CreateObject());
    const auto copy_text = [slot, &entry](const char *name, const char *member) {
        cJSON_AddStringToObject(
            entry.get(), name,
            nimbrelc_utils_empty_if_null_json(cJSON_GetObjectItem(slot, member)));
    };
    copy_text("Time", "time");
    copy_text("ProcessName", "processName");
    const std::string text = print_json_unformatted(entry.get());
    if (text.empty()) {
        LOG_ERROR("segfault_dump_getter: cannot print entry");
        message_bus_send_no_reply(std::move(request));
        return;
    }
    message_bus_send_string_reply(std::move(request), text.c_str());
}

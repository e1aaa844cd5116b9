#include <string>

#include "common/dates.h"
#include "common/json.h"
#include "common/logger.h"
#include "migration/migration_steps.h"
#include "migration/migration_utils.h"

namespace {

constexpr const char *log_category = "migration_08.04.99_08.05.01";
constexpr size_t datetime_length = 20;

struct datetime_field {
    const char *section;
    const char *name;
};
constexpr datetime_field datetime_fields[] = {
    {"cpeDevice.deviceInfo", "firstUseDate"},
    {"ssh", "activationDate"},
    {"vpn", "lastConnectTimestamp"},
    {"syslog", "activationDate"},
};

}  // namespace

void convert_datetime_field_to_valid_format(cJSON *root, const char *section, const char *name) {
    cJSON *parent = json_section(root, section);
    const cJSON *member = cJSON_GetObjectItem(parent, name);
    if (nimbrelc_utils_json_is_null_or_empty(member)) {
        return;
    }
    std::string text = std::string(member->valuestring).substr(0, datetime_length);
    if (text.size() == datetime_length) {
        text.back() = 'Z';
    }
    const bool valid = parse_datetime(text.c_str()).value_or(-1) != -1;
    json_replace(parent, name,
                 json_ptr(valid ? cJSON_CreateString(text.c_str()) : cJSON_CreateNull()));
}

void convert_datetime_fields_to_valid_format(cJSON *root) {
    LOG_INFO("Converting datetime fields");
    for (const datetime_field &field : datetime_fields) {
        convert_datetime_field_to_valid_format(root, field.section, field.name);
    }
    LOG_INFO("Datetime fields converted successfully");
}

void reset_segfault_section(cJSON *root) {
    cJSON *segfault = json_section(root, "segfault");
    if (segfault == nullptr) {
        return;
    }
    cJSON *count = cJSON_GetObjectItem(segfault, "count");
    if (count != nullptr) {
        cJSON_SetNumberValue(count, 0);
    }
    json_replace(segfault, "lastTimestamp", json_ptr(cJSON_CreateNull()));
    json_replace(segfault, "firmwareVersion", json_ptr(cJSON_CreateNull()));
}

bool kq3_upgrade_from_08_04_99_to_08_05_01(cJSON *root) {
    LOG_INFO("Upgrading from %s to %s", "08.04.99", "08.05.01");
    convert_datetime_fields_to_valid_format(root);
    reset_segfault_section(root);
    return true;
}

#include "config/config.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "common/files.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/texts.h"

namespace {

constexpr const char *log_category = "config";
constexpr const char *config_file = "/media/nimbrelc.json";
constexpr const char *version_file = "/etc/version";
constexpr const char *version_key = "softwareVersion";

std::string loaded_path;
json_ptr config_root;
size_t printed_size = 0;  // of the document, when it was last loaded or printed

// A document that was copied from the default one may still be everybody's to read.
void make_private(const char *path) {
    struct stat info {};
    if (lstat(path, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid()) {
        chmod(path, info.st_mode & file_mode_secret);
    }
}

}  // namespace

const char *get_nimbrelc_config_file_location() {
    return config_file;
}

bool nimbrelc_config_load(const char *path) {
    loaded_path = nimbrelc_utils_empty_if_null(path);
    const std::optional<std::string> text = nimbrelc_utils_read_file(loaded_path.c_str());
    if (!text) {
        return false;
    }
    LOG_INFO("Loading config file: %s", loaded_path.c_str());
    json_ptr root = or_log(log_category, json_ptr(cJSON_Parse(text->c_str())),
                           "Cannot parse json in config file");
    if (!root) {
        return false;
    }
    config_root = std::move(root);
    printed_size = text->size();
    make_private(loaded_path.c_str());
    return true;
}

bool nimbrelc_config_save() {
    LOG_INFO("Saving nimbrelc config");
    const std::string text = print_json(config_root.get());
    if (text.empty()) {
        LOG_ERROR("Error printing nimbrelc config");
        return false;
    }
    printed_size = text.size();
    return or_log(log_category,
                  safe_dump_string_to_file(loaded_path.c_str(), text.c_str(), file_mode_secret),
                  "Error saving nimbrelc config");
}

bool nimbrelc_config_has_room_for(std::string_view text) {
    const json_ptr item(cJSON_CreateString(std::string(text).c_str()));
    const size_t needed = print_json_unformatted(item.get()).size();
    if (printed_size + needed > max_file_size) {
        LOG_ERROR("The text is too large for the config file: %zu bytes", text.size());
        return false;
    }
    return true;
}

bool nimbrelc_config_free() {
    config_root.reset();
    return true;
}

cJSON *get_config_root() {
    return config_root.get();
}

cJSON *get_config_item(const char *path) {
    return nimbrelc_utils_get_json_object(config_root.get(), path, nullptr);
}

bool get_config_flag(const char *path) {
    return cJSON_IsTrue(get_config_item(path));
}

const char *get_config_text(const char *path) {
    return nimbrelc_utils_empty_if_null_json(get_config_item(path));
}

int get_config_number(const char *path) {
    const cJSON *item = get_config_item(path);
    return cJSON_IsNumber(item) ? item->valueint : 0;
}

bool set_config_item(const char *path, json_ptr value) {
    return json_replace(get_config_root(), path, std::move(value));
}

bool set_config_flag(const char *path, bool value) {
    return set_config_item(path, json_ptr(cJSON_CreateBool(value)));
}

bool set_config_text(const char *path, const char *value) {
    return set_config_item(path, json_ptr(cJSON_CreateString(value)));
}

bool config_is_valid(const log_source &module, std::span<const config_rule> rules) {
    const auto is_present = [](const config_rule &rule) {
        return get_config_item(rule.path) != nullptr;
    };
    const auto is_valid = [](const config_rule &rule) {
        return rule.is_valid == nullptr || rule.is_valid(get_config_item(rule.path));
    };
    return or_log(module, std::all_of(rules.begin(), rules.end(), is_present),
                  "Bad configuration. One of the fields is not present") &&
           or_log(module, std::all_of(rules.begin(), rules.end(), is_valid),
                  "Bad configuration. Some fields have bad values.");
}

const char *nimbrelc_config_get_software_version() {
    return get_config_text("cpeDevice.deviceInfo.softwareVersion");
}

std::optional<std::string> nimbrelc_config_read_container_version() {
    std::optional<std::string> version = nimbrelc_utils_read_file(version_file);
    if (!version || version->empty()) {
        LOG_ERROR("Cannot read version from /etc/version");
        return std::nullopt;
    }
    if (version->back() == '\n') {
        version->pop_back();
    }
    return version;
}

bool nimbrelc_config_set_software_version() {
    const std::optional<std::string> version = nimbrelc_config_read_container_version();
    if (!version) {
        return false;
    }
    cJSON *cpe_device = or_log(log_category, json_section(config_root.get(), "cpeDevice"),
                               "Cannot find cpeDevice section in configuration file");
    if (cpe_device == nullptr) {
        return false;
    }
    cJSON *device_info = or_log(log_category, json_section(cpe_device, "deviceInfo"),
                                "Cannot find deviceInfo section in configuration file");
    if (device_info == nullptr) {
        return false;
    }
    if (cJSON *recorded = cJSON_GetObjectItem(device_info, version_key)) {
        if (cJSON_IsString(recorded) && *version == recorded->valuestring) {
            return true;
        }
        LOG_INFO("Updating softwareVersion field with value %s", version->c_str());
        cJSON_Delete(cJSON_DetachItemViaPointer(device_info, recorded));
    } else {
        LOG_INFO("Adding softwareVersion field with value %s", version->c_str());
    }
    cJSON_AddStringToObject(device_info, version_key, version->c_str());
    return nimbrelc_config_save();
}

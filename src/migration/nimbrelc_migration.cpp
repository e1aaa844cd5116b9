#include "migration/migration.h"

#include <cstring>

#include <iterator>
#include <optional>
#include <string>

#include "common/files.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/regular_expressions.h"
#include "config/config.h"
#include "migration/migration_steps.h"

bool g_migration_mode = false;

namespace {

constexpr const char *log_category = "nimbrelc_migration";

constexpr const char *legacy_config = "/media/config.json";
constexpr const char *default_config = "/opt/app/default_config/nimbrelc.json";
constexpr const char *version_without_record = "07.70.13";
constexpr const char *version_of_legacy_config = "08.04.99";
constexpr const char *version_pattern = "^[0-9]{2}\\.[0-9]{2}\\.[0-9]{2}.?$";
constexpr size_t base_version_length = 8;

constexpr migration kq3_migrations[] = {
    {"08.04.99", "08.05.01", kq3_upgrade_from_08_04_99_to_08_05_01},
    {"08.05.08", "08.05.09", kq3_upgrade_from_08_05_08_to_08_05_09},
};

cJSON *get_device_info(cJSON *config) {
    return or_log(log_category, json_section(config, "cpeDevice.deviceInfo"),
                  "Cannot find deviceInfo section in configuration file");
}

void set_software_version(cJSON *device_info, const char *version) {
    json_set(device_info, "softwareVersion", json_ptr(cJSON_CreateString(version)));
}

std::optional<std::string> get_recorded_version(cJSON *config, const char *fallback) {
    cJSON *device_info = get_device_info(config);
    if (device_info == nullptr) {
        return std::nullopt;
    }
    const cJSON *version = cJSON_GetObjectItem(device_info, "softwareVersion");
    if (!nimbrelc_utils_json_is_null_or_empty(version)) {
        return version->valuestring;
    }
    const char *assigned = fallback;
    if (version != nullptr) {
        LOG_WARN("Configuration file contains null version, assigning %s", assigned);
    } else {
        assigned = version_without_record;  // kept: the fallback is for a null version only
        LOG_WARN("Configuration file does not contain version, assigning %s", assigned);
    }
    set_software_version(device_info, assigned);
    return assigned;
}

bool is_first_launch_after_legacy_build(cJSON *config) {
    const cJSON *device_info = json_section(config, "cpeDevice.deviceInfo");
    return nimbrelc_utils_check_if_file_exists(legacy_config) && device_info != nullptr &&
           nimbrelc_utils_json_is_null_or_empty(
               cJSON_GetObjectItem(device_info, "softwareVersion"));
}

struct legacy_secret {
    const char *section;
    const char *name;         // added to the section
    const char *legacy_path;  // where the legacy document holds it
};
constexpr legacy_secret legacy_secrets[] = {
    {"storage", "password_legacy", "storage.password"},
    {"vpn", "password_legacy", "vpn.password"},
    {"vpn", "presharedkey_legacy", "vpn.presharedkey"},
};

// The secrets stay encrypted as they are; a later migration step gives them their current names.
bool take_over_legacy_config(cJSON *config) {
    LOG_INFO("First launch of javaless build after upgrade from java build");
    LOG_INFO("Read old java build configuration file");
    const json_ptr legacy =
        or_log(log_category, nimbrelc_utils_read_file_and_parse_json(legacy_config),
               "Cannot read old java configuration file");
    if (!legacy) {
        return false;
    }
    for (const legacy_secret &secret : legacy_secrets) {
        cJSON *section = cJSON_GetObjectItem(config, secret.section);
        if (cJSON_IsObject(section)) {
            cJSON_AddStringToObject(
                section, secret.name,
                nimbrelc_utils_empty_if_null_json(
                    nimbrelc_utils_get_json_object(legacy.get(), secret.legacy_path, nullptr)));
        }
    }
    LOG_INFO("Copy configuration from old java config to new nimbrelc config");
    nimbrelc_utils_copy_values_to_json(legacy.get(), config, false);
    return get_recorded_version(config, version_of_legacy_config).has_value();
}

bool check_version_formats(const char *installed, const char *recorded) {
    nimbrelc_regex format;
    if (!or_log(log_category, nimbrelc_regex_compile(format, version_pattern),
                "Cannot compile regex for verifying version format")) {
        return false;
    }
    if (!nimbrelc_regex_match(format, installed)) {
        LOG_ERROR("Version in /etc/version has wrong format: %s", installed);
        return false;
    }
    if (!nimbrelc_regex_match(format, recorded)) {
        LOG_ERROR("Version in %s has wrong format: %s", get_nimbrelc_config_file_location(),
                  recorded);
        return false;
    }
    return true;
}

bool upgrade(cJSON *config, const std::string &recorded_base, const std::string &installed_base) {
    LOG_INFO("Upgrade can be processed now - new container is installed");
    return or_log(log_category,
                  run_migration(kq3_migrations, std::size(kq3_migrations), recorded_base.c_str(),
                                installed_base.c_str(), config),
                  "Migration failed");
}

// No step runs backwards: the default document of the older firmware takes what it knows of.
bool downgrade(json_ptr &config) {
    LOG_INFO("Downgrade can be processed - older container is installed");
    LOG_INFO("Read nimbrelc default configuration file");
    json_ptr downgraded =
        or_log(log_category, nimbrelc_utils_read_file_and_parse_json(default_config),
               "Cannot read default configuration file");
    if (!downgraded) {
        return false;
    }
    LOG_INFO("Prepare configuration file apropriate for downgraded version of nimbrelc");
    nimbrelc_utils_copy_values_to_json(config.get(), downgraded.get(), false);
    config = std::move(downgraded);
    return true;
}

bool save(cJSON *config, const char *installed) {
    LOG_INFO("Update version in config file to: %s", installed);
    cJSON *device_info = get_device_info(config);
    if (device_info == nullptr) {
        return false;
    }
    set_software_version(device_info, installed);
    const std::string text = print_json(config);
    if (!or_log(log_category, !text.empty(), "Error printing modified config") ||
        !or_log(log_category,
                safe_dump_string_to_file(get_nimbrelc_config_file_location(), text.c_str(),
                                         file_mode_secret),
                "Error saving migrated config")) {
        return false;
    }
    LOG_INFO("Migration of nimbrelc configuration file completed successfully");
    return true;
}

}  // namespace

bool run_nimbrelc_migration() {
    LOG_INFO("Starting migration of nimbrelc configuration file");
    LOG_INFO("Read version from /etc/version");
    const std::optional<std::string> installed = nimbrelc_config_read_container_version();
    if (!installed) {
        return false;
    }
    LOG_INFO("Read nimbrelc configuration file");
    json_ptr config = or_log(
        log_category, nimbrelc_utils_read_file_and_parse_json(get_nimbrelc_config_file_location()),
        "Cannot read configuration file");
    if (!config) {
        return false;
    }
    if (is_first_launch_after_legacy_build(config.get()) &&
        !or_log(log_category, take_over_legacy_config(config.get()),
                "Cannot copy old java config to new javaless config")) {
        return false;
    }
    const std::optional<std::string> recorded =
        get_recorded_version(config.get(), installed->c_str());
    if (!recorded) {
        return false;
    }
    LOG_INFO("Versions summary:");
    LOG_INFO("  /etc/version: %s", installed->c_str());
    LOG_INFO("  %s: %s", get_nimbrelc_config_file_location(), recorded->c_str());
    if (!check_version_formats(installed->c_str(), recorded->c_str())) {
        return false;
    }
    const std::string installed_base = installed->substr(0, base_version_length);
    const std::string recorded_base = recorded->substr(0, base_version_length);
    if (installed_base == recorded_base) {
        // Nothing is written, not even a version assigned above.
        LOG_INFO("Nothing to do - requested migration to existing version");
        return true;
    }
    const bool prepared = installed_base > recorded_base
                              ? upgrade(config.get(), recorded_base, installed_base)
                              : downgrade(config);
    return prepared && save(config.get(), installed->c_str());
}

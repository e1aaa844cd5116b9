// Shares every mounted partition over AFP: writes netatalk's configuration, runs the daemon, and
// removes its per-volume CNID directories that no longer belong to a mounted volume.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "common/files.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/texts.h"
#include "config/config.h"
#include "disks/disks.h"
#include "platform/launch.h"
#include "sharing/file_service.h"
#include "sharing/file_service_config.h"
#include "sharing/file_services_table.h"
#include "sharing/share_names.h"
#include "sharing/share_settings.h"

namespace {

constexpr const char *log_category = "afp";

constexpr const char *section_path = "nas.fileServices.afp";
constexpr const char *daemon_config_path = "nas.fileServices.afp.daemonConfig";
constexpr file_service_daemon netatalk = {.service = "netatalk", .shown = "afp"};
constexpr const char *cnid_directory = "/var/netatalk/CNID";
constexpr file_service_times action_times = {.start = 10, .stop = 5, .reload = 3};

// --- CNID directories

bool is_directory(DIR *parent, const dirent *entry) {
    if (entry->d_type != DT_UNKNOWN) {
        return entry->d_type == DT_DIR;
    }
    struct stat info = {};
    return fstatat(dirfd(parent), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(info.st_mode);
}

void remove_cnid_directory(const char *name) {
    const std::string shown = printable(name);
    LOG_INFO("Removing unnecessary CNID dir: %s", shown.c_str());
    const char *const remove_directory[] = {
        "/usr/bin/sudo", "/bin/sh", "/usr/bin/scripts/remove_afp_cnid_dir.sh", name, nullptr};
    int status = 0;
    if (launch_one(remove_directory, &status) == LAUNCH_OK && status == 0) {
        LOG_INFO("CNID dir %s successfully removed", shown.c_str());
    } else {
        LOG_ERROR("Failed to remove dir %s", shown.c_str());
    }
}

// The directories that belong to volumes; one without a label has none to keep.
std::set<std::string> cnid_directories_of(const cJSON *partitions) {
    std::set<std::string> names;
    for (const auto &[partition, name] : share_names_of(partitions)) {
        if (json_text(partition, "label")[0] != '\0') {
            names.insert(name);
        }
    }
    return names;
}

bool remove_unnecessary_cnid_directories(const cJSON *partitions) {
    const std::set<std::string> needed = cnid_directories_of(partitions);
    const handle<DIR, closedir> directory(opendir(cnid_directory));
    if (!directory) {
        LOG_ERROR("Fetching contents of APF CNID dir failed: %s", strerror(errno));
        return false;
    }
    while (const dirent *entry = readdir(directory.get())) {
        const char *name = entry->d_name;
        if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0 &&
            is_directory(directory.get(), entry) && needed.count(name) == 0) {
            remove_cnid_directory(name);
        }
    }
    return true;
}

// A failed cleanup never fails the operation it belongs to.
void clean_up_cnid_directories(const cJSON *partitions) {
    if (remove_unnecessary_cnid_directories(partitions)) {
        LOG_INFO("Successfully removed unnecessary CNID dirs");
    } else {
        LOG_WARN("Error occured while removing unecessary CNID dirs");
    }
}

// --- Configuration and daemon

bool generate_config() {
    LOG_INFO("Generating config for afp daemon");
    if (!or_log(log_category, get_config_root(), "Config json not parsed")) {
        LOG_ERROR("Error generating afp config");
        return false;
    }
    const cJSON *daemon_config = get_config_item(daemon_config_path);
    const std::string text =
        afp_config_text(daemon_config, get_partitions_list(),
                        file_services_request_handler_is_storage_protection_enabled());
    const char *file = json_text(daemon_config, "serverConfigLocation");
    return or_log(log_category, safe_dump_string_to_file(file, text.c_str()),
                  "Error saving afp config");
}

}  // namespace

std::string afp_config_text(const cJSON *daemon_config, const cJSON *partitions,
                            bool is_protected) {
    std::string methods = json_text(daemon_config, "defaultUAMsList");
    if (!is_protected) {
        methods += ",uams_guest.so";
    }
    // Never quoted, unlike the lines below.
    std::string text = "[Global]\n  uam list = " + file_service_written_value(methods) + "\n";
    file_service_write_line(text, "guest account", json_text(daemon_config, "anonymousUserLogin"));
    file_service_write_directives(text, cJSON_GetObjectItem(daemon_config, "defaultServerOptions"));
    text += '\n';
    file_service_write_shares(text, partitions, nullptr, [&text](const cJSON *partition) {
        const bool read_only = cJSON_IsTrue(cJSON_GetObjectItem(partition, "read_only"));
        file_service_write_line(text, "path", json_text(partition, "mount_point"));
        file_service_write_line(text, "time machine", "yes");
        file_service_write_line(text, "unix priv", "no");
        file_service_write_line(text, "read only", read_only ? "yes" : "no");
    });
    text += '\n';
    return text;
}

bool afp_start() {
    if (!file_service_is_switched_on(section_path)) {
        LOG_INFO("Afp daemon is disabled");
        return true;
    }
    if (!generate_config() || !file_service_start_or_reload_daemon(log_category, netatalk)) {
        return false;
    }
    LOG_INFO("Removing unnecessary CNID dirs on AFP start/reload");
    clean_up_cnid_directories(get_partitions_list());
    return true;
}

bool afp_reload() {
    return afp_start();
}

bool afp_stop() {
    const bool is_up = file_service_is_up(log_category, netatalk, true,
                                          "Cannot determine state of %s daemon, assuming it's up");
    if (!is_up) {
        LOG_WARN("Afp daemon in not working");
    } else if (!file_service_stop_daemon(log_category, netatalk)) {
        return false;
    }
    LOG_INFO("Removing unnecessary CNID dirs on AFP stop");
    clean_up_cnid_directories(nullptr);
    return true;
}

bool afp_is_running() {
    return file_service_is_up(log_category, netatalk, false, "Cannot determine state of %s daemon");
}

bool afp_is_enabled() {
    return file_service_is_enabled(section_path);
}

bool afp_save_state(bool enabled) {
    return file_service_save_state(section_path, enabled);
}

int afp_time_req_for(file_service_event action) {
    return file_service_time_for(action_times, action);
}

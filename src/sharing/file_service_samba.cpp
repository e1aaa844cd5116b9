// Shares every mounted partition over SMB: writes Samba's configuration, keeps its user map and
// password in step with the protection of the shares, and runs nmbd and smbd.
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/files.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/texts.h"
#include "config/config.h"
#include "disks/disks.h"
#include "platform/launch.h"
#include "platform/service_manager.h"
#include "sharing/file_service.h"
#include "sharing/file_service_config.h"
#include "sharing/file_services_table.h"
#include "sharing/share_settings.h"

namespace {

constexpr const char *log_category = "samba";

constexpr const char *section_path = "nas.fileServices.samba";
constexpr const char *daemon_config_path = "nas.fileServices.samba.daemonConfig";
constexpr const char *users_map = "/tmp/nimbrel/configs/sambausers.map";
constexpr file_service_times action_times = {.start = 3, .stop = 5, .reload = 3};

// --- The configuration files

bool save_password(const std::string &password) {
    constexpr const char *set_password[] = {"/usr/bin/sudo",
                                            "/usr/bin/smbpasswd",
                                            "-c",
                                            "/tmp/nimbrel/configs/samba.config",
                                            "-s",
                                            "-a",
                                            "default",
                                            nullptr};
    const std::string twice = password + "\n" + password;
    int status = 0;
    return launch_and_write(set_password, &status, twice.c_str()) == LAUNCH_OK && status == 0;
}

bool write_aliases(const storage_config &protection) {
    const std::string password = protection.password.value_or("");
    if (protection.username.empty() || password.empty()) {
        LOG_ERROR("Username and password are required to enable samba shares protection");
        return false;
    }
    const std::string alias = "default=" + printable(protection.username);
    return or_log(log_category,
                  safe_dump_string_to_file(users_map, alias.c_str(), file_mode_secret),
                  "Failed to save sambausers.map") &&
           or_log(log_category, save_password(password), "Failed to change samba password");
}

bool enable_protection() {
    return or_log(log_category, write_aliases(file_services_request_handler_get_storage_config()),
                  "Failed to enable samba shares protection");
}

bool disable_protection() {
    if (remove(users_map) != 0) {
        LOG_WARN("Failed to remove sambausers.map: %s", strerror(errno));
    }
    int ended = -1;
    const int result =
        launch("/usr/bin/sudo /usr/bin/smbpasswd -c /tmp/nimbrel/configs/samba.config -an default",
               &ended, nullptr);
    if (result != LAUNCH_OK || ended != 0) {
        LOG_ERROR("Failed to reset samba password: %d %d", result,
                  WIFEXITED(ended) ? WEXITSTATUS(ended) : ended);
        LOG_ERROR("Failed to disable samba shares protection");
        return false;
    }
    return true;
}

// Whether the server takes the mount point as it stands. There is no way to write a variable that
// is none, or two blanks, which the server reads as one: what these stand for is another place.
bool has_literal_path(const cJSON *partition) {
    const char *mount_point = json_text(partition, "mount_point");
    for (const char *sign = strchr(mount_point, '%'); sign != nullptr;
         sign = strchr(sign + 1, '%')) {
        if ((sign[1] != '\0' && strchr("adghijmtuvwDGHIJLMNPRSTUV", sign[1]) != nullptr) ||
            (sign[1] == '$' && sign[2] == '(')) {
            LOG_WARN("Cannot share %s: the server would read a variable in it",
                     printable(mount_point).c_str());
            return false;
        }
    }
    if (strstr(mount_point, "  ") != nullptr) {
        LOG_WARN("Cannot share %s: the server would read one blank for two",
                 printable(mount_point).c_str());
        return false;
    }
    return true;
}

bool generate_config() {
    if (!or_log(log_category, get_config_root(), "Config json not parsed")) {
        LOG_ERROR("Error generating samba config");
        return false;
    }
    const cJSON *daemon_config = get_config_item(daemon_config_path);
    const std::string text =
        samba_config_text(daemon_config, get_partitions_list(),
                          file_services_request_handler_is_storage_protection_enabled());
    const char *file = json_text(daemon_config, "configFileLocation");
    if (!or_log(log_category, safe_dump_string_to_file(file, text.c_str()),
                "Error saving samba config")) {
        return false;
    }
    LOG_INFO("Updating samba auxiliary config files");
    return or_log(log_category, update_samba_aliases_config(),
                  "Error updating samba auxiliary config files");
}

// --- The daemons

constexpr file_service_daemon nmbd = {.service = "nmbd", .shown = "nmbd"};
constexpr file_service_daemon smbd = {.service = "smbd", .shown = "smbd"};

bool start_or_reload(const file_service_daemon &daemon) {
    return file_service_start_or_reload_daemon(log_category, daemon);
}

bool stop(const file_service_daemon &daemon) {
    const bool is_up = file_service_is_up(log_category, daemon, true,
                                          "Cannot determine state of %s daemon, assuming it's up");
    if (!is_up) {
        LOG_WARN("%s daemon in not working", daemon.shown);
        return true;
    }
    LOG_INFO("Stopping afp daemon");  // kept: the other file service's name
    if (service_manager_stop(daemon.service) != 0) {
        LOG_ERROR("Cannot stop %s daemon", daemon.shown);
        return false;
    }
    return true;
}

}  // namespace

std::string samba_config_text(const cJSON *daemon_config, const cJSON *partitions,
                              bool is_protected) {
    std::string text = "[global]\n";
    file_service_write_line(text, "server string", json_text(daemon_config, "serverName"));
    file_service_write_line(text, "workgroup", json_text(daemon_config, "workgroup"));
    const cJSON *max_connections = cJSON_GetObjectItem(daemon_config, "maxConnections");
    file_service_write_line(
        text, "max connections",
        std::to_string(cJSON_IsNumber(max_connections) ? max_connections->valueint : 0));
    file_service_write_line(text, "guest account", json_text(daemon_config, "anonymousUserLogin"));
    file_service_write_directives(text,
                                  cJSON_GetObjectItem(daemon_config, "defaultGlobalSettings"));
    if (is_protected) {
        file_service_write_line(text, "username map", users_map);
    }
    text += '\n';
    file_service_write_shares(
        text, partitions, has_literal_path, [&text, is_protected](const cJSON *partition) {
            const bool read_only = cJSON_IsTrue(cJSON_GetObjectItem(partition, "read_only"));
            file_service_write_line(text, "path", json_text(partition, "mount_point"));
            file_service_write_line(text, "guest ok", is_protected ? "no" : "yes");
            file_service_write_line(text, "guest only", "no");
            file_service_write_line(text, "writeable", read_only ? "no" : "yes");
            file_service_write_line(text, "oplocks", "yes");
        });
    text += '\n';
    return text;
}

bool update_samba_aliases_config() {
    LOG_INFO("Updating samba aliases config");
    const bool updated = file_services_request_handler_is_storage_protection_enabled()
                             ? enable_protection()
                             : disable_protection();
    if (updated) {
        LOG_INFO("Samba aliases updated successfully");
    }
    return updated;
}

bool samba_start() {
    if (!file_service_is_switched_on(section_path)) {
        LOG_INFO("Samba daemon is disabled");
        return true;
    }
    LOG_INFO("Generating config for samba daemon");
    if (!or_log(log_category, generate_config(), "Failed to save samba config")) {
        return false;
    }
    return or_log(log_category, start_or_reload(nmbd) && start_or_reload(smbd),
                  "Failed to start all samba daemons");
}

bool samba_reload() {
    if (!file_service_is_switched_on(section_path)) {
        LOG_INFO("Samba daemon is disabled");
        return true;
    }
    if (!or_log(log_category, generate_config(), "Failed to save samba config")) {
        return false;
    }
    const bool announcer = start_or_reload(nmbd);
    return start_or_reload(smbd) && announcer;
}

bool samba_stop() {
    const bool server = stop(smbd);
    return stop(nmbd) && server;
}

bool samba_is_running() {
    return file_service_is_up(log_category, smbd, false, "Cannot determine state of %s daemon");
}

bool samba_is_enabled() {
    return file_service_is_enabled(section_path);
}

bool samba_save_state(bool enabled) {
    return file_service_save_state(section_path, enabled);
}

int samba_time_req_for(file_service_event action) {
    return file_service_time_for(action_times, action);
}

#include "daemon/nimbrelc.h"

#include <cerrno>

#include <algorithm>
#include <iterator>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/timer.h"
#include "config/config.h"
#include "datamodel/datamodel.h"
#include "disks/disks.h"
#include "maintenance/maintenance.h"
#include "platform/lcd.h"
#include "remote_access/remote_access.h"
#include "sharing/sharing.h"

namespace {

constexpr const char *log_category = "nimbrelc";

struct service {
    const char *name;
    bool (*start)();
    bool (*stop)();
};

// kept: stopping runs in the order of starting too.
constexpr service services[] = {
    {"removable_devices_manager", removable_devices_manager_start, removable_devices_manager_stop},
    {"device_request_handler", device_request_handler_start, device_request_handler_stop},
    {"file_services_manager", file_services_manager_start, file_services_manager_stop},
    {"file_services_request_handler", file_services_request_handler_start,
     file_services_request_handler_stop},
    {"dlna_manager", dlna_manager_start, dlna_manager_stop},
    {"datamodel", datamodel_start, datamodel_stop},
    {"backup", backup_start, backup_stop},
    {"ssh", ssh_start, ssh_stop},
    {"vpn", vpn_start, vpn_stop},
    {"upgrade_config", upgrade_config_start, upgrade_config_stop},
    {"lcd", lcd_start, lcd_stop},
    {"segfault", segfault_start, segfault_stop},
    {"dbus_signals", dbus_signals_start, dbus_signals_stop},
    {"app_info", app_info_start, app_info_stop},
};

constexpr const char *bus_names[] = {
    "com.kelvanto.nimbrel",
    "com.kelvanto.pamauth",
    "com.kelvanto.nssauth",
    "com.kelvanto.firmware",
};

// Whether a directory is the daemon's own, or root's, and nobody else can put anything into it. One
// of its own that others can write in is tightened. A link counts as what root made it point to.
bool is_private_dir(const char *path) {
    struct stat info {};
    const bool is_roots_link = lstat(path, &info) == 0 && S_ISLNK(info.st_mode) && info.st_uid == 0;
    const int directory =
        open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | (is_roots_link ? 0 : O_NOFOLLOW));
    if (directory == -1) {
        return false;
    }
    constexpr mode_t written_by_others = S_IWGRP | S_IWOTH;
    constexpr mode_t tightened = (S_IRWXU | S_IRWXG | S_IRWXO) & ~written_by_others;
    bool is_private =
        fstat(directory, &info) == 0 && (info.st_uid == geteuid() || info.st_uid == 0);
    if (is_private && (info.st_mode & written_by_others) != 0) {
        is_private = info.st_uid == geteuid() && fchmod(directory, info.st_mode & tightened) == 0;
    }
    close(directory);
    return is_private;
}

// A directory that somebody planted is as good as none.
bool create_working_dirs() {
    constexpr const char *own = "/tmp/nimbrel";
    constexpr const char *configs = "/tmp/nimbrel/configs";
    mkdir(own, 0777);
    return or_log(log_category,
                  is_private_dir(own) && (mkdir(configs, 0755) == 0 || errno == EEXIST) &&
                      is_private_dir(configs),
                  "Cannot create all working dirs");
}

// What comes before the services. kept: two failures are not logged as errors.
struct start_step {
    const char *begins;
    bool (*run)();
    const char *failed;
    log_level failure_level = LOG_LEVEL_ERROR;
};
constexpr start_step start_steps[] = {
    {"Connecting to dbus", [] { return message_bus_new(timer_loop()); }, "Cannot connect to dbus",
     LOG_LEVEL_INFO},
    {"Registering dbus names",
     [] {
         return std::all_of(std::begin(bus_names), std::end(bus_names), message_bus_request_name);
     },
     "Cannot register required dbus names"},
    {"Loading nimbrelc config",
     [] { return nimbrelc_config_load(get_nimbrelc_config_file_location()); },
     "Cannot load nimbrelc config file"},
    {"Set software version", nimbrelc_config_set_software_version, "Cannot set software version"},
    {"Creating working dirs", create_working_dirs, "Cannot create the workdir"},
    {"Configuring syslogd", syslog_utils_configure, "Failed to configure syslogd", LOG_LEVEL_INFO},
};

}  // namespace

bool nimbrelc_start(event_base *loop) {
    if (loop == nullptr) {
        LOG_INFO("Event loop is null");
        return false;
    }
    timer_use_loop(loop);
    for (const start_step &step : start_steps) {
        LOG_INFO("%s", step.begins);
        if (!step.run()) {
            LOG_AT(step.failure_level, "%s", step.failed);
            return false;
        }
    }
    LOG_INFO("Starting services..");
    for (const service &row : services) {
        LOG_INFO("Starting %s", row.name);
        if (row.start()) {
            LOG_INFO("Service [%s] successfully started", row.name);
        } else {
            LOG_ERROR("Cannot start service [%s]", row.name);
        }
    }
    LOG_INFO("Services started");
    return true;
}

bool nimbrelc_stop() {
    LOG_INFO("Stopping services..");
    bool stopped = true;
    for (const service &row : services) {
        LOG_INFO("Stopping %s", row.name);
        if (row.stop()) {
            LOG_INFO("Service [%s] successfully stopped", row.name);
        } else {
            LOG_ERROR("Cannot stop service [%s]", row.name);
            stopped = false;
        }
    }
    LOG_INFO("Services stopped");
    return nimbrelc_config_free() && stopped;
}

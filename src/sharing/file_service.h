// What a file-sharing service (Samba, AFP, Avahi) offers to the file services manager, and the few
// operations that all of them need on their configured switch.
#pragma once

#include <array>

#include "common/logger.h"
#include "sharing/file_service_events.h"

// One service. The operations only begin an action: the daemon needs `time_req_for` seconds (0 for
// an unknown action) until it shows. Booleans are success unless they answer a question.
struct file_service {
    const char *name;  // as shown to users and in the log
    bool (*start)();
    bool (*stop)();
    bool (*reload)();
    bool (*save_state)(bool enabled);
    bool (*is_enabled)();
    bool (*is_running)();
    int (*time_req_for)(file_service_event action);
};

// One row per service; the order of every walk over them.
extern const std::array<file_service, 3> file_services;

// Seconds per action that takes a daemon some time.
struct file_service_times {
    int start;
    int stop;
    int reload;
};

// The entry of `action`; 0 for one that has none.
int file_service_time_for(const file_service_times &times, file_service_event action);

// The next three take the dotted path of the service's section in the configuration, whose member
// "enabled" is its switch.

// The switch exactly: only the boolean true is on.
bool file_service_is_enabled(const char *section_path);

// The switch as starting and reloading see it: a number other than zero is on too.
bool file_service_is_switched_on(const char *section_path);

// A supervised daemon: its service, and its name in the log. What follows logs for the caller.
struct file_service_daemon {
    const char *service;
    const char *shown;
};

// Where it cannot be determined `unknown` (with one %s, for the name) is logged at WARN, and it
// counts as `assumed`.
bool file_service_is_up(const log_source &caller, const file_service_daemon &daemon, bool assumed,
                        const char *unknown);

bool file_service_start_daemon(const log_source &caller, const file_service_daemon &daemon);
bool file_service_stop_daemon(const log_source &caller, const file_service_daemon &daemon);
bool file_service_reload_daemon(const log_source &caller, const file_service_daemon &daemon);
// Reloads one that is up.
bool file_service_start_or_reload_daemon(const log_source &caller,
                                         const file_service_daemon &daemon);

// Stores the switch and saves the configuration, unless it already has that value. False when the
// save failed (memory stays changed) or the service has no section.
bool file_service_save_state(const char *section_path, bool enabled);

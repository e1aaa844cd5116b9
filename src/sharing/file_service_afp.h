// Shares every mounted partition over AFP: writes netatalk's configuration, runs the daemon, and
// removes its per-volume CNID directories that no longer belong to a mounted volume.
#pragma once

#include <cjson/cJSON.h>

#include <string>

#include "sharing/file_service_events.h"

// The operations of file_service.h. Reloading is starting: a running daemon takes the configuration
// anew.
bool afp_start();
bool afp_stop();
bool afp_reload();
bool afp_save_state(bool enabled);
bool afp_is_enabled();
bool afp_is_running();
int afp_time_req_for(file_service_event action);

// The configuration file of "daemonConfig" and the partition list. Missing members are written
// empty.
std::string afp_config_text(const cJSON *daemon_config, const cJSON *partitions, bool is_protected);

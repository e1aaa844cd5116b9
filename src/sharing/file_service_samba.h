// Shares every mounted partition over SMB: writes Samba's configuration, keeps its user map and
// password in step with the protection of the shares, and runs nmbd and smbd.
#pragma once

#include <cjson/cJSON.h>

#include <string>

#include "sharing/file_service_events.h"

// The operations of file_service.h.
bool samba_start();
bool samba_stop();
bool samba_reload();
bool samba_save_state(bool enabled);
bool samba_is_enabled();
bool samba_is_running();
int samba_time_req_for(file_service_event action);

// Brings the user map and the password of the local account in line with the protection.
bool update_samba_aliases_config();

// The configuration file of "daemonConfig" and the partition list. Missing members are written
// empty.
std::string samba_config_text(const cJSON *daemon_config, const cJSON *partitions,
                              bool is_protected);

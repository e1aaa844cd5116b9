// What the rows of the table of file services do: for each service the operations of
// file_service.h, and the configuration file that is written from its "daemonConfig" and the
// partition list. Missing members are written empty.
#pragma once

#include <cjson/cJSON.h>

#include <string>

#include "sharing/file_service_events.h"

bool samba_start();
bool samba_stop();
bool samba_reload();
bool samba_save_state(bool enabled);
bool samba_is_enabled();
bool samba_is_running();
int samba_time_req_for(file_service_event action);
std::string samba_config_text(const cJSON *daemon_config, const cJSON *partitions,
                              bool is_protected);

// Brings the user map and the password of the local account in line with the protection.
bool update_samba_aliases_config();

// Reloading is starting: a running daemon takes the configuration anew.
bool afp_start();
bool afp_stop();
bool afp_reload();
bool afp_save_state(bool enabled);
bool afp_is_enabled();
bool afp_is_running();
int afp_time_req_for(file_service_event action);
std::string afp_config_text(const cJSON *daemon_config, const cJSON *partitions, bool is_protected);

bool avahi_start();
bool avahi_stop();
bool avahi_reload();
bool avahi_save_state(bool enabled);
bool avahi_is_enabled();
bool avahi_is_running();
int avahi_time_req_for(file_service_event action);

// Decides what is requested of Samba, AFP and Avahi when disks, switches or central storage change.
#pragma once

#include "common/json.h"

// Saves the switch of the service with exactly this display name ("Samba", "AFP", "Avahi") and
// requests what follows from it. False, with nothing requested, for null, an unknown name, or when
// the switch cannot be saved.
bool file_services_manager_change_file_service_state_by_name(const char *name, bool enabled);

// Reconciles all services with the partitions that are present.
void file_services_manager_update_file_services();

// Requests a restart of every service that is enabled and running.
void file_services_manager_reload_file_services();

// Requests a stop of every service that is running or about to be started.
void file_services_manager_stop_file_services();

// {"fileServices": [{"service": display name, "enabled": boolean, "running": boolean}, ...]}, one
// object per service, always in the same order.
json_ptr file_services_manager_get_services_status();

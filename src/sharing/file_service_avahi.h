// Runs the announcer that makes the shares visible on the local network. Writes no configuration.
#pragma once

#include "sharing/file_service_events.h"

// The operations of file_service.h.
bool avahi_start();
bool avahi_stop();
bool avahi_reload();
bool avahi_save_state(bool enabled);
bool avahi_is_enabled();
bool avahi_is_running();
int avahi_time_req_for(file_service_event action);

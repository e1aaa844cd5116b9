#include "sharing/file_services_table.h"

#include "sharing/file_service.h"

const std::array<file_service, 3> file_services = {{
    {"Samba", samba_start, samba_stop, samba_reload, samba_save_state, samba_is_enabled,
     samba_is_running, samba_time_req_for},
    {"AFP", afp_start, afp_stop, afp_reload, afp_save_state, afp_is_enabled, afp_is_running,
     afp_time_req_for},
    {"Avahi", avahi_start, avahi_stop, avahi_reload, avahi_save_state, avahi_is_enabled,
     avahi_is_running, avahi_time_req_for},
}};

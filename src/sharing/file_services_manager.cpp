#include "sharing/file_services_manager.h"

#include <cstring>
#include <iterator>
#include <vector>

#include "common/event_ptr.h"
#include "common/logger.h"
#include "disks/disks.h"
#include "sharing/file_service.h"
#include "sharing/file_service_afp.h"
#include "sharing/file_service_avahi.h"
#include "sharing/file_service_events.h"
#include "sharing/file_service_samba.h"
#include "sharing/file_services_request_handler.h"

namespace {

constexpr const char *log_category = "file_services_manager";
constexpr int debounce_seconds = 3;

// One row per service; the order of every walk over them.
constexpr file_service services[] = {
    {"Samba", samba_start, samba_stop, samba_reload, samba_save_state, samba_is_enabled,
     samba_is_running, samba_time_req_for},
    {"AFP", afp_start, afp_stop, afp_reload, afp_save_state, afp_is_enabled, afp_is_running,
     afp_time_req_for},
    {"Avahi", avahi_start, avahi_stop, avahi_reload, avahi_save_state, avahi_is_enabled,
     avahi_is_running, avahi_time_req_for},
};

// What is going on with one service. Idle: nothing pending. Waiting: the timer is armed. Verifying:
// `busy` holds the seconds of the verification that is pending, and requests only queue up.
struct service_state {
    const file_service &service;
    event_ptr timer = nullptr;  // created on first use
    std::vector<file_service_event> queue = {};
    int busy = 0;
};

service_state states[] = {
    {.service = services[0]},
    {.service = services[1]},
    {.service = services[2]},
};
static_assert(std::size(states) == std::size(services));

event_base *loop = nullptr;

// --- Actions

bool stop_service(const file_service &service) {
    if (!service.stop()) {
        LOG_ERROR("Cannot stop file service [%s]", service.name);
        return false;
    }
    LOG_INFO("Stop of service [%s] initiated", service.name);
    return true;
}

bool start_service(const file_service &service) {
    if (!service.start()) {
        LOG_ERROR("Cannot start file service [%s]", service.name);
        return false;
    }
    LOG_INFO("Start of service [%s] initiaded", service.name);
    return true;
}

bool reload_service(const file_service &service) {
    if (!service.reload()) {
        LOG_ERROR("Cannot reload file service [%s]", service.name);
        return false;
    }
    LOG_INFO("Reload of service [%s] initiated", service.name);
    return true;
}

// --- Verification: looks at a daemon after an action and logs what it sees, no more.

using verification = void (*)(evutil_socket_t, short, void *data);

// What follows a successful action; no verification when there is none, or none is needed.
struct follow_up {
    verification callback = nullptr;
    int seconds = 0;
};

void schedule_verification(service_state &state, const follow_up &next) {
    state.busy = next.seconds;
    const timeval delay = {.tv_sec = next.seconds, .tv_usec = 0};
    if (event_base_once(loop, -1, EV_TIMEOUT, next.callback, &state, &delay) != 0) {
        state.busy = 0;  // nothing would ever clear it
    }
}

void handle_pending_events(service_state &state);

void start_check(evutil_socket_t, short, void *data) {
    auto &state = *static_cast<service_state *>(data);
    if (state.service.is_running()) {
        LOG_INFO("Service [%s] is running - as expected", state.service.name);
    } else {
        LOG_WARN("File service [%s] is not yet running", state.service.name);
    }
    state.busy = 0;
    handle_pending_events(state);
}

void stop_check(evutil_socket_t, short, void *data) {
    auto &state = *static_cast<service_state *>(data);
    if (!state.service.is_running()) {
        LOG_INFO("Service [%s] is not running - as expected", state.service.name);
    } else {
        LOG_WARN("File service [%s] is still running", state.service.name);
    }
    state.busy = 0;
    handle_pending_events(state);
}

void reload_check(evutil_socket_t, short, void *data) {
    auto &state = *static_cast<service_state *>(data);
    LOG_INFO("Service [%s] should be reloaded now", state.service.name);
    state.busy = 0;
    handle_pending_events(state);
}

// The second half of a restart. Kept: after a failed start the pending events wait for the next
// request.
void continue_restart(evutil_socket_t, short, void *data) {
    auto &state = *static_cast<service_state *>(data);
    const file_service &service = state.service;
    LOG_INFO("Service [%s] should be stopped now, now it can be started", service.name);
    state.busy = 0;
    if (service.is_running()) {
        LOG_ERROR("File service [%s] is still running", service.name);
        handle_pending_events(state);
        return;
    }
    LOG_INFO("Starting [%s] daemon.", service.name);
    if (!service.start()) {
        LOG_ERROR("Failed to start [%s] daemon.", service.name);
        return;
    }
    LOG_INFO("Start of service [%s] successfully initiated", service.name);
    const int seconds = service.time_req_for(FILE_SERVICE_START);
    if (seconds > 0) {
        schedule_verification(state, {start_check, seconds});
        LOG_INFO("Schedule start verification of [%s] service in %d seconds", service.name,
                 seconds);
    }
}

// --- The outcome of a reduced queue

follow_up then_verify_start(const file_service &service) {
    const int seconds = service.time_req_for(FILE_SERVICE_START);
    LOG_INFO("Schedule start verification of [%s] service in %d seconds", service.name, seconds);
    return {start_check, seconds};
}

follow_up then_verify_stop(const file_service &service, verification callback) {
    const int seconds = service.time_req_for(FILE_SERVICE_STOP);
    LOG_INFO("Schedule stop verification of [%s] service in %d seconds", service.name, seconds);
    return {callback, seconds};
}

follow_up reload_and_verify(const file_service &service) {
    if (!reload_service(service)) {
        return {};
    }
    const int seconds = service.time_req_for(FILE_SERVICE_RELOAD);
    LOG_INFO("Schedule reload verification of [%s] service in %d seconds", service.name, seconds);
    return {reload_check, seconds};
}

follow_up handle_stop(const file_service &service) {
    if (!service.is_running()) {
        LOG_INFO("Service [%s] is not running - STOP is not needed", service.name);
        return {};
    }
    LOG_INFO("File service [%s] has to be stopped", service.name);
    return stop_service(service) ? then_verify_stop(service, stop_check) : follow_up{};
}

follow_up handle_start(const file_service &service) {
    if (!service.is_enabled()) {
        LOG_INFO("Service [%s] is not enabled - ignoring START request", service.name);
        return {};
    }
    if (service.is_running()) {
        LOG_INFO("File service [%s] is already started - running reconfiguration.", service.name);
        return reload_and_verify(service);
    }
    LOG_INFO("File service [%s] has to be started.", service.name);
    return start_service(service) ? then_verify_start(service) : follow_up{};
}

follow_up handle_restart(const file_service &service) {
    if (!service.is_enabled()) {
        LOG_INFO("Service [%s] is not enabled - ignoring RESTART request", service.name);
        return {};
    }
    if (!service.is_running()) {
        LOG_INFO("Starting [%s] daemon.", service.name);
        return start_service(service) ? then_verify_start(service) : follow_up{};
    }
    LOG_INFO("Restarting [%s] daemon - start.", service.name);
    return stop_service(service) ? then_verify_stop(service, continue_restart) : follow_up{};
}

follow_up handle_reload(const file_service &service) {
    if (!service.is_enabled()) {
        LOG_INFO("Service [%s] is not enabled - ignoring RELOAD request", service.name);
        return {};
    }
    if (!service.is_running()) {
        LOG_INFO("Service [%s] is not running - RELOAD is not needed", service.name);
        return {};
    }
    LOG_INFO("File service [%s] has to be reconfigured.", service.name);
    return reload_and_verify(service);
}

follow_up handle_event(file_service_event event, const file_service &service) {
    switch (event) {
        case FILE_SERVICE_EVENT_STOP:
            return handle_stop(service);
        case FILE_SERVICE_EVENT_START:
            return handle_start(service);
        case FILE_SERVICE_EVENT_RESTART:
            return handle_restart(service);
        case FILE_SERVICE_EVENT_RELOAD:
            return handle_reload(service);
        default:
            return {};
    }
}

void process_queue(evutil_socket_t, short, void *data) {
    auto &state = *static_cast<service_state *>(data);
    const file_service &service = state.service;
    file_service_event event = FILE_SERVICE_EVENT_NONE;
    if (state.queue.empty()) {
        LOG_INFO("Events queue for [%s] is empty", service.name);
    } else {
        LOG_INFO("Number of events in [%s] queue: %d.", service.name,
                 static_cast<int>(state.queue.size()));
        event = file_service_simplify_events(state.queue);
        LOG_INFO("Events queue for [%s] simplified to: %s", service.name,
                 file_service_event_name(event));
    }
    state.queue.clear();
    const follow_up next = handle_event(event, service);
    if (next.callback != nullptr && next.seconds > 0) {
        schedule_verification(state, next);
        LOG_INFO("Monitor event for [%s] scheduled for %d seconds", service.name, next.seconds);
    }
}

// --- Requests

// A pending run is pushed back: a burst is handled three seconds after its last request.
void arm_timer(service_state &state) {
    if (!state.timer) {
        state.timer.reset(event_new(loop, -1, 0, process_queue, &state));
    } else {
        event_del(state.timer.get());
    }
    const timeval delay = {.tv_sec = debounce_seconds, .tv_usec = 0};
    event_add(state.timer.get(), &delay);
    LOG_INFO("Event for [%s] scheduled for 3 seconds", state.service.name);
}

void handle_pending_events(service_state &state) {
    LOG_INFO("Handle pending events for [%s]", state.service.name);
    if (state.queue.empty()) {
        LOG_INFO("No pending events for [%s]", state.service.name);
        return;
    }
    LOG_INFO("Found %d pending events for [%s]", static_cast<int>(state.queue.size()),
             state.service.name);
    arm_timer(state);
}

void request_event(file_service_event event, service_state &state) {
    LOG_INFO("Requested event %s for [%s]", file_service_event_name(event), state.service.name);
    state.queue.push_back(event);
    if (state.busy != 0) {
        LOG_INFO("We are currently handling previous event for [%s]", state.service.name);
        return;
    }
    LOG_INFO("Event for [%s] can be handled now", state.service.name);
    arm_timer(state);
}

void request_gated_start(service_state &state) {
    if (!file_services_request_handler_is_central_storage_enabled()) {
        LOG_INFO("Central storage is off - START request cannot be generated");
        return;
    }
    LOG_INFO("Central storage is on - START request can be generated");
    request_event(FILE_SERVICE_EVENT_START, state);
}

void request_gated_reload(service_state &state) {
    if (!file_services_request_handler_is_central_storage_enabled()) {
        LOG_INFO("Central storage is off - RELOAD request cannot be generated");
        return;
    }
    LOG_INFO("Central storage is on - RELOAD request can be generated");
    request_event(FILE_SERVICE_EVENT_RELOAD, state);
}

file_service_event newest_event(const service_state &state) {
    return state.queue.empty() ? FILE_SERVICE_EVENT_NONE : state.queue.back();
}

bool is_running_or_about_to(const service_state &state) {
    return state.service.is_running() || newest_event(state) == FILE_SERVICE_EVENT_START;
}

void update_without_partitions(service_state &state) {
    LOG_INFO("There are no supported partitions");
    if (is_running_or_about_to(state)) {
        LOG_INFO("Service [%s] is enabled and running - requesting stop", state.service.name);
        request_event(FILE_SERVICE_EVENT_STOP, state);
    } else {
        LOG_INFO("Service [%s] is not running - fine", state.service.name);
    }
}

void update_with_partitions(service_state &state) {
    LOG_INFO("There are supported partitions");
    if (state.service.is_running() && newest_event(state) != FILE_SERVICE_EVENT_STOP) {
        LOG_INFO("Service [%s] is enabled and running - requesting reload", state.service.name);
        request_gated_reload(state);
    } else {
        LOG_INFO("Service [%s] is enabled but not running - requesting start", state.service.name);
        request_gated_start(state);
    }
}

void partition_list_received() {
    LOG_INFO("Update file services on startup");
    file_services_manager_update_file_services();
}

void partition_connected() {
    LOG_INFO("Update file services on partition connected");
    file_services_manager_update_file_services();
}

void partition_disconnected() {
    LOG_INFO("Update file services on partition disconnected");
    file_services_manager_update_file_services();
}

}  // namespace

bool file_services_manager_start(event_base *base) {
    loop = base;
    removable_devices_set_listener(partition_list_received, partition_connected,
                                   partition_disconnected);
    return true;
}

bool file_services_manager_stop() {
    for (const file_service &service : services) {
        stop_service(service);
    }
    return true;
}

bool file_services_manager_change_file_service_state_by_name(const char *name, bool enabled) {
    if (name == nullptr) {
        return false;
    }
    for (service_state &state : states) {
        const file_service &service = state.service;
        if (strcmp(service.name, name) != 0) {
            continue;
        }
        LOG_INFO("Saving new state of file service [%s]", service.name);
        if (!service.save_state(enabled)) {
            LOG_ERROR("Error saving new state of file service");
            return false;
        }
        if (!enabled) {
            LOG_INFO("Service [%s] has been disabled, requesting stop", service.name);
            request_event(FILE_SERVICE_EVENT_STOP, state);
            return true;
        }
        LOG_INFO("Service [%s] has been enabled", service.name);
        if (count_supported_partitions() >= 1) {
            LOG_INFO("Storage devices are present, requesting start of [%s] service", service.name);
            request_gated_start(state);
        }
        return true;
    }
    LOG_WARN("Unrecognised file service %s", name);
    return false;
}

void file_services_manager_update_file_services() {
    const int partitions = count_supported_partitions();
    LOG_INFO("Updating file services, number of supported partitions: %d", partitions);
    for (service_state &state : states) {
        if (!state.service.is_enabled()) {
            LOG_INFO("Service [%s] is disabled", state.service.name);
        } else if (partitions == 0) {
            update_without_partitions(state);
        } else {
            update_with_partitions(state);
        }
    }
}

void file_services_manager_reload_file_services() {
    LOG_INFO("Requesting reload of all file services");
    for (service_state &state : states) {
        const file_service &service = state.service;
        if (service.is_enabled() && service.is_running()) {
            LOG_INFO("Service [%s] is enabled and running - requesting restart", service.name);
            request_event(FILE_SERVICE_EVENT_STOP, state);
            request_gated_start(state);
        } else {
            LOG_INFO("Service [%s] is not enabled or not running - restart not needed",
                     service.name);
        }
    }
}

void file_services_manager_stop_file_services() {
    LOG_INFO("Requesting stop of all file services");
    for (service_state &state : states) {
        const file_service &service = state.service;
        if (!service.is_enabled()) {
            LOG_INFO("Service [%s] is not enabled - stop not needed", service.name);
        } else if (is_running_or_about_to(state)) {
            LOG_INFO("Service [%s] is enabled and running - requesting stop", service.name);
            request_event(FILE_SERVICE_EVENT_STOP, state);
        } else {
            LOG_INFO("Service [%s] is not running - stop not needed", service.name);
        }
    }
}

json_ptr file_services_manager_get_services_status() {
    json_ptr status(cJSON_CreateObject());
    cJSON *list = cJSON_AddArrayToObject(status.get(), "fileServices");
    for (const file_service &service : services) {
        cJSON *entry = cJSON_CreateObject();
        cJSON_AddStringToObject(entry, "service", service.name);
        cJSON_AddBoolToObject(entry, "enabled", service.is_enabled());
        cJSON_AddBoolToObject(entry, "running", service.is_running());
        cJSON_AddItemToArray(list, entry);
    }
    return status;
}

// Logs as "file_services_manager".
#include "sharing/file_service_queue.h"

#include "common/logger.h"
#include "disks/disks.h"
#include "sharing/share_settings.h"

namespace {

constexpr const char *log_category = "file_services_manager";
constexpr int debounce_seconds = 3;

// --- Actions

struct action {
    bool (*file_service::*begin)();
    file_service_event event;  // whose time it takes
    const char *failed;
    const char *initiated;
    const char *scheduled;
};
constexpr action stopping = {
    .begin = &file_service::stop,
    .event = FILE_SERVICE_EVENT_STOP,
    .failed = "Cannot stop file service [%s]",
    .initiated = "Stop of service [%s] initiated",
    .scheduled = "Schedule stop verification of [%s] service in %d seconds",
};
constexpr action starting = {
    .begin = &file_service::start,
    .event = FILE_SERVICE_EVENT_START,
    .failed = "Cannot start file service [%s]",
    .initiated = "Start of service [%s] initiaded",
    .scheduled = "Schedule start verification of [%s] service in %d seconds",
};
constexpr action reloading = {
    .begin = &file_service::reload,
    .event = FILE_SERVICE_EVENT_RELOAD,
    .failed = "Cannot reload file service [%s]",
    .initiated = "Reload of service [%s] initiated",
    .scheduled = "Schedule reload verification of [%s] service in %d seconds",
};

bool begin(const file_service &service, const action &wanted) {
    if (!(service.*wanted.begin)()) {
        LOG_ERROR(wanted.failed, service.name);
        return false;
    }
    LOG_INFO(wanted.initiated, service.name);
    return true;
}

// --- Verification: looks at a daemon after an action and logs what it sees, no more.

using verification = void (*)(file_service_queue &queue);

// What follows a successful action; no verification when there is none, or none is needed.
struct follow_up {
    verification callback = nullptr;
    int seconds = 0;
};

void start_timer(file_service_queue &queue, int seconds,
                 void (*expired)(file_service_queue &queue)) {
    if (!queue.timer) {
        queue.timer = timer_new([&queue] {
            queue.busy = 0;
            queue.expired(queue);
        });
    }
    queue.expired = expired;
    timer_start(*queue.timer, seconds);
}

void schedule_verification(file_service_queue &queue, const follow_up &next) {
    queue.busy = next.seconds;
    start_timer(queue, next.seconds, next.callback);
}

void handle_pending_events(file_service_queue &queue);

void start_check(file_service_queue &queue) {
    if (queue.service.is_running()) {
        LOG_INFO("Service [%s] is running - as expected", queue.service.name);
    } else {
        LOG_WARN("File service [%s] is not yet running", queue.service.name);
    }
    handle_pending_events(queue);
}

void stop_check(file_service_queue &queue) {
    if (!queue.service.is_running()) {
        LOG_INFO("Service [%s] is not running - as expected", queue.service.name);
    } else {
        LOG_WARN("File service [%s] is still running", queue.service.name);
    }
    handle_pending_events(queue);
}

void reload_check(file_service_queue &queue) {
    LOG_INFO("Service [%s] should be reloaded now", queue.service.name);
    handle_pending_events(queue);
}

// Much may have changed since the restart was decided.
bool is_wanted(const file_service &service) {
    return service.is_enabled() && file_services_request_handler_is_central_storage_enabled() &&
           count_supported_partitions() > 0;
}

// The second half of a restart; it ends as a stop where nobody wants the service any more. kept:
// after a failed start the pending events wait for the next request.
void continue_restart(file_service_queue &queue) {
    const file_service &service = queue.service;
    LOG_INFO("Service [%s] should be stopped now, now it can be started", service.name);
    if (!is_wanted(service)) {
        stop_check(queue);
        return;
    }
    if (service.is_running()) {
        LOG_ERROR("File service [%s] is still running", service.name);
        handle_pending_events(queue);
        return;
    }
    LOG_INFO("Starting [%s] daemon.", service.name);
    if (!service.start()) {
        LOG_ERROR("Failed to start [%s] daemon.", service.name);
        return;
    }
    LOG_INFO("Start of service [%s] successfully initiated", service.name);
    const int seconds = service.time_req_for(FILE_SERVICE_EVENT_START);
    if (seconds > 0) {
        schedule_verification(queue, {start_check, seconds});
        LOG_INFO("Schedule start verification of [%s] service in %d seconds", service.name,
                 seconds);
    }
}

// --- The outcome of a reduced queue

follow_up begin_and_verify(const file_service &service, const action &wanted,
                           verification callback) {
    if (!begin(service, wanted)) {
        return {};
    }
    const int seconds = service.time_req_for(wanted.event);
    LOG_INFO(wanted.scheduled, service.name, seconds);
    return {callback, seconds};
}

follow_up handle_stop(const file_service &service) {
    if (!service.is_running()) {
        LOG_INFO("Service [%s] is not running - STOP is not needed", service.name);
        return {};
    }
    LOG_INFO("File service [%s] has to be stopped", service.name);
    return begin_and_verify(service, stopping, stop_check);
}

follow_up handle_start(const file_service &service) {
    if (!service.is_enabled()) {
        LOG_INFO("Service [%s] is not enabled - ignoring START request", service.name);
        return {};
    }
    if (service.is_running()) {
        LOG_INFO("File service [%s] is already started - running reconfiguration.", service.name);
        return begin_and_verify(service, reloading, reload_check);
    }
    LOG_INFO("File service [%s] has to be started.", service.name);
    return begin_and_verify(service, starting, start_check);
}

follow_up handle_restart(const file_service &service) {
    if (!service.is_enabled()) {
        LOG_INFO("Service [%s] is not enabled - ignoring RESTART request", service.name);
        return {};
    }
    if (!service.is_running()) {
        LOG_INFO("Starting [%s] daemon.", service.name);
        return begin_and_verify(service, starting, start_check);
    }
    LOG_INFO("Restarting [%s] daemon - start.", service.name);
    return begin_and_verify(service, stopping, continue_restart);
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
    return begin_and_verify(service, reloading, reload_check);
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

void process_queue(file_service_queue &queue) {
    const file_service &service = queue.service;
    file_service_event event = FILE_SERVICE_EVENT_NONE;
    if (queue.events.empty()) {
        LOG_INFO("Events queue for [%s] is empty", service.name);
    } else {
        LOG_INFO("Number of events in [%s] queue: %d.", service.name,
                 static_cast<int>(queue.events.size()));
        event = file_service_simplify_events(queue.events);
        LOG_INFO("Events queue for [%s] simplified to: %s", service.name,
                 file_service_event_name(event));
    }
    queue.events.clear();
    const follow_up next = handle_event(event, service);
    if (next.callback != nullptr && next.seconds > 0) {
        schedule_verification(queue, next);
        LOG_INFO("Monitor event for [%s] scheduled for %d seconds", service.name, next.seconds);
    }
}

// --- Requests

// A pending run is pushed back: a burst is handled three seconds after its last request.
void arm_timer(file_service_queue &queue) {
    start_timer(queue, debounce_seconds, process_queue);
    LOG_INFO("Event for [%s] scheduled for 3 seconds", queue.service.name);
}

void handle_pending_events(file_service_queue &queue) {
    LOG_INFO("Handle pending events for [%s]", queue.service.name);
    if (queue.events.empty()) {
        LOG_INFO("No pending events for [%s]", queue.service.name);
        return;
    }
    LOG_INFO("Found %d pending events for [%s]", static_cast<int>(queue.events.size()),
             queue.service.name);
    arm_timer(queue);
}

}  // namespace

std::array<file_service_queue, std::tuple_size_v<decltype(file_services)>> file_service_queues = {{
    {.service = file_services[0]},
    {.service = file_services[1]},
    {.service = file_services[2]},
}};

void file_service_queue_request(file_service_queue &queue, file_service_event event) {
    LOG_INFO("Requested event %s for [%s]", file_service_event_name(event), queue.service.name);
    queue.events.push_back(event);
    if (queue.busy != 0) {
        LOG_INFO("We are currently handling previous event for [%s]", queue.service.name);
        return;
    }
    LOG_INFO("Event for [%s] can be handled now", queue.service.name);
    arm_timer(queue);
}

file_service_event file_service_queue_newest(const file_service_queue &queue) {
    return queue.events.empty() ? FILE_SERVICE_EVENT_NONE : queue.events.back();
}

bool file_service_queue_starts_soon(const file_service_queue &queue) {
    const bool restarting = queue.busy != 0 && queue.expired == continue_restart;
    return restarting || file_service_queue_newest(queue) == FILE_SERVICE_EVENT_START;
}

bool file_service_queue_stop_service(const file_service_queue &queue) {
    return begin(queue.service, stopping);
}

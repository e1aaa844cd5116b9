// The requests to one file service: three seconds after the last one the queue is reduced to a
// single action, and after that action the daemon is watched for as long as it needs.
#pragma once

#include <array>
#include <tuple>
#include <vector>

#include "common/timer.h"
#include "sharing/file_service.h"
#include "sharing/file_service_events.h"

// Idle: nothing pending. Waiting: the timer runs. Verifying: the timer runs for the verification,
// of which `busy` holds the seconds, and requests only queue up.
struct file_service_queue {
    const file_service &service;
    timer_ptr timer = nullptr;                             // made on first use
    void (*expired)(file_service_queue &queue) = nullptr;  // what it runs down for
    std::vector<file_service_event> events = {};
    int busy = 0;
};

// One for each row of the table of services, in its order.
extern std::array<file_service_queue, std::tuple_size_v<decltype(file_services)>>
    file_service_queues;

void file_service_queue_request(file_service_queue &queue, file_service_event event);

// The latest request that is not handled yet, FILE_SERVICE_EVENT_NONE when there is none.
file_service_event file_service_queue_newest(const file_service_queue &queue);

// Whether a service that does not run is about to be started.
bool file_service_queue_starts_soon(const file_service_queue &queue);

// Stops the service at once, past its queue; false (logged) when that fails.
bool file_service_queue_stop_service(const file_service_queue &queue);

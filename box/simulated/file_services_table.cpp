#include "sharing/file_service.h"
#include "simulated/simulated_box.h"

#include "common/timer.h"

simulated_box::service simulated_box::services[3];

namespace {

using simulated_box::services;

time_t begin;

bool act(simulated_box::service &service, const char *sign, bool running) {
    service.done += std::to_string(timer_now() - begin) + sign + " ";
    if (!service.fails && !service.deaf) {
        service.runs_at =
            running && !service.running && service.late != 0 ? timer_now() + service.late : 0;
        service.running = running && service.runs_at == 0;
    }
    return !service.fails;
}

bool runs(simulated_box::service &service) {
    if (service.runs_at != 0 && service.runs_at <= timer_now()) {
        service.running = true;
        service.runs_at = 0;
    }
    return service.running;
}

template <int number, int start_seconds>
constexpr file_service row(const char *name) {
    return {name,
            [] { return act(services[number], "+", true); },
            [] { return act(services[number], "-", false); },
            [] { return act(services[number], "~", runs(services[number])); },
            [](bool enabled) {
                services[number].enabled = enabled;
                return true;
            },
            [] { return services[number].enabled; },
            [] { return runs(services[number]); },
            [](file_service_event action) {
                return file_service_time_for({.start = start_seconds, .stop = 5, .reload = 3},
                                             action);
            }};
}

}  // namespace

const std::array<file_service, 3> file_services = {row<0, 3>("Samba"), row<1, 10>("AFP"),
                                                   row<2, 3>("Avahi")};

void simulated_box::reset(time_t start) {
    simulated_box::reset_timers(start);
    take_commands();
    run = [](const std::string &, std::string &) { return 0; };
    begin = start;
    for (service &item : services) {
        item = {};
    }
}

// The file services' manager explored: every sequence of requests, up to a depth, with time passing
// between them, in simulated time. What is said here holds after each of them.
#include "sharing/file_services_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "config/config.h"
#include "disks/disk_lists.h"
#include "disks/disks.h"
#include "helpers.h"
#include "sharing/file_service_queue.h"
#include "sharing/share_settings.h"
#include "sharing/sharing.h"
#include "simulated/simulated_box.h"

namespace {

using simulated_box::running_timers;
using simulated_box::service;
using simulated_box::services;
constexpr size_t count = 3;

auto queue_and_service(size_t i) {
    file_service_queue &queue = file_service_queues[i];
    return std::tie(queue.events, queue.busy, queue.expired, services[i]);
}

// Everything that the next step depends on; put back, it turns time back.
struct situation {
    using queue_and_service = std::tuple<std::vector<file_service_event>, int,
                                         decltype(file_service_queue::expired), service>;
    std::array<queue_and_service, count> queues;
    std::vector<simulated_box::running_timer> timers;
    time_t time;
    bool central_storage;
    int partitions;
};

void set_central_storage(bool enabled) {
    if (enabled != file_services_request_handler_is_central_storage_enabled()) {
        set_config_flag("centralStorage.enabled", enabled);
    }
}

void set_partitions(int wanted) {
    for (int i = count_supported_partitions(); i < wanted; ++i) {
        disk_lists_add_partition(parse(R"({"syspath": "a", "mount_point": "/media/a"})"));
    }
    for (int i = count_supported_partitions(); i > wanted; --i) {
        disk_lists_remove_partition("a");
    }
}

situation take() {
    situation here;
    here.timers = running_timers;
    here.time = simulated_box::now;
    here.central_storage = file_services_request_handler_is_central_storage_enabled();
    here.partitions = count_supported_partitions();
    for (size_t i = 0; i < count; ++i) {
        services[i].done.clear();
        here.queues[i] = queue_and_service(i);
    }
    return here;
}

void put(const situation &there) {
    running_timers = there.timers;
    simulated_box::now = there.time;
    set_central_storage(there.central_storage);
    set_partitions(there.partitions);
    for (size_t i = 0; i < count; ++i) {
        queue_and_service(i) = there.queues[i];
    }
}

// Two situations with the same name go on alike.
std::string name_of(const situation &here) {
    std::string name;
    const auto add = [&name](time_t number) { name += static_cast<char>(number); };
    for (const auto &[events, busy, expired, service] : here.queues) {
        add(file_service_simplify_events(events));
        add(events.empty() ? FILE_SERVICE_EVENT_NONE : events.back());
        add(busy);
        if (busy != 0) {
            name.append(reinterpret_cast<const char *>(&expired), sizeof expired);
        }
        add((service.enabled ? 1 : 0) + (service.running ? 2 : 0) + (service.fails ? 4 : 0) +
            (service.deaf ? 8 : 0) + (service.late != 0 ? 16 : 0));
        add(service.runs_at == 0 ? 0 : service.runs_at - here.time);
    }
    for (const simulated_box::running_timer &timer : here.timers) {
        name.append(reinterpret_cast<const char *>(&timer.item), sizeof timer.item);
        add(timer.end - here.time);
    }
    add((here.central_storage ? 1 : 0) + 2 * here.partitions);
    return name;
}

void pass_to_next_timer() {
    if (!running_timers.empty()) {
        simulated_box::pass(static_cast<int>(running_timers.front().end - simulated_box::now));
    }
}

void switch_central_storage() {
    const bool enabled = !file_services_request_handler_is_central_storage_enabled();
    set_central_storage(enabled);
    enabled ? file_services_manager_update_file_services()
            : file_services_manager_stop_file_services();
}

void plug(int more) {
    const int partitions = count_supported_partitions() + more;
    if (partitions >= 0 && partitions <= 2) {
        set_partitions(partitions);
        file_services_manager_update_file_services();
    }
}

void switch_service(size_t i) {
    file_services_manager_change_file_service_state_by_name(file_services[i].name,
                                                            !services[i].enabled);
}

struct step {
    const char *name;
    void (*act)();
};
constexpr step requests[] = {
    {"next timer", pass_to_next_timer},
    {"a second", [] { simulated_box::pass(1); }},
    {"plug", [] { plug(1); }},
    {"unplug", [] { plug(-1); }},
    {"central storage", switch_central_storage},
    {"protection", file_services_manager_reload_file_services},
    {"Samba", [] { switch_service(0); }},
    {"AFP", [] { switch_service(1); }},
    {"Avahi", [] { switch_service(2); }},
};
constexpr step faults[] = {
    {"Samba fails", [] { services[0].fails = !services[0].fails; }},
    {"AFP late", [] { services[1].late = services[1].late == 0 ? 12 : 0; }},
    {"Avahi deaf", [] { services[2].deaf = !services[2].deaf; }},
};

class exploration : public testing::Test {
protected:
    void SetUp() override {
        simulated_box::reset();
        disk_lists_reset();
        file_services_manager_start();
    }

    void explore(int depth) {
        ++steps;
        check_step();
        const situation here = take();
        const auto [known, is_new] = depths.try_emplace(name_of(here), depth);
        if (!is_new && known->second >= depth) {
            return;
        }
        known->second = depth;
        if (is_new && running_timers.empty()) {
            check_quiet();
            put(here);
        }
        if (depth == 0) {
            if (!running_timers.empty()) {
                pass_to_next_timer();
                explore(0);
            }
            return;
        }
        for (const step &next : actions) {
            if (HasFailure()) {
                return;
            }
            path.push_back(next.name);
            next.act();
            explore(depth - 1);
            put(here);
            path.pop_back();
        }
    }

    static bool is_wanted(size_t i) {
        return services[i].enabled && count_supported_partitions() > 0 &&
               file_services_request_handler_is_central_storage_enabled();
    }

    void check_step() {
        for (size_t i = 0; i < count; ++i) {
            const file_service_queue &queue = file_service_queues[i];
            EXPECT_TRUE(is_wanted(i) || services[i].done.find('+') == std::string::npos)
                << file_services[i].name << described();
            // What is verified ends.
            EXPECT_TRUE(queue.busy == 0 || std::any_of(running_timers.begin(), running_timers.end(),
                                                       [&queue](const auto &timer) {
                                                           return timer.item == queue.timer.get();
                                                       }))
                << described();
        }
    }

    // Everything has come to rest: what is wanted runs, and nothing else. A service that failed,
    // was late or deaf is so when it was asked for the next time.
    void check_quiet() {
        if (with_faults) {
            ask_again();
        }
        for (size_t i = 0; i < count; ++i) {
            EXPECT_EQ(services[i].running, is_wanted(i)) << file_services[i].name << described();
            EXPECT_TRUE(file_service_queues[i].events.empty()) << described();
        }
    }

    static void ask_again() {
        simulated_box::pass(60);
        for (size_t i = 0; i < count; ++i) {
            services[i].fails = services[i].deaf = false;
            services[i].late = 0;
            file_services[i].is_running();
            if (!services[i].enabled) {
                file_services_manager_change_file_service_state_by_name(file_services[i].name,
                                                                        false);
            }
        }
        if (file_services_request_handler_is_central_storage_enabled()) {
            file_services_manager_update_file_services();
        } else {
            file_services_manager_stop_file_services();
        }
        simulated_box::pass(60);
    }

    std::string described() const {
        std::string text = " after";
        for (const char *name : path) {
            text += std::string(", ") + name;
        }
        return text;
    }

    const stored_document document{R"({"centralStorage": {"enabled": true}})"};
    std::vector<step> actions{std::begin(requests), std::end(requests)};
    bool with_faults = false;
    std::unordered_map<std::string, int> depths;
    std::vector<const char *> path;
    size_t steps = 0;
};

#ifdef __SANITIZE_ADDRESS__
constexpr int depth_of_requests = 8;
constexpr int depth_with_faults = 6;
#else
constexpr int depth_of_requests = 11;
constexpr int depth_with_faults = 8;
#endif

TEST_F(exploration, keeps_running_what_is_wanted_and_nothing_else) {
    explore(depth_of_requests);
    printf("%zu steps to %zu situations\n", steps, depths.size());
}

TEST_F(exploration, gets_over_services_that_fail_and_are_late_or_deaf) {
    actions.insert(actions.end(), std::begin(faults), std::end(faults));
    with_faults = true;
    explore(depth_with_faults);
    printf("%zu steps to %zu situations\n", steps, depths.size());
}

}  // namespace

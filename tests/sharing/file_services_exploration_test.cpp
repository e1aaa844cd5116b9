// The file services' manager explored: requests, faults and time that passes between them.
#include <array>
#include <tuple>

#include "config/config.h"
#include "disks/disk_lists.h"
#include "disks/disks.h"
#include "helpers.h"
#include "sharing/file_service_queue.h"
#include "sharing/file_services_manager.h"
#include "sharing/share_settings.h"
#include "sharing/sharing.h"
#include "simulated/exploration.h"

namespace {

using simulated_box::act;
using simulated_box::running_timers;
using simulated_box::service;
using simulated_box::services;
constexpr size_t count = 3;
constexpr auto central_storage = file_services_request_handler_is_central_storage_enabled;

auto queue_and_service(size_t i) {
    file_service_queue &queue = file_service_queues[i];
    return std::tie(queue.events, queue.busy, queue.expired, services[i]);
}

struct situation {
    using queue_and_service = std::tuple<std::vector<file_service_event>, int,
                                         decltype(file_service_queue::expired), service>;
    std::array<queue_and_service, count> queues;
    std::vector<simulated_box::running_timer> timers = running_timers;
    time_t time = simulated_box::now;
    bool is_central = central_storage();
    int partitions = count_supported_partitions();
};

void set_central_storage(bool enabled) {
    if (enabled != central_storage()) {
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

void follow_central_storage() {
    central_storage() ? file_services_manager_update_file_services()
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

const std::vector<act> requests = {
    {"next timer", simulated_box::pass_to_next_timer},
    {"a second", [] { simulated_box::pass(1); }},
    {"plug", [] { plug(1); }},
    {"unplug", [] { plug(-1); }},
    {"central storage",
     [] {
         set_central_storage(!central_storage());
         follow_central_storage();
     }},
    {"protection", file_services_manager_reload_file_services},
    {"Samba", [] { switch_service(0); }},
    {"AFP", [] { switch_service(1); }},
    {"Avahi", [] { switch_service(2); }},
};
const std::vector<act> faults = {
    {"Samba fails", [] { services[0].fails = !services[0].fails; }},
    {"AFP late", [] { services[1].late = services[1].late == 0 ? 12 : 0; }},
    {"Avahi deaf", [] { services[2].deaf = !services[2].deaf; }},
};

class file_services_exploration : public simulated_box::exploration<situation> {
protected:
    void SetUp() override {
        simulated_box::reset();
        disk_lists_reset();
        file_services_manager_start();
    }

    situation take() override {
        situation here;
        for (size_t i = 0; i < count; ++i) {
            services[i].done.clear();
            here.queues[i] = queue_and_service(i);
        }
        return here;
    }

    void put(const situation &there) override {
        running_timers = there.timers;
        simulated_box::now = there.time;
        set_central_storage(there.is_central);
        set_partitions(there.partitions);
        for (size_t i = 0; i < count; ++i) {
            queue_and_service(i) = there.queues[i];
        }
    }

    std::string name() override {
        std::string text;
        const auto add = [&text](time_t number) { text += static_cast<char>(number); };
        for (size_t i = 0; i < count; ++i) {
            const auto &[events, busy, expired, service] = queue_and_service(i);
            add(file_service_simplify_events(events));
            add(events.empty() ? FILE_SERVICE_EVENT_NONE : events.back());
            add(busy);
            const auto then = busy == 0 ? nullptr : expired;
            text.append(reinterpret_cast<const char *>(&then), sizeof then);
            add(service.enabled + service.running * 2 + service.fails * 4 + service.deaf * 8 +
                (service.late != 0) * 16);
            add(service.runs_at == 0 ? 0 : service.runs_at - simulated_box::now);
        }
        for (const simulated_box::running_timer &timer : running_timers) {
            text.append(reinterpret_cast<const char *>(&timer.item), sizeof timer.item);
            add(timer.end - simulated_box::now);
        }
        add(central_storage() + 2 * count_supported_partitions());
        return text;
    }

    static bool is_wanted(size_t i) {
        return services[i].enabled && count_supported_partitions() > 0 && central_storage();
    }

    void check_step() override {
        for (size_t i = 0; i < count; ++i) {
            const file_service_queue &queue = file_service_queues[i];
            EXPECT_TRUE(is_wanted(i) || services[i].done.find('+') == std::string::npos) << i;
            EXPECT_TRUE(queue.busy == 0 ||
                        std::any_of(running_timers.begin(), running_timers.end(),
                                    [&queue](const simulated_box::running_timer &timer) {
                                        return timer.item == queue.timer.get();
                                    }))
                << i << " is verified for ever";
        }
    }

    // Everything has come to rest: what is wanted runs, and nothing else. A service that failed,
    // was late or deaf is so when it was asked for the next time.
    void check_situation() override {
        if (!running_timers.empty()) {
            return;
        }
        if (with_faults) {
            ask_again();
        }
        for (size_t i = 0; i < count; ++i) {
            EXPECT_EQ(services[i].running, is_wanted(i)) << i;
            EXPECT_TRUE(file_service_queues[i].events.empty()) << i;
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
        follow_central_storage();
        simulated_box::pass(60);
    }

    const stored_document document{R"({"centralStorage": {"enabled": true}})"};
    bool with_faults = false;
};

TEST_F(file_services_exploration, waits_after_the_last_request_and_for_the_action_before) {
    plug(1);
    simulated_box::pass(2);
    plug(1);
    simulated_box::pass(4);
    plug(-1);  // while the start is watched
    simulated_box::pass(20);
    EXPECT_EQ(services[0].done, "5+ 11~ ");
    EXPECT_EQ(services[1].done, "5+ 18~ ");
    // Within the three seconds: the server starts again, for it may have held on to the old disk.
    plug(-1);
    simulated_box::pass(2);
    plug(1);
    simulated_box::pass(60);
    EXPECT_EQ(services[0].done, "5+ 11~ 31- 36+ ");
    // A start with a reload is watched as long as a start.
    EXPECT_EQ(file_service_simplify_events({FILE_SERVICE_EVENT_START, FILE_SERVICE_EVENT_RELOAD}),
              FILE_SERVICE_EVENT_START);
}

TEST_F(file_services_exploration, keeps_running_what_is_wanted_and_nothing_else) {
    explore(requests, 11);
}

TEST_F(file_services_exploration, gets_over_services_that_fail_and_are_late_or_deaf) {
    std::vector<act> all = requests;
    all.insert(all.end(), faults.begin(), faults.end());
    with_faults = true;
    explore(all, 8);
}

}  // namespace

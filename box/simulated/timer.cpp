#include "common/timer.h"

#include <algorithm>
#include <utility>

#include "simulated/simulated_box.h"

class timer {
public:
    std::shared_ptr<unique_function<void()>> expired;
};

using simulated_box::now;
using simulated_box::running_timer;
using simulated_box::running_timers;

std::vector<running_timer> simulated_box::running_timers;
time_t simulated_box::now;

namespace {

// Timers with equal ends run down in the order of their starts.
void start(running_timer added, int seconds) {
    added.end = now + std::max(seconds, 0);
    const auto place =
        std::find_if(running_timers.begin(), running_timers.end(),
                     [&added](const running_timer &other) { return other.end > added.end; });
    running_timers.insert(place, std::move(added));
}

}  // namespace

void timer_use_loop(event_base *) {}

event_base *timer_loop() {
    return nullptr;
}

void timer_release(timer *item) {
    timer_stop(*item);
    std::default_delete<timer>()(item);
}

timer_ptr timer_new(unique_function<void()> expired) {
    auto item = std::make_unique<timer>();
    item->expired = std::make_shared<unique_function<void()>>(std::move(expired));
    return timer_ptr(item.release());
}

bool timer_start(timer &item, int seconds) {
    timer_stop(item);
    start({0, &item, item.expired}, seconds);
    return true;
}

bool timer_stop(timer &item) {
    std::erase_if(running_timers,
                  [&item](const running_timer &other) { return other.item == &item; });
    return true;
}

time_t timer_now() {
    return now;
}

void simulated_box::pass(int seconds) {
    const time_t end = now + seconds;
    while (!running_timers.empty() && running_timers.front().end <= end) {
        const running_timer first = running_timers.front();
        running_timers.erase(running_timers.begin());
        now = first.end;
        (*first.expired)();
    }
    now = end;
}

void simulated_box::reset_timers(time_t time) {
    running_timers.clear();
    now = time;
}

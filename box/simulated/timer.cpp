#include "common/timer.h"

#include <algorithm>
#include <list>
#include <utility>

#include "simulated/simulated_box.h"

class timer {
public:
    std::shared_ptr<unique_function<void()>> expired;
};

namespace {

struct running_timer {
    time_t end;
    const timer *item;  // null: runs once and belongs to nobody
    std::shared_ptr<unique_function<void()>> expired;
};

time_t current_time;
std::list<running_timer> running;  // by their ends, equal ends in the order of their starts

void start(const timer *item, int seconds, std::shared_ptr<unique_function<void()>> expired) {
    const time_t end = current_time + std::max(seconds, 0);
    const auto place = std::find_if(running.begin(), running.end(),
                                    [end](const running_timer &other) { return other.end > end; });
    running.insert(place, {end, item, std::move(expired)});
}

}  // namespace

void timer_deleter::operator()(timer *item) const {
    timer_stop(*item);
    std::default_delete<timer>()(item);
}

timer_ptr timer_new(event_base *, unique_function<void()> expired) {
    auto item = std::make_unique<timer>();
    item->expired = std::make_shared<unique_function<void()>>(std::move(expired));
    return timer_ptr(item.release());
}

bool timer_start(timer &item, int seconds) {
    timer_stop(item);
    start(&item, seconds, item.expired);
    return true;
}

bool timer_stop(timer &item) {
    running.remove_if([&item](const running_timer &other) { return other.item == &item; });
    return true;
}

bool timer_once(event_base *, int seconds, unique_function<void()> expired) {
    start(nullptr, seconds, std::make_shared<unique_function<void()>>(std::move(expired)));
    return true;
}

time_t timer_now() {
    return current_time;
}

void simulated_box::pass(int seconds) {
    const time_t end = current_time + seconds;
    while (!running.empty() && running.front().end <= end) {
        const running_timer first = running.front();
        running.pop_front();
        current_time = first.end;
        (*first.expired)();
    }
    current_time = end;
}

size_t simulated_box::timers() {
    return running.size();
}

void simulated_box::reset_timers(time_t now) {
    running.clear();
    current_time = now;
}

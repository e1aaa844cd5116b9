#include "common/timer.h"

#include <event2/event.h>

#include <memory>
#include <utility>

namespace {

event_base *loop = nullptr;

}  // namespace

class timer {
public:
    explicit timer(unique_function<void()> expired)
        : expired_(std::make_shared<unique_function<void()>>(std::move(expired))) {}

    bool add_to_loop() {
        event_.reset(evtimer_new(loop, fire, this));
        return event_ != nullptr;
    }

    event *get() const {
        return event_.get();
    }

private:
    static void fire(evutil_socket_t, short, void *data) {
        // Held here: the function may let go of the timer, and of itself with it.
        const auto expired = static_cast<timer *>(data)->expired_;
        (*expired)();
    }

    handle<event, event_free> event_;
    std::shared_ptr<unique_function<void()>> expired_;
};

void timer_use_loop(event_base *base) {
    loop = base;
}

event_base *timer_loop() {
    return loop;
}

void timer_release(timer *item) {
    std::default_delete<timer>()(item);
}

timer_ptr timer_new(unique_function<void()> expired) {
    auto item = std::make_unique<timer>(std::move(expired));
    return item->add_to_loop() ? timer_ptr(item.release()) : nullptr;
}

bool timer_start(timer &item, int seconds) {
    const timeval delay = {.tv_sec = seconds, .tv_usec = 0};
    return evtimer_add(item.get(), &delay) == 0;
}

bool timer_stop(timer &item) {
    return evtimer_del(item.get()) == 0;
}

time_t timer_now() {
    return time(nullptr);
}

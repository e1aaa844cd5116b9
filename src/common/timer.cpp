#include "common/timer.h"

#include <utility>

#include "common/event_ptr.h"

class timer {
public:
    explicit timer(unique_function<void()> expired)
        : expired_(std::make_shared<unique_function<void()>>(std::move(expired))) {}

    bool add_to(event_base *loop) {
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

    event_ptr event_;
    std::shared_ptr<unique_function<void()>> expired_;
};

void timer_deleter::operator()(timer *item) const {
    std::default_delete<timer>()(item);
}

timer_ptr timer_new(event_base *loop, unique_function<void()> expired) {
    auto item = std::make_unique<timer>(std::move(expired));
    return item->add_to(loop) ? timer_ptr(item.release()) : nullptr;
}

bool timer_start(timer &item, int seconds) {
    const timeval delay = {.tv_sec = seconds, .tv_usec = 0};
    return evtimer_add(item.get(), &delay) == 0;
}

bool timer_stop(timer &item) {
    return evtimer_del(item.get()) == 0;
}

bool timer_once(event_base *loop, int seconds, unique_function<void()> expired) {
    const timeval delay = {.tv_sec = seconds, .tv_usec = 0};
    auto function = std::make_unique<unique_function<void()>>(std::move(expired));
    const auto fire = [](evutil_socket_t, short, void *data) {
        const std::unique_ptr<unique_function<void()>> owned(
            static_cast<unique_function<void()> *>(data));
        (*owned)();
    };
    if (event_base_once(loop, -1, EV_TIMEOUT, fire, function.get(), &delay) != 0) {
        return false;
    }
    static_cast<void>(function.release());  // freed when it fires
    return true;
}

time_t timer_now() {
    return time(nullptr);
}

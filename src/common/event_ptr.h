// Owning handle for events of the event loop; freeing one also takes it off the loop.
#pragma once

#include <event2/event.h>

#include <memory>

struct event_deleter {
    void operator()(event *item) const {
        event_free(item);
    }
};

using event_ptr = std::unique_ptr<event, event_deleter>;

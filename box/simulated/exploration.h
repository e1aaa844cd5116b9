// Explores a service: every sequence of acts up to a depth, in simulated time. A test says what an
// act is, what the next one depends on, and what must hold after each.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

#include "simulated/simulated_box.h"

namespace simulated_box {

struct act {
    const char *name;
    void (*run)();
};

inline void pass_to_next_timer() {
    if (!running_timers.empty()) {
        pass(static_cast<int>(running_timers.front().end - now));
    }
}

template <class Situation>
class exploration : public testing::Test {
protected:
    // All that the next act depends on; put back, it turns time back.
    virtual Situation take() = 0;
    virtual void put(const Situation &there) = 0;
    // Two situations with the same name go on alike.
    virtual std::string name() = 0;

    virtual void check_step() {}         // after every act
    virtual void check_situation() = 0;  // in every situation once; may act

    // At the end of a sequence the timers run down.
    void explore(std::vector<act> with, int depth) {
        acts_ = std::move(with);
        go_on(depth);
    }

    std::vector<const act *> path;  // to here

private:
    void go_on(int depth) {
        static constexpr act run_down = {"next timer", pass_to_next_timer};
        check_step();
        const auto [known, is_new] = depths_.try_emplace(name(), depth);
        if (!is_new && known->second >= depth) {
            return;
        }
        known->second = depth;
        const Situation here = take();
        if (is_new) {
            check_situation();
            put(here);
        }
        if (depth == 0) {
            if (timers() != 0) {
                follow(run_down, 0, here);
            }
            return;
        }
        for (const act &next : acts_) {
            follow(next, depth - 1, here);
        }
    }

    void follow(const act &next, int depth, const Situation &here) {
        if (HasFailure()) {
            return;  // the first one says it all
        }
        const testing::ScopedTrace trace(__FILE__, __LINE__, next.name);
        path.push_back(&next);
        next.run();
        go_on(depth);
        put(here);
        path.pop_back();
    }

    std::vector<act> acts_;
    std::unordered_map<std::string, int> depths_;  // how deep it went on from a name
};

}  // namespace simulated_box

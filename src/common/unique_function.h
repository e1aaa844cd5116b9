// A callable that is moved, not copied, so that a callback can own what it answers with.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

template <class Signature>
class unique_function;

template <class Result, class... Arguments>
class unique_function<Result(Arguments...)> {
public:
    unique_function() = default;
    unique_function(std::nullptr_t) {}
    template <class Callable,
              class = std::enable_if_t<!std::is_same_v<std::decay_t<Callable>, unique_function>>>
    unique_function(Callable &&callable)
        : target_(
              std::make_unique<holder<std::decay_t<Callable>>>(std::forward<Callable>(callable))) {}

    explicit operator bool() const {
        return target_ != nullptr;
    }
    Result operator()(Arguments... arguments) {
        return target_->call(std::forward<Arguments>(arguments)...);
    }

private:
    struct base {
        virtual ~base() = default;
        virtual Result call(Arguments... arguments) = 0;
    };
    template <class Callable>
    struct holder : base {
        explicit holder(Callable source) : callable(std::move(source)) {}
        Result call(Arguments... arguments) override {
            return callable(std::forward<Arguments>(arguments)...);
        }
        Callable callable;
    };

    std::unique_ptr<base> target_;
};

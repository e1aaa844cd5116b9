// Owning handle for an object of a C library: given back by the library's own function. A plain
// pointer to such an object is borrowed.
#pragma once

#include <memory>

template <class T, auto release>
struct released_by {
    void operator()(T *item) const {
        release(item);
    }
};

template <class T, auto release>
using handle = std::unique_ptr<T, released_by<T, release>>;

// A piece of work that can be done any number of times in a row, so that calls of a few nanoseconds can be
// timed.
#pragma once

#include <cstddef>
#include <functional>

namespace bench {

using Work = std::function<void(size_t times)>;

// `call` again and again; what one call stores cannot be left out because the next stores it again.
template <class Call>
Work repeat(Call call) {
    return [call](size_t times) {
        Call mine = call;  // what it holds stays in registers
        for (size_t i = 0; i < times; ++i) {
            mine();
            asm volatile("" ::: "memory");
        }
    };
}

}  // namespace bench

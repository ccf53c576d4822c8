// The bridge's only clock, so that tests can replace it.
#pragma once

#include <chrono>

namespace kesto::bridge {

struct Clock {
    using duration = std::chrono::steady_clock::duration;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<Clock>;
    static constexpr bool is_steady = true;
    static time_point now() noexcept;
};

using Time = Clock::time_point;

}  // namespace kesto::bridge

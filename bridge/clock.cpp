#include "bridge/clock.h"

namespace kesto::bridge {

Clock::time_point Clock::now() noexcept {
    return time_point(std::chrono::steady_clock::now().time_since_epoch());
}

}  // namespace kesto::bridge

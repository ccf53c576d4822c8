#include "bridge/loop.h"

namespace kesto::bridge {
namespace {

// One timer serves all time limits: a timer that is set anew with each byte would cost system calls.
constexpr std::chrono::milliseconds kTick(250);

}  // namespace

bool Loop::RunOnce(const std::function<void()>& let_in) {
    Contain([&] { bridge_.io.run_one_until(next_tick_); });
    const Time now = Clock::now();
    const bool tick = now >= next_tick_;
    if (tick) {
        next_tick_ = now + kTick;
        // First what it finds out: a scan whose time is over may still get a server that is up again.
        Contain([&] { upkeep_.Tick(now); });
        Tick(bridge_, now);
        bridge_.room.ShrinkSpare();
    }
    GoOn(bridge_, now);
    Contain(let_in);
    return tick;
}

}  // namespace kesto::bridge

// The bridge's loop: everything that follows from one event, in its order.
#pragma once

#include <exception>
#include <functional>

#include "bridge/bridge.h"
#include "bridge/upkeep.h"

namespace kesto::bridge {

// Running out of memory must fail only the operation concerned: the exception is logged, and all else goes
// on.
template <typename Work>
void Contain(Work work) {
    try {
        work();
    } catch (const std::exception&) {
        LogException();
    }
}

class Loop {
 public:
    explicit Loop(Bridge& bridge) : bridge_(bridge), upkeep_(bridge) {}

    // Waits for one event until the next tick at most, and does all that has become possible. `let_in` lets
    // in the client that has arrived, if there is room. True when a tick has passed: four a second.
    bool RunOnce(const std::function<void()>& let_in);

 private:
    Bridge& bridge_;
    Upkeep upkeep_;
    Time next_tick_ = Clock::now();
};

}  // namespace kesto::bridge

// Waiting for what another thread or process does. Every wait ends after a limit, so that a test fails and
// does not hang.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kesto {

constexpr std::chrono::milliseconds kTestLimit{10000};

// Asks until the condition holds; false when the limit passes first.
inline bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = kTestLimit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    bool holds = condition();
    for (; !holds && std::chrono::steady_clock::now() < until; holds = condition()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return holds;
}

}  // namespace kesto

// Virtual time, in which events and the handlers of operations have their order.
#pragma once

#include <algorithm>
#include <asio/error_code.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "bridge/clock.h"
#include "tests/simulation/memory.h"

namespace kesto::simulation {

using bridge::Clock;
using bridge::Time;
using Duration = Clock::duration;
using Handler = std::function<void(const asio::error_code&, size_t)>;
using namespace std::chrono_literals;

// The same numbers for a seed everywhere, which the distributions of the standard library do not promise.
class Dice {
 public:
    explicit Dice(uint64_t seed) : state_(seed) {}
    uint64_t Below(uint64_t end);
    bool OneIn(uint64_t chances) { return Below(chances) == 0; }
    uint64_t Between(uint64_t low, uint64_t high) { return low + Below(high - low + 1); }
    uint64_t Wide(uint64_t low, uint64_t high);  // all magnitudes alike
    Duration Time(Duration low, Duration high);  // the same

 private:
    uint64_t state_;
};

struct Line;
using LinePtr = std::shared_ptr<Line>;

class Network {
 public:
    explicit Network(uint64_t seed) : dice(seed) { it_ = this; }
    static Network& It() { return *it_; }

    // Something of the world's happens.
    void After(Duration delay, std::function<void()> event) { queue_.insert({now + delay, {event, false}}); }
    // An operation of the bridge's has ended.
    void Wake(Handler handler, asio::error_code error, size_t size, Duration told_after = {});
    // Lets one handler of the bridge's run, and all that happens before.
    void RunOne(Time until);
    void Clear() { queue_.clear(); }

    Time now{24h};
    Dice dice;
    bool system_takes =
        true;           // a write is complete when the system has it, otherwise when the other side has it
    size_t open = 0;    // connections that the bridge has not closed
    size_t waking = 0;  // handlers that are to run
    size_t at_this_moment = 0;  // handlers since the time moved
    std::function<LinePtr(const std::string& where)> connect;

 private:
    struct Event {
        std::function<void()> run;
        bool of_bridge;
    };
    static inline Network* it_ = nullptr;
    std::multimap<Time, Event> queue_;  // those of one moment in their order
};

inline uint64_t Dice::Below(uint64_t end) {
    uint64_t z = state_ += 0x9e3779b97f4a7c15;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    return (z ^ z >> 31) % end;
}

inline uint64_t Dice::Wide(uint64_t low, uint64_t high) {
    uint64_t top = high;
    while (top / 4 > low && Below(4) != 0) {
        top /= 4;
    }
    return Between(low, top);
}

inline Duration Dice::Time(Duration low, Duration high) {
    return Duration(static_cast<Duration::rep>(
        Wide(static_cast<uint64_t>(low.count()), static_cast<uint64_t>(high.count()))));
}

inline void Network::Wake(Handler handler, asio::error_code error, size_t size, Duration told_after) {
    ++waking;
    queue_.insert(
        {now + told_after, {[handler = std::move(handler), error, size] { handler(error, size); }, true}});
}

inline void Network::RunOne(Time until) {
    while (!queue_.empty() && queue_.begin()->first <= std::max(until, now)) {
        const auto next = [&] {
            const Outside outside;
            return queue_.extract(queue_.begin());
        }();
        at_this_moment = next.key() > now ? 0 : at_this_moment + 1;
        now = std::max(now, next.key());
        waking -= next.mapped().of_bridge;
        const Inside whose(next.mapped().of_bridge);
        next.mapped().run();
        if (next.mapped().of_bridge) {
            return;
        }
    }
    at_this_moment = until > now ? 0 : at_this_moment;
    now = std::max(now, until);
}

}  // namespace kesto::simulation

namespace asio {

class io_context {
 public:
    using executor_type = int;
    explicit io_context(int /*threads*/) {}
    executor_type get_executor() { return 0; }
    void run_one_until(kesto::bridge::Time until) { kesto::simulation::Network::It().RunOne(until); }
    void stop() { stopped_ = true; }
    bool stopped() const { return stopped_; }

 private:
    bool stopped_ = false;
};

}  // namespace asio

#include "bench/timing.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <future>
#include <mutex>
#include <utility>

namespace kesto {

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double SecondsFor(int calls, const Work& work, int threads) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const auto run = [&] {
        for (int i = 0; i < calls; ++i) {
            work();
        }
    };
    std::vector<std::future<void>> others;  // each waits for its thread when it is destroyed
    for (int i = 1; i < threads; ++i) {
        others.push_back(std::async(std::launch::async, run));
    }
    run();
    for (std::future<void>& other : others) {
        other.get();
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

Comparison Compare(int rounds, const Work& work, const Work& beside, int threads) {
    constexpr double kSecondsPerSide = 0.25;
    constexpr double kMostSeconds = 12;
    const double once = SecondsFor(1, work, threads);
    const double beside_once = SecondsFor(1, beside, threads);
    const int calls = static_cast<int>(std::clamp(kSecondsPerSide / std::max(once, beside_once), 1.0, 1e6));
    rounds = std::min(rounds, static_cast<int>(std::clamp(kMostSeconds / (once + beside_once), 3.0, 1e6)));
    std::vector<double> times, beside_times, speeds;
    for (int round = 0; round < rounds; ++round) {
        const bool first = round % 2 == 0;
        const double before = first ? SecondsFor(calls, work, threads) : 0;
        const double beside_seconds = SecondsFor(calls, beside, threads);
        const double seconds = first ? before : SecondsFor(calls, work, threads);
        times.push_back(seconds / calls);
        beside_times.push_back(beside_seconds / calls);
        speeds.push_back(beside_seconds / seconds);
    }
    return {Median(times), Median(beside_times), Median(speeds)};
}

Latency LatencyOf(int calls, const Work& work, int threads) {
    using Clock = std::chrono::steady_clock;
    std::vector<double> seconds;
    std::mutex guard;
    const Work timed = [&] {
        const auto start = Clock::now();
        work();
        const double taken = std::chrono::duration<double>(Clock::now() - start).count();
        const std::lock_guard lock(guard);
        seconds.push_back(taken);
    };
    SecondsFor(calls, timed, threads);
    const auto place = static_cast<std::ptrdiff_t>(seconds.size() * 99 / 100);
    std::nth_element(seconds.begin(), seconds.begin() + place, seconds.end());
    const double p99 = seconds[static_cast<size_t>(place)];
    return {Median(std::move(seconds)), p99};
}

}  // namespace kesto

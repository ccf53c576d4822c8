#include "bench/timing.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <mutex>
#include <thread>
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
    std::vector<std::exception_ptr> thrown(static_cast<size_t>(threads));
    auto run = [&](std::exception_ptr& failure) {
        try {
            for (int i = 0; i < calls; ++i) {
                work();
            }
        } catch (...) {
            failure = std::current_exception();
        }
    };
    std::vector<std::thread> others;
    for (size_t i = 1; i < thrown.size(); ++i) {
        others.emplace_back(run, std::ref(thrown[i]));
    }
    run(thrown[0]);
    for (std::thread& other : others) {
        other.join();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (const std::exception_ptr& failure : thrown) {
        if (failure) {
            std::rethrow_exception(failure);
        }
    }
    return seconds;
}

Comparison Compare(int rounds, const Work& work, const Work& beside, int threads) {
    constexpr double kSecondsPerSide = 0.25;
    constexpr double kMostSeconds = 12;
    const double once = SecondsFor(1, work, threads);
    const double beside_once = SecondsFor(1, beside, threads);
    const int calls = static_cast<int>(std::clamp(kSecondsPerSide / std::max(once, beside_once), 1.0, 1e6));
    if (rounds * (once + beside_once) > kMostSeconds) {
        rounds = std::max(3, static_cast<int>(kMostSeconds / (once + beside_once)));
    }
    std::vector<double> times;
    std::vector<double> beside_times;
    std::vector<double> speeds;
    for (int round = 0; round < rounds; ++round) {
        double seconds = 0;
        if (round % 2 == 0) {
            seconds = SecondsFor(calls, work, threads);
        }
        const double beside_seconds = SecondsFor(calls, beside, threads);
        if (round % 2 == 1) {
            seconds = SecondsFor(calls, work, threads);
        }
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

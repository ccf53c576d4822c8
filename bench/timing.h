// Times two sides in turn, and takes medians.
#pragma once

#include <functional>
#include <vector>

namespace kesto {

using Work = std::function<void()>;

double Median(std::vector<double> values);

// Seconds that `calls` calls take on each of `threads` threads at once. An exception of a call is
// thrown again when all threads have ended.
double SecondsFor(int calls, const Work& work, int threads = 1);

struct Comparison {
    double seconds;         // of one call, or of one call on each thread
    double beside_seconds;  // the same for the other side
    double speed;           // of the first side in units of the other's
};

// Medians over `rounds` rounds, or fewer, but at least three, where single calls take seconds. Both sides run
// in each round, the one that goes first changing from round to round, the slower one for about a quarter of
// a second. The speed is the median of the rounds' own ratios, so that what slows the whole machine for a
// while does not count.
Comparison Compare(int rounds, const Work& work, const Work& beside, int threads = 1);

struct Latency {
    double median;  // seconds of one call
    double p99;     // 99 of 100 calls took no longer
};

// Of `calls` calls on each of `threads` threads at once, each timed by itself.
Latency LatencyOf(int calls, const Work& work, int threads = 1);

}  // namespace kesto

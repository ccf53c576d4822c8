// Keeps floods of similar lines out of the log: of each kind ten lines a minute are written, the others
// counted.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace kesto {

class LogLimit {
 public:
    using Time = std::chrono::steady_clock::time_point;

    // Returns what to write when this line of that kind is to be logged: first what was left out in minutes
    // that are over, then the line, unless it is left out as well.
    std::vector<std::string> Take(const std::string& kind, const std::string& line, Time now);

    // What to write about the kinds whose minute is over.
    std::vector<std::string> Overdue(Time now);

 private:
    struct Kind {
        Time since;
        unsigned written = 0;
        unsigned left_out = 0;
        std::string last{};
    };
    std::map<std::string, Kind> kinds_;
};

}  // namespace kesto

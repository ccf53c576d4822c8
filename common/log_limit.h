// Keeps a crowd of like lines out of the log: ten of a kind a minute are written, the rest counted.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace kesto {

class LogLimit {
 public:
    using Time = std::chrono::steady_clock::time_point;

    // The lines to be written now that this one, of that kind, has come: it, and before it what was left out
    // of its kind in the minute before. Empty: it is left out itself.
    std::vector<std::string> Take(const std::string& kind, const std::string& line, Time now);

    // What is to be said of kinds whose minute is over.
    std::vector<std::string> Overdue(Time now);

 private:
    struct Kind {
        Time since{};
        unsigned written = 0;
        unsigned left_out = 0;
        std::string last;
    };
    std::map<std::string, Kind> kinds_;
};

}  // namespace kesto

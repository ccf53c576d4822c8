#include "common/log_limit.h"

namespace kesto {
namespace {

constexpr unsigned kMost = 10;
constexpr std::chrono::minutes kWindow{1};

}  // namespace

std::vector<std::string> LogLimit::Take(const std::string& kind, const std::string& line, Time now) {
    std::vector<std::string> lines = Overdue(now);
    Kind& of = kinds_.try_emplace(kind, Kind{now}).first->second;
    if (of.written < kMost) {
        ++of.written;
        lines.push_back(line);
    } else {
        ++of.left_out;
        of.last = line;
    }
    return lines;
}

std::vector<std::string> LogLimit::Overdue(Time now) {
    std::vector<std::string> lines;
    std::erase_if(kinds_, [&](const auto& each) {
        const Kind& kind = each.second;
        const bool over = now >= kind.since + kWindow;
        if (over && kind.left_out != 0) {
            lines.push_back(std::to_string(kind.left_out) +
                            " more such lines left out, the last: " + kind.last);
        }
        return over;
    });
    return lines;
}

}  // namespace kesto

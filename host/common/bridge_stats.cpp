#include "host/common/bridge_stats.h"

#include <cstdlib>
#include <sstream>

#include "base/clamd_words.h"
#include "common/server_talk.h"

namespace kesto::host {

std::string BridgeStats(const ServerAddress& listen, std::chrono::milliseconds limit) {
    // Windows connects to no 0.0.0.0.
    const std::string host = listen.host == "0.0.0.0" ? "127.0.0.1" : listen.host;
    return AskServer({host, listen.port}, kStatsCommand, std::chrono::steady_clock::now() + limit)
        .reply.value_or("");
}

double StatsValue(const std::string& stats, const std::string& name) {
    double sum = 0;
    std::istringstream lines(stats);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(name + " ") || line.starts_with(name + "{")) {
            sum += std::strtod(line.c_str() + line.rfind(' '), nullptr);
        }
    }
    return sum;
}

}  // namespace kesto::host

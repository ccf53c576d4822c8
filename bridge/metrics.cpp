#include "bridge/metrics.h"

#include <sstream>

namespace kesto {

std::string MetricsText(const Metrics& metrics, const std::vector<Upstream>& upstreams) {
    const Clock::time_point now = Clock::now();
    const auto seconds = [](Clock::duration span) {
        return std::chrono::duration_cast<std::chrono::seconds>(span).count();
    };
    std::ostringstream text;
    text << "uptime " << seconds(now - metrics.started) << '\n'
         << "connections " << metrics.connections << '\n'
         << "scans " << metrics.scans << '\n'
         << "clean " << metrics.clean << '\n'
         << "infected " << metrics.infected << '\n'
         << "no-verdict " << metrics.no_verdict << '\n'
         << "no-reply " << metrics.no_reply << '\n'
         << "bytes " << metrics.bytes << '\n'
         << "refused " << metrics.refused << '\n';
    for (const Upstream& server : upstreams) {
        text << "upstream " << AddressText(server) << (server.failures == 0 ? " up" : " down") << " replies "
             << server.replies << " failures " << server.failures_in_all << '\n';
    }
    return text.str();
}

}  // namespace kesto

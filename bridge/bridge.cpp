#include "bridge/bridge.h"

#include <algorithm>
#include <exception>
#include <new>

#include "bridge/client.h"
#include "common/bridge_log.h"

namespace kesto::bridge {
namespace {

// A client may end within the work, and be followed by a new one; no other one ends.
template <typename Work>
void ForEachClient(Bridge& bridge, Work work) {
    for (auto at = bridge.clients.begin(); at != bridge.clients.end();) {
        const std::shared_ptr<Client> client = (at++)->second;
        work(*client);
    }
}

size_t CountWaiting(const Bridge& bridge) {
    return static_cast<size_t>(std::count_if(bridge.clients.begin(), bridge.clients.end(),
                                             [](const auto& entry) { return entry.second->Waits(); }));
}

}  // namespace

Bridge::Bridge() {
    fleet.scans_wait = [this] { return CountWaiting(*this) != 0; };
    fleet.tell = LogBridge;
}

void Apply(Bridge& bridge, Time now) {
    bridge.room.SetLimit(static_cast<size_t>(bridge.settings.keep) << 20);
    SetServers(bridge.fleet, bridge.settings.upstreams, now);
}

bool IsFull(const Bridge& bridge) {
    return bridge.scans >= bridge.settings.clients;
}

void Remove(Bridge& bridge, uint64_t number) {
    bridge.clients.erase(number);
    if (bridge.stopping && bridge.clients.empty()) {
        bridge.io.stop();
    }
}

void Stop(Bridge& bridge, Time now) {
    bridge.stopping = now;
    ForEachClient(bridge, [](Client& client) { client.Stop(); });
    if (bridge.clients.empty()) {
        bridge.io.stop();
    }
}

void GoOn(Bridge& bridge, Time now) {
    Sleeper::LetGoOn(bridge.woken, now);
    while (!bridge.queue.empty() && !IsFull(bridge)) {
        const std::shared_ptr<Client> first = bridge.queue.front();
        bridge.queue.pop_front();
        first->BeginQueued();
    }
    Sleeper::LetGoOn(bridge.woken, now);
}

void Tick(Bridge& bridge, Time now) {
    const bool crowded = bridge.clients.size() > bridge.settings.clients;
    unsigned places = crowded ? 1 + bridge.settings.clients / 4 : 0;
    ForEachClient(bridge, [&](Client& client) { places -= client.Tick(now, places != 0); });
}

void LogException() noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        LogBridge("exception", "out of step");  // short enough to take no memory
    } catch (const std::exception& error) {
        LogBridge("exception", std::string("out of step - ") + error.what());
    }
}

std::string StatsText(const Bridge& bridge, Time now) {
    const Gauges gauges = {.clients = bridge.clients.size(),
                           .clients_limit = bridge.settings.clients,
                           .scans_waiting = CountWaiting(bridge),
                           .kept_bytes = bridge.room.used,
                           .keep_bytes = bridge.room.limit};
    return MetricsText(bridge.metrics, gauges, bridge.fleet, now);
}

}  // namespace kesto::bridge

// What the bridge uses of the system beside sockets, over the simulated world.
#include "common/bridge_log.h"
#include "common/detached_thread.h"
#include "common/error_words.h"
#include "common/name_lookup.h"
#include "common/tcp_options.h"
#include "tests/simulation/world.h"

kesto::bridge::Time kesto::bridge::Clock::now() noexcept {
    return kesto::simulation::Network::It().now;
}

namespace kesto {

using namespace simulation;

void LogBridge(const std::string& /*kind*/, const std::string& message) noexcept {
    const Outside outside;
    g_world->Logs(message);
}

std::string ErrorWords(unsigned long code) {
    return "error " + std::to_string(code);
}

void KeepAlive(uintptr_t socket) {
    reinterpret_cast<Line*>(socket)->KeepAlive();
}

bool RunDetached(std::function<void()> work) {
    const Outside outside;
    Network& net = g_world->net;
    const bool hangs = g_world->plan.lookups_fail && net.dice.OneIn(4);
    if (net.dice.OneIn(50)) {
        return false;
    }
    net.After(hangs ? net.dice.Time(5s, 100s) : net.dice.Time(1ms, 300ms), std::move(work));
    return true;
}

int LookUpName(const std::string& name, uint16_t port, std::vector<ServerAddress>& addresses) noexcept {
    return g_world->LookUp(name, port, addresses);
}

}  // namespace kesto

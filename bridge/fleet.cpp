#include "bridge/fleet.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;
using Probe = Server::Health::Probe;

constexpr std::chrono::seconds kFirstPause = 1s;
constexpr std::chrono::seconds kLongestPause = 32s;
constexpr std::chrono::seconds kLongestPauseWhileScansWait = 2s;
constexpr std::chrono::seconds kLookupPause = 60s;
constexpr std::chrono::seconds kLookupPauseWithoutAddress = 2s;
constexpr std::chrono::seconds kLongLookup = 5s;
constexpr unsigned kFailuresUntilDown = 3;
constexpr auto kBetweenSuspicions = 20s;

// A server that died while no mail came is to be known before the next mail comes.
constexpr auto kLongestWithoutVerdict = 60s;

// After so long on a connection that stands still the system asks whether the other side knows of it: what
// ends then may have been lost long before.
constexpr auto kStandsStill = 10s;

// More scans at a time wait for their turn. It also bounds a ring of bridges, in which one scan would take
// all connections that there are.
constexpr unsigned kMostOpen = 250;

bool AnyUp(const Fleet& fleet, const Server* beside = nullptr) {
    return std::any_of(fleet.servers.begin(), fleet.servers.end(),
                       [beside](const ServerPtr& server) { return server.get() != beside && IsUp(*server); });
}

void NoteChange(Fleet& fleet, Time now) {
    if (AnyUp(fleet)) {
        fleet.down_since.reset();
    } else if (!fleet.down_since) {
        fleet.down_since = now;
    }
}

std::chrono::seconds PauseOf(const Fleet& fleet, const Server& server) {
    const bool hurry = fleet.down_since && fleet.scans_wait();
    return std::min(server.health.pause, hurry ? kLongestPauseWhileScansWait : kLongestPause);
}

void TellDown(const Fleet& fleet, const Server& server, const std::string& reason) {
    const std::string kind = "upstream " + AddressText(server.name) + " down";
    fleet.tell(kind, kind + " - " + reason);
}

void TellUp(const Fleet& fleet, const Server& server) {
    const std::string line = "upstream " + AddressText(server.name) + " up";
    fleet.tell(line, line);
}

// Down, or down for longer.
void Pause(Fleet& fleet, Server& server, const std::string& reason, Time now) {
    Server::Health& health = server.health;
    health.up = false;
    health.pause = std::clamp(health.pause * 2, kFirstPause, kLongestPause);
    health.paused_at = now;
    server.lookup.at = std::min(server.lookup.at, now);
    NoteChange(fleet, now);
    TellDown(fleet, server,
             reason + "; tried again in " + std::to_string(PauseOf(fleet, server).count()) + " s");
}

void NoteFailedScan(Fleet& fleet, Server& server, Time now) {
    if (++server.health.failed_in_row >= kFailuresUntilDown && server.health.up) {
        Pause(fleet, server, "failed " + std::to_string(server.health.failed_in_row) + " scans in a row",
              now);
    }
}

bool MayBeSuspected(const Server& server, Time now) {
    const Server::Health& health = server.health;
    return health.up && health.probe == Probe::kNone && now - health.probed >= kBetweenSuspicions;
}

}  // namespace

size_t MinuteCount::Sum(Time now) {
    while (!times.empty() && times.front() <= now - 60s) {
        times.pop_front();
    }
    return times.size();
}

void SetServers(Fleet& fleet, const std::vector<ServerAddress>& names, Time now) {
    std::vector<ServerPtr> servers;
    for (const ServerAddress& name : names) {
        const auto known = std::find_if(fleet.servers.begin(), fleet.servers.end(),
                                        [&](const ServerPtr& server) { return server->name == name; });
        if (known != fleet.servers.end()) {
            servers.push_back(*known);
            continue;
        }
        const auto server = std::make_shared<Server>();
        server->name = name;
        server->lookup.at = now;
        server->health.worked = now;
        if (name.kind != HostKind::kName) {
            server->lookup.addresses.push_back(name);
        }
        servers.push_back(server);
    }
    fleet.servers.swap(servers);
    for (const ServerPtr& server : servers) {
        if (std::find(fleet.servers.begin(), fleet.servers.end(), server) == fleet.servers.end()) {
            server->health.up = false;
            server->health.probe = Probe::kNone;
        }
    }
    NoteChange(fleet, now);
}

bool LookupIsDue(Fleet& fleet, Server& server, Time now) {
    Server::Lookup& lookup = server.lookup;
    if (lookup.running && lookup.addresses.empty() && !lookup.failed && now >= lookup.at + kLongLookup) {
        lookup.failed = true;
        TellDown(fleet, server, "looking its name up takes long");
    }
    return server.name.kind == HostKind::kName && !lookup.running && lookup.at <= now;
}

void NoteAddresses(Fleet& fleet, Server& server, std::vector<ServerAddress> addresses,
                   const std::string& reason, Time now) {
    Server::Lookup& lookup = server.lookup;
    lookup.running = false;
    if (!addresses.empty()) {
        const auto good = lookup.addresses.empty()
                              ? addresses.begin()
                              : std::find(addresses.begin(), addresses.end(), lookup.addresses[lookup.good]);
        lookup.good = good == addresses.end() ? 0 : static_cast<size_t>(good - addresses.begin());
        lookup.addresses = std::move(addresses);
    }
    lookup.at = now + (lookup.addresses.empty() ? kLookupPauseWithoutAddress : kLookupPause);
    NoteChange(fleet, now);
    if (lookup.addresses.empty()) {
        if (!std::exchange(lookup.failed, true)) {
            TellDown(fleet, server, reason);
        }
    } else if (std::exchange(lookup.failed, false) && server.health.up) {
        TellUp(fleet, server);
    }
}

bool IsUp(const Server& server) {
    return server.health.up && !server.lookup.addresses.empty();
}

ServerPtr Choose(const Fleet& fleet, const std::function<std::optional<unsigned>(const Server&)>& rank) {
    ServerPtr best;
    std::tuple<unsigned, unsigned, uint64_t> best_rank;
    for (const ServerPtr& server : fleet.servers) {
        const auto its_rank = IsUp(*server) && server->open < kMostOpen ? rank(*server) : std::nullopt;
        if (!its_rank) {
            continue;
        }
        const std::tuple whole_rank(*its_rank, server->open, server->last_turn);
        if (!best || whole_rank < best_rank) {
            best = server;
            best_rank = whole_rank;
        }
    }
    return best;
}

void TakeTurn(Fleet& fleet, Server& server) {
    server.last_turn = ++fleet.turns;
}

void NoteBroken(Fleet& fleet, Server& server, const std::string& reason, Time moved, Time now) {
    ++server.numbers.failures;
    const bool old = now - moved >= kStandsStill && server.health.worked > moved;
    if (server.health.up && !old) {
        Pause(fleet, server, reason, now);
    }
}

void NoteSilence(Fleet& fleet, Server& server, Time since, Time now) {
    ++server.numbers.failures;
    if (server.health.worked <= since) {
        NoteFailedScan(fleet, server, now);
    }
}

void NoteError(Fleet& fleet, Server& server, Time now) {
    ++server.numbers.failures;
    NoteFailedScan(fleet, server, now);
}

void NoteVerdict(Server& server, Time now) {
    Server::Health& health = server.health;
    health.worked = now;
    health.failed_in_row = 0;
    if (health.up) {
        health.pause = 0s;
    }
}

void SuspectForError(Server& server, Time now) {
    if (MayBeSuspected(server, now)) {
        server.health.probe = Probe::kWanted;
    }
}

void SuspectForSilence(const Fleet& fleet, Server& server, Time now) {
    const bool another = std::any_of(fleet.servers.begin(), fleet.servers.end(), [](const ServerPtr& other) {
        return other->health.up && other->health.probe != Probe::kNone;
    });
    if (!another && MayBeSuspected(server, now)) {
        server.health.probe = Probe::kWanted;
    }
}

void NoteAlive(Server& server) {
    server.health.paused_at = Time{};
}

bool ProbeIsDue(const Fleet& fleet, const Server& server, Time now) {
    const Server::Health& health = server.health;
    if (server.lookup.addresses.empty() || health.probe == Probe::kRunning) {
        return false;
    }
    if (!health.up) {
        return now >= health.paused_at + PauseOf(fleet, server);
    }
    return health.probe == Probe::kWanted ||
           now >= std::max(health.worked, health.probed) + kLongestWithoutVerdict;
}

void ProbeBegins(Server& server, Time now) {
    server.health.probe = Probe::kRunning;
    server.health.probed = now;
}

void CallProbeOff(Server& server) {
    if (server.health.probe == Probe::kRunning) {
        server.health.probe = Probe::kNone;
    }
}

void NoteProbe(Fleet& fleet, Server& server, const AttemptEnd& end, Time now) {
    const auto is_it = [&](const ServerPtr& each) { return each.get() == &server; };
    if (std::none_of(fleet.servers.begin(), fleet.servers.end(), is_it)) {
        return CallProbeOff(server);  // it was taken out meanwhile
    }
    Server::Health& health = server.health;
    health.probe = Probe::kNone;
    const bool well = end.kind == AttemptEnd::Kind::kClean;
    const bool sick = end.Replied() && !well;
    const bool silent = end.kind == AttemptEnd::Kind::kSilent;
    health.sick = Time{};
    if (well) {
        health.worked = now;
    }
    if (well || (silent && health.worked >= health.probed)) {
        if (!std::exchange(health.up, true)) {
            health.failed_in_row = 0;
            NoteChange(fleet, now);
            TellUp(fleet, server);
        }
        return;
    }
    ++server.numbers.failures;
    if (server.lookup.addresses.size() > 1) {
        server.lookup.good = (server.lookup.good + 1) % server.lookup.addresses.size();
        server.lookup.moved = now;
    }
    if (sick && server.lookup.good == 0) {  // at none of its addresses is it any better
        health.sick = now;
    }
    if (!health.up || !silent || AnyUp(fleet, &server)) {
        Pause(fleet, server, (sick ? "did not call a clean file clean: " : "") + end.text, now);
    }
}

bool AllSick(const Fleet& fleet, Time since) {
    return std::all_of(fleet.servers.begin(), fleet.servers.end(), [since](const ServerPtr& server) {
        return !server->health.up && server->health.sick >= since;
    });
}

bool MayAskBeside(Fleet& fleet, Time now) {
    return fleet.beside.Sum(now) < std::max<size_t>(1, fleet.scans.Sum(now) / 10);
}

}  // namespace kesto::bridge

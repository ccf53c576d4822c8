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
constexpr auto kFirstVersion = 30s;  // after a server was named
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

bool Has(const Fleet& fleet, const Server& server) {
    return std::any_of(fleet.servers.begin(), fleet.servers.end(),
                       [&server](const ServerPtr& each) { return each.get() == &server; });
}

std::chrono::seconds PauseOf(const Fleet& fleet, const Server& server) {
    const bool hurry = fleet.down_since && fleet.scans_wait();
    return std::min(server.health.pause, hurry ? kLongestPauseWhileScansWait : kLongestPause);
}

void NoteAnyUp(Fleet& fleet, Time now) {
    if (AnyUp(fleet)) {
        fleet.down_since.reset();
    } else if (!fleet.down_since) {
        fleet.down_since = now;
    }
}

// The only writer of a server's standing. The log tells a change, and each reason why the server stays down.
void SetStanding(Fleet& fleet, Server& server, bool up, const std::string& reason, Time now) {
    const bool was_up = std::exchange(server.health.up, up);
    NoteAnyUp(fleet, now);
    const std::string kind = "upstream " + AddressText(server.name) + (up ? " up" : " down");
    if (!up) {
        const std::string again =
            server.health.pause.count() == 0
                ? ""
                : "; tried again in " + std::to_string(PauseOf(fleet, server).count()) + " s";
        fleet.tell(kind, kind + " - " + reason + again);
    } else if (!was_up) {
        server.health.failed_in_row = 0;
        server.health.up_since = now;
        fleet.tell(kind, kind);
    }
}

// Down, or down for longer.
void GoDown(Fleet& fleet, Server& server, const std::string& reason, Time now) {
    Server::Health& health = server.health;
    health.pause = std::clamp(health.pause * 2, kFirstPause, kLongestPause);
    health.paused_at = now;
    server.lookup.at = std::min(server.lookup.at, now);
    SetStanding(fleet, server, false, reason, now);
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
        server->health.worked = now;
        server->ask_version_at = now + kFirstVersion;
        if (name.kind != HostKind::kName) {
            server->lookup.addresses.push_back(name);
        }
        servers.push_back(server);
    }
    fleet.servers.swap(servers);
    for (const ServerPtr& server : servers) {
        if (!Has(fleet, *server)) {
            server->health.probe = Probe::kNone;
            server->health.pause = 0s;
            SetStanding(fleet, *server, false, "no longer in upstreams", now);
        }
    }
    NoteAnyUp(fleet, now);
}

bool LookupIsDue(const Server& server, Time now) {
    return server.name.kind == HostKind::kName && !server.lookup.running && server.lookup.at <= now;
}

void NoteLookup(Fleet& fleet, Server& server, Time now) {
    const Server::Lookup& lookup = server.lookup;
    if (server.health.up && lookup.addresses.empty() && lookup.running && now >= lookup.at + kLongLookup) {
        SetStanding(fleet, server, false, "looking its name up takes long", now);
    }
}

void NoteAddresses(Fleet& fleet, Server& server, std::vector<ServerAddress> addresses,
                   const std::string& reason, Time now) {
    Server::Lookup& lookup = server.lookup;
    lookup.running = false;
    const bool first = lookup.addresses.empty();
    if (!addresses.empty()) {
        const auto good = first
                              ? addresses.begin()
                              : std::find(addresses.begin(), addresses.end(), lookup.addresses[lookup.good]);
        lookup.good = good == addresses.end() ? 0 : static_cast<size_t>(good - addresses.begin());
        lookup.addresses = std::move(addresses);
    }
    lookup.at = now + (lookup.addresses.empty() ? kLookupPauseWithoutAddress : kLookupPause);
    const bool found = !lookup.addresses.empty();
    if (first && Has(fleet, server) && (found || server.health.up)) {
        SetStanding(fleet, server, found, reason, now);
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

void NoteBroken(Fleet& fleet, Server& server, const AttemptEnd& end, Time moved, Time now) {
    ++server.numbers.failures;
    const bool old = server.health.worked > moved &&
                     (end.kind == AttemptEnd::Kind::kUnreached || now - moved >= kStandsStill);
    if (server.health.up && !old) {
        GoDown(fleet, server, end.text, now);
    }
}

void NoteFailure(Fleet& fleet, Server& server, Time since, Time now) {
    Server::Health& health = server.health;
    ++server.numbers.failures;
    if (health.worked <= since && ++health.failed_in_row >= kFailuresUntilDown && health.up) {
        GoDown(fleet, server, "failed " + std::to_string(health.failed_in_row) + " scans in a row", now);
    }
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

void ProbeSoon(Server& server) {
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
    if (!Has(fleet, server)) {
        return CallProbeOff(server);  // it was taken out meanwhile
    }
    Server::Health& health = server.health;
    health.probe = Probe::kNone;
    const bool well = end.kind == AttemptEnd::Kind::kClean;
    const bool sick = end.Replied() && !well;
    const bool silent = end.kind == AttemptEnd::Kind::kSilent;
    const bool old = silent || (health.up && end.kind == AttemptEnd::Kind::kUnreached);
    health.sick = Time{};
    if (well) {
        health.worked = now;
    }
    if (well || (old && health.worked >= health.probed)) {
        return SetStanding(fleet, server, true, "", now);
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
        GoDown(fleet, server, (sick ? "did not call a clean file clean: " : "") + end.text, now);
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

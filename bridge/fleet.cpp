#include "bridge/fleet.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::seconds kFirstPause = 1s;
constexpr std::chrono::seconds kLongestPause = 32s;
constexpr std::chrono::seconds kLongestPauseWhileScansWait = 2s;
constexpr std::chrono::seconds kLookupPause = 60s;
constexpr std::chrono::seconds kLookupPauseWithoutAddress = 2s;
constexpr std::chrono::seconds kLongLookup = 5s;
constexpr unsigned kFailuresUntilDown = 3;
constexpr auto kBetweenSuspicions = 20s;

// More scans at a time wait for their turn. It also bounds a ring of bridges, in which one scan would take
// all connections that there are.
constexpr unsigned kMostOpen = 250;

void NoteChange(Fleet& fleet, Time now) {
    const bool any = std::any_of(fleet.servers.begin(), fleet.servers.end(),
                                 [](const ServerPtr& server) { return IsUp(*server); });
    if (any) {
        fleet.down_since.reset();
    } else if (!fleet.down_since) {
        fleet.down_since = now;
    }
}

std::chrono::seconds PauseOf(const Fleet& fleet, const Server& server) {
    const bool hurry = fleet.scans_wait && fleet.down_since;
    return std::min(server.pause, hurry ? kLongestPauseWhileScansWait : kLongestPause);
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
    server.up = false;
    server.suspected = false;
    server.pause = std::clamp(server.pause * 2, kFirstPause, kLongestPause);
    server.paused_at = now;
    server.look_up_at = std::min(server.look_up_at, now);
    NoteChange(fleet, now);
    TellDown(fleet, server,
             reason + "; tried again in " + std::to_string(PauseOf(fleet, server).count()) + " s");
}

}  // namespace

void MinuteCount::Forget(Time now) {
    const int64_t second = std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
    const int64_t size = static_cast<int64_t>(seconds_.size());
    for (latest_ = std::max(latest_, second - size); latest_ < second;) {
        seconds_[static_cast<size_t>(++latest_ % size)] = 0;
    }
}

void MinuteCount::Add(Time now) {
    Forget(now);
    ++seconds_[static_cast<size_t>(latest_) % seconds_.size()];
}

unsigned MinuteCount::Sum(Time now) {
    Forget(now);
    unsigned sum = 0;
    for (const unsigned count : seconds_) {
        sum += count;
    }
    return sum;
}

void SetServers(Fleet& fleet, const std::vector<ServerAddress>& names, Time now) {
    const std::vector<ServerPtr> before = std::exchange(fleet.servers, {});
    for (const ServerAddress& name : names) {
        const auto known = std::find_if(before.begin(), before.end(),
                                        [&](const ServerPtr& server) { return server->name == name; });
        if (known != before.end()) {
            fleet.servers.push_back(*known);
            continue;
        }
        const auto server = std::make_shared<Server>();
        server->name = name;
        server->look_up_at = now;
        if (name.kind != HostKind::kName) {
            server->addresses.push_back(name);
        }
        fleet.servers.push_back(server);
    }
    NoteChange(fleet, now);
}

void NoteAddresses(Fleet& fleet, Server& server, std::vector<ServerAddress> addresses,
                   const std::string& reason, Time now) {
    server.looking_up = false;
    if (addresses != server.addresses && !addresses.empty()) {
        server.addresses = std::move(addresses);
        server.good = 0;
    }
    server.look_up_at = now + (server.addresses.empty() ? kLookupPauseWithoutAddress : kLookupPause);
    if (server.addresses.empty()) {
        if (!std::exchange(server.lookup_told, true)) {
            TellDown(fleet, server, reason);
        }
    } else if (std::exchange(server.lookup_told, false) && server.up) {
        TellUp(fleet, server);
    }
    NoteChange(fleet, now);
}

std::vector<ServerPtr> LookupsDue(Fleet& fleet, Time now) {
    std::vector<ServerPtr> due;
    for (const ServerPtr& server : fleet.servers) {
        if (server->name.kind == HostKind::kName && !server->looking_up && server->look_up_at <= now) {
            server->looking_up = true;
            server->look_up_at = now;
            due.push_back(server);
        } else if (server->looking_up && server->addresses.empty() && !server->lookup_told &&
                   now >= server->look_up_at + kLongLookup) {
            server->lookup_told = true;
            TellDown(fleet, *server, "looking its name up takes long");
        }
    }
    return due;
}

bool IsUp(const Server& server) {
    return server.up && !server.addresses.empty();
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

void NoteBroken(Fleet& fleet, Server& server, const std::string& reason, Time now) {
    ++server.failures;
    if (server.up) {
        Pause(fleet, server, reason, now);
    }
}

void NoteFailedScan(Fleet& fleet, Server& server, Time now) {
    ++server.failures;
    if (++server.failed_in_row >= kFailuresUntilDown && server.up) {
        Pause(fleet, server, "failed " + std::to_string(server.failed_in_row) + " scans in a row", now);
    }
}

void NoteVerdict(Server& server) {
    server.failed_in_row = 0;
    if (server.up) {
        server.pause = 0s;
    }
}

void Suspect(Fleet& fleet, Server& server, Time now) {
    const auto other_up = [&server](const ServerPtr& other) {
        return other.get() != &server && IsUp(*other);
    };
    if (server.up && !server.probing && now - server.last_probe >= kBetweenSuspicions &&
        std::any_of(fleet.servers.begin(), fleet.servers.end(), other_up)) {
        server.suspected = true;
    }
}

void NoteAlive(Server& server) {
    server.paused_at = Time{};
}

std::vector<ServerPtr> ProbesDue(Fleet& fleet, Time now) {
    std::vector<ServerPtr> due;
    for (const ServerPtr& server : fleet.servers) {
        const bool wanted =
            server->up ? server->suspected : server->paused_at + PauseOf(fleet, *server) <= now;
        if (wanted && !server->probing && !server->addresses.empty()) {
            server->probing = true;
            server->last_probe = now;
            due.push_back(server);
        }
    }
    return due;
}

void NoteProbe(Fleet& fleet, Server& server, Health health, const std::string& reason, Time now) {
    server.probing = false;
    server.suspected = false;
    server.last_sick = health == Health::kSick ? now : Time{};
    if (health != Health::kWell) {
        ++server.failures;
        Pause(fleet, server, reason, now);
    } else if (!std::exchange(server.up, true)) {
        server.failed_in_row = 0;
        TellUp(fleet, server);
        NoteChange(fleet, now);
    }
}

bool AllSick(const Fleet& fleet, Time since) {
    return std::all_of(fleet.servers.begin(), fleet.servers.end(), [since](const ServerPtr& server) {
        return !server->up && server->last_sick >= since;
    });
}

bool MayAskBeside(Fleet& fleet, Time now) {
    return fleet.beside.Sum(now) < std::max(1u, fleet.scans.Sum(now) / 10);
}

}  // namespace kesto::bridge

// What the bridge promises, held against what the world knows.
#include <algorithm>
#include <utility>

#include "base/clamd_words.h"
#include "tests/simulation/world.h"

namespace kesto::simulation {
namespace {

constexpr auto kTick = 300ms;  // the bridge looks at its time limits four times a second
constexpr auto kKnowsAgain = 36s;
constexpr auto kLongestStill = 16s;
constexpr auto kLate = 10s;
constexpr auto kConnecting = 8s;  // to all addresses of a server

std::string Named(const Client& client) {
    return "client " + std::to_string(client.number);
}

}  // namespace

// A server gets the scan.
void World::AttemptIsKnown(Client& client, ServerLine& line) {
    Tell(line.server->name, " gets the scan of client ", client.number);
    size_t before = 0, whole = 0;
    bool tried = false;
    for (const auto& other : client.lines) {
        if (other.get() == &line) {
            continue;
        }
        const Time began = other->began - (other->server->plan.named ? kConnecting : 0s);
        const bool late = client.ended != Time{} && line.began >= std::max(client.ended, began) + kLate;
        if (other->Runs() && !late) {
            Broken("a second server gets the scan of client " + std::to_string(client.number) + " too early");
        }
        before += !other->replied;
        whole += !other->replied && other->whole;
        tried |= other->server == line.server;
    }
    if (whole >= 3 || (before >= 5 && tried)) {
        Broken("too many servers get the scan of client " + std::to_string(client.number));
    }
}

// The client has been given a whole reply.
void World::Replied(Client& client) {
    const std::string who = "client " + std::to_string(client.number),
                      text = client.given.substr(0, client.given.find('\0'));
    Tell(who, " gets \"", text.substr(0, 60), "\"");
    const bool verdict = text.starts_with(kVerdictBeginning);
    const ScanAnswer answer = ReadScanAnswer(text);
    const bool by_a_server = client.plan.size == 0 || client.WasTold(text);
    if (!client.Scans()) {
        if (verdict || client.plan.kind >= Kind::kNoise ||
            (client.plan.kind == Kind::kStats && !text.starts_with("# HELP"))) {
            Broken(who + " gets a reply that is not to its question");
        }
    } else if (verdict && (answer == ScanAnswer::kNoVerdict || !by_a_server)) {
        Broken(who + " gets a verdict that no server gave");
    } else if (!verdict) {
        constexpr std::string_view kBefore = "no verdict: ";
        const bool marked = text.starts_with(kBefore) && client.WasTold(text.substr(kBefore.size()));
        if (!by_a_server && !marked) {
            Broken(who + " gets an error that no server gave");
        }
        const bool late = net.now >= client.ended + std::chrono::seconds(plan.settings.verdict);
        if (net.now > client.ended + kTick && !late) {  // otherwise it was decided before
            Lost(client, "");
        }
    }
}

// The bridge has closed the client's connection.
void World::Ended(Client& client) {
    Tell("the bridge closes client ", client.number);
    reading -= client.Scans() ? std::min(reading, client.Read()) : 0;
    const BridgeSettings& settings = plan.settings;
    const std::string& end = client.end;
    const auto because = [&](std::string_view words, bool is_true) {
        if (end.starts_with(words) && !is_true) {
            Broken(Named(client) + " is closed because it '" + end + "', which is not true");
        }
        return end.starts_with(words);
    };
    if (client.answered) {
        if (!client.IsGiven() && !client.left) {
            Broken(Named(client) + " is closed before its reply has gone out");
        }
        if (!client.left && !client.plan.finishes && net.now < client.answered_at + 2s && !client.lacked) {
            Broken(Named(client) + " is closed before it had time to read its reply");
        }
        return;
    }
    if (!kVerdictBeginning.starts_with(client.given)) {
        Broken(Named(client) + " gets a part of a reply");
    }
    const bool silent = net.now >= client.heard + std::chrono::seconds(settings.idle) && client.AllRead();
    const bool slow = bridge->clients.size() + 2 + settings.clients / 4 > settings.clients &&
                      (client.plan.rate < 1100 || client.plan.pauses_at < client.RequestSize() ||
                       net.now >= client.heard + 900ms);
    if (client.left || client.lacked || because("left", false) || because("it left", false) ||
        because("the bridge ends", bridge->stopping && (client.ended == Time{} || client.lines.empty())) ||
        because("sent a chunk", client.plan.kind == Kind::kTooLong) ||
        because("sent an unknown", client.plan.kind == Kind::kNoise) || because("sent no", silent) ||
        because("too slow", slow)) {
        return;
    }
    if (end.empty()) {
        if (client.came != Time{} || !bridge->stopping) {
            Broken(Named(client) + " is closed without a word");
        }
    } else if (client.Scans()) {
        Lost(client, end);
    } else {
        for (const Server* server : list_) {
            if (server->IsWell() && std::max(server->fault_at, server->listed_at) < client.came) {
                Broken(Named(client) + " gets no answer although " + server->name + " is well");
            }
        }
    }
}

// A scan has ended without a verdict, while its client was there. With no reason: by some other reply.
void World::Lost(Client& client, const std::string& reason) {
    if (client.lacked || client.plan.size == 0) {
        return;
    }
    LookAtServers(false);
    const std::string what = Named(client) + " is lost (" + reason + ") ";
    const Time now = net.now;
    bool all_asked = true, all_sick = true, any_up = false;
    for (const Server* server : list_) {
        any_up |= server->up;
        all_sick &= !server->up && server->erred_at >= client.came;
        all_asked &= !server->up || client.HasAsked(*server);
        if (server->up && server->IsWell() && client.MayBeAsked() && !client.HasAsked(*server) &&
            !reason.starts_with("no verdict within")) {
            Broken(what + "although " + server->name + " is well and up, and was not asked");
        }
    }
    if (client.verdict_read) {
        Broken(what + "although its verdict was read");
    } else if (reason.starts_with("no verdict within")) {
        if (client.ended == Time{} || now < client.ended + std::chrono::seconds(plan.settings.verdict)) {
            Broken(what + "before its time");
        }
    } else if (reason == "no upstream server could be reached") {
        if (!down_since_ || now < *down_since_ + std::chrono::seconds(plan.settings.wait)) {
            Broken(what + "before the time for which scans wait");
        }
        for (const Server* server : list_) {
            if (server->asked_at < client.came && server->known) {
                Broken(what + "before " + server->name + " has been asked since it came");
            }
        }
    } else if (client.MayBeAsked() && !(any_up ? all_asked : all_sick)) {
        Broken(what + "although it might have been repeated");
    }
}

// Whom the bridge takes for up.
void World::LookAtServers(bool ticked) {
    bool any_up = false;
    for (size_t i = 0; i < list_.size(); ++i) {
        Server& server = *list_[i];
        const bool was_up = std::exchange(server.up, IsUp(*bridge->fleet.servers.at(i)));
        any_up |= server.up;
        if (server.up && !was_up) {
            server.up_since = net.now;
        } else if (was_up && !server.up && server.IsWell() && server.fault_at <= server.verdict_at &&
                   lacked_at_ == Time{}) {
            Broken(server.name + " is well, has given a verdict since it was, and is called down");
        }
        if (server.Open() != 0) {
            server.idle_since = net.now;
        }
        const Time known_at = std::max({server.fault_at, server.listed_at, lacked_at_});
        if (ticked && !server.up && server.IsWell() && net.now > known_at + kKnowsAgain) {
            Broken(server.name + " has been well for long and is not up");
        }
    }
    if (any_up) {
        down_since_.reset();
    } else if (!down_since_) {
        down_since_ = net.now;
    }
}

void World::LookAt(Client& client) {
    const Time now = net.now;
    const BridgeSettings& settings = plan.settings;
    if (now > std::max(client.heard, client.told) + 20s + client.plan.pause && !client.left &&
        !client.answered) {
        return client.Leave("loses patience", false);
    }
    if (client.answered && now > client.answered_at + 2s + kTick && !client.IsWritten()) {
        Broken(Named(client) + " has its reply and is not closed");
    }
    if (client.answered || client.left || client.lacked) {
        return;
    }
    if (client.ended == Time{}) {
        if (client.IsRead() && now > client.heard + std::chrono::seconds(settings.idle) + kTick) {
            Broken(Named(client) + " has been silent for long and is not closed");
        }
        return;
    }
    if (!client.Scans() || client.plan.size == 0) {
        return;
    }
    if (client.lines.empty() && bridge->clients.size() >= settings.clients) {
        client.due = client.told = now;  // it may wait for a place
    }
    if (now > client.told + kLongestStill && client.given.size() < kVerdictBeginning.size()) {
        Broken(Named(client) + " has waited for long without a byte");
    }
    if (now > client.due + std::chrono::seconds(settings.verdict) + kTick) {
        Broken(Named(client) + " is not told in time");
    }
    bool runs = false, late = true, down = true;
    for (const auto& line : client.lines) {
        runs |= line->Runs();
        late &= !line->Runs() || now > std::max(client.due, line->began) + kLate + 2 * kTick;
        down &= !line->Runs() || !line->server->up;
    }
    if (runs || bridge->clients.size() >= settings.clients) {
        client.with_nobody_since = now;
    }
    const bool alone = now > std::max(client.with_nobody_since, client.repeated_at) + kConnecting;
    const bool connects = now < client.repeated_at + kConnecting;
    for (const Server* server : list_) {
        const Time since = std::max({server->fault_at, server->up_since, server->listed_at}) + kConnecting;
        if (!server->IsWell() || !server->up || now < since || client.HasAsked(*server) ||
            !client.MayBeAsked()) {
            continue;
        }
        if (alone) {
            Broken(Named(client) + " is with no server, while " + server->name + " is well");
        } else if (runs && late && !connects && (down || now > server->idle_since + 2 * kTick)) {
            Broken(Named(client) + " is late, while " + server->name + " has nothing to do");
        }
    }
}

double World::Number(const std::string& name) const {
    const size_t at = stats_.find("\nkestoav_" + name + " ");
    return at == std::string::npos ? -1 : std::atof(stats_.c_str() + at + name.size() + 10);
}

void World::CheckTheEnd() {
    {
        const Inside inside;
        stats_ = StatsText(*bridge, net.now);
    }
    for (const char* name : {"clients", "scans_waiting", "kept_bytes"}) {
        if (Number(name) != 0) {
            Broken(std::string("at the end ") + name + " is not 0");
        }
    }
    for (const Server* server : list_) {
        if (Number("upstream_scans{upstream=\"" + server->name + "\"}") != 0) {
            Broken("at the end " + server->name + " has scans open");
        }
    }
    double scans = 0, most_scans = 0, least_scans = 0;
    for (const char* outcome : {"clean", "infected", "no_verdict", "no_reply", "left"}) {
        scans += Number(std::string("scans_total{outcome=\"") + outcome + "\"}");
    }
    for (const auto& client : clients) {
        const bool scan = client->came != Time{} && (client->Scans() || client->plan.kind == Kind::kTooLong);
        most_scans += scan;
        least_scans += scan && (client->answered || !client->lines.empty());
    }
    if (!plan.lacks.empty()) {
        // What is counted and what is told may differ.
    } else if (scans < least_scans || scans > most_scans ||
               Number("refused_total") != static_cast<double>(refused_) ||
               Number("repeats_total") != static_cast<double>(repeated_)) {
        Broken("at the end the numbers do not add up");
    }
    net.Clear();
    loop_.reset();
    bridge.reset();
    std::string().swap(stats_);
    if (g_memory.blocks != 0) {
        Broken("at the end " + std::to_string(g_memory.blocks) + " blocks of memory are held " +
               std::to_string(g_memory.bytes));
    }
}

}  // namespace kesto::simulation

// What the bridge promises, held against what the world knows.
#include <cstdlib>

#include "tests/simulation/world.h"

namespace kesto::simulation {
namespace {

constexpr auto kTick = 300ms;  // the bridge looks at its time limits four times a second
constexpr auto kKnowsAgain = 36s;
constexpr auto kLongestStill = 16s;
constexpr auto kLate = 10s;
constexpr auto kConnecting = 8s;  // to all addresses of a server
constexpr auto kLookedUp = 100s;  // a name, at the latest

}  // namespace

// A server gets the scan.
void World::AttemptBegins(Client& client, ServerLine& line) {
    Tell(*line.server, " gets the scan of ", client);
    client.asked += line.server->name;
    line.server->scan_at = net.now;
    size_t lost = 0, whole = 0;
    bool tried = false, beside = false;
    for (const auto& other : client.lines) {
        if (other.get() == &line) {
            continue;
        }
        const Time began = other->began - (other->server->named ? kConnecting : 0s);
        if (other->Runs() && (client.ended == Time{} || line.began < std::max(client.ended, began) + kLate)) {
            Broken("a second server gets the scan of ", client, " too early");
        }
        beside |= other->Runs() && other->server != line.server && other->server->up &&
                  line.server->Scans() > 1 && net.now > other->server->up_since + kConnecting;
        lost += !other->replied;
        whole += !other->replied && other->whole;
        tried |= other->server == line.server && other->began >= line.server->listed_at;
    }
    Never(whole >= 3 || (lost >= 5 && tried), "too many servers get the scan of ", client);
    const auto lately = [this](Time at) { return at + 60s > net.now; };
    client.beside_at = beside && client.beside_at == Time{} ? net.now : client.beside_at;
    const auto share = Count(clients, [&](const auto& each) { return lately(each->beside_at); });
    const auto all = Count(clients, [&](const auto& each) { return lately(each->ended); });
    Never(beside && share > 2 + all / 10, "more than one scan in ten gets a second server that is busy");
}

void World::Logs(const std::string& message) {
    Tell("log: ", message);
    const std::string_view kPeer = "10.9.0.1:";
    const size_t peer = message.find(kPeer);
    Client* const client =
        peer == std::string::npos
            ? nullptr
            : clients.at(std::strtoul(message.c_str() + peer + kPeer.size(), nullptr, 10)).get();
    const bool refuses = message.starts_with("refused ");
    refused += refuses;
    if (refuses || message.starts_with("no reply to ")) {
        client->end = message.substr(message.find(" - ") + 3);
    } else if (message.starts_with("scan of ")) {
        ++repeated;
        ++client->repeats;
        client->asked += message;
        client->repeated_at = net.now;
    } else if (message.find("out of step") != std::string::npos && !lacks) {
        Broken("an exception: ", message);
    }
}

// The client is given a whole reply.
void World::Replies(Client& client) {
    const std::string reply = client.text.substr(0, client.text.find('\0'));
    Tell(client, " gets \"", reply.substr(0, 60), "\"");
    Never(reply.size() + 1 != client.text.size(), client, " gets something after its reply");
    if (!client.Scans()) {
        const bool fits = client.kind == Kind::kPing ? reply == "PONG"
                          : client.kind == Kind::kVersion
                              ? reply.starts_with("Engine")
                              : client.kind == Kind::kStats && reply.starts_with("# HELP");
        return fits ? void() : Broken(client, " gets a reply that is not to its question");
    }
    const bool verdict = ReadScanAnswer(reply) != ScanAnswer::kNoVerdict;
    constexpr std::string_view kBefore = "no verdict: ";
    const bool marked = reply.starts_with(kBefore) && client.WasTold(reply.substr(kBefore.size()));
    if (client.file != 0 && !client.WasTold(reply) && !marked) {
        Broken(client, " gets a reply that no server gave to all of it");
    } else if (!verdict && reply.starts_with(kVerdictBeginning)) {
        Broken(client, " gets an error that looks like a verdict");
    } else if (!verdict && net.now > client.ended + kTick) {  // otherwise it was lost before
        Loses(client, "");
    }
}

// The bridge has closed the client's connection.
void World::Closes(Client& client) {
    Tell("the bridge closes ", client);
    reading -= client.Scans() ? client.read : 0;
    if (client.answered && !client.left && !client.lacked) {
        if (client.given != client.text.size()) {
            Broken(client, " is closed before its reply has gone out");
        } else if (!client.finishes && net.now < client.answered_at + 2s) {
            Broken(client, " is closed before it had time to read its reply");
        }
    }
    if (client.answered) {
        return;
    }
    Never(!kVerdictBeginning.starts_with(client.text), client, " gets a part of a reply");
    if (client.left || client.lacked) {
        return;
    }
    const bool silent =
        net.now >= client.heard + std::chrono::seconds(settings.idle) && client.read == client.arrived;
    const bool slow =
        client.speed < 1100 || client.pauses_at < client.RequestSize() || net.now >= client.heard + 900ms;
    const auto well = [&](const Server* server) {
        return server->IsWell() && std::max(server->fault_at, server->listed_at) < client.came;
    };
    const std::pair<std::string_view, bool> reasons[] = {
        {"left", false},
        {"it left", false},
        {"the bridge ends", bridge->stopping && (client.ended == Time{} || client.lines.empty())},
        {"sent a chunk", client.kind == Kind::kTooLong},
        {"sent an unknown", client.kind == Kind::kNoise},
        {"sent no", silent},
        {"too slow", crowd > settings.clients && slow},
        {"no upstream server answered", 0 == Count(list, well)},
    };
    for (const auto& [reason, is_true] : reasons) {
        if (client.end.starts_with(reason)) {
            return is_true ? void()
                           : Broken(client, " is closed because it '", client.end, "', which is not true");
        }
    }
    if (!client.end.empty()) {
        Loses(client, client.end);
    } else if (client.came != Time{} || !bridge->stopping) {
        Broken(client, " is closed without a word");
    }
}

// A scan has ended without a verdict, while its client was there. The reason is empty if it got some reply.
void World::Loses(Client& client, const std::string& reason) {
    if (client.lacked || client.file == 0) {
        return;
    }
    LookAtServers();
    const Time now = net.now;
    const bool used_up = client.IsUsedUp() || client.repeats >= 4;  // some may have broken at once
    const bool over_time =
        client.ended != Time{} && now >= client.ended + std::chrono::seconds(settings.verdict);
    const bool waited = down_since && now >= *down_since + std::chrono::seconds(settings.wait);
    bool all_asked = !down_since, all_sick = true, all_tried = true, just_up = false;
    for (const Server* server : list) {
        all_sick &= !server->up && server->erred_at >= client.came;
        all_asked &= !server->up || client.HasAsked(*server);
        all_tried &= !server->known || server->asked_at >= client.came || server->busy_at == now;
        just_up |= server->named && server->up_since == now;
        const bool tried = client.asked.find(server->name) != std::string::npos;
        const bool excused = just_up || client.IsUsedUp() || (used_up && tried) || client.squeezed ||
                             over_time || client.HasAsked(*server);
        Never(server->up && server->IsWell() && !excused, client, " is lost (", reason, ") although ",
              server->name, " is well and up, and was not asked");
    }
    const std::pair<std::string_view, bool> reasons[] = {
        {"no verdict within", over_time},
        {"not all of the data is kept", client.squeezed},
        {"no further server may get it", used_up},
        {"no upstream server gave a verdict", all_asked || just_up},
        {"no upstream server calls a clean file clean", all_sick},
        {"no upstream server could be reached", all_tried && (waited || just_up)},
    };
    const bool is_true = std::any_of(std::begin(reasons), std::end(reasons), [&](const auto& each) {
        return each.second && reason.find(reason.empty() ? "" : each.first) != std::string::npos;
    });
    Never(!is_true, client, " is lost because '", reason, "', which is not true");
    for (const auto& line : client.lines) {
        Never(line->replied && ReadScanAnswer(line->said) != ScanAnswer::kNoVerdict, client,
              " is lost although its verdict was read");
    }
}

// Whom the bridge takes for up.
void World::LookAtServers() {
    bool any_up = false;
    for (size_t i = 0; i < list.size(); ++i) {
        Server& server = *list[i];
        const bool was_up = std::exchange(server.up, IsUp(*bridge->fleet.servers.at(i)));
        any_up |= server.up;
        if (server.up != was_up) {
            (server.up ? server.up_since : server.down_at) = net.now;
        }
        Never(was_up && !server.up && server.IsWell() && server.fault_at <= server.verdict_at && !lacks,
              server, " is well, has given a verdict since it was, and is called down");
        std::erase_if(server.lines, [](const auto& line) { return !line->IsOpen(); });
        server.busy_at = !server.lines.empty() ? net.now : server.busy_at;
        const Time listed = server.listed_at + (server.named ? kLookedUp : 0s);
        if (!server.up && server.IsWell() &&
            net.now > std::max({server.fault_at + (server.named ? kConnecting : 0s), listed, lacked_at}) +
                          kKnowsAgain) {
            Broken(server, " has been well for long and is not up");
        }
    }
    down_since = any_up ? std::nullopt : std::optional(down_since.value_or(net.now));
}

void World::LookAt(Client& client) {
    const Time now = net.now;
    const auto seconds = [](unsigned number) { return std::chrono::seconds(number) + kTick; };
    if (now > std::max(client.heard, client.told) + 20s + client.pause && !client.left && !client.answered) {
        client.Leave("loses patience", false);
    }
    Never(
        client.answered && now > client.answered_at + (client.finishes ? 0s : 2s) + kTick && !client.writing,
        client, " has its reply and is not closed");
    if (client.answered || client.left || client.lacked) {
        return;
    }
    const bool crowded = crowd >= settings.clients;
    if (crowded && client.ended == Time{}) {
        client.due = now;  // it may have waited for a place
    }
    if (client.ended == Time{} && client.reading &&
        now > std::max(client.heard, client.due) + seconds(settings.idle)) {
        Broken(client, " has been silent for long and is not closed");
    }
    if (client.ended == Time{} || !client.Scans() || client.file == 0) {
        return;
    }
    if (client.lines.empty() && crowded) {
        client.due = client.told = now;  // it may wait for a place
    }
    Never(now > client.told + kLongestStill && client.text.size() < kVerdictBeginning.size(), client,
          " has waited for long without a byte");
    Never(now > client.due + seconds(settings.verdict), client, " is not told in time");
    bool runs = false, late = true, forsaken = true;
    for (const auto& line : client.lines) {
        runs |= line->Runs();
        late &= !line->Runs() || now > std::max(client.due, line->began) + kLate + 2 * kTick;
        forsaken &= !line->Runs() || (!line->server->up && now > line->server->down_at + 2 * kTick);
    }
    client.alone_since = runs || crowded ? now : std::max(client.alone_since, client.repeated_at);
    for (const Server* server : list) {
        const Time since = std::max({server->fault_at, server->up_since, server->listed_at}) + kConnecting;
        if (!server->IsWell() || !server->up || now < since || client.HasAsked(*server) ||
            client.IsUsedUp() || client.repeats >= 4 || client.squeezed) {
            continue;
        }
        Never(now > client.alone_since + kConnecting, client, " is with no server, while ", *server,
              " is well");
        const bool connects = now < client.repeated_at + kConnecting;
        Never(runs && late && !connects && (forsaken || now > server->busy_at + 2 * kTick), client,
              " is late, while ", *server, " has nothing to do");
    }
}

void World::CheckTheEnd() {
    std::string stats;
    g_memory.lacking = 0;
    {
        const Inside inside;
        const std::string text = StatsText(*bridge, net.now);
        const Outside outside;
        stats = text.c_str();
    }
    // The sum of all values of this name, or of those with this label.
    const auto sum = [&](const std::string& name) {
        double of_all = 0;
        for (size_t at = 0; (at = stats.find("\nkestoav_" + name, at)) != std::string::npos; ++at) {
            of_all += std::atof(stats.c_str() + stats.find(' ', at));
        }
        return of_all;
    };
    size_t least = 0, most = 0, clean = 0, infected = 0, data = 0, most_data = 0, left = 0;
    for (const auto& client : clients) {
        if (client->came == Time{} || !(client->Scans() || client->kind == Kind::kTooLong)) {
            continue;
        }
        ++most;
        least += client->answered || !client->lines.empty();
        left += client->left;
        clean += client->answered && client->text.ends_with(std::string("OK\0", 3));
        infected += client->answered && client->text.ends_with(std::string(kFoundEnding) + '\0');
        data += client->answered ? client->file : 0;
        most_data += client->read;
    }
    const auto lost = static_cast<size_t>(sum("scans_total{outcome=\"no_"));
    const struct {
        const char* name;
        size_t low, high;
        bool always = false;
    } numbers[] = {{"clients ", 0, 0, true},
                   {"scans_waiting ", 0, 0, true},
                   {"kept_bytes ", 0, 0, true},
                   {"upstream_scans{", 0, 0, true},
                   {"scans_total{", least, most},
                   {"scans_total{outcome=\"clean", clean, clean + left},
                   {"scans_total{outcome=\"infected", infected, infected + left},
                   {"scans_lost_total{", lost, lost},
                   {"bytes_total ", data, most_data},
                   {"refused_total ", refused, refused},
                   {"repeats_total ", repeated, repeated}};
    for (const auto& [name, low, high, always] : numbers) {
        const double is = sum(name);
        Never((always || !lacks) && (is < static_cast<double>(low) || is > static_cast<double>(high)),
              "at the end ", name, " is ", is, ", and not ", low, " to ", high);
    }
    net.Clear();
    loop.reset();
    bridge.reset();
    Never(g_memory.blocks != 0, "at the end ", g_memory.blocks, " blocks of memory are held");
}

}  // namespace kesto::simulation

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

// A server gets the scan, beside or after those that had it before.
void World::AttemptBegins(Client& client, ServerLine& line) {
    Server& server = *line.server;
    Tell(server.name, " gets the scan of ", client.name);
    bool tried = false;
    for (const auto& other : client.lines) {
        const Time began = other->began - (other->server->named ? kConnecting : 0s);
        Never(other->Runs() && (client.ended == Time{} || line.began < std::max(client.ended, began) + kLate),
              "a second server gets the scan of ", client.name, " too early");
        tried |= other->server == &server && other->began >= server.listed_at;
    }
    Never(client.IsUsedUp(tried), "too many servers get the scan of ", client.name);
    client.asked += server.name;
    server.scan_at = net.now;
}

// A further server is chosen for its scan.
void World::Repeats(Client& client, const Server& server) {
    const auto runs = [](const auto& line) {
        return line->client != nullptr && line->Runs() && line->began > line->server->listed_at;
    };
    const bool beside = std::ranges::any_of(client.lines, [&](const auto& line) {
        const Server& its = *line->server;
        return runs(line) && its.up && its.told_at != net.now && line->began > its.up_since && !its.has_dead;
    });
    if (beside && client.beside_at == Time{} && std::ranges::any_of(server.lines, runs)) {
        client.beside_at = net.now;
        const auto lately = [this](Time at) { return at + 60s > net.now; };
        const auto share = std::ranges::count_if(clients, lately, [](auto& each) { return each->beside_at; });
        const auto all = std::ranges::count_if(clients, lately, [](auto& each) { return each->ended; });
        Never(share > std::max<ptrdiff_t>(1, all / 10),
              "more than one scan in ten gets a second server that is busy");
    }
    ++repeated;
    ++client.repeats;
    client.asked += server.name;
    client.repeated_at = net.now;
}

void World::Logs(const std::string& message) {
    Tell("log: ", message);
    constexpr std::string_view kPeer = "10.9.0.1:";
    const size_t peer = message.find(kPeer);
    Client* client = nullptr;
    if (peer != std::string::npos) {
        client = clients.at(std::strtoul(message.c_str() + peer + kPeer.size(), nullptr, 10)).get();
    }
    for (const auto& server : servers) {
        if (message.starts_with("scan of ") && message.ends_with("upstream " + server->name)) {
            Repeats(*client, *server);
        } else if (message.starts_with("upstream " + server->name)) {
            server->told_at = net.now;
            Never(message.ends_with(" up") && !server->listed, server->name,
                  " is called up, but not in the list");
        }
    }
    const bool refuses = message.starts_with("refused ");
    refused += refuses;
    if (refuses || message.starts_with("no reply to ")) {
        client->end = message.substr(message.find(" - ") + 3);
    }
    Never(message.ends_with(" - "), "the log tells no reason");
    Never(message.find("out of step") != std::string::npos && !lacks, "an exception: ", message);
}

// The client is given a whole reply.
void World::Replies(Client& client) {
    const std::string reply = client.text.substr(0, client.text.find('\0'));
    Tell(client.name, " gets \"", reply.substr(0, 60), "\"");
    Never(reply.size() + 1 != client.text.size(), client.name, " gets something after its reply");
    if (!client.Scans()) {
        const std::string_view kReplies[] = {"PONG", "Engine", "# HELP", "none", "none"};
        const auto question = static_cast<size_t>(client.kind) - static_cast<size_t>(Kind::kPing);
        return Never(!reply.starts_with(kReplies[question]), client.name, " gets no reply to its question");
    }
    const bool verdict = ReadScanAnswer(reply) != ScanAnswer::kNoVerdict;
    for (const auto& line : client.lines) {
        line->server->failed += verdict && line->Erred() && line->replied_at > line->server->verdict_at;
    }
    constexpr std::string_view kBefore = "no verdict: ";
    const bool marked = reply.starts_with(kBefore) && client.WasTold(reply.substr(kBefore.size()));
    Never(client.file != 0 && !client.WasTold(reply) && !marked, client.name,
          " gets a reply that no server gave to all of it");
    Never(!verdict && reply.starts_with(kVerdictBeginning), client.name,
          " gets an error that looks like a verdict");
    if (!verdict && net.now > client.ended + kTick) {  // otherwise it was lost before
        Loses(client, "");
    }
}

// The bridge has closed the client's connection.
void World::Closes(Client& client) {
    Tell("the bridge closes ", client.name);
    reading -= client.Scans() ? client.read : 0;
    Never(!client.answered && !kVerdictBeginning.starts_with(client.text), client.name,
          " gets a part of a reply");
    if (client.left || client.lacked) {
        return;
    }
    if (client.answered) {
        Never(client.given != client.text.size(), client.name, " is closed before its reply has gone out");
        return Never(!client.finishes && net.now < client.answered_at + 2s, client.name,
                     " is closed before it had time to read its reply");
    }
    const bool silent =
        net.now >= client.heard + std::chrono::seconds(settings.idle) && client.read == client.arrived;
    const bool slow = client.speed < 1100 || (client.pauses_at < client.RequestSize() && client.read != 0) ||
                      net.now >= client.heard + 900ms;
    const auto well = [&](const Server* server) {
        return server->IsWell() && std::max(server->fault_at, server->listed_at) < client.came;
    };
    const std::pair<std::string_view, bool> reasons[] = {
        {"left", false},
        {"it left", false},
        {"the bridge ends", bridge.stopping && (client.ended == Time{} || client.lines.empty())},
        {"sent a chunk", client.kind == Kind::kTooLong},
        {"sent an unknown", client.kind == Kind::kNoise},
        {"sent no", silent && (client.kind != Kind::kNoise || client.read != client.RequestSize())},
        {"too slow", crowd > settings.clients && slow},
        {"no upstream server answered", std::ranges::none_of(list, well)},
    };
    for (const auto& [reason, is_true] : reasons) {
        if (client.end.starts_with(reason)) {
            return Never(!is_true, client.name, " is closed because it '", client.end,
                         "', which is not true");
        }
    }
    client.end.empty()
        ? Never(client.came != Time{} || !bridge.stopping, client.name, " is closed without a word")
        : Loses(client, client.end);
}

// A scan has ended without a verdict, while its client was there. The reason is empty if it got some reply.
void World::Loses(Client& client, const std::string& reason) {
    if (client.lacked || client.file == 0) {
        return;
    }
    LookAtServers();
    const bool used_up = client.IsUsedUp(true) || client.repeats >= 4;  // some may have broken at once
    const bool over_time =
        client.ended != Time{} && net.now >= client.ended + std::chrono::seconds(settings.verdict);
    const bool waited = down_since && net.now >= *down_since + std::chrono::seconds(settings.wait);
    bool all_asked = !down_since, all_sick = true, all_tried = true;
    for (const Server* server : list) {
        all_sick &= !server->up && server->erred_at >= client.came;
        all_asked &= !server->up || client.HasAsked(*server);
        all_tried &= !server->known || server->busy_at >= client.came;
        Never(server->IsWell() && client.MayHave(*server) && !over_time, client.name, " is lost (", reason,
              ") although ", server->name, " is well and up, and was not asked");
    }
    const std::pair<std::string_view, bool> reasons[] = {
        {"no verdict within", over_time},
        {"not all of the data is kept", client.IsSqueezed()},
        {"no further server may get it", used_up},
        {"no upstream server gave a verdict", all_asked},
        {"no upstream server calls a clean file clean", all_sick},
        {"no upstream server could be reached", all_tried && waited},
    };
    const bool is_true = std::ranges::any_of(reasons, [&](const auto& each) {
        return each.second && reason.find(reason.empty() ? "" : each.first) != std::string::npos;
    });
    Never(!is_true, client.name, " is lost because '", reason, "', which is not true");
    for (const auto& line : client.lines) {
        Never(line->HasVerdict(), client.name, " is lost although its verdict was read");
    }
}

// Whom the bridge takes for up.
void World::LookAtServers() {
    bool any_up = false;
    for (size_t i = 0; i < list.size(); ++i) {
        Server& server = *list[i];
        const bool was_up = std::exchange(server.up, IsUp(*bridge.fleet.servers.at(i)));
        any_up |= server.up;
        if (server.up != was_up) {
            (server.up ? server.up_since : server.down_at) = net.now;
            server.failed = 0;
        }
        const bool falls = was_up && !server.up && !lacks && server.erred_at != net.now;
        Never(falls && server.IsWell() && server.fault_at <= server.verdict_at, server.name,
              " is well, has given a verdict since it was, and is called down");
        Never(falls && server.fault == Fault::kBusy && net.now < server.verdict_at + 4s, server.name,
              " is busy, gives verdicts, and is called down");
        Never(!server.known && !server.up && net.now > server.listed_at + 5900ms &&
                  server.told_at < server.listed_at && !lacks,
              server.name, " is not known, and nobody is told");
        Never(server.up && server.failed >= 3, server.name, " fails scan after scan, and is not called down");
        std::erase_if(server.lines, [](const auto& line) { return !line->IsOpen(); });
        server.busy_at = !server.lines.empty() ? net.now : server.busy_at;
        const Time ready = std::max(server.fault_at + (server.named ? kConnecting : 0s),
                                    server.listed_at + (server.named ? kLookedUp : 0s));
        Never(!server.up && server.IsWell() && net.now > std::max(ready, lacked_at) + kKnowsAgain,
              server.name, " has been well for long and is not up");
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
        client.name, " has its reply and is not closed");
    if (client.answered || client.left || client.lacked) {
        return;
    }
    const bool crowded = crowd >= settings.clients;
    if (crowded && client.ended == Time{}) {
        client.due = now;  // it may have waited for a place
    }
    Never(client.ended == Time{} && client.reading &&
              now > std::max(client.heard, client.due) + seconds(settings.idle),
          client.name, " has been silent for long and is not closed");
    if (client.ended == Time{} || !client.Scans() || client.file == 0) {
        return;
    }
    if (client.lines.empty() && crowded) {
        client.due = client.told = now;  // it may wait for a place
    }
    Never(now > client.told + kLongestStill && client.text.size() < kVerdictBeginning.size(), client.name,
          " has waited for long without a byte");
    Never(now > client.due + seconds(settings.verdict), client.name, " is not told in time");
    bool runs = false, late = true, forsaken = true;
    for (const auto& line : client.lines) {
        runs |= line->Runs();
        late &= !line->Runs() || now > std::max(client.due, line->began) + kLate + 2 * kTick;
        forsaken &= !line->Runs() || (!line->server->up && now > line->server->down_at + 2 * kTick);
    }
    client.alone_since = runs || crowded ? now : std::max(client.alone_since, client.repeated_at);
    for (const Server* server : list) {
        const Time since = std::max({server->fault_at, server->up_since, server->listed_at}) + kConnecting;
        if (!server->IsWell() || !client.MayHave(*server) || now < since) {
            continue;
        }
        Never(now > client.alone_since + kConnecting, client.name, " is with no server, while ", server->name,
              " is well");
        const bool connects = now < client.repeated_at + kConnecting;
        Never(runs && late && !connects && (forsaken || now > server->busy_at + 2 * kTick), client.name,
              " is late, while ", server->name, " has nothing to do");
    }
}

void World::CheckTheEnd() {
    g_memory.lacking = 0;
    const std::string stats = StatsText(bridge, net.now);
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
    for (const char* const name : {"clients ", "scans_waiting ", "kept_bytes ", "upstream_scans{"}) {
        Never(sum(name) != 0, "at the end ", name, " is ", sum(name));
    }
    const std::tuple<const char*, size_t, size_t> numbers[] = {
        {"scans_total{", least, most},
        {"scans_total{outcome=\"clean", clean, clean + left},
        {"scans_total{outcome=\"infected", infected, infected + left},
        {"scans_lost_total{", lost, lost},
        {"bytes_total ", data, most_data},
        {"refused_total ", refused, refused},
        {"repeats_total ", repeated, repeated}};
    for (const auto& [name, low, high] : numbers) {
        const double is = sum(name);
        Never(!lacks && (is < static_cast<double>(low) || is > static_cast<double>(high)), "at the end ",
              name, " is ", is, ", and not ", low, " to ", high);
    }
}

}  // namespace kesto::simulation

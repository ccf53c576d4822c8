// What the bridge promises, held against what the world knows.
#include <cstdlib>

#include "tests/simulation/world.h"

namespace kesto::simulation {
namespace {

constexpr auto kTick = 300ms;  // the bridge looks at its time limits four times a second
constexpr auto kKnowsAgain = 36s;
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
        const Time began = other->began - (other->server->has_other ? kConnecting : 0s);
        Never(other->Runs() && (client.ended == Time{} || line.began < std::max(client.ended, began) + kLate),
              "a second server gets the scan of ", client.name, " too early");
        tried |= other->server == &server && other->IsCurrent();
    }
    Never(client.IsUsedUp(tried), "too many servers get the scan of ", client.name);
    client.asked += server.name;
    server.scan_at = net.now;
}

// A further server is chosen for its scan.
void World::Repeats(Client& client, const Server& server) {
    for (const auto& line : client.lines) {
        const bool waits = line->closed && !line->broken && !line->forgotten && line->reply.empty();
        Never(waits && line->sent == line->size && !lacks, client.name, " is taken from ", line->server->name,
              ", which has got all of it");
    }
    ++repeated;
    ++client.repeats;
    client.asked += server.name;
    client.repeated_at = net.now;
}

void World::Logs(const std::string& message) {
    Tell("log: ", message);
    const auto has = [&](const char* text) { return message.find(text) != std::string::npos; };
    // The end of a connection, error 2, has words of its own.
    const bool is_odd =
        message.ends_with(" - ") || message.ends_with("within ") || has("error 2") || has(" - ;");
    Never((is_odd || has("out of step")) && !lacks, "a line without a reason, or of an exception: ", message);
    const size_t peer = message.find("10.9.0.1:");
    Client& client =
        *clients.at(peer == std::string::npos ? 0 : std::strtoul(&message[peer + 9], nullptr, 10));
    made_way = {net.now, (made_way.first == net.now ? made_way.second : 0) + has("too slow while")};
    Never(made_way.second > 1 + settings.clients / 4, "too many clients make way at once");
    const auto erred = [](const auto& line) { return line->replied && !line->HasVerdict(); };
    Never(has(" gave no verdict to ") && client.file != 0 && std::ranges::none_of(client.lines, erred),
          "no error was read");
    for (const auto& server : servers) {
        const std::string upstream = "upstream " + server->name;
        if (message.starts_with("scan of ") && message.ends_with(upstream)) {
            Repeats(client, *server);
        } else if (message.starts_with(upstream)) {
            const bool up = message.ends_with(" up"), down = has(" down - ");
            server->told_at = net.now;
            server->told_down = !up && (server->told_down || down);
            const size_t again = message.find("again in ");
            const int pause = again == std::string::npos ? 0 : std::atoi(&message[again + 9]);
            const bool never = down && pause == 0 && !server->named;
            const bool hurries = bridge.fleet.down_since && bridge.fleet.scans_wait();
            Never(!lacks && (server->listed ? never || pause > 1 << std::min(server->pauses, hurries ? 1 : 5)
                                            : up || pause),
                  server->name, " is tried again too late or never, or is not in the list");
            server->pauses += pause != 0;
            Never(has("takes long") && net.now < server->listed_at + 5s, server->name, " is not waited for");
            Never(has(" down - gave no reply") && server->up && bridge.fleet.down_since, server->name,
                  " is the last one that is up, and is called down for its silence");
        }
    }
    refused += message.starts_with("refused ");
    if (message.starts_with("refused ") || message.starts_with("no reply to ")) {
        client.end = message.substr(message.find(" - ") + 3);
    }
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
    const ScanAnswer answer = ReadScanAnswer(reply);
    const bool verdict = answer != ScanAnswer::kNoVerdict;
    ++replies[static_cast<size_t>(answer)];
    for (const auto& line : client.lines) {
        line->server->failed +=
            verdict && line->Erred() && line->IsCurrent() && line->replied_at > line->server->verdict_at;
    }
    constexpr std::string_view kBefore = "no verdict: ";
    const bool marked = reply.starts_with(kBefore) && client.WasTold(reply.substr(kBefore.size()));
    Never(client.file != 0 && !client.WasTold(reply) && !marked, client.name,
          " gets a reply that no server gave to all of it");
    Never(!verdict && reply.starts_with(kVerdictBeginning), client.name,
          " gets an error that looks like a verdict");
    if (!verdict && net.now > client.ended + kTick) {  // otherwise it was given up before
        GivesUp(client);
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
        const bool has_read =
            client.given == client.text.size() && (client.finishes || net.now >= client.answered_at + 2s);
        return Never(!has_read, client.name, " is closed before it had time to read its reply");
    }
    client.end.empty()
        ? Never(client.came != Time{} || !bridge.stopping, client.name, " is closed without a word")
        : GivesUp(client);
}

// There is no verdict for a client, for a reason that must be true; none is told: it has got some other
// reply.
void World::GivesUp(const Client& client) {
    if (client.lacked || client.file == 0) {
        return;
    }
    LookAtServers();
    const auto over = [this](Time since, unsigned setting) {
        return net.now >= since + std::chrono::seconds(setting);
    };
    const bool all_came = client.ended != Time{}, began = client.came != Time{};
    const bool silent = over(client.heard, settings.idle) && client.read == client.arrived;
    const bool slow = client.speed < 1100 || (client.pauses_at < client.RequestSize() && client.read != 0) ||
                      net.now >= client.heard + 900ms;
    const bool sent_all = client.read == client.RequestSize();
    const bool over_time = all_came && over(client.ended, settings.verdict);
    const auto has_verdict = [](const auto& line) { return line->HasVerdict(); };
    bool missed = std::ranges::any_of(client.lines, has_verdict);
    bool none_well = true, all_asked = !down_since, all_sick = true, all_tried = true;
    size_t untried = 0;
    for (const auto& line : client.lines) {  // whose probe is to tell why it erred
        all_asked &= !line->Erred() || !line->server->up || lacks || client.IsUsedUp(true) ||
                     line->replied_at < std::max(line->server->probed_at + 20s, net.now - 5s);
    }
    for (const Server* server : list) {
        none_well &=
            !server->IsWell() || std::max(server->fault_at, server->listed_at) + kTick >= client.came;
        all_asked &= !server->up || client.HasAsked(*server);
        all_sick &= !server->up && server->erred_at >= client.came;
        all_tried &= !server->known || server->busy_at >= client.came;
        untried += !server->up && server->known && !client.HasAsked(*server) &&
                   client.asked.find(server->name) == std::string::npos &&
                   std::ranges::any_of(client.lines,
                                       [&](const auto& line) { return line->replied_at > server->busy_at; });
        missed |= server->IsWell() && client.MayHave(*server) && !over_time;
    }
    const size_t first = client.lines.size() <= client.repeats;  // that was tried, which is not told
    const std::tuple<std::string_view, bool, bool> reasons[] = {
        // with whether it is true, and whether a scan has been given up
        {"the bridge ends",
         bridge.stopping && over(*bridge.stopping, settings.idle) && (!all_came || client.lines.empty()),
         false},
        {"sent a chunk", client.words.ends_with('d'), false},
        {"sent an unknown", client.kind == Kind::kNoise, false},
        {"sent no command", silent && !began && !sent_all, false},
        {"sent nothing", silent && began && !(sent_all && client.words.ends_with('d')), false},
        {"too slow", crowd > settings.clients && slow && net.now >= client.gated + 4s, false},
        {"no upstream server answered", none_well, false},
        {"no verdict within", over_time, true},
        {"not all of the data is kept", client.IsSqueezed(), true},
        {"; no further server may get it", client.IsUsedUp(true) || client.repeats >= 4, true},
        {"no upstream server gave a verdict", all_asked && untried <= first, true},
        {"no upstream server calls a clean file clean", all_sick, true},
        {"no upstream server could be reached", all_tried && down_since && over(*down_since, settings.wait),
         true},
    };
    bool is_true = false;
    for (const auto& [reason, holds, loses] : reasons) {
        const bool is_told = client.end.empty() ? loses : client.end.find(reason) != std::string::npos;
        is_true |= is_told && holds;
        Never(is_told && loses && missed, client.name,
              " is given up although it has a verdict, or a server is well and up, and was not asked");
    }
    Never(!is_true, client.name, " is given up because it '", client.end, "', which is not true");
}

// Whom the bridge takes for up.
void World::LookAtServers() {
    bool any_up = false;
    for (size_t i = 0; i < list.size(); ++i) {
        Server& server = *list[i];
        const bool was_up = std::exchange(server.up, IsUp(*bridge.fleet.servers.at(i)));
        any_up |= server.up;
        if (server.up != was_up) {
            server.turned_at = net.now;
            server.failed = 0;
        }
        std::erase_if(server.lines, [](const auto& line) { return !line->IsOpen(); });
        server.busy_at = !server.lines.empty() ? net.now : server.busy_at;
        LookAt(server, was_up);
    }
    down_since = any_up ? std::nullopt : std::optional(down_since.value_or(net.now));
}

void World::LookAt(const Server& server, bool was_up) {
    const Time now = net.now;
    const Time ready = std::max(server.fault_at + (server.named ? kConnecting : 0s),
                                server.listed_at + (server.named ? kLookedUp : 0s));
    const Time down_at = server.other_errs ? std::max(ready + kKnowsAgain, server.turned_at) : ready;
    Never(!server.up && server.IsWell() && now > std::max(down_at, lacked_at) + kKnowsAgain, server.name,
          " has been well for long and is not up");
    if (lacks) {
        return;
    }
    Never(server.up && server.told_down, server.name, " is up, and the log calls it down");
    const bool is_busy = server.known && server.fault == Fault::kBusy && now < server.verdict_at + 2s;
    const bool works =
        server.IsWell() ? server.fault_at < server.verdict_at && now > server.verdict_at + kTick : is_busy;
    Never(works && was_up && !server.up && !server.other_errs && server.erred_at < server.verdict_at,
          server.name, " gives verdicts, and is called down");
    Never(!server.known && !server.up && now > server.listed_at + 5900ms && server.told_at < server.listed_at,
          server.name, " is not known, and nobody is told");
    const bool is_sick = server.fault == Fault::kSick && server.number % 2 == 0;
    const Time erred = std::max({server.probed_at + 20s, server.fault_at, server.listed_at});
    Never(server.up && is_sick && server.erred_at > erred && now > server.erred_at + 25s, server.name,
          " errs, and nobody asks why");
    Never(server.up && server.failed >= 3, server.name, " fails scan after scan, and is not called down");
    const Time since = std::max(server.turned_at, server.listed_at);
    Never(server.named && !server.up && !lookups_fail && now > since + 1s && server.looked_up + 400ms < since,
          server.name, " is down, and its name is not looked up at once");
    const Time silent = std::max(server.fault_at, server.listed_at);
    const auto works_on = [&](const Server* other) {
        return other != &server && other->up && other->turned_at < silent;
    };
    Never(server.up && server.fault == Fault::kDeaf && now > silent + 82s &&
              std::ranges::any_of(list, works_on),
          server.name, " has been silent for long, and is not called down");
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
    Never(bridge.stopping && client.read == 0 && now > *bridge.stopping + kTick, client.name,
          " has asked nothing, and keeps the bridge from its end");
    const bool crowded = crowd >= settings.clients;
    if (crowded && client.lines.empty()) {
        client.due = client.told = now;  // it may wait for a place
    }
    const Time idle_since = bridge.stopping.value_or(std::max(client.heard, client.due));
    Never(client.ended == Time{} && client.reading && now > idle_since + seconds(settings.idle), client.name,
          " has been silent for long, or the bridge is to end, and it is not closed");
    client.gated = client.reading || client.heard == now ? client.gated : now;
    Never(client.ended == Time{} && now > std::max({client.heard, client.gated, crowded_since}) + 12s,
          client.name, " says nothing while others wait, and is not closed");
    const bool asks = client.kind == Kind::kPing || client.kind == Kind::kVersion;
    Never(asks && client.ended != Time{} && now > client.ended + 5s * (servers.size() + 1) + 2 * kTick,
          client.name, " waits for long for the reply to its question");
    if (client.ended == Time{} || !client.Scans() || client.file == 0) {
        return;
    }
    const auto longest_still = client.finishes && client.text.size() < 2 ? 3s + 2 * kTick : 16s;
    Never(now > client.told + longest_still && client.text.size() < kVerdictBeginning.size(), client.name,
          " has waited for long without a byte");
    Never(now > client.due + seconds(settings.verdict), client.name, " is not told in time");
    const Server& only = *list.front();
    const Time waits_since = std::max(client.alone_since, client.repeated_at) + kConnecting;
    const bool sick = only.sick_at > only.probed_at && only.probed_at > waits_since;
    Never(list.size() == 1 && sick && !only.up && !only.has_other && now > only.sick_at + 2 * kTick && !lacks,
          client.name, " waits although the only server is sick");
    bool runs = false, late = true, forsaken = true;
    for (const auto& line : client.lines) {
        runs |= line->Runs();
        late &= !line->Runs() || now > std::max(client.due, line->began) + kLate + 2 * kTick;
        forsaken &= !line->Runs() || (!line->server->up && now > line->server->turned_at + 2 * kTick);
    }
    client.alone_since = runs || crowded ? now : std::max(client.alone_since, client.repeated_at);
    Never(down_since &&
              now > std::max(*down_since + seconds(settings.wait), client.alone_since + kConnecting) + 6s,
          client.name, " waits for a server for too long");
    for (const Server* server : list) {
        const Time since = std::max({server->fault_at, server->turned_at, server->listed_at}) + kConnecting;
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
        Never(stats.find("\nkestoav_" + name) == std::string::npos, "there is no number ", name);
        for (size_t at = 0; (at = stats.find("\nkestoav_" + name, at)) != std::string::npos; ++at) {
            of_all += std::atof(stats.c_str() + stats.find(' ', at));
        }
        return of_all;
    };
    for (const char* const name : {"clients ", "scans_waiting ", "kept_bytes ", "upstream_scans{"}) {
        Never(sum(name) != 0, "at the end ", name, " is ", sum(name));
    }
    double least = 0, most = 0, data = 0, most_data = 0;
    for (const auto& client : clients) {
        const bool scans = client->came != Time{} && (client->Scans() || client->kind == Kind::kTooLong);
        most += scans;
        least += scans && (client->answered || !client->lines.empty());
        data += scans && client->answered ? client->file : 0;
        most_data += scans ? client->read : 0;
    }
    const double given_up = sum("scans_lost_total{"), told = replies[0] + replies[1] + replies[2];
    const auto up = static_cast<double>(std::ranges::count_if(list, &Server::up));
    const std::tuple<const char*, double, double> numbers[] = {
        {"scans_total{", least, most},
        {"scans_total{outcome=\"clean", replies[0], replies[0]},
        {"scans_total{outcome=\"infected", replies[1], replies[1]},
        {"scans_total{outcome=\"no_verdict", replies[2], replies[2]},
        {"scans_total{outcome=\"no_", given_up, given_up},
        {"bytes_total ", data, most_data},
        {"refused_total ", refused, refused},
        {"repeats_total ", repeated, repeated},
        {"upstream_replies_total{", 0, attempts},
        {"scan_seconds_count ", told, told},
        {"scan_seconds_sum ", told * 1e-6, told * 1e6},
        {"upstream_seconds_total{", 0, 1e9},
        {"clients_limit ", settings.clients, settings.clients},
        {"upstream_up{", up, up},
        {"upstream_failures_total{", 0, attempts}};
    for (const auto& [name, low, high] : numbers) {
        const double is = sum(name);
        Never(!lacks && (is < low || is > high), "at the end ", name, " is ", is, ", and not ", low, " to ",
              high);
    }
}

}  // namespace kesto::simulation

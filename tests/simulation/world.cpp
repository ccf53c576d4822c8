#include "tests/simulation/world.h"

#include <cstdlib>

#include "bridge/client.h"
#include "common/bridge_log.h"
#include "common/detached_thread.h"
#include "common/error_words.h"
#include "common/name_lookup.h"
#include "common/tcp_options.h"

namespace kesto::simulation {
namespace {

constexpr auto kCalm = 130s;      // after the faults, until each server must have its part of the scans
constexpr auto kLongest = 3600s;  // until the last client ends
constexpr auto kLateProbe = 25s;  // may find out until then how a server was before
constexpr uint64_t kAll = UINT64_MAX;

}  // namespace

World::World(uint64_t seed, bool the_tells) : tells(the_tells), net(seed) {
    g_world = this;
    Dice& dice = net.dice;
    lasts = dice.Time(30s, 240s);
    net.system_takes = dice.OneIn(2);
    net.connect = [this](const std::string& where) { return Connect(where); };
    settings.decrypt = !dice.OneIn(4);
    if (dice.OneIn(3)) {
        settings.idle = static_cast<unsigned>(dice.Between(2, 40));
        settings.wait = static_cast<unsigned>(dice.Between(0, 70));
        settings.verdict = static_cast<unsigned>(dice.Between(5, 120));
    }
    settings.keep = dice.OneIn(3) ? static_cast<unsigned>(dice.Below(3)) : settings.keep;
    settings.clients = dice.OneIn(3) ? static_cast<unsigned>(dice.Between(1, 8)) : settings.clients;
    lookups_fail = dice.OneIn(4);
    lacks = dice.OneIn(6);
    largest = dice.OneIn(30) ? 30'000'000 : dice.OneIn(4) ? 1'000'000 : 100'000;
    for (uint64_t left = dice.Between(1, 6); left != 0; --left) {
        servers.push_back(std::make_unique<Server>(servers.size()));
    }
    for (uint64_t left = dice.Wide(4, 80); left != 0; --left) {
        const auto arrives = Duration(dice.Between(1, static_cast<uint64_t>(lasts.count())));
        clients.push_back(std::make_shared<Client>(clients.size(), arrives));
    }
    const bool changes = dice.OneIn(4);
    for (Duration at = 0s; at < lasts; at += changes ? dice.Time(1s, 60s) : lasts) {
        net.After(at, [this, changes] { SetList(changes ? net.dice.Below(kAll) | 1 : kAll); });
    }
    for (Duration at = dice.Time(1ms, 30s); lacks && at < lasts; at += dice.Time(100ms, 30s)) {
        net.After(at, [this] {
            g_memory.spare = net.dice.Wide(0, 300);
            g_memory.lacking = net.dice.Between(1, 4);
        });
    }
    net.After(lasts, [this] {
        Tell("all are well from now on");
        calm = true;
        for (const auto& server : servers) {
            server->Begin(Fault::kNone);
        }
        SetList(kAll);
    });
    net.After(dice.OneIn(8) ? dice.Time(1s, lasts) : 24h, [this] {
        Tell("the bridge is asked to end");
        Stop(bridge, net.now);
    });
}

LinePtr World::Connect(const std::string& where) {
    const auto last = static_cast<size_t>(std::atoi(where.c_str() + where.rfind('.') + 1));
    Never(where.starts_with("127."), "the bridge connects to itself");
    Server& server = *servers.at(last / 16);
    const auto line = std::make_shared<ServerLine>(&server, last % 16 == server.place);
    Never(!line->is_there && server.IsWell() && server.verdict_at > server.fault_at + kLateProbe,
          "the bridge forgets the good address of ", server.name);
    line->rate = server.rate;
    server.lines.push_back(line);
    server.busy_at = net.now;
    ++attempts;
    return line;
}

void World::SetList(uint64_t which) {
    list.clear();
    std::vector<ServerAddress> names;
    for (const auto& server : servers) {
        const bool listed = (which >> server->number & 1) != 0;
        if (listed) {
            list.push_back(server.get());
            names.push_back(*ParseServerAddress(server->name));
        }
        if (listed != std::exchange(server->listed, listed)) {
            Tell(server->name, listed ? " is in the list" : " is taken out of the list");
            server->listed_at = net.now;
            server->up = server->told_down = false;
            server->Know(false);
        }
    }
    g_memory.lacking = 0;
    bridge.settings.upstreams = names;
    Apply(bridge, net.now);
}

void World::Step() {
    const uint64_t failed = g_memory.failed;
    crowd = bridge.clients.size();
    crowded_since = crowd > settings.clients ? crowded_since : net.now;
    g_memory.inside = true;
    const bool ticked = loop.RunOnce([this] {
        const Outside outside;
        if (bridge.stopping) {
            arrivals.clear();
        } else if (!arrivals.empty() && bridge.clients.size() < size_t{2} * settings.clients) {
            const std::shared_ptr<Client> client = let_in.emplace_back(arrivals.front());
            arrivals.erase(arrivals.begin());
            client->heard = net.now;
            const asio::ip::tcp::endpoint peer(asio::ip::address_v4({10, 9, 0, 1}), client->number);
            const Inside inside;
            bridge::Client::Serve(bridge, asio::ip::tcp::socket(client), peer);
        }
    });
    g_memory.inside = false;
    Never(net.at_this_moment > 1'000'000, "the bridge goes on for ever in one moment");
    Never(bridge.room.used > size_t{settings.keep} << 20, "more is kept than may be");
    const auto answered =
        std::ranges::count_if(let_in, &Client::answered, &std::shared_ptr<Client>::operator*);
    Never(bridge.scans > std::min<size_t>(settings.clients, let_in.size() - static_cast<size_t>(answered)),
          "more scans are under way than may be");
    lacked_at = failed != g_memory.failed ? net.now : lacked_at;
    LookAtServers();
    for (const auto& client : let_in) {
        client->lacked |= lacked_at == net.now;
        client->closed ? Closes(*client) : ticked ? LookAt(*client) : void();
    }
    std::erase_if(let_in, [](const auto& client) { return client->closed; });
}

std::string World::Run() {
    bridge.settings = settings;
    bridge.metrics.started = net.now;
    const auto run = [&](Time at_least, Time at_most) {
        while (broken.empty() && (net.now < at_least || !arrivals.empty() || net.open + net.waking != 0)) {
            Step();
            Never(net.now > at_most, "some client never ends");
        }
    };
    run(net.now + lasts + kCalm, net.now + lasts + kCalm + kLongest);
    if (!bridge.io.stopped()) {
        // When all servers have been well for long, each of them gets its part of the scans.
        const Time ready = net.now + 60s;
        const size_t first = clients.size();
        for (size_t i = 0; i < 2 * list.size(); ++i) {
            clients.push_back(std::make_shared<Client>(clients.size(), 60s, true));
        }
        run(ready + 60s, ready + kLongest);
        for (const auto& client : std::span(clients).subspan(first)) {
            Never(!client->WasTold(kCleanReply) || !client->answered, client->name,
                  " is not served by servers that are well");
        }
        for (const Server* server : list) {
            Never(server->scan_at < ready, server->name, " gets no scan although it is well");
            const bool misses = server->versions == 0 && server->fault_at < server->listed_at && !lacks;
            Never(misses || server->versions > std::ssize(clients) + 60, server->name,
                  " is asked for its version ", server->versions, " times");
        }
        Stop(bridge, net.now);
    }
    run(net.now, net.now + 150s);
    Never(!bridge.io.stopped(), "the bridge does not end although no client is left");
    if (broken.empty()) {
        CheckTheEnd();
    }
    return broken;
}

}  // namespace kesto::simulation

// What the bridge uses of the system beside sockets.
namespace kesto {

using namespace simulation;

bridge::Time bridge::Clock::now() noexcept {
    return Network::It().now;
}

void LogBridge(const std::string& /*kind*/, const std::string& message) noexcept {
    const Outside outside;
    g_world->Logs(message);
}

std::string ErrorWords(unsigned long code) {
    return "error " + std::to_string(code);
}

void KeepAlive(uintptr_t socket) {
    reinterpret_cast<Line*>(socket)->keeps_alive = true;
}

bool RunDetached(std::function<void()> work) {
    const Outside outside;
    Dice& dice = g_world->net.dice;
    const bool hangs = g_world->lookups_fail && dice.OneIn(4);
    if (g_world->lacks && dice.OneIn(50)) {
        return false;
    }
    g_world->net.After(hangs ? dice.Time(5s, 100s) : dice.Time(1ms, 300ms),
                       [began = g_world->net.now, work = std::move(work)] {
                           g_world->lookup_began = began;
                           work();
                       });
    return true;
}

int LookUpName(const std::string& name, uint16_t port, std::vector<ServerAddress>& addresses) noexcept {
    World& world = *g_world;
    Dice& dice = world.net.dice;
    Server& server = *world.servers.at(static_cast<size_t>(std::atoi(name.c_str() + 1)));
    server.looked_up = world.lookup_began;
    if (world.lookups_fail && dice.OneIn(2) && !world.calm) {
        return 11001;
    }
    world.Never(++server.lookups > 60 + (world.net.now - Time(24h)) / 1s, name, " is looked up too often");
    const auto add = [&, end = ":" + std::to_string(port)](bool is_found, const std::string& host) {
        addresses.insert(addresses.end(), is_found, *ParseServerAddress(host + end));
    };
    add(dice.OneIn(4), "127.0.0.1");
    if (!addresses.empty() && !world.calm && dice.OneIn(2)) {
        return 0;  // no other one
    }
    server.Know(server.known || world.lookup_began >= server.listed_at);
    add(server.has_other, server.At(9, true));
    add(true, server.At(server.place, false));
    return 0;
}

}  // namespace kesto

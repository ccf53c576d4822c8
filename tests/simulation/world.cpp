#include "tests/simulation/world.h"

#include <algorithm>
#include <cstdlib>

#include "base/clamd_words.h"
#include "bridge/client.h"

namespace kesto::simulation {
namespace {

constexpr auto kCalm = 130s;
constexpr auto kLastEnd = 1200s;  // after the faults

}  // namespace

World* g_world = nullptr;

World::World(uint64_t seed, bool tells) : plan(PlanOf(seed)), net(seed + 1), tells_(tells) {
    g_world = this;
    net.system_takes = plan.system_takes;
    net.connect = [this](const std::string& where) { return Connect(where); };
    for (size_t i = 0; i < plan.servers.size(); ++i) {
        servers.push_back(std::make_unique<Server>(*this, i, plan.servers[i]));
    }
    for (size_t i = 0; i < plan.clients.size(); ++i) {
        clients.push_back(std::make_shared<Client>(*this, i, plan.clients[i]));
    }
    for (const ListPlan& list : plan.lists) {
        net.After(list.at, [this, list] { SetList(list.servers); });
    }
    for (const Plan::Lack& lack : plan.lacks) {
        net.After(lack.at, [lack] {
            g_memory.spare = lack.spare;
            g_memory.lacking = lack.lacking;
        });
    }
    net.After(plan.lasts, [this] {
        Tell("all are well from now on");
        for (const auto& server : servers) {
            server->End();
        }
        SetList(~0u);
        g_memory.lacking = 0;
    });
    net.After(plan.stops, [this] {
        Tell("the bridge is asked to end");
        arrivals.clear();
        const Inside inside;
        Stop(*bridge, net.now);
    });
}

World::~World() {
    net.Clear();
    g_memory.lacking = 0;
}

void World::Broken(const std::string& promise) {
    if (broken_.empty()) {
        broken_ = promise;
        Tell("BROKEN: ", promise);
    }
}

LinePtr World::Connect(const std::string& where) {
    std::vector<size_t> numbers;
    for (size_t at = 0; at < where.size(); ++at) {
        if (at == 0 || where[at - 1] == '.') {
            numbers.push_back(static_cast<size_t>(std::atoi(where.c_str() + at)));
        }
    }
    if (numbers[0] == 127) {
        Broken("the bridge connects to itself");
    }
    const bool v6 = numbers.size() == 16;
    Server& server = *servers.at(v6 ? numbers[15] : numbers[2]);
    server.asked_at = net.now;
    if (v6 || (numbers[3] == 1 + server.moves && server.fault != Fault::kMoved)) {
        return server.Connect();
    }
    return std::make_shared<ServerLine>(*this, nullptr,
                                        numbers[3] == 99 ? server.plan.dead_address == 1 : net.dice.OneIn(2));
}

int World::LookUp(const std::string& name, uint16_t port, std::vector<ServerAddress>& addresses) {
    Server& server = *servers.at(static_cast<size_t>(std::atoi(name.c_str() + 1)));
    if (plan.lookups_fail && net.dice.OneIn(2) && net.now < Time(24h) + plan.lasts) {
        return 11001;
    }
    server.Found();
    const std::string net_part = "10.0." + std::to_string(server.number) + ".",
                      end = ":" + std::to_string(port);
    if (net.dice.OneIn(4)) {
        addresses.push_back(*ParseServerAddress("127.0.0.1" + end));
    }
    if (server.plan.dead_address != 0) {
        addresses.push_back(*ParseServerAddress(net_part + "99" + end));
    }
    addresses.push_back(*ParseServerAddress(net_part + std::to_string(1 + server.moves) + end));
    return 0;
}

void World::SetList(unsigned which) {
    list_.clear();
    std::vector<ServerAddress> names;
    for (const auto& server : servers) {
        const bool listed = (which >> server->number & 1) != 0;
        if (listed) {
            list_.push_back(server.get());
            names.push_back(*ParseServerAddress(server->name));
        }
        if (listed != server->listed) {
            Tell(server->name, listed ? " is in the list" : " is taken out of the list");
            server->listed_at = net.now;
            server->up = false;
            server->Forgotten();
        }
        server->listed = listed;
    }
    const Inside inside;
    g_memory.lacking = 0;
    bridge->settings.upstreams = names;
    Apply(*bridge, net.now);
}

void World::LetIn() {
    if (arrivals.empty() ||
        (bridge->clients.size() >= size_t{2} * plan.settings.clients && !bridge->stopping)) {
        return;
    }
    const std::shared_ptr<Client> client = arrivals.front();
    arrivals.pop_front();
    if (!bridge->stopping) {
        const auto port =
            static_cast<unsigned short>(std::atoi(client->Name().c_str() + client->Name().find(':') + 1));
        const asio::ip::tcp::endpoint peer(asio::ip::address_v4({10, 9, 0, 1}), port);
        active_.push_back(client);
        const Inside inside;
        bridge::Client::Serve(*bridge, asio::ip::tcp::socket(client), peer);
    }
}

void World::Logs(const std::string& message) {
    Tell("log: ", message);
    const size_t name = message.find("10.9.0.1:"), dash = message.find(" - ");
    Client* const client =
        name == std::string::npos
            ? nullptr
            : clients.at(static_cast<size_t>(std::atoi(message.c_str() + name + 9)) - 1000).get();
    if (message.starts_with("refused ")) {
        ++refused_;
    }
    if (message.starts_with("refused ") || message.starts_with("no reply to ")) {
        client->end = message.substr(dash + 3);
    } else if (message.starts_with("scan of ")) {
        ++repeated_;
        ++client->repeats;
        client->repeated_at = net.now;
    } else if (message.find("out of step") != std::string::npos && plan.lacks.empty()) {
        Broken("an exception: " + message);
    }
}

void World::Step() {
    const uint64_t failed = g_memory.failed;
    bool ticked = false;
    try {
        const Inside inside;
        ticked = loop_->RunOnce([this] {
            const Outside outside;
            LetIn();
        });
    } catch (const std::exception& error) {
        Broken(std::string("an exception leaves the loop: ") + error.what());
    }
    if (net.at_this_moment > 1'000'000) {
        Broken("the bridge goes on for ever in one moment");
    }
    if (failed != g_memory.failed) {
        Tell("memory was lacking");
        lacked_at_ = net.now;
    }
    LookAtServers(ticked);
    for (const auto& client : active_) {
        client->lacked |= lacked_at_ == net.now;
        if (client->IsClosed()) {
            Ended(*client);
        } else if (ticked) {
            LookAt(*client);
        }
    }
    std::erase_if(active_, [](const auto& client) { return client->IsClosed(); });
}

std::string World::Run() {
    {
        const Inside inside;
        bridge = std::make_unique<bridge::Bridge>();
        loop_ = std::make_unique<bridge::Loop>(*bridge);
        bridge->settings = plan.settings;
        bridge->metrics.started = net.now;
    }
    SetList(plan.lists.empty() ? ~0u : plan.lists[0].servers);
    const Time calm = net.now + plan.lasts + kCalm, last_end = calm + kLastEnd;
    while (broken_.empty() && !bridge->io.stopped() &&
           (net.now < calm || !active_.empty() || !arrivals.empty())) {
        Step();
        if (net.now > last_end) {
            Broken("some client never ends");
        }
    }
    if (broken_.empty() && !bridge->io.stopped()) {
        ServeTheLast();
    }
    if (broken_.empty() && !bridge->io.stopped()) {
        const Inside inside;
        Stop(*bridge, net.now);
    }
    if (broken_.empty() && !bridge->io.stopped()) {
        Broken("the bridge does not end although no client is left");
    }
    for (const Time end = net.now + 150s; broken_.empty() && net.open + net.waking != 0;) {
        Step();
        if (net.now > end) {
            Broken("connections stay open");
        }
    }
    g_memory.lacking = 0;
    if (broken_.empty()) {
        CheckTheEnd();
    }
    return broken_;
}

// When all servers have been well for long, each of them gets its part of the scans.
void World::ServeTheLast() {
    Tell("the last clients");
    const size_t first = clients.size();
    for (size_t i = 0; i < 2 * list_.size(); ++i) {
        clients.push_back(std::make_shared<Client>(*this, clients.size(), ClientPlan{1ms * i}));
    }
    const Time end = net.now + 60s;
    while (broken_.empty() && net.now < end) {
        Step();
    }
    for (size_t i = first; i < clients.size() && broken_.empty(); ++i) {
        if (!clients[i]->answered || !clients[i]->WasTold(kCleanReply)) {
            Broken("client " + std::to_string(i) + " is not served although all servers are well");
        }
    }
    for (const Server* server : list_) {
        const bool serves = std::any_of(
            clients.begin() + static_cast<ptrdiff_t>(first), clients.end(), [&](const auto& client) {
                return std::any_of(client->lines.begin(), client->lines.end(),
                                   [&](const auto& line) { return line->server == server; });
            });
        if (!serves && broken_.empty()) {
            Broken(server->name + " gets no scan although it is well");
        }
    }
}

}  // namespace kesto::simulation

// The world around the bridge: servers and clients that follow a plan, and what the bridge promises them.
#pragma once

#include <deque>
#include <iostream>

#include "bridge/bridge.h"
#include "bridge/loop.h"
#include "tests/simulation/plan.h"

namespace kesto::simulation {

class Client;
class Server;
class World;

// A connection of the bridge's to a server.
class ServerLine final : public Line {
 public:
    ServerLine(World& world, Server* server, bool refuses = false);

    void Accept();
    void Resume();

    Server* const server;      // null: nobody is there
    Client* client = nullptr;  // whose scan it is, as soon as that is known
    const Time began;
    bool whole = false;    // all of the scan was given to the system
    bool got_all = false;  // and has come
    bool replied = false;  // a whole reply was read
    Time replied_at{};
    std::string said;

    bool Runs() const { return IsOpen() && !replied; }

 private:
    void Begins() override;
    void Content(uint64_t at, std::span<uint8_t> bytes) override;
    void WasRead() override;
    void Writes(std::span<const uint8_t> bytes) override;
    void Gives(std::span<const uint8_t> bytes) override;
    bool Takes() const override;
    void Took() override;
    void Closed(bool ends) override;
    void Answer();
    void Say(const std::string& text, bool whole_reply = true);

    World& world_;
    std::string head_;
    std::string reply_;
    uint64_t size_ = UINT64_MAX;  // of the request
    uint64_t given_at_ = 0;
    const bool refuses_;
    bool answers_ = false;
    bool accepted_ = false;
};

class Server {
 public:
    Server(World& world, size_t number, const ServerPlan& plan);
    void Begin(Fault fault);
    void End() { Begin(Fault::kNone); }
    void Found();      // where it is
    void Forgotten();  // by the bridge
    bool IsWell() const { return fault == Fault::kNone; }
    LinePtr Connect();
    bool StandsStill() const {
        return fault == Fault::kUnanswered || fault == Fault::kFrozen || fault == Fault::kStopped;
    }
    bool Serves(const ServerLine& line) const;
    void Pump();
    size_t Open() const;  // scans

    World& world;
    const size_t number;
    const ServerPlan plan;
    const std::string name;  // as set
    Fault fault = Fault::kNone;
    Time fault_at{};  // when it had one last
    unsigned moves = 0;
    bool known = true;  // where it is
    bool listed = false;
    Time listed_at;
    bool up = false;  // for the bridge
    Time up_since, down_at;
    Time idle_since;
    Time verdict_at{}, erred_at{}, asked_at{};
    std::vector<std::shared_ptr<ServerLine>> lines;
};

class Client final : public Line {
 public:
    Client(World& world, size_t number, const ClientPlan& plan);
    void Arrive();
    void Leave(const char* how, bool resets);
    std::string Name() const;
    std::string Text() const;  // what it is, for the story
    uint64_t RequestSize() const;
    void Request(uint64_t at, std::span<uint8_t> bytes, bool shifted) const;
    uint64_t Read() const { return read_; }
    bool IsGiven() const { return given_ == given.size(); }
    bool AllRead() const { return read_ == arrived_; }
    bool Scans() const { return plan.kind <= Kind::kErrs; }
    bool MayBeAsked() const;  // by one more server
    bool HasAsked(const Server& server) const;
    bool WasTold(std::string_view text) const;  // by a server that has got all that matters

    World& world;
    const size_t number;
    const ClientPlan plan;
    std::vector<std::shared_ptr<ServerLine>> lines;  // of its scan, known by what they carry
    bool verdict_read = false;
    bool squeezed = false;  // there may have been no room for its stream
    bool lacked = false;    // memory
    bool left = false;      // nobody is there any more
    bool over = false;      // and the bridge knows
    bool answered = false;
    size_t repeats = 0;
    Time repeated_at{}, came{}, ended{}, due{}, heard{}, told{}, answered_at{}, with_nobody_since{};
    std::string given;  // by the bridge
    std::string end;    // the bridge's last line about it

 private:
    void Begins() override {}
    void Content(uint64_t at, std::span<uint8_t> bytes) override;
    void WasRead() override;
    void Writes(std::span<const uint8_t> bytes) override;
    void Gives(std::span<const uint8_t> /*bytes*/) override {}
    bool Takes() const override { return true; }
    void Took() override;
    void Closed(bool ends) override;
    void Step();

    std::string text_;  // all it says, if that is no scan
    bool steps_ = false;
};

class World {
 public:
    World(uint64_t seed, bool tells);
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    ~World();
    // What promise was broken; empty: none.
    std::string Run();

    template <typename... Parts>
    void Tell(const Parts&... parts) {
        if (tells_) {
            const auto since =
                std::chrono::duration_cast<std::chrono::milliseconds>(net.now.time_since_epoch() - 24h);
            std::cout << since.count() / 1000 << '.' << since.count() % 1000 / 100 << since.count() % 100 / 10
                      << since.count() % 10 << " s  ";
            (std::cout << ... << parts) << '\n';
        }
    }
    void Broken(const std::string& promise);

    // What the bridge does, and is held against its promises.
    void AttemptIsKnown(Client& client, ServerLine& line);
    void Replied(Client& client);
    void Ended(Client& client);
    void Logs(const std::string& message);
    LinePtr Connect(const std::string& where);
    int LookUp(const std::string& name, uint16_t port, std::vector<ServerAddress>& addresses);

    const Plan plan;
    Network net;
    std::vector<std::unique_ptr<Server>> servers;
    std::vector<std::shared_ptr<Client>> clients;
    std::deque<std::shared_ptr<Client>> arrivals;
    uint64_t reading = 0;  // bytes of all scans under way
    std::unique_ptr<bridge::Bridge> bridge;

 private:
    void SetList(unsigned which);
    void LetIn();
    void Step();
    void ServeTheLast();
    void LookAtServers(bool ticked);
    void LookAt(Client& client);
    void Lost(Client& client, const std::string& reason);
    void CheckTheEnd();
    double Number(const std::string& name) const;

    const bool tells_;
    std::unique_ptr<bridge::Loop> loop_;
    std::vector<Server*> list_;
    std::vector<std::shared_ptr<Client>> active_;  // whom the bridge has
    std::optional<Time> down_since_;
    std::string broken_;
    std::string stats_;
    size_t refused_ = 0, repeated_ = 0;
    Time lacked_at_{};
};

extern World* g_world;

std::string SizeText(uint64_t bytes);

}  // namespace kesto::simulation

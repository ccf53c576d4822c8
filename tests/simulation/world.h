// The world around the bridge, as its seed has it: servers and clients, and what the bridge promises them.
#pragma once

#include <algorithm>
#include <asio/ip/tcp.hpp>
#include <iostream>
#include <sstream>

#include "base/clamd_words.h"
#include "bridge/loop.h"

namespace kesto::simulation {

struct Client;
struct ServerLine;

// Beside being well: it has died; nothing reaches it, nor does it do anything; connections are accepted, but
// nothing is read; it takes all and replies nothing; it replies errors, or without an end; it calls
// everything clean before its end; it is slow; it has one thread; each connection is reset in any moment;
// somebody between forgets all connections.
enum class Fault { kNone, kDead, kFrozen, kStopped, kDeaf, kSick, kHasty, kSlow, kBusy, kResets, kForgets };

struct Server {
    explicit Server(size_t number);
    void Begin(Fault next);
    std::string At(size_t place, bool v6) const;
    void Know(bool its_address);
    void Pump();
    bool IsWell() const { return known && fault == Fault::kNone; }
    bool Serves(const ServerLine& line) const;

    const size_t number;
    // The second: its name has another address first, where nobody is, or (the third) somebody who only errs.
    bool named, has_other, other_errs;
    uint64_t largest;  // file
    Duration scan;
    double rate;       // of its lines
    std::string name;  // as set
    size_t place = 1;  // of its address
    Fault fault = Fault::kNone;
    bool known = true, listed = false, up = false;  // to the bridge: where it is, that it is, that it works
    bool told_down = false;                         // by the log
    Time fault_at{}, listed_at{}, turned_at{}, busy_at{}, told_at{};  // the third: came up, or went down
    Time verdict_at{}, erred_at{}, scan_at{}, probed_at{};  // two were read, two written by the bridge
    Time looked_up{}, sick_at{};  // when the last lookup of its name began, when a probe read an error last
    // So often its name was looked up, its version asked for, and it was probed.
    int lookups = 0, versions = 0, probes = 0;
    int pauses = 0;       // so many times it was called down with a pause since a scan's verdict
    unsigned failed = 0;  // scans in a row, by errors where another one gave a verdict
    std::vector<std::shared_ptr<ServerLine>> lines;
};

inline constexpr std::string_view kProbe("zINSTREAM\0\0\0\0\5clean\0\0\0\0", 23);

// A connection of the bridge's to a server.
struct ServerLine final : Line {
    ServerLine(Server* server, bool is_there) : server(server), is_there(is_there) {}
    void Resume();
    bool Runs() const { return (is_there || server->other_errs) && IsOpen() && !replied; }
    bool IsProbe() const { return head == kProbe; }
    bool IsCurrent() const { return began >= server->listed_at; }  // and was not unlisted since
    bool IsWhole() const { return given == size; }                 // all of the scan was given to the system
    bool HasVerdict() const { return replied && ReadScanAnswer(said) != ScanAnswer::kNoVerdict; }
    bool Erred() const { return replied && !HasVerdict() && said != kSizeLimitReply; }

    void Accept() override;
    void Content(uint64_t at, std::span<uint8_t> to) override {
        std::copy_n(&reply[at], to.size(), to.data());
    }
    void WasRead() override;
    void Writes(std::span<const uint8_t> bytes) override;
    void Gives(std::span<const uint8_t> bytes) override;
    bool Takes() const override { return accepted && server->Serves(*this); }
    void Took() override;
    void Closed(bool ends) override;
    void Answer();
    void Say(const std::string& text);

    Server* const server;
    const bool is_there;  // at the address
    const Time began = net.now;
    Client* client = nullptr;    // whose scan it is
    std::string head;            // the first bytes of the request
    uint64_t size = UINT64_MAX;  // bytes
    bool accepted = false, answers = false;
    std::string reply, said;  // the latter was read
    bool replied = false;     // and the bridge takes notice of it
    Time replied_at{};
};

enum class Kind { kClean, kInfected, kLong, kKiller, kErrs, kPing, kVersion, kStats, kNoise, kTooLong };

struct Client final : Line {
    Client(size_t number, Duration arrives, bool is_ordinary = false);
    void Arrive();
    void Leave(const char* how, bool resets);
    uint64_t RequestSize() const;
    void Request(uint64_t at, std::span<uint8_t> to, bool shifted) const;
    bool Scans() const { return kind <= Kind::kErrs; }
    bool IsUsedUp(bool by_all) const;
    bool IsSqueezed() const;
    bool HasAsked(const Server& server) const;
    bool MayHave(const Server& server) const;
    bool WasTold(std::string_view text) const;  // by a server that has got all that matters
    void Step();

    void Content(uint64_t at, std::span<uint8_t> to) override;
    void WasRead() override;
    void Writes(std::span<const uint8_t> bytes) override;
    void Took() override;
    void Closed(bool /*ends*/) override { left = true; }

    const size_t number;
    const std::string name = "client " + std::to_string(number), found = "stream: " + name + " FOUND";
    Kind kind = Kind::kClean;
    uint64_t file = 1000;  // bytes
    uint32_t chunk = 8192;
    double speed = 1e7;  // bytes a second
    uint64_t pauses_at = UINT64_MAX;
    Duration pause{};
    bool finishes = false;   // closes its side after its request
    std::string_view words;  // all it says, if that is no scan

    std::vector<std::shared_ptr<ServerLine>> lines;  // of its scan
    bool squeezed = false, lacked = false;  // there may have been no room for its stream, or no memory
    bool left = false, answered = false;    // nobody is there any more; it was given a whole reply
    size_t repeats = 0;
    Time repeated_at{}, came{}, ended{}, heard{}, told{}, answered_at{};
    Time gated{};               // until then the bridge read nothing of it
    Time due{}, alone_since{};  // the latest time at which its stream may have ended, no server had it
    std::string text, end;      // what the bridge tells it, and why it was closed
    std::string asked;          // names of servers, among others
};

struct World {
    World(uint64_t seed, bool tells);
    // The promise that was broken; empty: none.
    std::string Run();

    // A line of the story.
    template <typename... Parts>
    void Tell(const Parts&... parts) {
        if (tells) {
            const std::chrono::duration<double> since = net.now.time_since_epoch() - 24h;
            ((std::cout << std::fixed << since.count() << " s  ") << ... << parts) << '\n';
        }
    }
    template <typename... Parts>
    void Never(bool happens, const Parts&... parts) {
        if (happens && broken.empty()) {
            std::ostringstream text;
            (text << ... << parts);
            broken = text.str();
            Tell("BROKEN: ", broken);
        }
    }

    LinePtr Connect(const std::string& where);
    void SetList(uint64_t which);
    void Step();

    // What the bridge does, held against its promises.
    void AttemptBegins(Client& client, ServerLine& line);
    void Repeats(Client& client, const Server& server);
    void Logs(const std::string& message);
    void Replies(Client& client);
    void Closes(Client& client);
    void GivesUp(const Client& client);
    void LookAtServers();
    void LookAt(const Server& server, bool was_up);
    void LookAt(Client& client);
    void CheckTheEnd();

    const bool tells;
    Network net;
    Duration lasts;  // then all are well
    BridgeSettings settings;
    bool lookups_fail, lacks, calm = false;  // the latter: memory; all are well from now on
    uint64_t largest;
    bridge::Bridge bridge;
    bridge::Loop loop{bridge};
    std::vector<std::unique_ptr<Server>> servers;
    std::vector<Server*> list;
    std::vector<std::shared_ptr<Client>> clients, arrivals, let_in;  // all, those that wait, those not closed
    size_t reading = 0, crowd = 0;       // bytes of all scans under way, clients before this step
    std::pair<Time, unsigned> made_way;  // when clients did last, and how many
    double refused = 0, repeated = 0, attempts = 0, replies[3] = {};  // the last by their kinds
    std::optional<Time> down_since;
    Time lacked_at{}, crowded_since{}, lookup_began{};
    std::string broken;
};

inline World* g_world = nullptr;

}  // namespace kesto::simulation

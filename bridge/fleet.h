// The clamd servers behind the bridge: which are up, whose turn it is, when one that is down is probed. Knows
// neither sockets nor clocks: it is told what happened, and when.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/server_address.h"

namespace kesto::bridge {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;

struct Server {
    ServerAddress name;                    // as set
    std::vector<ServerAddress> addresses;  // the last ones found for it, all numeric; empty: none yet
    size_t good = 0;                       // the one of them that accepted last

    bool up = true;                 // takes scans, once it has an address
    unsigned open = 0;              // scans under way there
    uint64_t last_turn = 0;         // when it was chosen last, counted in turns
    unsigned failed_in_row = 0;     // scans, by silence or error
    std::chrono::seconds pause{0};  // before the next probe; doubles until it gives a verdict
    Time paused_at{};
    bool probing = false;
    bool suspected = false;  // up, but to be probed
    Time last_probe{};
    Time last_sick{};  // when a probe found it to accept, but to give no verdict

    bool looking_up = false;
    Time look_up_at{};         // when next
    bool lookup_told = false;  // that no address is found

    // Since the start, for the numbers.
    uint64_t replies = 0;
    uint64_t failures = 0;
    double seconds = 0;  // of all replies
};

using ServerPtr = std::shared_ptr<Server>;

// Counts of the last sixty seconds.
class MinuteCount {
 public:
    void Add(Time now);
    unsigned Sum(Time now);

 private:
    void Forget(Time now);
    std::array<unsigned, 60> seconds_{};
    int64_t latest_ = 0;
};

struct Fleet {
    std::vector<ServerPtr> servers;
    std::optional<Time> down_since;  // when the last one went down; nothing while one is up
    bool scans_wait = false;         // for any server
    uint64_t turns = 0;
    MinuteCount scans;   // whose stream has ended
    MinuteCount beside;  // that were given to a second server beside a silent one
    // Takes lines for the log, each with its kind.
    std::function<void(const std::string& kind, const std::string& line)> tell = [](auto&, auto&) {};
};

// Takes these servers from now on. Those that were there before stay as they are.
void SetServers(Fleet& fleet, const std::vector<ServerAddress>& names, Time now);

// The addresses found for a server's name; none: the lookup failed, for the reason. The last good ones stay.
void NoteAddresses(Fleet& fleet, Server& server, std::vector<ServerAddress> addresses,
                   const std::string& reason, Time now);

// Servers whose name is to be looked up now; they count as being looked up from then on.
std::vector<ServerPtr> LookupsDue(Fleet& fleet, Time now);

bool IsUp(const Server& server);

// The server that is up with the fewest scans open, and among those the longest unused one. `rank` orders
// before that; nothing from it leaves the server out.
ServerPtr Choose(const Fleet& fleet, const std::function<std::optional<unsigned>(const Server&)>& rank);
void TakeTurn(Fleet& fleet, Server& server);

// It refused, did not answer, or broke a connection off: it is down until a probe succeeds.
void NoteBroken(Fleet& fleet, Server& server, const std::string& reason, Time now);

// It failed a scan by silence, or by an error where another server gave a verdict. Down after three in a row.
void NoteFailedScan(Fleet& fleet, Server& server, Time now);

void NoteVerdict(Server& server);

// It is silent for long while others are up: a probe is to tell whether it is sick or only busy.
void Suspect(Fleet& fleet, Server& server, Time now);

// A server that is down has shown life: it is probed at once.
void NoteAlive(Server& server);

// Servers to be probed now; they count as being probed from then on. Probes come after 1, 2, 4 ... 32 s, or
// at least every two while scans wait for any server.
std::vector<ServerPtr> ProbesDue(Fleet& fleet, Time now);
enum class Health { kUnreached, kSick, kWell };
void NoteProbe(Fleet& fleet, Server& server, Health health, const std::string& reason, Time now);

// All servers are down, and probes since then have found that every one accepts: waiting is of no use.
bool AllSick(const Fleet& fleet, Time since);

// Whether one more scan may be given to a second server beside a silent one: one in ten of the last minute.
bool MayAskBeside(Fleet& fleet, Time now);

}  // namespace kesto::bridge

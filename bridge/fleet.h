// The clamd servers behind the bridge: which are up, whose turn it is, when one is probed. Knows neither
// sockets nor clocks: it is told what happened, and when.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bridge/clock.h"
#include "bridge/reply.h"
#include "common/server_address.h"
#include "common/signatures.h"

namespace kesto::bridge {

struct Server {
    ServerAddress name;  // as set

    // Where it is.
    struct Lookup {
        std::vector<ServerAddress> addresses;  // the last ones found, all numeric; empty: none yet
        size_t good = 0;                       // the one of them that accepted last
        Time moved{};                          // when a failed probe made the next one the good one
        bool running = false;
        Time at{};  // when next; of a running one, since when
    } lookup;

    // Whether it takes scans.
    struct Health {
        enum class Probe { kNone, kWanted, kRunning };
        bool up = true;                 // it does, once it has an address
        Time up_since{};                // when it came up last; no time: it was never down
        Time worked{};                  // when it gave a verdict last, to a scan or a probe
        unsigned failed_in_row = 0;     // scans, by silence or error
        std::chrono::seconds pause{0};  // of one that is down, before the next probe; none: it is not probed
        Time paused_at{};
        Probe probe = Probe::kNone;
        Time probed{};  // when the last probe began
        Time sick{};    // when a probe was replied to with something else than OK; no time: the last was not
    } health;

    // Whose turn it is.
    unsigned open = 0;       // scans under way there
    uint64_t last_turn = 0;  // when it was chosen last, counted in turns

    Time ask_version_at{};  // scans come first

    // Since the start, for monitoring. Nothing is decided by them.
    struct Numbers {
        uint64_t replies = 0;
        uint64_t failures = 0;
        double seconds = 0;  // of all replies
        std::optional<Signatures> signatures;
    } numbers;
};

using ServerPtr = std::shared_ptr<Server>;

// Counts of the last sixty seconds.
struct MinuteCount {
    void Add(Time now) { times.push_back(now); }
    size_t Sum(Time now);
    std::deque<Time> times;
};

struct Fleet {
    std::vector<ServerPtr> servers;
    std::optional<Time> down_since;  // when the last one went down; nothing while one is up
    uint64_t turns = 0;
    MinuteCount scans;   // whose stream has ended
    MinuteCount beside;  // that were given to a second server beside a silent one
    // Whether a scan waits for any server.
    std::function<bool()> scans_wait = [] { return false; };
    // Takes lines for the log, each with its kind.
    std::function<void(const std::string& kind, const std::string& line)> tell = [](auto&, auto&) {};
};

// Takes these servers from now on. Those that were there before stay as they are; one that is there no more
// is down for the scans that it still has.
void SetServers(Fleet& fleet, const std::vector<ServerAddress>& names, Time now);

// Whether its name is to be looked up now. Who does so sets lookup.running.
bool LookupIsDue(const Server& server, Time now);
// To be called every now and then: it is down when its first lookup takes long.
void NoteLookup(Fleet& fleet, Server& server, Time now);

// The addresses found for a server's name; none: the lookup failed, for the reason. The last good ones stay.
void NoteAddresses(Fleet& fleet, Server& server, std::vector<ServerAddress> addresses,
                   const std::string& reason, Time now);

bool IsUp(const Server& server);

// The server that is up with the fewest scans open, and among those the longest unused one. `rank` orders
// before that; nothing from it leaves the server out.
ServerPtr Choose(const Fleet& fleet, const std::function<std::optional<unsigned>(const Server&)>& rank);

// An attempt that moved, or began, at `moved` last could not reach it or broke off: it is down until a probe
// succeeds. Neither a connect nor the end of a connection that had long stood still says anything of a server
// that has worked since.
void NoteBroken(Fleet& fleet, Server& server, const AttemptEnd& end, Time moved, Time now);

// It failed a scan, by an error at `since` where another server gave a verdict, or by silence since then:
// down after three in a row. Not held against one that has given a verdict since, to a scan or a probe.
void NoteFailure(Fleet& fleet, Server& server, Time since, Time now);

void NoteVerdict(Server& server, Time now);

// A probe is to tell whether it is sick: it has replied with an error, which may be the file's fault.
void SuspectForError(Server& server, Time now);
// The same of one that is silent. One at a time: where all are busy, probes would wait behind the scans.
void SuspectForSilence(const Fleet& fleet, Server& server, Time now);

// A server that is down is probed at once: it has shown life, or a scan has nobody else to ask.
void ProbeSoon(Server& server);

// Whether it is to be probed now: one that is suspected, or has given no verdict for a minute, or is down and
// its pause is over. Pauses are of 1, 2, 4 ... 32 s, but of two at most while all are down and scans wait.
bool ProbeIsDue(const Fleet& fleet, const Server& server, Time now);
void ProbeBegins(Server& server, Time now);

void CallProbeOff(Server& server);

// One that was silent because it is busy, or is the last one that is up, stays up.
void NoteProbe(Fleet& fleet, Server& server, const AttemptEnd& end, Time now);

// All servers are down, and probes since then have found every one sick: waiting is of no use.
bool AllSick(const Fleet& fleet, Time since);

// Whether one more scan may be given to a busy server beside a silent one: one in ten of the last minute.
bool MayAskBeside(Fleet& fleet, Time now);

}  // namespace kesto::bridge

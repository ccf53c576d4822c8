#include "bridge/upkeep.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "base/clamd_words.h"
#include "common/detached_thread.h"
#include "common/error_words.h"
#include "common/name_lookup.h"

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;

// Longer than a mail server waits for a scan: a server that needs this for a few bytes is useless.
constexpr auto kLimit = 20s;
constexpr std::string_view kCleanStream("\0\0\0\5clean\0\0\0\0", 13);

constexpr auto kBetweenVersions = 10min;

}  // namespace

// In a thread of its own: a lookup that hangs cannot be cancelled, and must not delay anything else.
struct Upkeep::Lookup {
    ServerPtr server;
    ServerAddress name;
    std::vector<ServerAddress> addresses;
    int error = 0;
    std::atomic<bool> done = false;  // until then the members above belong to the thread

    void Run() {
        error = LookUpName(name.host, name.port, addresses);
        done = true;
    }
};

void Upkeep::LookUp(const ServerPtr& server, Time now) {
    const auto lookup = std::make_shared<Lookup>();
    lookup->server = server;
    lookup->name = server->name;
    std::list<std::shared_ptr<Lookup>> entry{lookup};
    if (!RunDetached([lookup] { lookup->Run(); })) {
        return;  // it is tried again the next time
    }
    lookups_.splice(lookups_.end(), entry);
    server->lookup.running = true;
    server->lookup.at = now;
}

void Upkeep::Ask(const ServerPtr& server, bool is_probe, Time now) {
    const std::string request =
        is_probe ? std::string(kScanCommand).append(kCleanStream) : std::string(kVersionCommand);
    const auto stream = std::make_shared<KeptStream>(bridge_.room);
    const auto space = stream->Space();
    if (space.size() < request.size()) {
        throw std::bad_alloc();
    }
    std::copy(request.begin(), request.end(), space.begin());
    stream->Append(request.size());
    stream->End();
    errands_.push_back({std::make_shared<Attempt>(bridge_, *this, server, stream, now + kLimit), is_probe});
    errands_.back().attempt->Start();
}

bool Upkeep::IsOver(const Errand& errand, Time now) {
    Server& server = *errand.attempt->Upstream();
    try {
        const AttemptEnd* const end = errand.attempt->End(now);
        if (!end) {
            return false;
        }
        if (errand.is_probe) {
            NoteProbe(bridge_.fleet, server, *end, now);
        } else if (end->Replied()) {
            server.numbers.signatures = ReadSignatures(end->text);
        }
    } catch (const std::exception&) {
        LogException();
        errand.attempt->Cancel();
        if (errand.is_probe) {
            CallProbeOff(server);
        }
    }
    return true;
}

void Upkeep::Advance(Time now) {
    errands_.remove_if([&](const Errand& errand) { return IsOver(errand, now); });
}

void Upkeep::Tick(Time now) {
    Advance(now);
    for (auto at = lookups_.begin(); at != lookups_.end();) {
        const auto lookup = *at;
        if (!lookup->done) {
            ++at;
            continue;
        }
        std::string reason = lookup->error == 0 ? "" : ErrorWords(static_cast<unsigned long>(lookup->error));
        const auto leads_back = [&](const ServerAddress& address) {
            return IsBridgeItself(address, bridge_.settings.listen, bridge_.own);
        };
        if (std::erase_if(lookup->addresses, leads_back) != 0) {
            reason = "its name is the bridge's own";
        }
        at = lookups_.erase(at);
        NoteAddresses(bridge_.fleet, *lookup->server, std::move(lookup->addresses), reason, now);
    }
    for (const ServerPtr& server : bridge_.fleet.servers) {
        if (LookupIsDue(*server, now)) {
            LookUp(server, now);
        }
        NoteLookup(bridge_.fleet, *server, now);
        if (ProbeIsDue(bridge_.fleet, *server, now)) {
            Ask(server, true, now);
            ProbeBegins(*server, now);
        }
        if (IsUp(*server) && now >= server->ask_version_at) {
            server->ask_version_at = now + kBetweenVersions;
            Ask(server, false, now);
        }
    }
}

}  // namespace kesto::bridge

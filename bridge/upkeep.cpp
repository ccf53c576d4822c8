#include "bridge/upkeep.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "base/clamd_words.h"
#include "common/detached_thread.h"
#include "common/error_words.h"
#include "common/name_lookup.h"

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;

// Longer than a mail server waits for a scan: a server that needs this for a few bytes is useless.
constexpr auto kProbeLimit = 20s;
constexpr std::string_view kCleanStream("\0\0\0\5clean\0\0\0\0", 13);

constexpr auto kVersionLimit = 20s;
constexpr auto kBetweenVersions = 10min;
constexpr auto kFirstVersion = 30s;  // after the start: scans come first

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

class Upkeep::Question final : public Owner {
 public:
    explicit Question(ServerPtr server) : server_(std::move(server)) {}
    void Failed() override {
        CallProbeOff(*server_);
        over = true;
    }
    AttemptPtr attempt;
    bool over = false;

 private:
    ServerPtr server_;
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

void Upkeep::Ask(const ServerPtr& server, std::string_view request, std::chrono::seconds limit, Time now,
                 std::function<void(const AttemptEnd&)> ended) {
    const auto stream = std::make_shared<KeptStream>(bridge_.room);
    const auto space = stream->Space();
    if (space.size() < request.size()) {
        throw std::bad_alloc();
    }
    std::copy(request.begin(), request.end(), space.begin());
    stream->Append(request.size());
    stream->End();
    const auto question = std::make_shared<Question>(server);
    questions_.push_back(question);
    question->attempt = bridge_.begin_attempt(server, stream,
                                              {question, [](bool) {},
                                               [question, ended = std::move(ended)](const AttemptEnd& end) {
                                                   question->over = true;
                                                   ended(end);
                                               }},
                                              now + limit);
}

void Upkeep::Probe(const ServerPtr& server, Time now) {
    ProbeBegins(*server, now);
    try {
        Ask(server, std::string(kScanCommand).append(kCleanStream), kProbeLimit, now,
            [this, server](const AttemptEnd& end) {
                bridge_.news = true;
                NoteProbe(bridge_.fleet, *server, end, Clock::now());
            });
    } catch (const std::exception&) {
        CallProbeOff(*server);
        throw;
    }
}

void Upkeep::AskVersion(const ServerPtr& server, Time now) {
    server->ask_version_at = now + kBetweenVersions;
    Ask(server, kVersionCommand, kVersionLimit, now, [server](const AttemptEnd& end) {
        if (end.Replied()) {
            server->numbers.signatures = ReadSignatures(end.text);
        }
    });
}

void Upkeep::Tick(Time now) {
    for (auto at = questions_.begin(); at != questions_.end();) {
        const auto question = *at;
        if (!question->over && question->attempt) {
            question->attempt->Tick(now);
        }
        if (question->over || !question->attempt) {
            question->attempt.reset();
            at = questions_.erase(at);
        } else {
            ++at;
        }
    }
    for (auto at = lookups_.begin(); at != lookups_.end();) {
        const auto lookup = *at;
        if (!lookup->done) {
            ++at;
            continue;
        }
        at = lookups_.erase(at);
        std::string reason = lookup->error == 0 ? "" : ErrorWords(static_cast<unsigned long>(lookup->error));
        const auto leads_back = [&](const ServerAddress& address) {
            return IsBridgeItself(address, bridge_.settings.listen, bridge_.own);
        };
        if (std::erase_if(lookup->addresses, leads_back) != 0) {
            reason = "its name is the bridge's own";
        }
        bridge_.news = true;
        NoteAddresses(bridge_.fleet, *lookup->server, std::move(lookup->addresses), reason, now);
    }
    for (const ServerPtr& server : bridge_.fleet.servers) {
        if (LookupIsDue(bridge_.fleet, *server, now)) {
            LookUp(server, now);
        }
        if (ProbeIsDue(bridge_.fleet, *server, now)) {
            Probe(server, now);
        }
        if (IsUp(*server) &&
            now >= std::max(bridge_.metrics.started + kFirstVersion, server->ask_version_at)) {
            AskVersion(server, now);
        }
    }
}

}  // namespace kesto::bridge

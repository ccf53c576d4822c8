#include "bridge/upkeep.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <asio/post.hpp>
#include <exception>
#include <new>
#include <string_view>
#include <thread>
#include <utility>

#include "base/clamd_words.h"
#include "bridge/attempt.h"
#include "bridge/client.h"
#include "common/error_words.h"

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;
using namespace std::string_view_literals;

// Longer than a mail server waits for a scan: who needs this for a few bytes is of no use.
constexpr auto kProbeLimit = 20s;
constexpr auto kCleanStream = "\0\0\0\5clean\0\0\0\0"sv;

// Returns the error, 0 with addresses.
int LookUp(const ServerAddress& name, std::vector<ServerAddress>& addresses) {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(name.host.c_str(), nullptr, &hints, &found);
    for (const addrinfo* at = found; at; at = at->ai_next) {
        char text[INET6_ADDRSTRLEN + 1] = "";
        getnameinfo(at->ai_addr, static_cast<socklen_t>(at->ai_addrlen), text, sizeof text, nullptr, 0,
                    NI_NUMERICHOST);
        auto address = ParseHost(text);
        if (address && std::find(addresses.begin(), addresses.end(), *address) == addresses.end()) {
            addresses.push_back(*address);
        }
    }
    if (found) {
        freeaddrinfo(found);
    }
    for (ServerAddress& address : addresses) {
        address.port = name.port;
    }
    return addresses.empty() ? std::max(error, 1) : 0;
}

void TakeAddresses(Bridge& bridge, Server& server, int error, std::vector<ServerAddress> addresses) {
    std::string reason = error == 0 ? "" : ErrorWords(static_cast<unsigned long>(error));
    const auto leads_back = [&](const ServerAddress& address) {
        return IsBridgeItself(address, bridge.settings, bridge.own);
    };
    if (std::erase_if(addresses, leads_back) != 0) {
        reason = "its name is the bridge's own";
    }
    NoteAddresses(bridge.fleet, server, std::move(addresses), reason, Clock::now());
    AdvanceWaiting(bridge);
}

// On a thread of its own, since a lookup that hangs cannot be called back: it must delay nothing else.
void BeginLookup(Bridge& bridge, const ServerPtr& server) {
    std::thread([&bridge, server] {
        std::vector<ServerAddress> addresses;
        const int error = LookUp(server->name, addresses);
        asio::post(bridge.io, [&bridge, server, error, addresses = std::move(addresses)] {
            TakeAddresses(bridge, *server, error, addresses);
        });
    }).detach();
}

void BeginProbe(Bridge& bridge, const ServerPtr& server) {
    auto request = std::make_shared<KeptStream>(bridge.room);
    if (request->Space().empty()) {
        throw std::bad_alloc();
    }
    for (const std::string_view part : {kScanCommand, kCleanStream}) {
        std::copy(part.begin(), part.end(), request->Space().begin());
        request->Append(part.size());
    }
    request->End();
    const auto attempt = Attempt::Begin(
        bridge, server, request, [] {},
        [&bridge, server](const AttemptEnd& end) {
            const bool replied = end.kind == AttemptEnd::kReplied;
            const bool clean = replied && ReadScanAnswer(end.text) == ScanAnswer::kClean;
            const Health health = clean                                ? Health::kWell
                                  : end.kind == AttemptEnd::kUnreached ? Health::kUnreached
                                                                       : Health::kSick;
            NoteProbe(bridge.fleet, *server, health,
                      replied ? "did not call a clean file clean: " + end.text : end.text, Clock::now());
            AdvanceWaiting(bridge);
        });
    attempt->LimitReply(kProbeLimit, Clock::now());
}

}  // namespace

void LookUpAndProbe(Bridge& bridge, Time now) {
    for (const ServerPtr& server : LookupsDue(bridge.fleet, now)) {
        try {
            BeginLookup(bridge, server);
        } catch (const std::exception& error) {
            NoteAddresses(bridge.fleet, *server, {}, error.what(), now);
        }
    }
    bridge.fleet.scans_wait = bridge.metrics.waiting != 0;
    for (const ServerPtr& server : ProbesDue(bridge.fleet, now)) {
        try {
            BeginProbe(bridge, server);
        } catch (const std::exception& error) {
            NoteProbe(bridge.fleet, *server, Health::kUnreached, error.what(), now);
        }
    }
}

}  // namespace kesto::bridge

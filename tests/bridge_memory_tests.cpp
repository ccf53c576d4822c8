// The bridge within the test, each of whose allocations fails once.
#include <winsock2.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "bridge/client.h"
#include "bridge/upkeep.h"
#include "tests/support/plugin_host.h"

namespace kesto {
namespace {

using namespace bridge;

// Of the bridge's thread alone: the engine's have their own troubles.
DWORD g_thread = 0;
long g_spare = 0;    // allocations that still succeed
long g_lacking = 0;  // that fail behind them
long g_held = 0;     // blocks

struct alignas(8) Header {  // as malloc has it
    bool counted;
};

struct RunningBridge : Bridge {
    explicit RunningBridge(const std::string& upstreams) {
        settings.upstreams = ReadBridgeSettings("[bridge]\nupstreams=" + upstreams, {}).settings.upstreams;
        Apply(*this, Clock::now());
        g_thread = GetCurrentThreadId();
    }
    ~RunningBridge() { g_thread = 0; }

    // What a client gets for its request, to each server's first, while this many allocations behind the
    // first so many fail.
    std::string Serve(const std::string& request, long spare, long lacking) {
        for (const ServerPtr& server : fleet.servers) {
            server->last_turn = 0;
            server->health = {};
            server->health.worked = Clock::now();
            server->lookup.at = {};
        }
        uint16_t port = 0;
        const SOCKET listener = ListenOnLoopback(port);
        Wire client(ConnectToLoopback(port));
        asio::ip::tcp::socket socket(io, asio::ip::tcp::v4(), accept(listener, nullptr, nullptr));
        closesocket(listener);
        client.Send(request);
        client.FinishSending();
        const auto guarded = [](auto step) {
            try {
                step();
            } catch (const std::bad_alloc&) {
            }
        };
        g_spare = spare;
        g_lacking = lacking;
        guarded([&] { Client::Serve(*this, std::move(socket), {}); });
        for (const Time end = Clock::now() + std::chrono::seconds(20); !Idle() && Clock::now() < end;) {
            guarded([&] { io.run_one_for(std::chrono::milliseconds(50)); });
            guarded([&] { TakeUpNews(*this, Clock::now()); });
            Tick(*this, Clock::now());
            guarded([&] { upkeep.Tick(Clock::now()); });
        }
        fired = g_lacking != lacking;
        g_lacking = 0;
        socket = asio::ip::tcp::socket(io);
        return client.Receive();
    }
    bool Idle() const {
        return clients.empty() && queue.empty() && scans == 0 && room.used == 0 &&
               std::all_of(fleet.servers.begin(), fleet.servers.end(),
                           [](const ServerPtr& server) { return server->open == 0; });
    }

    Upkeep upkeep{*this};
    bool fired = false;
};

TEST(BridgeMemory, LackOfItAtAnyPointEndsOneClientAtMost) {
    const std::string no_verdict = WithNul("no memory ERROR");
    ScriptedEngine sick(ReplyingBytes(no_verdict)), clamd(Realistic());
    RunningBridge bridge(sick.Address() + " " + clamd.Address() +
                         " localhost:" + std::to_string(sick.Port()));
    const std::string scan = ScanRequestOf(std::string(200'000, 'd') + "VIRUS");
    const std::pair<std::string, std::string> cases[] = {
        {scan, WithNul("stream: Test.Virus FOUND")},
        {WithNul("zPING"), ""},
        {WithNul("zSTATS"), ""},
    };
    long failed = 0;
    for (const auto& [request, reply] : cases) {
        const long held = g_held;
        for (const long lacking : {1, 2, 5}) {
            bridge.fired = true;
            for (long spare = 0; bridge.fired; ++spare, ++failed) {
                const std::string got = bridge.Serve(request, spare, lacking);
                // A scan for which no memory is left cannot be repeated.
                ASSERT_TRUE(got.empty() || got == no_verdict || got.starts_with(reply)) << spare << got;
                ASSERT_TRUE(bridge.Idle()) << spare;
            }
            EXPECT_EQ(bridge.Serve(request, 0, 0).substr(0, reply.size()), reply);
        }
        EXPECT_TRUE(WaitFor([&] { return bridge.Serve(request, 0, 0), g_held - held < 40; }));
    }
    EXPECT_GT(failed, 500);
}

}  // namespace
}  // namespace kesto

void* operator new(size_t size) {
    using namespace kesto;
    const bool counted = GetCurrentThreadId() == g_thread;
    const bool lacking = counted && g_lacking != 0 && g_spare-- <= 0;
    g_lacking -= lacking;
    auto* const header = lacking ? nullptr : static_cast<Header*>(malloc(sizeof(Header) + size));
    if (header == nullptr) {
        throw std::bad_alloc();
    }
    header->counted = counted;
    InterlockedExchangeAdd(&g_held, counted);
    return header + 1;
}

void operator delete(void* block) noexcept {
    if (block != nullptr) {
        auto* const header = static_cast<kesto::Header*>(block) - 1;
        InterlockedExchangeAdd(&kesto::g_held, -static_cast<long>(header->counted));
        free(header);
    }
}

void operator delete(void* block, size_t) noexcept {
    operator delete(block);
}

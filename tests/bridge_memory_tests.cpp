// The bridge within the test, each of whose allocations fails once.
#include <gtest/gtest.h>
#include <winsock2.h>

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
long g_spare = -1;  // allocations that still succeed; below 0 all do
long g_held = 0;    // blocks

struct alignas(16) Header {
    bool counted;
};

struct RunningBridge : Bridge {
    explicit RunningBridge(const std::string& upstreams) {
        settings.upstreams = ReadBridgeSettings("[bridge]\nupstreams=" + upstreams, {}).settings.upstreams;
        Apply(*this, Clock::now());
        g_thread = GetCurrentThreadId();
    }
    ~RunningBridge() { g_thread = 0; }

    // What a client gets for its request, the n-th allocation from now on having failed.
    std::string Serve(const std::string& request, long n) {
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
        g_spare = n;
        guarded([&] { Client::Serve(*this, std::move(socket), {}); });
        for (const Time end = Clock::now() + std::chrono::seconds(20); !clients.empty() && Clock::now() < end;) {
            guarded([&] { io.run_one_for(std::chrono::milliseconds(50)); });
            guarded([&] { TakeUpNews(*this, Clock::now()); });
            Tick(*this, Clock::now());
            guarded([&] { upkeep.Tick(Clock::now()); });
        }
        fired = g_spare < 0;
        g_spare = -1;
        socket = asio::ip::tcp::socket(io);
        return client.Receive();
    }
    bool Idle() const {
        return clients.empty() && queue.empty() && place.use_count() == 1 && room.used == 0 &&
               std::all_of(fleet.servers.begin(), fleet.servers.end(),
                           [](const ServerPtr& server) { return server->open == 0; });
    }

    Upkeep upkeep{*this};
    bool fired = false;
};

TEST(BridgeMemory, LackOfItAtAnyPointEndsOneClientAtMost) {
    ScriptedEngine sick(Replying("no memory ERROR")), clamd(Realistic());
    RunningBridge bridge(sick.Address() + " localhost:" + std::to_string(clamd.Port()));
    const std::string scan = ScanRequestOf(std::string(200'000, 'd') + "VIRUS");
    const std::pair<std::string, std::string> cases[] = {
        {scan, WithNul("stream: Test.Virus FOUND")},
        {WithNul("zPING"), WithNul("PONG")},
        {WithNul("zSTATS"), ""},
    };
    long failed = 0;
    for (const auto& [request, reply] : cases) {
        ASSERT_EQ(bridge.Serve(request, LONG_MAX).substr(0, reply.size()), reply);
        const long held = g_held;
        for (long n = 0; n < 5000; ++n, ++failed) {
            const std::string got = bridge.Serve(request, n);
            ASSERT_TRUE(got.empty() || got.starts_with(reply)) << n << got;
            ASSERT_TRUE(bridge.Idle()) << n;
            if (!bridge.fired) {
                break;
            }
        }
        EXPECT_EQ(bridge.Serve(request, LONG_MAX).substr(0, reply.size()), reply);
        EXPECT_LT(g_held - held, 100);
    }
    EXPECT_GT(failed, 1000);
}

}  // namespace
}  // namespace kesto

void* operator new(size_t size) {
    using namespace kesto;
    const bool counted = GetCurrentThreadId() == g_thread;
    auto* const header = counted && g_spare >= 0 && g_spare-- == 0
                             ? nullptr
                             : static_cast<Header*>(malloc(sizeof(Header) + size));
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

// What would show only on real Windows or after years in a host, seen here by counting and by patched
// imports.
#include "plugin/net/socket_connection.h"
// This must come after winsock2.h, in what is above.
#include <ws2tcpip.h>

#include "tests/support/fake_system.h"
#include "tests/support/losses.h"

namespace kesto {
namespace {

using namespace testing;

int FreeThreadSlots() {
    const DWORD slot = TlsAlloc();
    const int free = slot == TLS_OUT_OF_INDEXES ? 0 : 1 + FreeThreadSlots();
    TlsFree(slot);
    return free;
}

// With an engine that serves and that the plug-in did not start.
class RealEngineTest : public testing::Test {
 protected:
    RealEngineTest() {
        installed.PlaceStandIn(installed.elsewhere, "engine " + std::to_string(port) + " shifted");
        installed.StartStandIn(installed.elsewhere);
        // The list is so long that losing one at each load shows.
        installed.WriteSettings("autostart=0\nservers=127.0.0.1:" + std::to_string(port) +
                                std::string(50, ' '));
    }
    const uint16_t port = FreePort();
    Installation installed;
};

TEST_F(RealEngineTest, HostLosesNothingByLoadingThePlugIn1300Times) {
    std::vector<Holdings> held;
    std::vector<int> slots;
    for (int load = 1; load <= 1300; ++load) {
        const LoadedPlugin plugin(installed);
        ASSERT_EQ(plugin.Initialize(installed.folder), 0);
        ASSERT_EQ(ScanWith(plugin, "x"), "clean") << load;
        if (load == 10 || load == 1300) {
            held.push_back(CountHoldings());
            slots.push_back(FreeThreadSlots());
        }
    }
    EXPECT_EQ(held[0].handles, held[1].handles);
    EXPECT_EQ(slots[0], slots[1]);
    if (getenv("KESTOAV_TEST_HEAP_CHECKED") == nullptr) {  // see losses.cpp
        EXPECT_LT(held[1].bytes - held[0].bytes, 64 * 1024);
    }
}

// How far below `top` this thread's stack was ever written to: fresh stack is zero.
ptrdiff_t StackBelow(const char& top) {
    MEMORY_BASIC_INFORMATION part;
    VirtualQuery(&top, &part, sizeof part);
    const char* lowest = static_cast<char*>(part.AllocationBase);
    while (VirtualQuery(lowest, &part, sizeof part) != 0 && part.Protect != PAGE_READWRITE) {
        lowest += part.RegionSize;
    }
    while (*lowest == 0) {
        ++lowest;
    }
    return &top - lowest;
}

TEST_F(RealEngineTest, CleanScanTakesLessThan14KilobytesOfStack) {
    const LoadedPlugin plugin(installed);
    plugin.Initialize(installed.folder);
    ptrdiff_t before = 0, scanned = 0;
    std::thread([&] {
        const std::string data(20'000, 'x');
        char top = 1;
        before = StackBelow(top);
        EXPECT_EQ(ScanWith(plugin, data), "clean");
        scanned = StackBelow(top);
    }).join();
    RecordProperty("bytes", static_cast<int>(scanned));
    EXPECT_GT(scanned, before);
    EXPECT_LT(scanned, 14 * 1024);
}

// What the patches below saw in this thread, which is not that of the engine.
thread_local std::vector<std::string> g_asked;

int WSAAPI RecordRequest(SOCKET socket, DWORD code, void* in, DWORD in_size, void*, DWORD, DWORD*,
                         OVERLAPPED*, LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
    sockaddr_in peer;
    int size = sizeof peer;
    const bool connected = getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
    g_asked.push_back(std::to_string(code) + (connected ? " late" : "") + " of " + std::to_string(in_size) +
                      ": " + std::to_string(*static_cast<const uint32_t*>(in) & 0xFFFFFF));
    WSASetLastError(WSAEOPNOTSUPP);  // like systems that do not know the request
    return SOCKET_ERROR;
}

using WindowsTest = PluginTest;

TEST_F(WindowsTest, ConnectOnLoopbackAsksOnceAndNoOtherDoes) {
    const ImportPatch requests(plugin.module, "WSAIoctl", RecordRequest);
    ScriptedEngine engine;
    Start("servers=192.0.2.1:9 128.0.0.1:9 127.9.9.9:9 " + engine.Address());
    system.accepts_from = 3000;  // only the fourth server is really connected to
    EXPECT_EQ(Scan("x"), "clean");
    EXPECT_EQ(g_asked.size(), 2u);
    // SIO_TCP_INITIAL_RTO with the round trip unspecified (0xFFFF) and no SYN repeated (0xFE).
    EXPECT_THAT(g_asked, Each("2550136849 of 4: 16711679"));
}

bool Inheritable(HANDLE handle) {
    DWORD flags = 0;
    return GetHandleInformation(handle, &flags) && (flags & HANDLE_FLAG_INHERIT) != 0;
}

int WSAAPI RecordSend(SOCKET socket, const char* bytes, int size, int flags) {
    g_asked.push_back(Inheritable(reinterpret_cast<HANDLE>(socket)) ? "inheritable" : "our own");
    return send(socket, bytes, size, flags);
}

TEST_F(WindowsTest, ProgramsOfTheHostInheritNeitherLogNorConnection) {
    const auto count = [] {
        int inheritable = 0;
        for (uintptr_t handle = 4; handle < 4096; handle += 4) {
            inheritable += Inheritable(reinterpret_cast<HANDLE>(handle));
        }
        return inheritable;
    };
    const ImportPatch sends(plugin.module, "send", RecordSend);
    ScriptedEngine engine;
    installed.CreateLog();
    const int before = count();
    Start("servers=" + engine.Address());
    EXPECT_EQ(count(), before);
    g_asked.clear();
    EXPECT_EQ(Scan("x"), "clean");
    EXPECT_THAT(g_asked, AllOf(SizeIs(4), Each("our own")));
}

uint32_t* g_clock;
uint32_t g_lookup_ms;  // time that the next lookup takes

// The name has more addresses than the plug-in has room for. The last one that fits is the only one that
// serves.
int WSAAPI SlowLookup(const char*, const char*, const addrinfo*, addrinfo** result) {
    static sockaddr_in none = LoopbackAddress(0), serves = none;
    none.sin_addr.s_addr = htonl(0x7F090909);
    static addrinfo all[40];
    for (int i = 0; i < 40; ++i) {
        sockaddr_in& address = i == 15 ? serves : none;
        all[i] = {0,
                  AF_INET,
                  0,
                  0,
                  0,
                  nullptr,
                  reinterpret_cast<sockaddr*>(&address),
                  i < 39 ? all + i + 1 : nullptr};
    }
    *result = all;
    *g_clock += std::exchange(g_lookup_ms, 0);
    return 0;
}
void WSAAPI KeepAnswer(addrinfo*) {}

int WSAAPI RecordConnect(int, fd_set* read, fd_set* send, fd_set* refused, timeval* limit) {
    if (refused != nullptr) {
        g_asked.push_back(std::to_string(limit->tv_sec * 1000 + limit->tv_usec / 1000) + " ms");
    }
    return select(0, read, send, refused, limit);
}

FARPROC WINAPI HideCancelling(HMODULE module, const char* name) {
    return strcmp(name, "GetAddrInfoExCancel") == 0 ? nullptr : GetProcAddress(module, name);
}

TEST_F(WindowsTest, AnswerOfALookupThatCannotBeCancelledComesInTimeOrNotAtAll) {
    const ImportPatch resolver(plugin.module, "getaddrinfo", SlowLookup);
    const ImportPatch connecting(plugin.module, "select", RecordConnect);
    const ImportPatch freeing(plugin.module, "freeaddrinfo", KeepAnswer);
    const ImportPatch system7(plugin.module, "GetProcAddress", HideCancelling);
    g_clock = &system.clock;
    g_asked.clear();
    ScriptedEngine engine;
    installed.CreateLog();
    Start("servers=mail.test:" + std::to_string(engine.Port()));
    for (const uint32_t ms : {999, 1000}) {
        g_lookup_ms = ms;
        EXPECT_EQ(Scan("x"), "clean");
    }
    EXPECT_THAT(installed.LogMessages(),
                ElementsAre("Scan file - mail.eml - 1", "Scan file - mail.eml - 1",
                            AllOf(HasSubstr("\nDNS timed out."), Not(HasSubstr("Connect function")))));
    EXPECT_EQ(g_asked.front(), "1 ms");  // what is left of the limit after the lookup
}

int g_spare = 0;  // calls that still get memory; below 0 all calls do

void* __cdecl Allocate(size_t size) {
    return g_spare-- != 0 ? malloc(size) : nullptr;
}
void* __cdecl AllocateZeros(size_t count, size_t size) {
    return g_spare-- != 0 ? calloc(count, size) : nullptr;
}
void* __cdecl Reallocate(void* block, size_t size) {
    return g_spare-- != 0 ? realloc(block, size) : nullptr;
}

TEST(WindowsMemory, LackOfItAtAnyPointIsAnErrorAndNoMore) {
    ScriptedEngine engine;
    const std::string port = std::to_string(engine.Port());
    // A scan by name takes memory for process IDs, lookup and reply. Each of them fails once.
    const char* const logged[] = {"restarting kestoav process", "WSAENOBUFS", "Unexpected response"};
    for (int spare = 0; spare < 3; ++spare) {
        DrivenPlugin it;
        it.installed.CreateLog();
        it.Start("servers=localhost:" + port);
        const ImportPatch patches[] = {{it.plugin.module, "malloc", Allocate},
                                       {it.plugin.module, "calloc", AllocateZeros},
                                       {it.plugin.module, "realloc", Reallocate}};
        g_spare = spare;
        EXPECT_EQ(it.Scan("x"), spare < 2 ? "clean" : "failed 1003");
        EXPECT_THAT(ReadText(it.installed.log), HasSubstr(logged[spare]));
        g_spare = 1;
        EXPECT_THAT(it.plugin.VersionDetails(), HasSubstr("\nError -ReceiveStringUntilByte\nbyteValue: 0\n"
                                                          "Not enough memory for the reply"));
        g_spare = spare;
        EXPECT_EQ(it.Start("servers=a b:1"), ERROR_NOT_ENOUGH_MEMORY);
    }
}

}  // namespace
}  // namespace kesto

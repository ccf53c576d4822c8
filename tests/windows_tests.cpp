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

// A process has 1088 thread slots. The list is so long that losing one at each load shows.
TEST(WindowsHost, LosesNothingByLoadingThePlugIn1300Times) {
    Installation installed;
    installed.WriteSettings("autostart=0\nservers=a" + std::string(50, ' ') + "b");
    ExpectNothingLost(1300, [&] { EXPECT_EQ(LoadedPlugin(installed).Initialize(installed.folder), 0); });
    const DWORD slot = TlsAlloc();
    EXPECT_NE(slot, TLS_OUT_OF_INDEXES);
    TlsFree(slot);
}

int g_inheritable;

int InheritableHandles() {
    int inheritable = 0;
    for (uintptr_t handle = 4; handle < 4096; handle += 4) {
        DWORD flags = 0;
        GetHandleInformation(reinterpret_cast<HANDLE>(handle), &flags);
        inheritable += (flags & HANDLE_FLAG_INHERIT) != 0;
    }
    return inheritable;
}

std::vector<std::string> g_asked;

int WSAAPI RecordRequest(SOCKET socket, DWORD code, void* in, DWORD in_size, void*, DWORD, DWORD*,
                         OVERLAPPED*, LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
    sockaddr_in peer;
    int size = sizeof peer;
    const bool connected = getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
    g_asked.push_back(std::to_string(code) + (connected ? " late" : "") + " of " + std::to_string(in_size) +
                      ": " + std::to_string(*static_cast<const uint32_t*>(in) & 0xFFFFFF));
    EXPECT_EQ(InheritableHandles(), g_inheritable);
    WSASetLastError(WSAEOPNOTSUPP);  // like systems that do not know the request
    return SOCKET_ERROR;
}

using WindowsTest = PluginTest;

TEST_F(WindowsTest, ConnectOnLoopbackAsksOnceAndProgramsOfTheHostInheritNothing) {
    const ImportPatch requests(plugin.module, "WSAIoctl", RecordRequest);
    ScriptedEngine engine;
    installed.CreateLog();
    g_inheritable = InheritableHandles();
    Start("servers=192.0.2.1:9 128.0.0.1:9 127.9.9.9:9 " + engine.Address());
    system.accepts_from = 3000;  // only the fourth server is really connected to
    EXPECT_EQ(Scan("x"), "clean");
    // SIO_TCP_INITIAL_RTO with the round trip unspecified (0xFFFF) and no SYN repeated (0xFE).
    const char* const once = "2550136849 of 4: 16711679";
    EXPECT_THAT(g_asked, ElementsAre(once, once));
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
        all[i].ai_family = AF_INET;
        all[i].ai_addr = reinterpret_cast<sockaddr*>(i == 15 ? &serves : &none);
        all[i].ai_next = i < 39 ? all + i + 1 : nullptr;
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
        g_spare = spare;
        EXPECT_EQ(it.Start("servers=a b:1"), ERROR_NOT_ENOUGH_MEMORY);
    }
}

}  // namespace
}  // namespace kesto

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
}

std::vector<std::string> g_asked;

int WSAAPI RecordRequest(SOCKET socket, DWORD code, void* in, DWORD, void*, DWORD, DWORD*, OVERLAPPED*,
                         LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
    sockaddr_in peer;
    int size = sizeof peer;
    const bool connected = getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
    g_asked.push_back(std::to_string(code) + (connected ? " late: " : ": ") +
                      std::to_string(*static_cast<const uint32_t*>(in) & 0xFFFFFF));
    DWORD flags;
    GetHandleInformation(reinterpret_cast<HANDLE>(socket), &flags);
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
    WSASetLastError(WSAEOPNOTSUPP);  // like systems that do not know the request
    return SOCKET_ERROR;
}

using WindowsTest = PluginTest;

TEST_F(WindowsTest, ConnectOnLoopbackAsksOnceAndProgramsOfTheHostInheritNothing) {
    const ImportPatch requests(plugin.module, "WSAIoctl", RecordRequest);
    ScriptedEngine engine;
    Start("servers=192.0.2.1:9 128.0.0.1:9 127.9.9.9:9 " + engine.Address());
    system.accepts_from = 3000;  // only the fourth server is really connected to
    EXPECT_EQ(Scan("x"), "clean");
    // SIO_TCP_INITIAL_RTO with the round trip unspecified (0xFFFF) and no SYN repeated (0xFE).
    const char* const once = "2550136849: 16711679";
    EXPECT_THAT(g_asked, ElementsAre(once, once));
}

uint32_t* g_clock;
uint32_t g_lookup_ms;  // time that the next lookup takes

// The name has endlessly many addresses.
int WSAAPI SlowLookup(const char*, const char*, const addrinfo*, addrinfo** result) {
    static sockaddr_in serves = LoopbackAddress(0);
    static addrinfo answer;
    answer.ai_family = AF_INET;
    answer.ai_addr = reinterpret_cast<sockaddr*>(&serves);
    answer.ai_next = *result = &answer;
    *g_clock += std::exchange(g_lookup_ms, 0);
    return 0;
}
void WSAAPI KeepAnswer(addrinfo*) {}

FARPROC WINAPI HideCancelling(HMODULE module, const char* name) {
    return strcmp(name, "GetAddrInfoExCancel") == 0 ? nullptr : GetProcAddress(module, name);
}

TEST_F(WindowsTest, AnswerOfALookupThatCannotBeCancelledComesInTimeOrNotAtAll) {
    const ImportPatch resolver(plugin.module, "getaddrinfo", SlowLookup);
    const ImportPatch freeing(plugin.module, "freeaddrinfo", KeepAnswer);
    const ImportPatch system7(plugin.module, "GetProcAddress", HideCancelling);
    g_clock = &system.clock;
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

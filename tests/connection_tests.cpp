// Connecting to a server: how long it waits, what it loses, and what the log tells of it.
#include "tests/support/fake_system.h"
// This must come after winsock2.h, in what is above.
#include <ws2tcpip.h>

namespace kesto {
namespace {

using namespace testing;

int WSAAPI NeverReady(int, fd_set*, fd_set*, fd_set*, timeval*) {
    return 0;
}

TEST(Connection, TellsOfTheServerOfTheSettingsThatFailedLastAndLosesNothing) {
    const uint16_t closed = FreePort(), silent = 1;
    const std::string to_closed =
        "[kestoav]\nconnectwait=0\nstartwait=0\nservers=127.0.0.1:" + std::to_string(closed) + ' ';
    const std::string numeric =
        "This is an IPV4 numeric address.\nHostname to IP address resolution not needed.\n";
    const std::string failed = "Connect function failed.\nWSAE", late = "TIMEDOUT A connection";
    // the file with the settings, and host, port and reason that are told
    const std::tuple<std::string, std::string, int, std::string> cases[] = {
        {to_closed + "127.0.0.1:" + std::to_string(closed), "127.0.0.1", closed,
         numeric + failed +
             "CONNREFUSED No connection could be made because the target machine actively "
             "refused it."},
        {to_closed + "127.0.0.1:65537", "127.0.0.1", silent, numeric + failed + late},
        {to_closed + "localhost:1", "localhost", silent, failed + late},
        {to_closed + "no-such-host.invalid", "no-such-host.invalid", 3313, "DNS "},
        {to_closed + "256.0.0.1", "256.0.0.1", 3313, "DNS "},  // a name
        {"", "127.0.0.1", 3313, numeric},
        {"[other]\nservers=127.0.0.2\n[kestoav]\n", "127.0.0.1", 3313, numeric},
        {"[KestoAV]\r\nSERVERS =  \"127.0.0.3:7\"  \r\n", "127.0.0.3", 7, numeric},
        {"[kestoav]\nservers=\n", "", 3313, "Cannot connect, hostname is zero length"},
        {"[kestoav]\nservers=" + std::string(900, 'h') + " 127.0.0.1:9", "127.0.0.1", 9, numeric},
        {"[kestoav]\nservers=" + std::string(940, 'x') + ' ' + std::string(999, 'y'), std::string(58, 'y'),
         3313, "DNS "},  // cut at 999 characters
    };
    for (const auto& [file, host, port, record] : cases) {
        SCOPED_TRACE(file);
        DrivenPlugin it;
        const ImportPatch waits(it.plugin.module, "select", port == silent ? NeverReady : select);
        WriteFile(it.installed.folder / "kestoav.ini", file);
        EXPECT_EQ(it.plugin.Initialize(it.installed.folder), 0);
        it.installed.WriteSettings("servers=127.0.0.9");  // settings are read at the start only
        ExpectNothingLost(3, [&] {
            it.installed.CreateLog();
            it.system.Become({.processes = {{.ends = 1001}}, .starts = false, .look_takes = 600});
            EXPECT_EQ(it.Scan("x"), "failed 1001");
            const std::string told = it.installed.LogMessages().at(1);
            EXPECT_THAT(
                told, StartsWith("Couldn't connect to kestoav process - Connect_Socket\nhostname: " + host +
                                 "\nport: " + std::to_string(port) + "\nssl: 0\nmaxWaitMs: 1000\n" + record));
            EXPECT_EQ(told.find("firewall") != told.npos, told.find("\nError 0x") != told.npos);
            it.system.calls.clear();
        });
        const std::string log = ReadFile(it.installed.log);  // the record has lines of its own
        EXPECT_EQ(std::count(log.begin(), log.end(), '\r'), std::count(log.begin(), log.end(), '\n'));
    }
}

std::vector<std::string> g_asked;

int WSAAPI RecordRequest(SOCKET socket, DWORD code, void* in, DWORD, void*, DWORD, DWORD*, OVERLAPPED*,
                         LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
    g_asked.push_back(std::to_string(code) + ": " + std::to_string(*static_cast<uint32_t*>(in) & 0xFFFFFF));
    DWORD flags;
    GetHandleInformation(reinterpret_cast<HANDLE>(socket), &flags);
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
    WSASetLastError(WSAEOPNOTSUPP);  // like systems that do not know the request
    return SOCKET_ERROR;
}

using ConnectionTest = PluginTest;

TEST_F(ConnectionTest, ConnectOnLoopbackAsksOnceAndProgramsOfTheHostInheritNothing) {
    const ImportPatch requests(plugin.module, "WSAIoctl", RecordRequest);
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

TEST_F(ConnectionTest, AnswerOfALookupThatCannotBeCancelledComesInTimeOrNotAtAll) {
    const ImportPatch resolver(plugin.module, "getaddrinfo", SlowLookup);
    const ImportPatch freeing(plugin.module, "freeaddrinfo", KeepAnswer);
    const ImportPatch system7(plugin.module, "GetProcAddress", HideCancelling);
    g_clock = &system.clock;
    Start("servers=mail.test:" + std::to_string(engine.Port()));
    for (const uint32_t ms : {999, 1000}) {
        g_lookup_ms = ms;
        EXPECT_EQ(Scan("x"), "clean");
    }
    EXPECT_THAT(installed.LogMessages(),
                ElementsAre("Scan file - mail.eml - 1", "Scan file - mail.eml - 1",
                            AllOf(HasSubstr("\nDNS timed out."), Not(HasSubstr("Connect function")))));
}

std::string g_waits;

DWORD WINAPI EndWaitAtOnce(HANDLE waited_for, DWORD ms) {
    g_waits += std::to_string(ms) + ' ';
    return ms == 0 ? WaitForSingleObject(waited_for, 0) : WAIT_TIMEOUT;
}

TEST_F(ConnectionTest, LookupThatDoesNotEndInTimeIsCancelledAndLeftBehindUntilItHasEnded) {
    const ImportPatch waiting(plugin.module, "WaitForSingleObject", EndWaitAtOnce);
    Start("servers=localhost:1 " + engine.Address());
    EXPECT_EQ(Scan("x"), "clean");
    EXPECT_EQ(std::exchange(g_waits, ""), "1000 50 ");
    EXPECT_TRUE(WaitFor([&] { return Scan("x") == "clean" && std::exchange(g_waits, "") == "0 1000 50 "; }));
}

}  // namespace
}  // namespace kesto

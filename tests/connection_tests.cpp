// Connecting to a server: how long it waits, what it loses, and what the log tells of it.
#include "tests/support/fake_system.h"
#include "tests/support/losses.h"

namespace kesto {
namespace {

using namespace testing;

int WSAAPI NeverReady(int, fd_set*, fd_set*, fd_set*, timeval*) {
    return 0;
}

TEST(Connection, TellsOfTheServerThatFailedLastAndLosesNothing) {
    const uint16_t closed = FreePort(), silent = 1;
    const std::string numeric =
        "This is an IPV4 numeric address.\nHostname to IP address resolution not needed.\n";
    const std::string failed = "Connect function failed.\nWSAE";
    const std::tuple<std::string, uint16_t, std::string> cases[] = {
        {"127.0.0.1", closed,
         numeric + failed +
             "CONNREFUSED No connection could be made because the target machine actively "
             "refused it."},
        {"127.0.0.1", silent, numeric + failed + "TIMEDOUT A connection"},
        {"localhost", silent, failed + "TIMEDOUT A connection"},
        {"", 2, "Cannot connect, hostname is zero length"},
        {"no-such-host.invalid", 2, "DNS "},
        {"256.0.0.1", 2, "DNS "},  // a name
    };
    for (const auto& [host, port, record] : cases) {
        const std::string server = host + ":" + std::to_string(port);
        SCOPED_TRACE(server);
        DrivenPlugin it;
        const ImportPatch waits(it.plugin.module, "select", port == silent ? NeverReady : select);
        it.installed.CreateLog();
        it.Start("connectwait=0\nstartwait=0\nservers=127.0.0.1:" + std::to_string(closed) + " " + server);
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
    }
}

std::string g_waits;

DWORD WINAPI EndWaitAtOnce(HANDLE waited_for, DWORD ms) {
    g_waits += std::to_string(ms) + ' ';
    return ms == 0 ? WaitForSingleObject(waited_for, 0) : WAIT_TIMEOUT;
}

TEST(Connection, LookupThatDoesNotEndInTimeIsCancelledAndLeftBehindUntilItHasEnded) {
    ScriptedEngine engine;
    DrivenPlugin it;
    const ImportPatch waiting(it.plugin.module, "WaitForSingleObject", EndWaitAtOnce);
    it.Start("servers=localhost:1 " + engine.Address());
    EXPECT_EQ(it.Scan("x"), "clean");
    EXPECT_EQ(std::exchange(g_waits, ""), "1000 50 ");
    EXPECT_TRUE(
        WaitFor([&] { return it.Scan("x") == "clean" && std::exchange(g_waits, "") == "0 1000 50 "; }));
}

}  // namespace
}  // namespace kesto

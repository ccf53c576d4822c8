// Connecting to a server: how long it waits, what it loses, and what the log tells of it.
#include "tests/support/fake_system.h"
#include "tests/support/losses.h"

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
        it.installed.CreateLog();
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

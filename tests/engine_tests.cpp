// Finding an engine to scan with, on a made-up clock: its process, the restarts and their times, the servers,
// and what connecting to one waits for, loses and tells.
#include "tests/support/fake_system.h"

namespace {

using namespace kesto;
using namespace testing;

// The first lines of the log; repeated ones stand once, with their number.
std::string InShort(const std::vector<std::string>& messages) {
    std::string log;
    for (auto it = messages.begin(), next = it; it != messages.end(); it = next) {
        next = std::find_if(it, messages.end(), [&](const std::string& each) { return each != *it; });
        log += it->substr(0, it->find('\n')) + (next - it == 1 ? "" : "*" + std::to_string(next - it)) + "; ";
    }
    return log;
}

TEST(Engine, IsFoundRestartedAndGivenUpInTime) {
    constexpr uint32_t kLate = 1'000'000'000;
    const std::string scan = "Scan file - mail.eml - 1; ", start = "starting kestoav process; ";
    const std::string restart = "restarting kestoav process; stopping kestoav; ";
    const std::string couldnt = "Couldn't connect to kestoav process - Connect_Socket",
                      refused = scan + couldnt;
    const std::string missing = scan + restart + "couldn't find kestoav process; " + start;
    const std::string ended = restart + "terminated kestoav process; kestoav process ended; ";
    const std::string starting = "Waiting for kestoav process to start*";
    const std::string ending = refused + "; " + ended + "Waiting for kestoav process to end*";
    const std::string gave_up = "unable to connect to kestoav process - permanent error; ";
    const std::string alive = ending + "31; Unable to stop kestoav process; " + gave_up;
    const std::string dead = "; Unable to start kestoav process; " + gave_up;
    const std::string brief = "connectwait=0\nstartwait=2";
    const std::tuple<std::string, SystemState, std::string> cases[] = {
        // A limit of n seconds is over when n + 1 have passed.
        {"", {.accepts_from = 10'000}, refused + "*10; "},
        {"restartcount=0", {.accepts_from = 10'001}, refused + "*11; " + ended + start},
        {"connectwait=-1", {.accepts_from = 100'000}, refused + "*100; "},
        // The engine is not looked for between passes.
        {"", {.processes = {{.ends = 1500}}, .accepts_from = 5000}, refused + "*5; "},
        {"", {.processes = {}}, missing},
        {"startwait=-1", {.processes = {}, .started = {.appears = 300'000}}, missing + starting + "3000; "},
        {"",
         {.processes = {}, .starts = false, .start_error = 0xFFFFFFFF},
         missing + "Error starting kestoav process - -1; " + starting + "1211" + dead},
        {"startwait=0", {.enumerates = false}, missing + starting + "11" + dead},
        {"connectwait=0", {.accepts_from = 1001, .end_takes = 250}, ending + "3; " + start},
        // Of two engines only one is ended, and none is started.
        {brief, {.processes = std::vector<FakeProcess>(2), .accepts_from = kLate}, alive},
        {brief, {.accepts_from = kLate, .end_takes = kNever}, alive},
        // An engine is not seen without the right to ask for its name.
        {"", {.processes = {{.refused = PROCESS_QUERY_INFORMATION}}}, missing},
        // The time of a restart counts towards the connecting after it, whose limit is startwait.
        {"startwait=3",
         {.processes = {}, .accepts_from = 4001, .started = {.appears = 2000}},
         missing + starting + "20; " + couldnt + "*2; " + ended + start + starting + "20; "},
    };
    for (const auto& [settings, state, log] : cases) {
        SCOPED_TRACE(log);
        DrivenPlugin it;
        it.Start("autostart=0\n" + settings);
        it.system.Become(state);
        EXPECT_EQ(it.Scan("x"), log.ends_with(gave_up) ? "failed 1001" : "clean");
        EXPECT_EQ(InShort(it.installed.LogMessages()), log);
        // The two handles of every start are kept on purpose.
        const size_t starts = it.system.processes.size() - state.processes.size();
        EXPECT_EQ(it.system.open_handles, static_cast<int>(2 * starts));
    }
}

TEST(Engine, IsHandledWithTheseRightsAndInThisOrder) {
    DrivenPlugin it;
    it.Start("autostart=0\nconnectwait=0");
    it.system.Become({.accepts_from = 1001});
    EXPECT_EQ(it.Scan("x"), "clean");
    const std::string folder = it.installed.engine_folder.string();
    const char *const look = "enumerate", *const found = "open 1024 4", *const again = "open 1024 8";
    EXPECT_THAT(
        it.system.calls,
        ElementsAre(look, found, look, found, "open 1 4", "terminate with 4294967295", "wait 1000", look,
                    look,  // no wait for the end
                    "start " + folder + "\\kestoav.exe in " + folder, look, again, look, again, look, again));
}

TEST(Engine, IsWhateverProgramIsNamedSo) {
    const std::string folder = "\\Device\\x";
    const std::string longest = folder + std::string(519 - folder.size() - 12, 'y') + "\\kestoav.exe";
    const std::pair<std::string, bool> cases[] = {
        {folder + "\\KESTOAV.EXE", true},
        {folder + "\\xkestoav.exe", false},
        {folder + "\\kestoav.exe.old", false},
        {folder + "\\kestoav.exe\\other.exe", false},
        {"kestoav.exe", false},
        {longest, true},
        {"\\" + longest, false},
    };
    DrivenPlugin it;
    for (const auto& [image, found] : cases) {
        // Whether it was started is the result of the call, not its error code.
        it.system.Become({.processes = {{.image = folder}, {.image = image}}, .start_error = 5});
        EXPECT_EQ(it.Start(), 0);
        EXPECT_EQ(it.system.calls.back().starts_with("start "), !found) << image;
    }
    it.system.Become({.processes = {}, .starts = false, .start_error = 193});
    EXPECT_EQ(it.Start("autostart=2"), 193);
}

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
        {to_closed + "256.0.0.1", "256.0.0.1", 3313, "DNS "},  // a name
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

uint32_t g_lookup_ms;  // time that the next lookup takes

// The name has endlessly many addresses, of which the first refuses.
int WSAAPI SlowLookup(const char*, const char*, const addrinfo*, addrinfo** result) {
    static tcp::endpoint refuses, serves = Loopback(0);
    static addrinfo first, others;
    first.ai_family = others.ai_family = AF_INET;
    first.ai_addr = refuses.data();
    others.ai_addr = serves.data();
    first.ai_next = others.ai_next = &others;
    *result = &first;
    g_system->clock += std::exchange(g_lookup_ms, 0);
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
    const uint16_t port = FreePort();
    Start("servers=localhost:1 127.0.0.1:" + std::to_string(port));
    ExpectNothingLost(4, [&] {
        const ScriptedEngine server(Replying("stream: OK"), port);
        EXPECT_TRUE(
            WaitFor([&] { return Scan("x") == "clean" && std::exchange(g_waits, "") == "0 1000 50 "; }));
        system.calls.clear();
    });
}

}  // namespace

// What only real Windows or a host of many years shows, seen here by counting and by patched imports.
#include "net/socket_connection.h"
// This must come after winsock2.h, in what is above.
#include <ws2tcpip.h>

#include "tests/support/fake_system.h"
#include "tests/support/losses.h"

namespace kesto {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

int FreeThreadSlots() {
    std::vector<DWORD> slots;
    for (DWORD slot; (slot = TlsAlloc()) != TLS_OUT_OF_INDEXES;) {
        slots.push_back(slot);
    }
    for (const DWORD slot : slots) {
        TlsFree(slot);
    }
    return static_cast<int>(slots.size());
}

// With an engine process that is none of the plug-in's, and serves.
class RealEngineTest : public testing::Test {
 protected:
    RealEngineTest() {
        installed.PlaceStandIn(installed.elsewhere, "engine " + std::to_string(port) + " shifted");
        installed.StartStandIn(installed.elsewhere);
        // Servers enough that a list lost at each load shows.
        std::string servers = Servers(port);
        for (int i = 0; i < 50; ++i) {
            servers.insert(servers.size() - 1, " not:asked");
        }
        installed.WriteSettings(servers + "autostart=0");
    }
    const uint16_t port = FreePort();
    Installation installed;
};

TEST_F(RealEngineTest, HostLosesNothingByLoadingThePlugIn1300Times) {
    Holdings held = {};
    int slots = 0;
    for (int load = 1; load <= 1300; ++load) {
        const LoadedPlugin plugin(installed);
        ASSERT_EQ(plugin.Initialize(installed.folder), 0);
        ASSERT_TRUE(ScanWith(plugin, "x").Clean()) << load;
        if (load == 10) {
            held = CountHoldings();
            slots = FreeThreadSlots();
        }
    }
    const LoadedPlugin plugin(installed);  // as at the first count
    plugin.Initialize(installed.folder);
    ScanWith(plugin, "x");
    const Holdings after = CountHoldings();
    EXPECT_EQ(after.handles, held.handles);
    EXPECT_EQ(FreeThreadSlots(), slots);
    if (getenv("KESTOAV_TEST_HEAP_CHECKED") == nullptr) {  // see losses.cpp
        EXPECT_LT(after.bytes - held.bytes, 64 * 1024);
    }
}

// How far below `top` this thread's stack was ever written: fresh stack is zero.
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

TEST_F(RealEngineTest, CleanScanTakesLessThan24KilobytesOfStack) {
    const LoadedPlugin plugin(installed);
    plugin.Initialize(installed.folder);
    ptrdiff_t before = 0, scanned = 0;
    std::thread([&] {
        const std::string data(20'000, 'x');
        char top = 1;
        before = StackBelow(top);
        EXPECT_TRUE(ScanWith(plugin, data).Clean());
        scanned = StackBelow(top);
    }).join();
    RecordProperty("bytes", static_cast<int>(scanned));
    EXPECT_GT(scanned, before);
    EXPECT_LT(scanned, 24 * 1024);
}

// Of the system, by the patches below: by the test itself, not by the engine beside it.
thread_local std::vector<std::string> g_asked;

int WSAAPI RecordRequest(SOCKET socket, DWORD code, void* in, DWORD in_size, void*, DWORD, DWORD*,
                         OVERLAPPED*, LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
    sockaddr_in peer;
    int size = sizeof peer;
    const bool connected = getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
    const auto* const bytes = static_cast<const uint8_t*>(in);
    g_asked.push_back(std::to_string(code) + (connected ? " late" : "") + " of " + std::to_string(in_size) +
                      ":");
    for (DWORD i = 0; i < std::min<DWORD>(in_size, 3); ++i) {
        g_asked.back() += " " + std::to_string(bytes[i]);
    }
    WSASetLastError(WSAEOPNOTSUPP);  // as systems do that do not know it
    return SOCKET_ERROR;
}

int WSAAPI RecordOption(SOCKET, int level, int option, const char* value, int) {
    g_asked.push_back("option " + std::to_string(level) + " " + std::to_string(option) + " = " +
                      std::to_string(*value));
    return 0;
}

DWORD WINAPI RecordWait(HANDLE, DWORD) {
    g_asked.push_back("wait");
    return WAIT_FAILED;
}

BOOL WINAPI RecordDeletion(const char* path) {
    g_asked.push_back(std::string("delete ") + path);
    return TRUE;
}

class WindowsTest : public PluginTest {
 protected:
    WindowsTest() { g_asked.clear(); }
};

TEST_F(WindowsTest, ConnectOnLoopbackAsksOnceAndNoOtherDoes) {
    const ImportPatch requests(plugin.module, "WSAIoctl", RecordRequest);
    const ImportPatch options(plugin.module, "setsockopt", RecordOption);
    ScriptedEngine engine;
    Start("servers=192.0.2.1:9 128.0.0.1:9 127.9.9.9:9 " + engine.Address());
    system.accepts_from = 3000;  // nothing goes to the first three
    EXPECT_TRUE(Scan("x").Clean());
    // SIO_TCP_INITIAL_RTO with the round trip unspecified and no SYN repeated; the fourth byte fills up.
    EXPECT_THAT(g_asked, ElementsAre("2550136849 of 4: 255 255 254", "2550136849 of 4: 255 255 254"));
}

TEST_F(WindowsTest, NoDelayIsAnOptionThatIsOff) {
    ScriptedEngine engine(ReplyingBytes("abc\xFF"));
    const ImportPatch options(GetModuleHandleA(nullptr), "setsockopt", RecordOption);
    SocketConnection connection;
    ReceivedText text;
    for (const bool on : {false, true}) {
        connection.NoDelay(on);
        ASSERT_TRUE(connection.Connect("127.0.0.1", engine.Port(), false, 1000));
        EXPECT_EQ(strstr(connection.LastErrorText(), "\nSetting TCP_NODELAY\n") != nullptr, on);
        EXPECT_EQ(g_asked.size(), on ? 1u : 0u);
    }
    EXPECT_THAT(g_asked, ElementsAre("option 6 1 = 1"));
    // The account has the value as it was given.
    EXPECT_TRUE(connection.SendBytes("zPING", 6));
    EXPECT_TRUE(connection.ReceiveStringUntilByte(300, text));
    EXPECT_EQ(text.View(), "abc");
    EXPECT_THAT(connection.LastErrorText(), HasSubstr("byteValue: 300"));
}

uint32_t* g_clock;
uint32_t g_lookup_ms;  // that the next one takes

int WSAAPI SlowLookup(const char*, const char* service, const addrinfo* hints, addrinfo** result) {
    *g_clock += std::exchange(g_lookup_ms, 0);
    return getaddrinfo("127.0.0.1", service, hints, result);
}

FARPROC WINAPI HideCancelling(HMODULE module, const char* name) {
    return strcmp(name, "GetAddrInfoExCancel") == 0 ? nullptr : GetProcAddress(module, name);
}

TEST_F(WindowsTest, AnswerOfALookupThatCannotBeCancelledComesInTimeOrNotAtAll) {
    const ImportPatch resolver(plugin.module, "getaddrinfo", SlowLookup);
    const ImportPatch system7(plugin.module, "GetProcAddress", HideCancelling);
    g_clock = &system.clock;
    ScriptedEngine engine;
    installed.CreateLog();
    Start("servers=mail.test:" + std::to_string(engine.Port()));
    for (const uint32_t ms : {999, 1000}) {
        g_lookup_ms = ms;
        EXPECT_TRUE(Scan("x").Clean());
    }
    EXPECT_THAT(installed.LogMessages(), ElementsAre("Scan file - mail.eml - 1", "Scan file - mail.eml - 1",
                                                     testing::AllOf(HasSubstr("\nDNS timed out."),
                                                                    Not(HasSubstr("Connect function")))));
}

TEST_F(WindowsTest, LookupOfANameThatCannotBeConvertedLosesNothing) {
    ExpectNothingLost(50, [] {
        SocketConnection connection;
        EXPECT_FALSE(connection.Connect(std::string(1100, 'n').c_str(), 9, false, 100));
        EXPECT_THAT(connection.LastErrorText(), HasSubstr("\nDNS lookup failed.\nWSAEINVAL"));
    });
}

__time64_t __cdecl After2038(__time64_t*) {
    return 2'219'832'000;  // 5 May 2040
}

TEST_F(WindowsTest, LogKnowsTheYearAfter2038) {
    const ImportPatch clock(plugin.module, "_time64", After2038);
    installed.CreateLog();
    Start("autostart=0");
    Scan("");
    EXPECT_THAT(ReadText(installed.log), testing::StartsWith("2040/5/"));
}

std::string Update(const PluginLibrary& plugin) {
    char title[kUpdateTitleSize] = "untouched", message[kUpdateMessageSize] = "untouched";
    const int32_t result = plugin.do_simple_update(title, message);
    EXPECT_STREQ(title, result == 1 ? "untouched" : "KESTO Antivirus Update Failed");
    return message;
}

TEST(WindowsUpdate, WithoutAFolderStartsAndDeletesNothing) {
    for (const bool null : {false, true}) {
        DrivenPlugin it;
        const ImportPatch deletions(it.plugin.module, "DeleteFileA", RecordDeletion);
        g_asked.clear();
        it.system.Become({.processes = {}});
        if (null) {
            EXPECT_EQ(it.plugin.initialize_scanner(1, nullptr, nullptr, nullptr, nullptr),
                      ERROR_INVALID_PARAMETER);
        }
        it.plugin.get_expiry(0, 0, 0);
        for (int i = 0; i < 2; ++i) {  // the first leaves no update under way
            EXPECT_EQ(Update(it.plugin), "The KESTO Antivirus Update attempt failed with error 3");
        }
        EXPECT_THAT(it.system.calls, Not(testing::Contains(testing::StartsWith("start"))));
        EXPECT_THAT(g_asked, IsEmpty());
    }
    DrivenPlugin root;  // an empty folder is one, too, once the host gives it
    root.system.Become({.processes = {}});
    EXPECT_EQ(root.plugin.initialize_scanner(1, nullptr, nullptr, nullptr, ""), 0);
    EXPECT_THAT(root.system.calls,
                testing::Contains("start \\plugins\\kestoav\\kestoav.exe in \\plugins\\kestoav"));
    DrivenPlugin unlicensed;
    EXPECT_THAT(Update(unlicensed.plugin), HasSubstr("because you do not have a valid licence"));
    EXPECT_EQ(Update(unlicensed.plugin), "untouched");
}

TEST_F(WindowsTest, UpdaterThatCannotBeStartedIsNotWaitedForWhateverTheErrorCode) {
    Start("autostart=0");
    plugin.get_expiry(0, 0, 0);
    system.Become({.starts = false, .start_error = 0});
    const ImportPatch waits(plugin.module, "WaitForSingleObject", RecordWait);
    EXPECT_EQ(Update(plugin), "untouched");
    EXPECT_THAT(g_asked, IsEmpty());
    const std::string folder = installed.engine_folder.string();
    EXPECT_THAT(system.calls, ElementsAre("start " + folder + "\\kestoavu.exe in " + folder));
}

int g_spare = 0;  // calls that still find memory; below 0 all others do, too

bool Found() {
    return g_spare-- != 0;
}
void* __cdecl Allocate(size_t size) {
    return Found() ? malloc(size) : nullptr;
}
void* __cdecl AllocateZeros(size_t count, size_t size) {
    return Found() ? calloc(count, size) : nullptr;
}
void* __cdecl Reallocate(void* block, size_t size) {
    return Found() ? realloc(block, size) : nullptr;
}

TEST(WindowsMemory, LackOfItAtAnyPointIsAnErrorAndNoMore) {
    ScriptedEngine engine;
    const std::string port = std::to_string(engine.Port());
    // The memory of a scan by name: process IDs, lookup, reply. Each is lacking once.
    const char* const logged[] = {"restarting kestoav process", "WSAENOBUFS", "Unexpected response"};
    for (int spare = 0; spare < 3; ++spare) {
        DrivenPlugin it;
        it.installed.CreateLog();
        it.Start("servers=localhost:" + port);
        const ImportPatch patches[] = {{it.plugin.module, "malloc", Allocate},
                                       {it.plugin.module, "calloc", AllocateZeros},
                                       {it.plugin.module, "realloc", Reallocate}};
        g_spare = spare;
        const ScanOutcome outcome = it.Scan("x");
        EXPECT_TRUE(spare < 2 ? outcome.Clean() : outcome.Failed(1003)) << testing::PrintToString(outcome);
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

// Guard and bridge as processes, between scripted servers and clients, whom the guard never refuses.
#include <gmock/gmock.h>

#include <cstddef>
#include <optional>

#include "common/guard_words.h"
#include "common/owned_handle.h"
#include "common/processes.h"
#include "common/worker_orders.h"
#include "tests/support/plugin_host.h"

namespace {

using namespace kesto;
using namespace std::literals;
using namespace testing;

const std::string kFound = WithNul("stream: Test.Virus FOUND");

// A real guard and bridge beside their bridge.ini and in no plug-in's folder. The guard runs under another
// name, so that no plug-in of a test beside this one takes it for its engine; for the road through the
// plug-in see Installation::PlaceBridge.
struct BridgeProcess {
    // On a free port with these upstreams and further ini lines; waits until it serves.
    explicit BridgeProcess(const std::string& upstreams, const std::string& more_lines = "")
        : port(home.PlaceBridge(upstreams, more_lines, kProgram)) {
        run.emplace(home.engine_folder / kProgram);
        EXPECT_TRUE(WaitFor([this] { return !Command("zSTATS").empty(); })) << Log();
    }
    void WriteIni(const std::string& text) const { WriteFile(home.engine_folder / "bridge.ini", text); }
    std::string Log(const char* name = "bridge.log") const { return ReadFile(home.engine_folder / name); }
    // Whether its log holds the text, or will.
    bool Tells(const std::string& text, const char* log = "bridge.log") const {
        return WaitFor([&] { return Log(log).find(text) != std::string::npos; });
    }
    // The reply to a scan of `data`, shifted as the plug-in does, with its NUL; empty for none.
    std::string Scan(const std::string& data) const { return Ask(port, ScanRequestOf(data)); }
    std::string Command(const char* command) const { return Ask(port, WithNul(command)); }
    // Has another bridge take the place of this one.
    std::string Restart() const { return ProgramRun(home.folder / "kestoscan.exe", L"--restart").Told(); }

    static constexpr char kProgram[] = "bridge_alone.exe";
    Installation home{L"bridge"};
    uint16_t port;
    std::optional<ProgramRun> run;
};

TEST(BridgeEnd, ComesAfterTheRunningScans) {
    ScriptedEngine clamd(ReplyingBytes("", Then::kHolds));
    BridgeProcess bridge(clamd.Address(), "idle=1");
    Wire scanning(bridge.port), trickling(bridge.port);
    scanning.Send(ScanRequestOf("data"));
    trickling.Send(WithNul("zINSTREAM"));
    EXPECT_TRUE(WaitFor([&] { return clamd.Requests().size() == 1; }));
    Wire late(bridge.port);
    EXPECT_EQ(bridge.Restart(), "0: Restarted\n");
    EXPECT_THAT(bridge.Command("zSTATS"), HasSubstr("\nkestoav_worker_starts_total 2\n"));
    clamd.Play(Realistic());
    EXPECT_TRUE(late.Send(ScanRequestOf("VIRUS")));
    EXPECT_EQ(late.Receive(), kFound);
    EXPECT_TRUE(WaitFor([&] { return !trickling.Send("\0\0\0\1d"s) || (Sleep(50), false); }));
    EXPECT_EQ(bridge.Log().find("ended"), std::string::npos);
    scanning.Close(true);
    EXPECT_TRUE(bridge.Tells("ended"));
}

TEST(BridgeStart, TakesUpChangedSettings) {
    ScriptedEngine clean, clamd(Realistic());
    const BridgeProcess bridge(clean.Address());
    bridge.WriteIni("[bridge]\nlisten=127.0.0.1:9\nupstreams=127.0.0.1:" + std::to_string(bridge.port));
    EXPECT_TRUE(bridge.Tells("is the bridge itself until it is restarted"));
    EXPECT_EQ(bridge.Scan("VIRUS"), WithNul("stream: OK"));
    bridge.WriteIni("[bridge]\ndecrypt=0\nlogfile=none\\x.log\nupstreams=" + clamd.Address());
    EXPECT_TRUE(bridge.Tells("cannot write the log file none\\x.log"));
    EXPECT_TRUE(bridge.Tells("taken up by a restart only"));
    EXPECT_EQ(bridge.Scan("VIRUS"), kFound);
}

TEST(BridgeStart, WaitsForThePortAndOpensItsLogAnew) {
    BridgeProcess bridge("127.0.0.1:1", "logfile=own.log"), second("127.0.0.1:1", "logfile=own.log");
    std::filesystem::rename(bridge.home.engine_folder / "own.log", bridge.home.top / "moved.log");
    second.run.reset();
    second.WriteIni("[bridge]\nlogfile=own.log\nlisten=127.0.0.1:" + std::to_string(bridge.port));
    second.run.emplace(second.home.engine_folder / second.kProgram);
    EXPECT_TRUE(second.Tells("the port is in use (10048)", "own.log"));
    EXPECT_EQ(bridge.Restart(), "0: Restarted\n");
    EXPECT_TRUE(bridge.Tells("ending after", "own.log"));
    bridge.run.reset();
    EXPECT_TRUE(second.Tells("listening on 127.0.0.1:" + std::to_string(bridge.port), "own.log"));
}

struct GuardTest : Test {
    std::string Scan() const { return bridge.Scan(std::string(1'000'000, 'd') + "VIRUS"); }

    ScriptedEngine clamd{Realistic()};
    BridgeProcess bridge{"localhost:" + std::to_string(clamd.Port())};
    Installation& it = bridge.home;
};

TEST_F(GuardTest, StartsWorkersAnewAndHangsUpWhileNoneCanServe) {
    for (int i = 0; i < 3; ++i) {
        it.EndPrograms(it.worker);
        EXPECT_EQ(Scan(), kFound);  // waits for the next worker
    }
    for (int i = 0; i < 300; ++i) {
        Wire(bridge.port).Close(true);
    }
    EXPECT_EQ(bridge.Command("zPING"), WithNul("PONG"));
    EXPECT_THAT(bridge.Command("zSTATS"), HasSubstr("\nkestoav_worker_starts_total 4\n"));
    const auto ini = it.engine_folder / "bridge.ini";
    const std::string good = ReadFile(ini);
    WriteFile(ini, good + "idle=soon\r\n");
    EXPECT_THAT(bridge.Restart(),
                AllOf(HasSubstr("not restarted - the new kestobridge.exe cannot follow its"),
                      HasSubstr("bridge settings: bridge.ini line 5: idle=soon")));
    EXPECT_EQ(Scan(), kFound);  // the old one goes on
    it.EndPrograms(it.worker);
    EXPECT_TRUE(WaitFor([&] { return Scan().empty(); }));
    Wire large(bridge.port);  // is let finish, which a reset would not
    EXPECT_TRUE(large.Send(ScanRequestOf(std::string(3'000'000, 'd'))));
    const std::string log = bridge.Log(), told = "cannot start - bridge.ini line 5: idle=soon";
    EXPECT_EQ(log.find(told), log.rfind(told));
    WriteFile(ini, good + "idle=later\r\n");
    EXPECT_TRUE(bridge.Tells("cannot start - bridge.ini line 5: idle=later"));
    WriteFile(ini, good);
    EXPECT_TRUE(WaitFor([&] { return Scan() == kFound; }));
}

TEST_F(GuardTest, EndsWithItsWorkerAndIsTheOneThatHasThePort) {
    const auto program = it.engine_folder / bridge.kProgram;
    EXPECT_EQ(ProgramRun(program).Told(), "0: ");
    bridge.run.reset();
    EXPECT_TRUE(WaitFor([&] { return ProcessesOf(it.worker).empty(); }, std::chrono::seconds(1)));
    // Another program has made the pipe before.
    OwnedHandle pipe = Own(CreateNamedPipeW(GuardPipe(it.engine_folder).c_str(), PIPE_ACCESS_DUPLEX,
                                            PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr));
    bridge.run.emplace(program);
    EXPECT_TRUE(WaitFor([&] { return Scan() == kFound; }));
    EXPECT_THAT(bridge.Restart(), HasSubstr(" answers in the guard's place"));
    pipe.reset();
    EXPECT_TRUE(bridge.Tells("restarts can be asked for"));
    EXPECT_EQ(bridge.Restart(), "0: Restarted\n");
}

TEST_F(GuardTest, KeepsTheOldWorkerWhereNoNewOneComesUp) {
    // Guards of other versions send more or less.
    for (const auto& [size, status] : {std::pair(offsetof(WorkerOrders, closed), kCannotTakeOver),
                                       {sizeof(WorkerOrders) + 99, kCannotTakeOver},
                                       {offsetof(WorkerOrders, closed) - 1, 2u}}) {
        std::string orders(size, '\0');
        orders.replace(0, sizeof(uint32_t), reinterpret_cast<const char*>(&size), sizeof(uint32_t));
        EXPECT_THAT(ProgramRun(it.worker, L"", it.top, orders).Told(),
                    StartsWith(std::to_string(status) + ": "));
    }
    EXPECT_THAT(bridge.Log(), HasSubstr("cannot start - cannot take over the socket of kestoav.exe - "));
    std::filesystem::rename(it.worker, it.top / "kestobridge-old.exe");
    it.PlaceStandIn(it.worker);
    EXPECT_THAT(bridge.Restart(), HasSubstr("gave no sign of life for 10 s"));
    EXPECT_TRUE(WaitFor([&] { return DeleteFileW(it.worker.c_str()); }));  // so it does not run
    EXPECT_THAT(bridge.Restart(), HasSubstr("cannot start kestobridge.exe - File not found (2)"));
    EXPECT_EQ(Scan(), kFound);
}

}  // namespace

// The guard as a process: that clients are never refused, whatever becomes of its worker.
#include <gmock/gmock.h>

#include <cstddef>

#include "common/guard_words.h"
#include "common/owned_handle.h"
#include "common/worker_orders.h"
#include "tests/support/bridge_process.h"

namespace kesto {
namespace {

using namespace testing;

class GuardTest : public testing::Test {
 protected:
    std::string Scan() const { return bridge.Scan(std::string(1'000'000, 'd') + "VIRUS"); }
    bool Serves() const {
        return WaitFor([this] { return Scan() == kFound; });
    }

    ScriptedEngine clamd{Realistic()};
    BridgeProcess bridge{clamd.Address()};
    Installation& it = bridge.home;
};

TEST_F(GuardTest, StartsAWorkerThatEndsAnewAndRefusesNobody) {
    for (int i = 0; i < 3; ++i) {
        it.EndPrograms(it.worker.wstring());
        EXPECT_EQ(Scan(), kFound);  // waits for the next worker
    }
    EXPECT_THAT(bridge.Command("zSTATS"), HasSubstr("\nkestoav_worker_starts_total 4\n"));
    EXPECT_THAT(bridge.Log(), HasSubstr("kestobridge.exe ended (1)"));
}

TEST_F(GuardTest, HangsUpWhileNoWorkerCanServe) {
    const auto ini = it.engine_folder / "bridge.ini";
    const std::string good = ReadFile(ini);
    WriteFile(ini, good + "idle=soon\r\n");
    EXPECT_THAT(bridge.Restart().err,
                AllOf(HasSubstr("not restarted - the new kestobridge.exe cannot follow its"),
                      HasSubstr("bridge settings: bridge.ini line 5: idle=soon")));
    EXPECT_EQ(Scan(), kFound);  // the old one goes on
    it.EndPrograms(it.worker.wstring());
    EXPECT_TRUE(WaitFor([&] { return Scan().empty(); }));
    Wire large(ConnectToLoopback(bridge.port));  // is let finish, which a reset would not
    EXPECT_TRUE(large.Send(ScanRequestOf(std::string(3'000'000, 'd'))));
    EXPECT_EQ(large.Receive(), "");
    const std::string log = bridge.Log(), told = "cannot start - bridge.ini line 5: idle=soon";
    EXPECT_EQ(log.find(told), log.rfind(told));
    WriteFile(ini, good);
    EXPECT_TRUE(Serves());
}

TEST_F(GuardTest, EndsWithItsWorkerAndIsTheOnlyOneOfItsFolder) {
    const auto program = it.engine_folder / bridge.kProgram;
    const RunResult second = ProgramRun(program).Finish();
    EXPECT_EQ(std::to_string(second.status) + second.err, "0");
    EXPECT_THAT(ProgramRun(program, L"--help").Finish().err, StartsWith("kestoav.exe is started by"));
    const std::string log = bridge.Log();
    bridge.run.reset();
    EXPECT_TRUE(WaitFor([&] { return it.ProcessOf(it.worker) == 0; }, std::chrono::seconds(1)));
    // Another program has made the pipe before.
    OwnedHandle pipe = Own(CreateNamedPipeW(GuardPipe(it.engine_folder).c_str(), PIPE_ACCESS_DUPLEX,
                                            PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr));
    bridge.run.emplace(program);
    EXPECT_TRUE(Serves());
    EXPECT_EQ(bridge.Log().substr(0, log.size()), log);
    EXPECT_TRUE(bridge.Tells("restarts cannot be asked for yet"));
    pipe.reset();
    EXPECT_TRUE(bridge.Tells("restarts can be asked for"));
    EXPECT_EQ(bridge.Restart().out, "Restarted\n");
}

TEST_F(GuardTest, WorkersUnderstandGuardsOfOtherVersions) {
    for (const auto& [size, status] : {std::pair(offsetof(WorkerOrders, closed), kCannotTakeOver),
                                       {sizeof(WorkerOrders) + 99, kCannotTakeOver},
                                       {offsetof(WorkerOrders, closed) - 1, 2u}}) {
        std::string orders(size, '\0');
        orders.replace(0, sizeof(uint32_t), reinterpret_cast<const char*>(&size), sizeof(uint32_t));
        EXPECT_EQ(ProgramRun(it.worker, L"", it.top, orders).Finish().status, status) << size;
    }
    EXPECT_THAT(bridge.Log(), HasSubstr("cannot start - cannot take over the socket of kestoav.exe - "));
}

TEST_F(GuardTest, KeepsTheOldWorkerWhereNoNewOneComesUp) {
    // As one does whose program is to be replaced while it runs.
    std::filesystem::rename(it.worker, it.top / "kestobridge-old.exe");
    it.PlaceStandIn(it.worker, "wait");
    ProgramRun silent(it.folder / "kestoscan.exe", L"--restart");
    EXPECT_TRUE(it.WaitForStarts(it.worker, 1));
    EXPECT_THAT(bridge.Restart().err, HasSubstr("not restarted - another restart is under way\n"));
    EXPECT_EQ(Scan(), kFound);
    EXPECT_THAT(silent.Finish().err, HasSubstr("gave no sign of life for 10 s"));
    DeleteFileW(it.worker.c_str());
    EXPECT_THAT(bridge.Restart().err, HasSubstr("cannot start kestobridge.exe - File not found (2)"));
    std::filesystem::copy_file(BuiltFolder() / "kestobridge.exe", it.worker);
    EXPECT_EQ(bridge.Restart().status, 0u);
    EXPECT_EQ(Scan(), kFound);
    bridge.run.reset();
    EXPECT_THAT(bridge.Restart().err, HasSubstr("kestoav.exe runs\n"));
}

}  // namespace
}  // namespace kesto

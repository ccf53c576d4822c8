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

    ScriptedEngine clamd{Realistic()};
    BridgeProcess bridge{clamd.Address()};
    Installation& it = bridge.home;
};

TEST_F(GuardTest, StartsWorkersAnewAndHangsUpWhileNoneCanServe) {
    for (int i = 0; i < 3; ++i) {
        it.EndPrograms(it.worker.wstring());
        EXPECT_EQ(Scan(), kFound);  // waits for the next worker
    }
    EXPECT_THAT(bridge.Command("zSTATS"), HasSubstr("\nkestoav_worker_starts_total 4\n"));
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
    const std::string log = bridge.Log(), told = "cannot start - bridge.ini line 5: idle=soon";
    EXPECT_EQ(log.find(told), log.rfind(told));
    WriteFile(ini, good);
    EXPECT_TRUE(WaitFor([&] { return Scan() == kFound; }));
}

TEST_F(GuardTest, EndsWithItsWorkerAndIsTheOneThatHasThePort) {
    const auto program = it.engine_folder / bridge.kProgram;
    const RunResult second = ProgramRun(program).Finish();
    EXPECT_EQ(std::to_string(second.status) + second.err, "0");
    EXPECT_THAT(ProgramRun(program, L"--help").Finish().err, StartsWith("kestoav.exe is started by"));
    bridge.run.reset();
    EXPECT_TRUE(WaitFor([&] { return it.ProcessOf(it.worker) == 0; }, std::chrono::seconds(1)));
    // Another program has made the pipe before.
    OwnedHandle pipe = Own(CreateNamedPipeW(GuardPipe(it.engine_folder).c_str(), PIPE_ACCESS_DUPLEX,
                                            PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr));
    bridge.run.emplace(program);
    EXPECT_TRUE(WaitFor([&] { return Scan() == kFound; }));
    pipe.reset();
    EXPECT_TRUE(bridge.Tells("restarts can be asked for"));
    EXPECT_EQ(bridge.Restart().out, "Restarted\n");
}

TEST_F(GuardTest, KeepsTheOldWorkerWhereNoNewOneComesUp) {
    // Guards of other versions send more or less.
    for (const auto& [size, status] : {std::pair(offsetof(WorkerOrders, closed), kCannotTakeOver),
                                       {sizeof(WorkerOrders) + 99, kCannotTakeOver},
                                       {offsetof(WorkerOrders, closed) - 1, 2u}}) {
        std::string orders(size, '\0');
        orders.replace(0, sizeof(uint32_t), reinterpret_cast<const char*>(&size), sizeof(uint32_t));
        EXPECT_EQ(ProgramRun(it.worker, L"", it.top, orders).Finish().status, status) << size;
    }
    EXPECT_THAT(bridge.Log(), HasSubstr("cannot start - cannot take over the socket of kestoav.exe - "));
    std::filesystem::rename(it.worker, it.top / "kestobridge-old.exe");
    it.PlaceStandIn(it.worker, "wait");
    EXPECT_THAT(bridge.Restart().err, HasSubstr("gave no sign of life for 10 s"));
    EXPECT_TRUE(WaitFor([&] { return DeleteFileW(it.worker.c_str()); }));  // so it does not run
    EXPECT_THAT(bridge.Restart().err, HasSubstr("cannot start kestobridge.exe - File not found (2)"));
    EXPECT_EQ(Scan(), kFound);
}

}  // namespace
}  // namespace kesto

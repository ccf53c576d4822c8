// Finding, starting, stopping and restarting the engine process, as scans make it happen.
#include <algorithm>

#include "tests/support/scanner_test.h"

namespace kesto {
namespace {

using std::chrono::steady_clock;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSubsetOf;
using testing::Not;

constexpr char kWaitingToEnd[] = "Waiting for kestoav process to end";
constexpr char kWaitingToStart[] = "Waiting for kestoav process to start";

class EngineProcessTest : public ScannerTest {
 protected:
    // The log without the lines before the restart, and with repeated lines only once.
    std::vector<std::string> RestartMessages() const {
        auto messages = folder.LogMessages();
        messages.erase(messages.begin(),
                       std::find(messages.begin(), messages.end(), "restarting kestoav process"));
        messages.erase(std::unique(messages.begin(), messages.end()), messages.end());
        return messages;
    }

    // Starts without an engine of its own, with a server on which nobody listens.
    void StartAlone(const std::string& settings) {
        folder.CreateLog();
        ASSERT_EQ(Start(settings + "\nautostart=0\nconnectwait=0\n" + Servers(FreePort())), 0);
    }
};

TEST_F(EngineProcessTest, IsFoundByTheNameOfItsProgramFileAlone) {
    const struct {
        const char* program;
        bool is_engine;
    } cases[] = {
        {"KESTOAV.EXE", true},
        {"xkestoav.exe", false},
        {"kestoav.exe.old", false},
        {"kestoav", false},
    };
    folder.PlaceEngine("exit 0");
    for (const auto& each : cases) {
        const std::string program = folder.parent() + "\\" + each.program;
        folder.PlaceProgram(program, "wait");
        folder.StartProgram(program);
        folder.CreateLog();
        EXPECT_EQ(plugin.InitializeScanner(1, nullptr, nullptr, nullptr, folder.path().c_str()), 0);
        EXPECT_EQ(folder.LogMessages().empty(), each.is_engine) << each.program;
        plugin.CloseScanner();
        for (const char* name : {each.program, "kestoav.exe"}) {
            EndProcesses(name);
            EXPECT_TRUE(WaitFor([&] { return ProcessesNamed(name).empty(); }));
        }
    }
}

TEST_F(EngineProcessTest, RestartEndsTheRunningOneAndStartsAnother) {
    const uint16_t port = FreePort();
    StartWithIdleEngine(Servers(port) + "connectwait=0\nstartwait=5");
    const DWORD id = folder.Starts(folder.engine_program()).at(0).process_id;
    const HANDLE old = OpenProcess(PROCESS_QUERY_INFORMATION | SYNCHRONIZE, FALSE, id);
    folder.PlaceEngine("listen " + std::to_string(port));
    EXPECT_TRUE(Scan("x").Clean());
    EXPECT_EQ(WaitForSingleObject(old, 0), WAIT_OBJECT_0);
    DWORD exit_code = 0;
    EXPECT_TRUE(GetExitCodeProcess(old, &exit_code));
    EXPECT_EQ(exit_code, 0xFFFFFFFFu);
    CloseHandle(old);

    auto messages = RestartMessages();
    std::erase(messages, kWaitingToEnd);  // none or more
    std::erase_if(messages, [](const auto& each) { return each.starts_with("Couldn't connect"); });
    EXPECT_THAT(messages,
                ElementsAre("restarting kestoav process", "stopping kestoav", "terminated kestoav process",
                            "kestoav process ended", "starting kestoav process"));
}

TEST_F(EngineProcessTest, RestartWithoutARunningOneStartsIt) {
    const uint16_t port = FreePort();
    folder.CreateLog();
    folder.PlaceEngine("listen " + std::to_string(port));
    Start(Servers(port) + "autostart=0\nstartwait=5");
    EXPECT_TRUE(Scan("x").Clean());
    auto messages = folder.LogMessages();
    ASSERT_GE(messages.size(), 5u);
    messages.resize(5);
    EXPECT_THAT(messages,
                ElementsAre("Scan file - mail.eml - 1", "restarting kestoav process", "stopping kestoav",
                            "couldn't find kestoav process", "starting kestoav process"));
}

TEST_F(EngineProcessTest, MissingProgramEndsTheScanAfterStartwait) {
    StartAlone("startwait=0");
    const auto begin = steady_clock::now();
    EXPECT_TRUE(Scan("x").Failed(1001));
    const double seconds = std::chrono::duration<double>(steady_clock::now() - begin).count();
    EXPECT_GT(seconds, 0.95);
    EXPECT_LT(seconds, 2);
    EXPECT_THAT(RestartMessages(),
                ElementsAre("restarting kestoav process", "stopping kestoav", "couldn't find kestoav process",
                            "starting kestoav process", "Error starting kestoav process - 2", kWaitingToStart,
                            "Unable to start kestoav process",
                            "unable to connect to kestoav process - permanent error"));
    const auto messages = folder.LogMessages();
    EXPECT_THAT(std::count(messages.begin(), messages.end(), kWaitingToStart),
                testing::AllOf(testing::Ge(5), testing::Le(12)));  // ten polls a second
}

TEST_F(EngineProcessTest, ProgramThatEndsAtOnceIsStartedAgainUntilAServerAccepts) {
    const uint16_t port = FreePort();
    folder.PlaceEngine("exit 1");
    StartAlone("startwait=0\nservers=127.0.0.1:" + std::to_string(port));
    ScanOutcome outcome{kUntouched};
    std::thread scan([&] { outcome = Scan("x"); });
    EXPECT_TRUE(folder.WaitForLog("starting kestoav process"));
    FakeEngine late({}, port);
    scan.join();
    // Whether the process was still there to be seen is the system's timing.
    EXPECT_TRUE(outcome.Clean() || outcome.Failed(1001));
}

TEST_F(EngineProcessTest, OneThatSomeoneElseStartsEndsTheWait) {
    folder.PlaceProgram(folder.elsewhere(), "wait");
    const uint16_t port = FreePort();
    folder.CreateLog();
    Start(Servers(port) + "autostart=0\nstartwait=-1");
    ScanOutcome outcome{};
    std::thread scan([&] { outcome = Scan("x"); });
    // A startwait that were signed would have passed at the first poll.
    EXPECT_TRUE(folder.WaitForLog(kWaitingToStart, 2));
    FakeEngine engine({}, port);
    folder.StartProgram(folder.elsewhere());
    scan.join();
    EXPECT_TRUE(outcome.Clean());
}

TEST_F(EngineProcessTest, OfTwoOnlyOneIsEndedAndNoneStarted) {
    folder.PlaceEngine("wait");
    folder.PlaceProgram(folder.elsewhere(), "wait");
    folder.StartProgram(folder.engine_program());
    folder.StartProgram(folder.elsewhere());
    StartAlone("startwait=0");
    EXPECT_TRUE(Scan("x").Failed(1001));
    EXPECT_EQ(ProcessesNamed("kestoav.exe").size(), 1u);
    EXPECT_THAT(RestartMessages(),
                ElementsAre("restarting kestoav process", "stopping kestoav", "terminated kestoav process",
                            "kestoav process ended", kWaitingToEnd, "Unable to stop kestoav process",
                            "unable to connect to kestoav process - permanent error"));
}

struct Rights {
    DWORD mask;         // all that others have to the engine process
    const char* shown;  // by the restart
};

void PrintTo(const Rights& rights, std::ostream* out) {
    *out << rights.shown;
}

class EngineRightsTest : public EngineProcessTest, public testing::WithParamInterface<Rights> {};

TEST_P(EngineRightsTest, DecideWhatARestartSeesAndEnds) {
    folder.PlaceProgram(folder.elsewhere(), "rights " + std::to_string(GetParam().mask));
    folder.StartProgram(folder.elsewhere());
    const DWORD id = folder.Starts(folder.elsewhere()).at(0).process_id;
    if (const HANDLE anyway = OpenProcess(PROCESS_ALL_ACCESS, FALSE, id)) {
        CloseHandle(anyway);
        GTEST_SKIP() << "this user has every right to every process";
    }
    StartAlone("startwait=0");
    EXPECT_TRUE(Scan("x").Failed(1001));
    const auto messages = RestartMessages();
    ASSERT_GE(messages.size(), 3u);
    EXPECT_EQ(messages[2], GetParam().shown);
    const bool ended = messages[2].starts_with("terminated");
    EXPECT_EQ(ProcessesNamed("kestoav.exe").size(), ended ? 0u : 1u);
}

// With fewer rights than it asks for, an engine is not seen or not ended; it asks for no others.
INSTANTIATE_TEST_SUITE_P(
    Each, EngineRightsTest,
    testing::Values(Rights{PROCESS_ALL_ACCESS & ~PROCESS_QUERY_INFORMATION, "couldn't find kestoav process"},
                    Rights{PROCESS_ALL_ACCESS & ~PROCESS_TERMINATE, kWaitingToEnd},
                    Rights{PROCESS_QUERY_INFORMATION | PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE,
                           "terminated kestoav process"}));

}  // namespace
}  // namespace kesto

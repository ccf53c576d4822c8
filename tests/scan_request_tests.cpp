#include <algorithm>

#include "tests/support/scanner_test.h"

namespace kesto {
namespace {

using std::chrono::steady_clock;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class ScanRequestTest : public ScannerTest {};

TEST_F(ScanRequestTest, EmptyFileNeedsNoEngine) {
    folder.CreateLog();
    Start("autostart=0");
    EXPECT_TRUE(Scan("").Clean());
    EXPECT_THAT(folder.LogMessages(), ElementsAre("Scan file - mail.eml - 0"));
}

TEST_F(ScanRequestTest, NullPointersAreRefusedAndNotFollowed) {
    FakeEngine engine({.reply = WithNul("stream: V FOUND")});
    StartWithIdleEngine(Servers(engine.port()));
    const ScanFileInput data{"n", 1, reinterpret_cast<const uint8_t*>("x")};
    const ScanFileInput no_data{"n", 1, nullptr};
    const ScanFileInput empty{"n", 0, nullptr};
    ScanFileResult no_detection{kUntouched, kUntouched, nullptr};
    const struct {
        const ScanFileInput* input;
        ScanFileResult* result;
        uint32_t returns, error;
    } cases[] = {
        {nullptr, &no_detection, 0, 1002}, {&no_data, &no_detection, 0, 1002},    {&data, nullptr, 0, 1002},
        {&empty, nullptr, 1, kUntouched},  {&data, &no_detection, 1, kUntouched},
    };
    for (const auto& each : cases) {
        uint32_t error = kUntouched;
        EXPECT_EQ(plugin.ScanFile(0, each.input, each.result, &error, 0, 0), each.returns);
        EXPECT_EQ(error, each.error);
        EXPECT_EQ(plugin.ScanFile(0, each.input, each.result, nullptr, 0, 0), each.returns);
    }
    EXPECT_EQ(no_detection.reserved, kUntouched);
    EXPECT_EQ(no_detection.infected, 1u);
}

TEST_F(ScanRequestTest, ServersAreTriedInOrderWithoutAWord) {
    FakeEngine second, third;
    const uint16_t first = FreePort();
    StartWithIdleEngine(Servers(first, second.port(), third.port()));
    EXPECT_TRUE(Scan("1").Clean());
    EXPECT_EQ(second.Conversations().size(), 1u);
    {
        FakeEngine back({}, first);
        EXPECT_TRUE(Scan("2").Clean());
        EXPECT_EQ(back.Conversations().size(), 1u);
    }
    EXPECT_EQ(second.Conversations().size(), 1u);
    EXPECT_THAT(third.Conversations(), IsEmpty());
    EXPECT_THAT(folder.LogMessages(), ElementsAre("starting kestoav process", "Scan file - mail.eml - 1",
                                                  "Scan file - mail.eml - 1"));
}

TEST_F(ScanRequestTest, NoServerIsTriedWhileNoEngineProcessRuns) {
    FakeEngine engine;
    folder.CreateLog();
    Start(Servers(engine.port()) + "autostart=0\nstartwait=0");
    EXPECT_TRUE(Scan("x").Failed(1001));
    EXPECT_THAT(engine.Conversations(), IsEmpty());
    const auto messages = folder.LogMessages();
    EXPECT_THAT(messages, Not(Contains(StartsWith("Couldn't connect"))));
    EXPECT_EQ(messages.back(), "unable to connect to kestoav process - permanent error");
}

TEST_F(ScanRequestTest, TheRestartBeginsTheNextWindow) {
    const uint16_t port = FreePort();
    folder.CreateLog();
    folder.PlaceProgram(folder.elsewhere(), "wait");
    folder.StartProgram(folder.elsewhere());
    ASSERT_EQ(Start(Servers(port) + "autostart=0\nconnectwait=0\nstartwait=3"), 0);
    ScanOutcome outcome{};
    const auto begin = steady_clock::now();
    std::thread scan([&] { outcome = Scan("x"); });
    // A limit of n seconds is over after n + 1: first that of connectwait, then that of startwait, from
    // which the time that the restart takes is taken.
    EXPECT_TRUE(folder.WaitForLog("restarting kestoav process", 1));
    const auto first = steady_clock::now();
    EXPECT_TRUE(folder.WaitForLog("Waiting for kestoav process to start", 25));
    folder.StartProgram(folder.elsewhere());
    EXPECT_TRUE(folder.WaitForLog("restarting kestoav process", 2));
    const auto second = steady_clock::now();
    const FakeEngine late({}, port);
    EXPECT_TRUE(folder.WaitForLog("Error starting kestoav process", 2));
    folder.StartProgram(folder.elsewhere());
    scan.join();
    EXPECT_TRUE(outcome.Clean());
    const auto seconds = [](auto time) { return std::chrono::duration<double>(time).count(); };
    EXPECT_NEAR(seconds(first - begin), 1.5, 0.6);
    // Begun at the end of the restart it would be over after more than six.
    EXPECT_NEAR(seconds(second - first), 4.6, 0.8);
}

TEST_F(ScanRequestTest, PassesFollowEachOtherWithoutPauseAndEachIsLogged) {
    const uint16_t port = FreePort();
    StartWithIdleEngine(Servers(port) + "connectwait=5");
    ScanOutcome outcome{};
    const auto begin = steady_clock::now();
    std::thread scan([&] { outcome = Scan("x"); });
    EXPECT_TRUE(folder.WaitForLog("Couldn't connect", 50));
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(2));
    FakeEngine late({}, port);
    scan.join();
    EXPECT_TRUE(outcome.Clean());
}

TEST_F(ScanRequestTest, ManyThreadsEachGetTheirOwnVerdictAndWholeLogLines) {
    FakeEngine clean, infected({.reply = WithNul("stream: Mine FOUND")});
    const uint16_t port = clean.port();
    StartWithIdleEngine(Servers(port));
    constexpr int kThreads = 4, kScans = 20;
    std::atomic<int> right = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string name(static_cast<size_t>(90 + t), static_cast<char>('a' + t));
            for (int i = 0; i < kScans; ++i) {
                right += Scan(std::string(10'000, static_cast<char>('A' + t)), name).Clean();
            }
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(right, kThreads * kScans);
    int whole = 0;
    for (const Conversation& each : clean.Conversations()) {
        whole += each.data == std::string(10'000, each.data[0]);
    }
    EXPECT_EQ(whole, kThreads * kScans);
    const auto messages = folder.LogMessages();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(
            std::count(messages.begin(), messages.end(),
                       "Scan file - " + std::string(static_cast<size_t>(90 + t), static_cast<char>('a' + t)) +
                           " - 10000"),
            kScans);
    }
}

}  // namespace
}  // namespace kesto

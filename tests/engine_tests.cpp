// Finding an engine to scan with: its process, the servers, the restarts and their times, on a made-up clock.
#include "tests/support/fake_system.h"

namespace kesto {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The log in words, repeated ones once and counted.
std::string InWords(const std::vector<std::string>& messages) {
    static const std::pair<const char*, const char*> kWords[] = {
        {"Scan file - mail.eml - 1", "scan"},
        {"Couldn't connect to kestoav process - Connect_Socket\n", "refused"},
        {"restarting kestoav process", "restart"},
        {"stopping kestoav", "stop"},
        {"terminated kestoav process", "terminated"},
        {"kestoav process ended", "ended"},
        {"couldn't find kestoav process", "missing"},
        {"Waiting for kestoav process to end", "ending"},
        {"Unable to stop kestoav process", "alive"},
        {"starting kestoav process", "start"},
        {"Error starting kestoav process - ", "failed:"},
        {"Waiting for kestoav process to start", "starting"},
        {"Unable to start kestoav process", "dead"},
        {"unable to connect to kestoav process - permanent error", "gave-up"},
    };
    std::vector<std::pair<std::string, int>> words;
    for (std::string each : messages) {
        for (const auto& [text, word] : kWords) {
            const bool begins = text == kWords[1].first || text == kWords[10].first;
            if (begins ? each.starts_with(text) : each == text) {
                each = word + (text == kWords[10].first ? each.substr(strlen(text)) : "");
            }
        }
        if (words.empty() || words.back().first != each) {
            words.emplace_back(each, 0);
        }
        ++words.back().second;
    }
    std::string log;
    for (const auto& [word, times] : words) {
        log += (log.empty() ? "" : " ") + word + (times > 1 ? "*" + std::to_string(times) : "");
    }
    return log;
}

TEST(Engine, IsFoundRestartedAndGivenUpInTime) {
    constexpr uint32_t kLate = 1'000'000'000;
    const FakeProcess engine;
    const struct {
        const char* settings;
        SystemState state;
        bool clean;
        const char* log;
    } cases[] = {
        {"", {}, true, "scan"},
        // A limit of n seconds is over when n + 1 have passed.
        {"", {.accepts_from = 10'000}, true, "scan refused*10"},
        {"restartcount=0",
         {.accepts_from = 10'001},
         true,
         "scan refused*11 restart stop terminated ended start"},
        {"connectwait=-1", {.accepts_from = 100'000}, true, "scan refused*100"},
        // Not looked for between passes.
        {"", {.processes = {{.ends = 1500}}, .accepts_from = 5000}, true, "scan refused*5"},
        {"", {.processes = {}}, true, "scan restart stop missing start"},
        {"",
         {.processes = {}, .started = {.appears = 500}},
         true,
         "scan restart stop missing start starting*5"},
        {"startwait=-1",
         {.processes = {}, .started = {.appears = 300'000}},
         true,
         "scan restart stop missing start starting*3000"},
        {"",
         {.processes = {}, .starts = false, .start_error = 2},
         false,
         "scan restart stop missing start failed:2 starting*1211 dead gave-up"},
        {"startwait=0",
         {.processes = {}, .starts = false, .start_error = 0xFFFFFFFF},
         false,
         "scan restart stop missing start failed:-1 starting*11 dead gave-up"},
        {"startwait=0",
         {.processes = {}, .starts = false},
         false,
         "scan restart stop missing start failed:0 starting*11 dead gave-up"},
        {"startwait=0",
         {.enumerates = false},
         false,
         "scan restart stop missing start starting*11 dead gave-up"},
        {"connectwait=0",
         {.accepts_from = 1001, .end_takes = 250},
         true,
         "scan refused restart stop terminated ended ending*3 start"},
        // Of two only one is ended, and none started.
        {"connectwait=0\nstartwait=2",
         {.processes = {engine, engine}, .accepts_from = kLate},
         false,
         "scan refused restart stop terminated ended ending*31 alive gave-up"},
        {"connectwait=0\nstartwait=2",
         {.accepts_from = kLate, .end_takes = kNever},
         false,
         "scan refused restart stop terminated ended ending*31 alive gave-up"},
        {"connectwait=0\nstartwait=2",
         {.processes = {{.refused = PROCESS_TERMINATE}}, .accepts_from = kLate},
         false,
         "scan refused restart stop ending*31 alive gave-up"},
        // Without the right to ask an engine for its name it is not seen.
        {"",
         {.processes = {{.refused = PROCESS_QUERY_INFORMATION}}},
         true,
         "scan restart stop missing start"},
        // The restart's time is taken from the connecting after it, whose limit is startwait.
        {"startwait=3",
         {.processes = {}, .accepts_from = 4001, .started = {.appears = 2000}},
         true,
         "scan restart stop missing start starting*20 refused*2 "
         "restart stop terminated ended start starting*20"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.log);
        ScriptedEngine server;
        DrivenPlugin it;
        it.installed.CreateLog();
        it.Start(Servers(server.Port()) + "autostart=0\n" + each.settings);
        it.system.Become(each.state);
        const ScanOutcome outcome = it.Scan("x");
        EXPECT_TRUE(each.clean ? outcome.Clean() : outcome.Failed(1001)) << testing::PrintToString(outcome);
        EXPECT_EQ(InWords(it.installed.LogMessages()), each.log);
        // The two handles of every start are kept, by design.
        const size_t starts = it.system.processes.size() - each.state.processes.size();
        EXPECT_EQ(it.system.open_handles, static_cast<int>(2 * starts));
    }
}

TEST(Engine, IsHandledWithTheseRightsAndInThisOrder) {
    ScriptedEngine server;
    DrivenPlugin it;
    it.Start(Servers(server.Port()) + "autostart=0\nconnectwait=0");
    it.system.Become({.accepts_from = 1001});
    EXPECT_TRUE(it.Scan("x").Clean());
    const std::string folder = it.installed.engine_folder.string();
    const std::vector<std::string> find = {"enumerate", "open 1024 4"};
    std::vector<std::string> expected = {"enumerate",
                                         "open 1024 4",  // the connecting
                                         "enumerate",
                                         "open 1024 4",
                                         "open 1 4",
                                         "terminate with 4294967295",
                                         "wait 1000",  // the end
                                         "enumerate",
                                         "enumerate",                                       // no wait for it
                                         "start " + folder + "\\kestoav.exe in " + folder,  //
                                         "enumerate",
                                         "open 1024 8",
                                         "enumerate",
                                         "open 1024 8",  // no wait for the start
                                         "enumerate",
                                         "open 1024 8"};  // connecting again
    EXPECT_EQ(it.system.calls, expected);
}

TEST(Engine, IsWhateverProgramIsNamedSo) {
    const std::string other = "\\Device\\services.exe", folder = "\\Device\\x";
    const std::string longest = folder + std::string(519 - folder.size() - 12, 'y') + "\\kestoav.exe";
    std::vector<FakeProcess> many(10'238, FakeProcess{.image = other});
    many.push_back({});
    std::vector<FakeProcess> one_more = many;
    one_more.insert(one_more.begin(), FakeProcess{.image = other});
    const struct {
        std::vector<FakeProcess> processes;
        bool found;
    } cases[] = {
        {{{.image = folder + "\\KESTOav.exE"}}, true},
        {{{.image = "\\kestoav.exe"}}, true},
        {{{.image = other}, {.image = folder + "\\Kestoav.EXE"}}, true},
        {{{.image = folder + "\\xkestoav.exe"}}, false},
        {{{.image = folder + "\\kestoav.exe.old"}}, false},
        {{{.image = folder + "\\kestoav"}}, false},
        {{{.image = folder + "\\kestoav.exe\\other.exe"}}, false},
        {{{.image = "kestoav.exe"}}, false},
        {{{.image = longest}}, true},
        {{{.image = "\\" + longest}}, false},
        {many, true},
        {one_more, false},  // beyond what is asked for
    };
    DrivenPlugin it;
    for (const auto& each : cases) {
        it.system.Become({.processes = each.processes});
        it.system.calls.clear();
        EXPECT_EQ(it.Start(""), 0);
        EXPECT_EQ(it.system.calls.back().starts_with("start "), !each.found) << each.processes[0].image;
    }
}

class ServersTest : public PluginTest {};

TEST_F(ServersTest, AreTriedInOrderWithoutAWord) {
    ScriptedEngine second, third;
    UnansweredPort silent;
    const uint16_t first = FreePort();
    installed.CreateLog();
    Start(Servers(first, second.Port(), third.Port()));
    EXPECT_TRUE(Scan("1").Clean());
    EXPECT_EQ(second.Accepted(), 1u);
    {
        ScriptedEngine back(Replying("stream: OK"), first);
        EXPECT_TRUE(Scan("1").Clean());
        EXPECT_EQ(back.Accepted(), 1u);
    }
    EXPECT_EQ(second.Accepted(), 1u);
    EXPECT_EQ(third.Accepted(), 0u);
    EXPECT_EQ(InWords(installed.LogMessages()), "scan*2");
}

TEST_F(ServersTest, GetASecondEach) {
    UnansweredPort silent;
    ScriptedEngine good;
    Start(Servers(silent.Port(), good.Port()));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(Scan("1").Clean());
    EXPECT_NEAR(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(), 1.0, 0.4);
}

TEST_F(ServersTest, AreTwiceInTheListAfterASecondStart) {
    ScriptedEngine second;
    auto first = std::make_unique<ScriptedEngine>();
    Start(Servers(first->Port()));
    Start(Servers(second.Port()));
    EXPECT_TRUE(Scan("1").Clean());
    EXPECT_EQ(second.Accepted(), 0u);
    first.reset();
    EXPECT_TRUE(Scan("2").Clean());
    EXPECT_EQ(second.Accepted(), 1u);
}

TEST_F(ServersTest, ServeManyThreadsEachWithItsOwnVerdictAndWholeLogLines) {
    ScriptedEngine engine(Realistic({.shifted = true}));
    installed.CreateLog();
    Start(Servers(engine.Port()));
    constexpr int kThreads = 4, kScans = 20;
    std::atomic<int> right = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string name(static_cast<size_t>(90 + t), static_cast<char>('a' + t));
            for (int i = 0; i < kScans; ++i) {
                const ScanOutcome outcome =
                    Scan(std::string(10'000, 'x') + (t % 2 ? "VIRUS" : "clean"), name);
                right += t % 2 ? outcome.Infected(name, "Test.Virus") : outcome.Clean();
            }
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(right, kThreads * kScans);
    const auto messages = installed.LogMessages();
    for (int t = 0; t < kThreads; ++t) {
        const std::string name(static_cast<size_t>(90 + t), static_cast<char>('a' + t));
        EXPECT_EQ(std::count(messages.begin(), messages.end(), "Scan file - " + name + " - 10005"), kScans);
    }
}

}  // namespace
}  // namespace kesto

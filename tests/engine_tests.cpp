// Finding an engine to scan with: its process, the servers, the restarts and their times, on a made-up clock.
#include "tests/support/fake_system.h"

namespace kesto {
namespace {

using namespace testing;

// The log with a word for each message; repeated ones stand once, with their number.
std::string InWords(const std::vector<std::string>& messages) {
    static const std::pair<const char*, const char*> kWords[] = {
        {"Scan file - mail.eml - 1", "scan"},
        {"Couldn't connect to kestoav process - Connect_Socket", "refused"},
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
    std::string log, last;
    int times = 1;
    for (std::string each : messages) {
        for (const auto& [text, word] : kWords) {
            each.replace(0, each.starts_with(text) ? strlen(text) : 0, each.starts_with(text) ? word : "");
        }
        each.resize(std::min(each.size(), each.find('\n')));
        times = each == last ? times + 1 : 1;
        if (times > 1) {
            log.resize(log.rfind(last) + last.size());
        }
        last = each;
        log += times > 1 ? "*" + std::to_string(times) : (log.empty() ? "" : " ") + each;
    }
    return log;
}

TEST(Engine, IsFoundRestartedAndGivenUpInTime) {
    constexpr uint32_t kLate = 1'000'000'000;
    const FakeProcess engine;
    const std::string missing = "scan restart stop missing start", refused = "scan refused restart stop ";
    const std::string ended = refused + "terminated ended ending";
    const std::string brief = "connectwait=0\nstartwait=2", alive = ended + "*31 alive gave-up";
    // When the log ends with "gave-up", the scan fails.
    const std::tuple<std::string, SystemState, std::string> cases[] = {
        {"", {}, "scan"},
        // A limit of n seconds is over when n + 1 have passed.
        {"", {.accepts_from = 10'000}, "scan refused*10"},
        {"restartcount=0", {.accepts_from = 10'001}, "scan refused*11 restart stop terminated ended start"},
        {"connectwait=-1", {.accepts_from = 100'000}, "scan refused*100"},
        // The engine is not looked for between passes.
        {"", {.processes = {{.ends = 1500}}, .accepts_from = 5000}, "scan refused*5"},
        {"", {.processes = {}}, missing},
        {"startwait=-1", {.processes = {}, .started = {.appears = 300'000}}, missing + " starting*3000"},
        {"",
         {.processes = {}, .starts = false, .start_error = 0xFFFFFFFF},
         missing + " failed:-1 starting*1211 dead gave-up"},
        {"startwait=0", {.enumerates = false}, missing + " starting*11 dead gave-up"},
        {"connectwait=0", {.accepts_from = 1001, .end_takes = 250}, ended + "*3 start"},
        // Of two engines only one is ended, and none is started.
        {brief, {.processes = {engine, engine}, .accepts_from = kLate}, alive},
        {brief, {.accepts_from = kLate, .end_takes = kNever}, alive},
        {brief,
         {.processes = {{.refused = PROCESS_TERMINATE}}, .accepts_from = kLate},
         refused + "ending*31 alive gave-up"},
        // An engine is not seen without the right to ask for its name.
        {"", {.processes = {{.refused = PROCESS_QUERY_INFORMATION}}}, missing},
        // The time of a restart counts towards the connecting after it, whose limit is startwait.
        {"startwait=3",
         {.processes = {}, .accepts_from = 4001, .started = {.appears = 2000}},
         missing + " starting*20 refused*2 restart stop terminated ended start starting*20"},
    };
    for (const auto& [settings, state, log] : cases) {
        SCOPED_TRACE(log);
        ScriptedEngine server;
        DrivenPlugin it;
        it.installed.CreateLog();
        it.Start(Servers(server.Port()) + "autostart=0\n" + settings);
        it.system.Become(state);
        EXPECT_EQ(it.Scan("x"), log.ends_with("gave-up") ? "failed 1001" : "clean");
        EXPECT_EQ(InWords(it.installed.LogMessages()), log);
        // The two handles of every start are kept on purpose.
        const size_t starts = it.system.processes.size() - state.processes.size();
        EXPECT_EQ(it.system.open_handles, static_cast<int>(2 * starts));
    }
}

TEST(Engine, IsHandledWithTheseRightsAndInThisOrder) {
    ScriptedEngine server;
    DrivenPlugin it;
    it.Start(Servers(server.Port()) + "autostart=0\nconnectwait=0");
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
    const std::string other = "\\Device\\services.exe", folder = "\\Device\\x";
    const std::string longest = folder + std::string(519 - folder.size() - 12, 'y') + "\\kestoav.exe";
    const std::pair<std::vector<std::string>, bool> cases[] = {
        // images, and whether an engine is found
        {{other, folder + "\\KESTOav.exE"}, true},
        {{folder + "\\xkestoav.exe", folder + "\\kestoav.exe.old", folder + "\\kestoav",
          folder + "\\kestoav.exe\\other.exe", "kestoav.exe", "\\" + longest},
         false},
        {{longest}, true},
    };
    DrivenPlugin it;
    for (const auto& [images, found] : cases) {
        it.system.Become({.processes = {}});
        for (const std::string& image : images) {
            it.system.processes.push_back({.image = image});
        }
        it.system.calls.clear();
        EXPECT_EQ(it.Start(""), 0);
        EXPECT_EQ(it.system.calls.back().starts_with("start "), !found) << images[0];
    }
}

using ServersTest = PluginTest;

TEST_F(ServersTest, AreTriedInOrderWithoutAWordAndTwiceInTheListAfterASecondStart) {
    ScriptedEngine second, third;
    installed.CreateLog();
    Start(Servers(FreePort(), second.Port(), third.Port()));
    EXPECT_EQ(Scan("1"), "clean");
    EXPECT_EQ(InWords(installed.LogMessages()), "scan");
    Start(Servers(third.Port()));
    EXPECT_EQ(Scan("1"), "clean");
    EXPECT_EQ(second.Accepted(), 2u);
    second.Kill();
    EXPECT_EQ(Scan("1"), "clean");
    EXPECT_EQ(third.Accepted(), 1u);
}

}  // namespace
}  // namespace kesto

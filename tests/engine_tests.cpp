// Finding an engine to scan with: its process, the servers, the restarts and their times, on a made-up clock.
#include "tests/support/fake_system.h"

namespace kesto {
namespace {

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
    const std::vector<FakeProcess> two(2);
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
        {brief, {.processes = two, .accepts_from = kLate}, alive},
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
        {folder + "\\KESTOav.exE", true},
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

using ServersTest = PluginTest;

TEST_F(ServersTest, AreTriedInOrderAndThoseOfASecondStartLast) {
    ScriptedEngine second;
    Start(Servers(FreePort(), engine.Port()));
    Start(Servers(second.Port()));
    EXPECT_EQ(Scan("1"), "clean");
    EXPECT_EQ(engine.Requests().size(), 1u);
    engine.Kill();
    EXPECT_EQ(Scan("1"), "clean");
    EXPECT_EQ(second.Requests().size(), 1u);
}

}  // namespace
}  // namespace kesto

// Start-up: what the host gets, the engine's start, the log.
#include <cstdlib>
#include <ctime>
#include <fstream>

#include "tests/support/fake_system.h"

namespace kesto {
namespace {

using namespace testing;

using StartUpTest = PluginTest;
using LogTest = PluginTest;

TEST_F(StartUpTest, FillsTheHostsBuffersWhateverTheVersion) {
    installed.CreateLog();
    system.processes = {};
    for (const int32_t version : {2, -1, 1}) {
        std::string short_name(kShortNameSize, 'x'), long_name(kLongNameSize, 'x');
        uint32_t out_value = kUntouched;
        EXPECT_EQ(plugin.initialize_scanner(version, short_name.data(), long_name.data(), &out_value,
                                            installed.folder.string().c_str()),
                  version == 1 ? 0 : 1);
        EXPECT_EQ(short_name, WithNul("KESTOAV") + std::string(24, 'x'));
        EXPECT_EQ(long_name, WithNul("KESTO AV") + std::string(247, 'x'));
        EXPECT_EQ(out_value, 0u);
        // The log is in place; an engine is started only for the right version.
        EXPECT_EQ(system.processes.size(), version == 1 ? 1u : 0u);
        plugin.close_scanner();
    }
    EXPECT_THAT(installed.LogMessages(),
                ElementsAre("API version mismatch 2 != 1", "API version mismatch -1 != 1",
                            "starting kestoav process"));
}

TEST_F(StartUpTest, StartsTheEngineUnlessItRunsOrIsNotToBeStarted) {
    const std::string folder = installed.engine_folder.string();
    const std::string start = "start " + folder + "\\kestoav.exe in " + folder;
    using Lines = std::vector<std::string>;
    const Lines found{"enumerate", "open 1024 4"}, started{"enumerate", start};
    const std::tuple<const char*, SystemState, Lines, int32_t> cases[] = {
        {"autostart=0", {.processes = {}}, {}, 0},
        {"", {}, found, 0},
        {"", {.processes = {}}, started, 0},
        {"autostart=2", {.processes = {}, .starts = false, .start_error = 193}, started, 193},
        // Whether it was started is the result of the call, not its error code.
        {"", {.processes = {}, .start_error = 5}, started, 0},
    };
    for (const auto& [settings, state, calls, status] : cases) {
        system.Become(state);
        system.calls.clear();
        EXPECT_EQ(Start(settings), status);
        EXPECT_EQ(system.calls, calls);
    }
}

int WINAPI NoSockets(WORD, WSADATA*) {
    return WSASYSNOTREADY;
}
TEST_F(StartUpTest, IsRefusedWithoutSockets) {
    const ImportPatch patch(plugin.module, "WSAStartup", NoSockets);
    EXPECT_EQ(Start(""), -1);
}

TEST_F(StartUpTest, KeepsItsOwnCopyOf259CharactersOfTheFolder) {
    plugin.get_expiry(0, 0, 0);
    for (const size_t length : {0, 1, 259, 260, 100'000}) {  // the empty one counts, too
        std::string hosts_text = ("C:\\" + std::string(length, 'x')).substr(0, length);
        const std::string kept = hosts_text.substr(0, 259) + "\\plugins\\kestoav";
        system.Become({.processes = {}});
        system.calls.clear();
        plugin.initialize_scanner(1, nullptr, nullptr, nullptr, hosts_text.c_str());
        std::fill(hosts_text.begin(), hosts_text.end(), '?');
        EXPECT_EQ(plugin.do_simple_update(nullptr, nullptr), 1);
        EXPECT_THAT(system.calls, Contains("start " + kept + "\\kestoav.exe in " + kept));
        EXPECT_THAT(system.calls, Contains("start " + kept + "\\kestoavu.exe in " + kept));
    }
}

// The line that scanning an empty file writes, which needs no engine.
const std::string kLogged = ": Scan file - mail.eml - 0\r\n";

int g_flushes;
int Flush(FILE* file) {
    ++g_flushes;
    return fflush(file);
}

TEST_F(LogTest, IsWrittenWhereTheSettingSaysOrElseIfItExists) {
    const std::string folder = installed.folder.string(), other = folder + "\\other.log";
    const std::tuple<bool, std::string, bool, bool> cases[] = {
        {false, "", false, false},
        {true, "", true, false},
        {true, other, false, true},
        {true, folder, false, false},  // where it cannot be opened, the default is not used
        {true, std::string(500, 'x'), false, false},
    };
    for (const auto& [exists, setting, in_default, in_other] : cases) {
        DeleteFileA(other.c_str());
        exists ? installed.CreateLog() : void(std::filesystem::remove(installed.log));
        Start("logfile=" + setting);
        EXPECT_EQ(Scan(""), "clean");
        plugin.close_scanner();
        Scan("");  // not logged any more
        plugin.close_scanner();
        EXPECT_EQ(installed.LogMessages().size(), in_default ? 1u : 0u) << setting;
        EXPECT_EQ(ReadFile(other).ends_with(kLogged), in_other) << setting;
        EXPECT_EQ(std::filesystem::exists(installed.log), exists);
    }
}

__time64_t g_now;
__time64_t Now(__time64_t*) {
    return g_now;
}
TEST_F(LogTest, AppendsWholeLinesWithTheLocalTimeAndFlushesEach) {
    const ImportPatch clock(plugin.module, "_time64", Now), flush(plugin.module, "fflush", Flush);
    WriteFile(installed.log, "kept\r\n");
    _putenv("TZ=KST-5");
    _tzset();
    Start("");
    std::string expected = "kept\r\n";
    const std::pair<tm, const char*> cases[] = {
        {{9, 5, 0, 1, 0, 114, 0, 0, -1}, "2014/1/1 0:05:09"},
        {{59, 59, 23, 31, 11, 138, 0, 0, -1}, "2038/12/31 23:59:59"},
    };
    for (auto [time, stamp] : cases) {
        g_now = _mktime64(&time);
        g_flushes = 0;
        EXPECT_EQ(Scan(""), "clean");
        EXPECT_EQ(g_flushes, 1);
        std::ofstream(installed.log, std::ios::app | std::ios::binary) << "someone else's\r\n";
        expected += stamp + kLogged + "someone else's\r\n";
        EXPECT_EQ(ReadFile(installed.log), expected);
    }
}

}  // namespace
}  // namespace kesto

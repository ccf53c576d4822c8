// Start-up: what the host gets, the engine's start, the log.
#include <io.h>

#include <cstdlib>
#include <ctime>
#include <fstream>

#include "tests/support/fake_system.h"

namespace kesto {
namespace {

using namespace testing;

using StartUpTest = PluginTest;
using LogTest = PluginTest;

int WINAPI NoSockets(WORD, WSADATA*) {
    return WSASYSNOTREADY;
}
TEST_F(StartUpTest, FillsTheHostsBuffersWhateverTheVersionAndIsRefusedWithoutSockets) {
    const ImportPatch patch(plugin.module, "WSAStartup", NoSockets);
    for (const int32_t version : {2, -1, 1}) {
        std::string short_name(kShortNameSize, 'x'), long_name(kLongNameSize, 'x');
        uint32_t out_value = kUntouched;
        EXPECT_EQ(plugin.initialize_scanner(version, short_name.data(), long_name.data(), &out_value,
                                            installed.folder.string().c_str()),
                  version == 1 ? -1 : 1);
        EXPECT_EQ(short_name, WithNul("KESTOAV") + std::string(24, 'x'));
        EXPECT_EQ(long_name, WithNul("KESTO AV") + std::string(247, 'x'));
        EXPECT_EQ(out_value, 0u);
        plugin.close_scanner();
    }
    EXPECT_THAT(installed.LogMessages(),
                ElementsAre("API version mismatch 2 != 1", "API version mismatch -1 != 1"));
    EXPECT_THAT(system.calls, IsEmpty());
}

TEST_F(StartUpTest, KeepsItsOwnCopyOf259CharactersOfTheFolder) {
    plugin.get_expiry(0, 0, 0);
    for (const size_t length : {0, 1, 259, 260, 100'000}) {  // the empty one counts, too
        std::string hosts_text = ("C:\\" + std::string(length, 'x')).substr(0, length);
        const std::string kept = hosts_text.substr(0, 259) + "\\plugins\\kestoav";
        plugin.initialize_scanner(1, nullptr, nullptr, nullptr, hosts_text.c_str());
        std::fill(hosts_text.begin(), hosts_text.end(), '?');
        EXPECT_EQ(plugin.do_simple_update(nullptr, nullptr), 1);
        EXPECT_THAT(system.calls, Contains("start " + kept + "\\kestoavu.exe in " + kept));
    }
}

// The line that scanning an empty file writes, which needs no engine.
const std::string kLogged = ": Scan file - mail.eml - 0\r\n";

TEST_F(LogTest, IsWrittenWhereTheSettingSaysOrElseIfItExists) {
    const std::string folder = installed.folder.string(), other = folder + "\\other.log";
    // Where the one that is set cannot be opened, the default is not used.
    for (const std::string& setting : {std::string(), folder, std::string(500, 'x'), other}) {
        setting.empty() ? void(std::filesystem::remove(installed.log)) : installed.CreateLog();
        Start("logfile=" + setting);
        EXPECT_EQ(Scan(""), "clean");
        EXPECT_EQ(ReadFile(other).ends_with(kLogged), setting == other) << setting;
        EXPECT_EQ(ReadFile(installed.log), "");
        EXPECT_EQ(std::filesystem::exists(installed.log), !setting.empty());
    }
}

int g_flushes;
int Flush(FILE* file) {
    ++g_flushes;
    DWORD flags;  // a program that the host starts must not hold the log open
    GetHandleInformation(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file))), &flags);
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
    return fflush(file);
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
    Start();
    std::string expected = "kept\r\n";
    const std::pair<tm, const char*> cases[] = {
        {{9, 5, 0, 1, 0, 114, 0, 0, -1}, "2014/1/1 0:05:09"},
        {{59, 59, 23, 31, 11, 138, 0, 0, -1}, "2038/12/31 23:59:59"},
    };
    for (auto [time, stamp] : cases) {
        g_now = _mktime64(&time);
        EXPECT_EQ(Scan(""), "clean");
        std::ofstream(installed.log, std::ios::app | std::ios::binary) << "someone else's\r\n";
        expected += stamp + kLogged + "someone else's\r\n";
        EXPECT_EQ(ReadFile(installed.log), expected);
    }
    plugin.close_scanner();
    Scan("");
    EXPECT_EQ(ReadFile(installed.log), expected);
    EXPECT_EQ(g_flushes, 2);
}

}  // namespace
}  // namespace kesto

// Start-up: what the host gets, the settings, the engine's start, the log.
#include <cstdlib>
#include <ctime>

#include "tests/support/fake_system.h"

namespace kesto {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string kLogged =
    "Scan file - mail.eml - 0";  // by the scan of an empty file, which needs no engine

class StartUpTest : public PluginTest {};

TEST_F(StartUpTest, FillsTheHostsBuffersWhateverTheVersion) {
    ScriptedEngine engine;
    installed.CreateLog();
    installed.WriteSettings(Servers(engine.Port()) + "encrypt=0");
    system.processes = {};
    for (const int32_t version : {2, 0, -1, 1}) {
        std::string short_name(kShortNameSize, 'x'), long_name(kLongNameSize, 'x');
        uint32_t out_value = kUntouched;
        EXPECT_EQ(plugin.initialize_scanner(version, short_name.data(), long_name.data(), &out_value,
                                            installed.folder.string().c_str()),
                  version == 1 ? 0 : 1);
        EXPECT_EQ(short_name, WithNul("KESTOAV") + std::string(24, 'x'));
        EXPECT_EQ(long_name, WithNul("KESTO AV") + std::string(247, 'x'));
        EXPECT_EQ(out_value, 0u);
        // Settings and log are in place; an engine is started only for the right version.
        EXPECT_EQ(system.processes.size(), version == 1 ? 1u : 0u);
        if (version == 1) {
            EXPECT_TRUE(Scan("as it is").Clean());
            EXPECT_EQ(engine.Requests().at(0).data, "as it is");
        }
        plugin.close_scanner();
    }
    EXPECT_THAT(
        installed.LogMessages(),
        ElementsAre("API version mismatch 2 != 1", "API version mismatch 0 != 1",
                    "API version mismatch -1 != 1", "starting kestoav process", "Scan file - mail.eml - 8"));
}

TEST_F(StartUpTest, StartsTheEngineUnlessItRunsOrIsNotToBeStarted) {
    const std::string folder = installed.engine_folder.string();
    const std::string start = "start " + folder + "\\kestoav.exe in " + folder;
    const struct {
        const char* settings;
        SystemState state;
        int32_t status;
        std::vector<std::string> calls, log;
    } cases[] = {
        {"autostart=0", {.processes = {}}, 0, {}, {}},
        {"", {}, 0, {"enumerate", "open 1024 4"}, {}},
        {"", {.processes = {}}, 0, {"enumerate", start}, {"starting kestoav process"}},
        {"autostart=2",
         {.processes = {}, .starts = false, .start_error = 193},
         193,
         {"enumerate", start},
         {"starting kestoav process", "Error starting kestoav process - 193"}},
        // Whether it was started is the call's own result, not its error.
        {"", {.processes = {}, .start_error = 5}, 0, {"enumerate", start}, {"starting kestoav process"}},
    };
    for (const auto& each : cases) {
        installed.CreateLog();
        system.Become(each.state);
        system.calls.clear();
        EXPECT_EQ(Start(each.settings), each.status);
        EXPECT_EQ(system.calls, each.calls);
        plugin.close_scanner();
        EXPECT_EQ(installed.LogMessages(), each.log);
    }
}

int WINAPI NoSockets(WORD, WSADATA*) {
    return WSASYSNOTREADY;
}
void* NoMemory(void*, size_t) {
    return nullptr;
}

TEST_F(StartUpTest, IsRefusedWithoutSocketsOrMemory) {
    ScriptedEngine engine;
    installed.CreateLog();
    {
        const ImportPatch patch(plugin.module, "WSAStartup", NoSockets);
        EXPECT_EQ(Start(Servers(engine.Port())), -1);
    }
    EXPECT_THAT(installed.LogMessages(), IsEmpty());
    {
        const ImportPatch patch(plugin.module, "realloc", NoMemory);
        EXPECT_EQ(Start(""), ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_TRUE(Scan("x").Failed(1003));
        EXPECT_THAT(plugin.VersionDetails(), HasSubstr("Not enough memory"));
    }
}

TEST_F(StartUpTest, KeepsItsOwnCopyOfTheFolder) {
    std::string hosts_text = installed.folder.string();
    EXPECT_EQ(plugin.initialize_scanner(1, nullptr, nullptr, nullptr, hosts_text.c_str()), 0);
    std::fill(hosts_text.begin(), hosts_text.end(), '?');
    system.Become({.processes = {}});
    plugin.get_expiry(0, 0, 0);
    EXPECT_EQ(plugin.do_simple_update(nullptr, nullptr), 1);
    EXPECT_THAT(system.calls, Contains(StartsWith("start " + installed.folder.string())));
}

TEST_F(StartUpTest, TakesFoldersOf259Characters) {
    EXPECT_EQ(plugin.initialize_scanner(1, nullptr, nullptr, nullptr, nullptr), ERROR_INVALID_PARAMETER);
    system.Become({.processes = {}});
    for (const size_t length : {size_t{1}, size_t{259}, size_t{260}, size_t{100'000}}) {
        const std::string folder = ("C:\\" + std::string(length, 'x')).substr(0, length);
        EXPECT_EQ(plugin.Initialize(folder), 0);
        const std::string kept = folder.substr(0, 259) + "\\plugins\\kestoav";
        EXPECT_EQ(system.calls.back(), "start " + kept + "\\kestoav.exe in " + kept);
        system.processes = {};
    }
}

TEST(Settings, AreThoseOfTheSectionAndElseTheDefaults) {
    const struct {
        std::string file;
        std::string account;  // of a connect that failed
    } cases[] = {
        {"", "hostname: 127.0.0.1\nport: 3313\n"},
        {"[other]\nservers=127.0.0.2\n[kestoav]\n", "hostname: 127.0.0.1\nport: 3313\n"},
        {"[KestoAV]\r\nSERVERS =  \"127.0.0.3:7\"  \r\n", "hostname: 127.0.0.3\nport: 7\n"},
        {"[kestoav]\nservers=\n", "hostname: \nport: 3313\n"},
        {"[kestoav]\nservers=127.0.0.4:65537\n", "hostname: 127.0.0.4\nport: 1\n"},
        {"[kestoav]\nservers=" + std::string(940, 'x') + ' ' + std::string(999, 'y'),
         "hostname: " + std::string(58, 'y') + "\nport: 3313\n"},  // cut at 999 characters
    };
    for (const auto& each : cases) {
        DrivenPlugin it;
        it.installed.CreateLog();
        WriteFile(it.installed.folder / "kestoav.ini", each.file);
        EXPECT_EQ(it.plugin.Initialize(it.installed.folder), 0);
        it.system.Become(
            {.processes = {{.ends = 1001}}, .accepts_from = kNever, .starts = false, .look_takes = 1000});
        EXPECT_TRUE(it.Scan("x").Failed(1001));
        EXPECT_THAT(it.installed.LogMessages(), Contains(HasSubstr(each.account)));
    }
}

class LogTest : public PluginTest {};

TEST_F(LogTest, IsWrittenWhereTheSettingSaysOrElseIfItExists) {
    const std::string folder = installed.folder.string(), other = folder + "\\other.log";
    const struct {
        bool exists;
        std::string setting;
        bool in_default, in_other;
    } cases[] = {
        {false, "", false, false},
        {true, "", true, false},
        {true, other, false, true},
        {true, folder, false, false},  // what cannot be opened is not made up for
        {true, folder + "\\none\\x.log", false, false},
        {true, std::string(500, 'x'), false, false},
    };
    for (const auto& each : cases) {
        DeleteFileA(other.c_str());
        each.exists ? installed.CreateLog() : void(std::filesystem::remove(installed.log));
        Start("logfile=" + each.setting);
        EXPECT_TRUE(Scan("").Clean());
        EXPECT_EQ(installed.LogMessages().size(), each.in_default ? 1u : 0u) << each.setting;
        EXPECT_EQ(ReadFile(other).ends_with(": " + kLogged + "\r\n"), each.in_other) << each.setting;
        EXPECT_EQ(std::filesystem::exists(installed.log), each.exists);
        plugin.close_scanner();
        plugin.close_scanner();
        Scan("");  // without a word
        EXPECT_EQ(installed.LogMessages().size(), each.in_default ? 1u : 0u);
    }
}

__time64_t g_now;
__time64_t Now(__time64_t*) {
    return g_now;
}
int g_flushes;
int Flush(FILE* file) {
    ++g_flushes;
    return fflush(file);
}

TEST_F(LogTest, AppendsWholeLinesWithTheLocalTimeAndFlushesEach) {
    const ImportPatch clock(plugin.module, "_time64", Now), flush(plugin.module, "fflush", Flush);
    WriteFile(installed.log, "kept\r\n");
    Start("");
    std::string expected = "kept\r\n";
    const std::pair<tm, const char*> cases[] = {
        {{9, 5, 0, 1, 0, 114, 0, 0, -1}, "2014/1/1 0:05:09"},
        {{59, 59, 23, 31, 11, 138, 0, 0, -1}, "2038/12/31 23:59:59"},
    };
    for (auto [time, stamp] : cases) {
        g_now = _mktime64(&time);
        g_flushes = 0;
        EXPECT_TRUE(Scan("").Clean());
        EXPECT_EQ(g_flushes, 1);
        FILE* const other = fopen(installed.log.string().c_str(), "ab");  // others may append, too
        EXPECT_NE(other, nullptr);
        fputs("someone else's\r\n", other);
        fclose(other);
        expected += std::string(stamp) + ": " + kLogged + "\r\nsomeone else's\r\n";
        EXPECT_EQ(ReadFile(installed.log), expected);
    }
}

TEST_F(LogTest, HoldsTheAccountOfAFailedConnectInItsOwnLines) {
    installed.CreateLog();
    Start("servers=" + std::string(900, 'h') + " 127.0.0.1:9\nstartwait=0\nconnectwait=0");
    system.Become(
        {.processes = {{.ends = 1001}}, .accepts_from = kNever, .starts = false, .look_takes = 1000});
    EXPECT_TRUE(Scan("x").Failed(1001));
    const auto messages = installed.LogMessages();
    EXPECT_THAT(messages.at(1), AllOf(StartsWith("Couldn't connect to kestoav process - Connect_Socket\n"),
                                      HasSubstr("\nConnect function failed.\nWSAECONNREFUSED")));
    const std::string log = ReadFile(installed.log);
    for (size_t at = log.find('\n'); at != std::string::npos; at = log.find('\n', at + 1)) {
        ASSERT_TRUE(at > 1 && log[at - 1] == '\r' && log[at - 2] != '\r') << at;
    }
}

TEST_F(LogTest, ThatCannotBeWrittenChangesNoVerdict) {
    const ScriptedEngine engine(Replying("stream: V FOUND"));
    for (const char* file : {"", "Z:\\dev\\full", "C:\\", "*?"}) {
        Start(Servers(engine.Port()) + "logfile=" + file);
        DeleteFileW(installed.log.c_str());
        EXPECT_TRUE(Scan("x").Infected("mail.eml", "V"));
        EXPECT_TRUE(Scan("x").Infected("mail.eml", "V"));
        installed.CreateLog();
        SetFileAttributesW(installed.log.c_str(), FILE_ATTRIBUTE_READONLY);
    }
    SetFileAttributesW(installed.log.c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(StartUpTest, SettingsOfGarbageDoNoHarm) {
    std::string garbage;
    for (int i = 0; i < 5000; ++i) {
        garbage += static_cast<char>(i * 31);
    }
    for (const std::string& settings :
         {garbage,
          "servers=" + std::string(70'000, ' ') +
              ":\nstartwait=99999999999999\nlogfile=" + installed.folder.string() + "\\%s%n",
          "servers=" + std::string(5000, 'x') + "\nconnectwait=-\nencrypt=\n"}) {
        Start(settings);
        EXPECT_TRUE(Scan("").Clean());
        EXPECT_EQ(plugin.VersionDetails(), "KESTOAV Version 1.0.4\nAV Engine version unknown");
    }
}

}  // namespace
}  // namespace kesto

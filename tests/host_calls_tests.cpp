// The host's calls other than the scan: start-up with its log, the engine's version, updates, error texts.
#include <io.h>

#include <cstdlib>
#include <ctime>
#include <fstream>

#include "tests/support/fake_system.h"

namespace {

using namespace kesto;
using namespace testing;

using HostCalls = PluginTest;

int WINAPI NoSockets(WORD, WSADATA*) {
    return WSASYSNOTREADY;
}
TEST_F(HostCalls, StartUpFillsTheHostsBuffersWhateverTheVersionAndIsRefusedWithoutSockets) {
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

TEST_F(HostCalls, StartUpKeepsItsOwnCopyOf259CharactersOfTheFolder) {
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

TEST_F(HostCalls, LogIsWrittenWhereTheSettingSaysOrElseIfItExists) {
    const std::string folder = installed.folder.string(), other = folder + "\\other.log";
    // Where the one that is set cannot be opened, the default is not used.
    for (const std::string& setting :
         {std::string(), folder, std::string(500, 'x'), std::string("Z:\\dev\\full"), other}) {
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

TEST_F(HostCalls, LogAppendsWholeLinesWithTheLocalTimeAndFlushesEach) {
    const ImportPatch clock(
        plugin.module, "_time64", +[](__time64_t*) { return g_now; });
    const ImportPatch flush(plugin.module, "fflush", Flush);
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

const std::string kFirstLine = "KESTOAV Version 1.0.4\n";

TEST_F(HostCalls, VersionShowsTheFirstServersReplyAndNeverTouchesTheLastByteOfTheBuffer) {
    const uint16_t port = FreePort();
    EXPECT_EQ(plugin.VersionDetails(), kFirstLine + "AV Engine version unknown");  // before the start
    Start(Servers(port, engine.Port()));
    EXPECT_EQ(plugin.VersionDetails(), kFirstLine + "AV Engine version unknown");
    system.calls.clear();
    const std::pair<EngineScript, std::string> cases[] = {
        {Replying("%s/%n/%d"), "AV Database %n - Updated %d"},
        {Replying("a/b/c/d"), "a/b/c/d"},
        {Replying(""), ""},
        {Replying(std::string(5000, 'x')), std::string(999, 'x')},
        {Replying("e/" + std::string(5000, 'v') + "/d"), "AV Database " + std::string(987, 'v')},
        {ReplyingBytes("Engine/1/today"),
         "Error -ReceiveStringUntilByte\nbyteValue: 0\nThe peer has closed the socket (TCP) connection"},
    };
    for (const auto& [script, line] : cases) {
        ExpectNothingLost(4, [&] {
            const ScriptedEngine first(script, port);
            EXPECT_EQ(plugin.VersionDetails(), kFirstLine + line);
            EXPECT_EQ(first.Requests().at(0).raw, WithNul("zVERSION"));
        });
    }
    const ScriptedEngine first(Replying("a/1/2"), port);
    const std::string whole = kFirstLine + "AV Database 1 - Updated 2";
    for (size_t size = 0; size < whole.size() + 4; ++size) {
        std::string buffer(64, '\x5E');
        plugin.get_version_details(buffer.data(), static_cast<uint32_t>(size));
        const std::string text = size < 2 ? "" : WithNul(whole.substr(0, size - 2));
        EXPECT_EQ(buffer, text + std::string(64 - text.size(), '\x5E')) << size;
    }
    plugin.get_version_details(nullptr, 100);
    EXPECT_EQ(engine.Requests().size(), 0u);
    EXPECT_THAT(system.calls, IsEmpty());  // no engine is looked for
    EXPECT_THAT(installed.LogMessages(), IsEmpty());
}

const std::string kFailed = "The KESTO Antivirus Update attempt failed ";

// The message of a failure whose title is right, or "done" if nothing was written.
std::string Update(const PluginLibrary& plugin) {
    const std::string untouched(kUpdateMessageSize + 8, '\x5E');  // 8 after the agreed sizes
    std::string title = untouched.substr(0, kUpdateTitleSize + 8), message = untouched;
    const int32_t done = plugin.do_simple_update(title.data(), message.data());
    EXPECT_EQ(title.starts_with(WithNul("KESTO Antivirus Update Failed")), done == 0);
    EXPECT_THAT(title + message, AllOf(EndsWith("^^^^^^^^"), HasSubstr("^^^^^^^^" + message)));
    return message == untouched ? "done" : message.c_str();
}

TEST_F(HostCalls, UpdateIsRefusedWithoutALicence) {
    EXPECT_EQ(Update(plugin), kFailed + "because you do not have a valid licence");
    EXPECT_THAT(system.calls, IsEmpty());
}

const PluginLibrary* g_plugin;
int g_waits;

DWORD WINAPI UpdateMeanwhile(HANDLE, DWORD ms) {
    ++g_waits;
    EXPECT_EQ(ms, INFINITE);
    EXPECT_EQ(g_plugin->do_simple_update(nullptr, nullptr), 1);
    return WAIT_OBJECT_0;
}

TEST_F(HostCalls, UpdateRunsTheUpdaterToItsEndAndTellsHowItEnded) {
    g_plugin = &plugin;
    const ImportPatch waiting(plugin.module, "WaitForSingleObject", UpdateMeanwhile);
    const std::tuple<SystemState, std::string> cases[] = {
        {{.exit_code = 259}, "with error 259"},  // what a running process reports as well
        {{.exit_code = 0xFFFFFFFF}, "with error 4294967295"},
        {{.starts = false, .start_error = 2}, "with error 2"},
        {{.starts = false, .start_error = 0}, "done"},  // but there is nothing to wait for
        {{.start_error = 5, .exit_code = 0}, "done"},
    };
    // The arguments mean something to the host only, and must never be dereferenced.
    reinterpret_cast<int32_t(__stdcall*)(int, int, int, int, int)>(reinterpret_cast<void*>(
        GetProcAddress(static_cast<HMODULE>(plugin.module), "_GetExpiry2@20")))(1, 2, 3, 4, 5);
    EXPECT_EQ(Update(plugin), kFailed + "with error 3");  // without a folder
    Start("autostart=0");
    const std::string folder = installed.engine_folder.string();
    const std::string start = "start " + folder + "\\kestoavu.exe in " + folder;
    const auto mirrors = installed.engine_folder / "db" / "mirrors.dat";
    std::filesystem::create_directory(mirrors.parent_path());
    for (const auto& [state, outcome] : cases) {
        SCOPED_TRACE(outcome);
        const bool done = outcome == "done";
        WriteFile(mirrors, "");
        system.Become(state);
        system.calls.clear();
        EXPECT_EQ(Update(plugin), done ? outcome : kFailed + outcome);
        EXPECT_EQ(std::filesystem::exists(mirrors), done);
        EXPECT_EQ(system.calls, std::vector{start});
        EXPECT_EQ(std::exchange(g_waits, 0), state.starts ? 1 : 0);
        EXPECT_EQ(system.open_handles, 0);
    }
    EXPECT_EQ(plugin.do_simple_update(nullptr, nullptr), 1);
}

TEST_F(HostCalls, ErrorTextsAreBoundedAndTerminated) {
    // the text includes its NUL; an empty one means that the buffer is untouched
    const std::tuple<uint32_t, int32_t, std::string> cases[] = {
        {1001, 30, WithNul("Error connecting to AV server")},
        {1002, 64, WithNul("Error communicating with AV server")},
        {0xFFFFFFFF, 64, WithNul("Error 4294967295")},
        {1002, 1, WithNul("")},
        {1001, INT32_MIN, ""},
    };
    for (const auto& [code, size, text] : cases) {
        std::string buffer(64, 'x');
        plugin.get_error_text(code, buffer.data(), size);
        EXPECT_EQ(buffer, text + std::string(64 - text.size(), 'x')) << code << ' ' << size;
        EXPECT_EQ(plugin.is_fatal_error(code), code == 1001 ? 1 : 0);
    }
    plugin.get_error_text(1002, nullptr, 64);
}

}  // namespace

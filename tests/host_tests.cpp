// kestoscan.exe with the real library, engine processes that only exist, and a scripted engine server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/plugin_host.h"

namespace kesto {
namespace {

using namespace testing;

// Finds VIRUS, and never answers about "slow one".
EngineScript Slow() {
    return [answer = Realistic({.shifted = true})](Wire& wire) {
        if (wire.ReceiveRequest().data.size() == 8) {
            wire.Hold();
        }
        answer(wire);
    };
}

class HostTest : public Test {
 protected:
    HostTest() {
        CreateDirectoryW(samples.c_str(), nullptr);
        Sample(L"clean", "nothing");
        Sample(L"slow", "slow one");
        installed.PlaceStandIn(installed.engine, "wait");
        installed.CreateLog();
        Configure(engine.Port());
    }
    // With limits so short that no test waits.
    void Configure(uint16_t port, const std::string& more = "") const {
        installed.WriteSettings(Servers(port) + "connectwait=0\nstartwait=1\n" + more);
    }
    // Names are taken as they stand, and may be of any length.
    void Sample(const std::wstring& name, std::string_view content) {
        const std::wstring exact = L"\\\\?\\" + (samples / "").wstring();
        for (size_t end = name.find(L'\\'); end != std::wstring::npos; end = name.find(L'\\', end + 1)) {
            CreateDirectoryW((exact + name.substr(0, end)).c_str(), nullptr);
        }
        WriteFile(exact + name, content);
    }
    RunResult Run(const std::wstring& arguments, const std::string& input = "") const {
        return ProgramRun(program, arguments, samples, input).Finish();
    }
    // Starts a program of the system below Wine, which leaves such a one's handles undefined.
    void RunBelow(const std::wstring& command) const {
        std::wstring line = L"Z:\\bin\\" + command;
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION undefined;
        EXPECT_TRUE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, samples.c_str(),
                                   &startup, &undefined));
    }

    // Its exit status and all that it says.
    std::string Told(const std::wstring& arguments) const {
        const RunResult result = Run(arguments);
        return std::to_string(result.status) + ": " + result.out + result.err;
    }

    ScriptedEngine engine{Realistic({.shifted = true})};
    Installation installed;
    const std::filesystem::path samples = installed.top / "samples";
    const std::filesystem::path program = installed.folder / "kestoscan.exe";
};

class HostScan : public HostTest {
 protected:
    HostScan() { installed.StartStandIn(installed.engine); }
};

TEST_F(HostScan, TellsEachFilesVerdictAndTheWorstByItsStatus) {
    const std::wstring part(100, L'x');
    const std::wstring deep = L"deep\\" + part + L"\\" + part + L"\\" + part;
    for (const wchar_t* name : {L"odd\\dot", L"odd\\blank", L"odd\\sub\\in", L"in folder\\clean",
                                L"loop\\clean", L"empty", L"huge"}) {
        Sample(name, wcschr(L"eh", *name) == nullptr ? "nothing" : "");
    }
    for (const wchar_t* name : {L"infected", L"[clean]", L"NUL.txt", L"odd\\dot.", L"odd\\blank ",
                                L"odd\\sub.\\in", L"\u0436\u6F22", deep.c_str()}) {
        Sample(name, "a VIRUS");
    }
    Sample(L"garble", "GARBLE");
    Sample(L"nul list", std::string_view("clean\n\0infected\0infected", 24));
    Sample(L"wide", std::string_view("\xFF\xFE\x36\x04\x22\x6F\r\0\n\0", 10));
    std::filesystem::resize_file(samples / "huge", 5'000'000'000);
    RunBelow(L"ln -s . loop/again");
    ASSERT_TRUE(WaitFor([this] { return std::filesystem::exists(samples / "loop\\again\\clean"); }));
    const std::string found = ": Test.Virus FOUND\n";
    const std::string narrow_deep(deep.begin(), deep.end());
    const struct {
        std::wstring arguments;
        std::string out;
        DWORD status;
        std::string err = "";
        std::string input = "";
    } cases[] = {
        {L"missing infected", "missing: ERROR File not found (2)\ninfected" + found, 1},
        {L"garble clean", "garble: ERROR Unexpected response from KESTOAV - what? (1003)\nclean: OK\n", 2},
        {L"clea* loo*", "clean: OK\nloop: SKIPPED Is a folder (--recursive scans it)\n", 0},
        {L"--json --exclude \u0416* \u0436*", "{\"files\": [\n]}\n", 0},
        {L"[clean] clean", "[clean]" + found + "clean: OK\n", 1},
        {L"NUL NUL.txt", "NUL: ERROR File not found (2)\nNUL.txt" + found, 1},
        {L"\\\\.\\NUL", "\\\\.\\NUL: ERROR Is a device, not a file (123)\n", 2},
        {L"-r o?d -i", "odd\\blank " + found + "odd\\dot." + found + "odd\\sub.\\in" + found, 1},
        {L"-r --exclude BLANK* --exclude-dir *dd\\sub*\\ --exclude C:/*/dot odd", "odd\\dot." + found, 1},
        {L"-r deep", narrow_deep + found, 1},
        {L"-r loop", "loop\\clean: OK\n", 0},
        {L"huge", "huge: ERROR File too large for a 32-bit process (223)\n", 2},
        {L"-", "-: OK\n", 0, "", std::string(70'000, ' ')},
        {L"--file-list \"nul list\"", "", 2,
         "kestoscan: the list nul list holds NUL characters: save it as UTF-8, or all of it as UTF-16\n"},
        {L"--file-list wide", "\u0436\u6F22" + found, 1},
    };
    for (const auto& it : cases) {
        const RunResult result = Run(L"--no-summary " + it.arguments, it.input);
        EXPECT_EQ(result.out, it.out);
        EXPECT_EQ(result.err, it.err);
        EXPECT_EQ(result.status, it.status) << it.out;
    }
    EXPECT_THAT(Run(L"--exclude infe* missing infected clean in*d").out,
                HasSubstr("\n\nScanned files: 2\nInfected files: 1\nErrors: 1\nLeft out: 1\n"
                          "Data scanned: 14 B\nTime: "));
    EXPECT_EQ(Run(L"--log Z:\\dev\\full clean").status, 2u);
    RunBelow(L"rm -r loop odd deep");  // what Windows would misread
    EXPECT_TRUE(WaitFor([this] { return !std::filesystem::exists(samples / "deep"); }));
}

TEST_F(HostScan, PrintsOneJsonDocumentAndPutsAwayWithoutOverwriting) {
    CreateDirectoryW((samples / "away").c_str(), nullptr);
    Sample(L"infected", "a VIRUS");
    EXPECT_EQ(Run(L"--log log --copy away infected").status, 1u);
    EXPECT_THAT(ReadFile(samples / "log"),
                AllOf(StartsWith("kestoscan on 20"),
                      HasSubstr("infected: copied to " + (samples / "away\\infected").string())));
    Sample(L"infected", "b VIRUS");
    const RunResult result = Run(L"--json --move away clean infected missing");
    EXPECT_EQ(result.status, 1u);
    EXPECT_THAT(result.out, StartsWith(R"({"files": [
{"path": "clean", "result": "clean", "size": 7},
{"path": "infected", "result": "infected", "size": 7, "name": "Test.Virus", "moved_to": ")"));
    EXPECT_THAT(result.out, HasSubstr(R"(\\away\\infected.001"},
{"path": "missing", "result": "error", "error": "File not found", "code": 2}
], "summary": {"scanned": 2, "infected": 1, "errors": 1, "not_scanned": 0, "left_out": 0, "bytes": 14, "milliseconds": )"));
    EXPECT_THAT(result.out, EndsWith(", \"interrupted\": false}}\n"));
    EXPECT_EQ(ReadFile(samples / "away" / "infected") + ReadFile(samples / "away" / "infected.001"),
              "a VIRUSb VIRUS");
    EXPECT_FALSE(std::filesystem::exists(samples / "infected"));
    EXPECT_EQ(Told(L"--no-summary --move away away\\infected"), "1: away\\infected: Test.Virus FOUND\n");
    // What is no longer the scanned file stays.
    Sample(L"infected", "a VIRUS");
    engine.Play([&](Wire& wire) {
        wire.ReceiveRequest();
        Sample(L"infected", "another");
        Realistic({.shifted = true})(wire);
    });
    EXPECT_EQ(Told(L"--no-summary --move away infected"),
              "1: infected: Test.Virus FOUND\n"
              "infected: ERROR Not moved: the file has changed since it was read (1006)\n");
    EXPECT_EQ(ReadFile(samples / "infected"), "another");
}

TEST_F(HostScan, GivesUpAFileThatTakesTooLongAndGoesOn) {
    engine.Play(Slow());
    installed.WriteSettings(Servers(FreePort(), engine.Port()));  // a server is asked whether it accepts
    EXPECT_EQ(Told(L"--no-summary --timeout 1 slow clean"),
              "2: slow: ERROR No verdict within 1 s (1460)\nclean: OK\n");
}

TEST_F(HostTest, JobsRestartAnEngineThatDoesNotAcceptOnce) {
    installed.PlaceStandIn(installed.elsewhere, "wait");
    installed.StartStandIn(installed.elsewhere);
    Configure(installed.PlaceBridge(engine.Address()));
    const RunResult result = Run(L"-j 8 clean clean clean clean clean clean clean clean");
    EXPECT_THAT(result.out, HasSubstr("\nScanned files: 8\nInfected files: 0\nErrors: 0\n"));
    const auto log = installed.LogMessages();
    EXPECT_EQ(std::count(log.begin(), log.end(), "restarting kestoav process"), 1);
}

TEST_F(HostScan, StopsWhereNoScanCouldSucceed) {
    engine.Kill();
    EXPECT_THAT(Run(L"--timeout 1 clean clean").err,
                StartsWith("kestoscan: no server accepts a connection - " + engine.Address()));

    installed.EndPrograms();
    const size_t starts = installed.Starts(installed.engine);
    installed.PlaceStandIn(installed.engine, "exit 1");
    WriteFile(installed.engine_folder / "bridge.ini", "[bridge]\r\nidle=0\r\n");
    EXPECT_THAT(Told(L"clean clean"),
                StartsWith("2: kestoscan: the engine " + installed.engine.string() +
                           " ends at once\nfailed   bridge settings: bridge.ini line 2: idle=0 "));
    EXPECT_EQ(installed.Starts(installed.engine), starts + 1);
    DeleteFileW(installed.engine.c_str());
    installed.PlaceStandIn(installed.elsewhere, "wait");
    installed.StartStandIn(installed.elsewhere);
    EXPECT_THAT(Told(L"clean clean"),
                AllOf(StartsWith("2: clean: ERROR Error connecting to AV server (1001)\n\n"),
                      HasSubstr("\nErrors: 1\nNot scanned: 1\n")));
}

TEST_F(HostTest, EndsWithWholeLinesAndWithTheEngineThatItStartedUnlessOthersScanThere) {
    const auto gone = [&] { return installed.ProcessesOf(installed.engine_folder).empty(); };
    DeleteFileW(installed.engine.c_str());
    const uint16_t port = installed.PlaceBridge(engine.Address());
    Configure(port);
    const std::string started =
        "kestoscan: started " + installed.engine.string() + ", which ends with kestoscan\n";
    EXPECT_EQ(Run(L"clean clean").err, started);
    EXPECT_TRUE(gone());
    engine.Play(Slow());
    ProgramRun alone(program, L"clean slow", samples);
    ASSERT_TRUE(WaitFor([&] { return engine.Requests().size() == 4 && engine.Requests()[3].whole; }));
    alone.PressCtrlC();
    EXPECT_THAT(alone.Finish().out, AllOf(StartsWith("clean: OK\n\nInterrupted\nScanned files: 1\n"),
                                          HasSubstr("\nNot scanned: 1\n"), EndsWith(" s\n")));
    EXPECT_TRUE(gone());
    ProgramRun beside(program, L"slow", samples);
    ASSERT_TRUE(WaitFor([&] { return engine.Requests().size() == 5 && engine.Requests()[4].whole; }));
    EXPECT_EQ(Ask(port, ScanRequestOf("another")), WithNul("stream: OK"));
    beside.PressCtrlC();
    EXPECT_EQ(beside.Finish().err, started + "kestoscan: others scan with " + installed.engine.string() +
                                       " as well, so it goes on running\n");
    EXPECT_EQ(Run(L"clean").status, 0u);
    EXPECT_FALSE(gone());  // it ran before
    installed.EndPrograms();
}

TEST_F(HostTest, RefusesWhatIsNotThePlugInOrNotUnderstood) {
    const std::pair<std::wstring, const char*> cases[] = {
        {L"x --folder C:\\" + std::wstring(229, L'x'), "at most 227 characters, and has 232"},
        {L"x --library C:\\windows\\system32\\version.dll", "it lacks CLOSESCANNER, DOSIMPLEUPDATE"},
        {L"--exclude-dir \"C:\\T\\tmp\\\" C:\\T\\bad", "holds a quotation mark"},
        {L"x --folder C:\\windows", "C:\\windows holds no part of the plug-in"},
        {L"x --move missing", "is not a folder that files can"},
    };
    for (const auto& [arguments, error] : cases) {
        EXPECT_THAT(Told(arguments), AllOf(StartsWith("2: kestoscan: "), HasSubstr(error)));
    }
    EXPECT_EQ(Run(L"--json --version").out,
              "{\"error\": \"--json goes with files to scan and with --check only\"}\n");
}

TEST_F(HostTest, VersionWaitsForAnEngineThatItStartedAndNoPlugInIsNeededToAskIt) {
    engine.Play([this](Wire& wire) {  // at first it only hangs up, as one that starts does
        engine.Requests().size() > 1 ? Realistic()(wire) : wire.FinishSending();
    });
    EXPECT_THAT(Told(L"--version"),
                StartsWith("0: KESTOAV Version 1.0.4\nAV Database 27000 - Updated Mon Jan  1"));
    const std::string server = engine.Address() + ": ";
    installed.WriteSettings(Servers(FreePort(), engine.Port()));
    EXPECT_THAT(Run(L"--ping").out, StartsWith(server + "answers, in "));
    EXPECT_EQ(Run(L"--stats").err,
              "kestoscan: no counters - " + server + "the reply was \"UNKNOWN COMMAND\"\n");
    engine.Play(Replying("kestoav_clients 3\n"));
    EXPECT_EQ(Run(L"--stats").out, "kestoav_clients 3\n");
    engine.Kill();
    EXPECT_THAT(Told(L"--wait 1"), StartsWith("2: kestoscan: the engine does not answer - " + server));
}

TEST_F(HostTest, UpdatesOnceAtATimeByAnyProgramOrByACommandOrLooksAtTheSignatures) {
    Configure(engine.Port(), "autostart=0");
    EXPECT_EQ(Told(L"--update"),
              "2: KESTO Antivirus Update Failed\nThe KESTO Antivirus Update attempt failed with error 2\n");
    installed.PlaceStandIn(installed.updater, "release 0");
    const ProgramRun first(program, L"--update", samples);
    ASSERT_TRUE(WaitFor([&] { return installed.Starts(installed.updater) == 1; }));
    EXPECT_THAT(Told(L"--update"), HasSubstr("under way already"));
    WriteFile(installed.updater.string() + ".release", "");
    EXPECT_EQ(first.Finish().out, "Update finished\n");
    EXPECT_EQ(installed.Starts(installed.updater), 1u);
    EXPECT_TRUE(WaitFor([&] {  // a program's file may be in use for a moment after its end
        return CopyFileW((BuiltFolder() / "kestoavu.exe").c_str(), installed.updater.c_str(), FALSE) != 0;
    }));
    const std::filesystem::path slow = installed.top / "slow.exe";
    installed.PlaceStandIn(slow, "wait");
    const auto version = [](int days) { return Realistic({.version = VersionOfDaysAgo(days)}); };
    WriteFile(installed.engine_folder / "output", "10%\r20%\r\n\033[2Jnext");
    ScriptedEngine young(version(0)), old(version(1)), odd(Realistic({.version = "ClamAV"})), silent;
    silent.Kill();
    const auto asked = [&](const std::string& servers) {
        return "[bridge]\nupstreams=" + young.Address() + " " + servers + "\n[updater]\nsignatures=1\n";
    };
    const std::string command = "[bridge]\n[updater]\n";
    const struct {
        std::string ini;
        int error;         // 0: updated
        const char* told;  // by the updater's log
    } cases[] = {
        {asked(silent.Address()), 0, " does not answer: "},
        {asked(old.Address() + " " + odd.Address()), 1,
         "2 of 3 clamds have no signatures younger than signatures=1 days"},
        {"[bridge]\nupstreams=" + silent.Address(), 1, "no clamd answers"},
        {command + "command=cmd /c type output", 0, "\n?[2Jnext\n2"},
        {command + "command=cmd /c echo wrong>&2& exit 52", 52, "\nwrong"},
        {command + "timeout=1\ncommand=" + slow.string(), 1460, "took more than timeout=1 seconds"},
        {"[bridge]\nup\1stream=a:1", 1, "bridge.ini line 2: unknown setting 'up?stream'"},
    };
    const char* earlier = "none";
    for (const auto& [ini, error, told] : cases) {
        WriteFile(installed.engine_folder / "bridge.ini", ini);
        const RunResult run = Run(L"--update");
        const std::string end =
            error == 0 ? "Update finished\n" : "attempt failed with error " + std::to_string(error) + "\n";
        EXPECT_THAT(run.out + run.err, AllOf(HasSubstr(told), EndsWith(end), Not(HasSubstr(earlier)))) << ini;
        earlier = told;
    }
    EXPECT_THAT(ReadFile(installed.engine_folder / "update.log"), EndsWith("'up?stream'\r\n"));
    EXPECT_TRUE(WaitFor([&] { return DeleteFileW(slow.c_str()) != FALSE; }));  // which no running program is
}

}  // namespace
}  // namespace kesto

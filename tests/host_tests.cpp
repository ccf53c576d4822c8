// kestoscan.exe with the real library, engine processes that only exist, and a scripted engine server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "common/processes.h"
#include "tests/support/plugin_host.h"

namespace {

using namespace kesto;
using namespace testing;

class HostTest : public Test {
 protected:
    HostTest() {
        Sample(L"clean", "nothing");
        Sample(L"slow", "slow one");
        installed.PlaceStandIn(installed.engine);
        installed.CreateLog();
        Configure(engine.Port());
    }
    // With limits so short that no test waits.
    void Configure(uint16_t port, const std::string& more = "") const {
        installed.WriteSettings(Servers(port) + "connectwait=0\nstartwait=1\n" + more);
    }
    // Names are taken as they stand, and may be of any length.
    void Sample(const std::wstring& name, std::string_view content) {
        const std::filesystem::path exact = L"\\\\?\\" + (samples / name).wstring();
        std::filesystem::create_directories(exact.parent_path());
        WriteFile(exact, content);
    }
    // Starts a program of the system below Wine.
    void RunBelow(const std::wstring& command) const {
        ProgramRun("C:\\windows\\system32\\start.exe",
                   L"/d \"" + samples.wstring() + L"\" /unix /bin/" + command)
            .Told();
    }
    std::string Told(const std::wstring& arguments, const std::string& input = "") const {
        return ProgramRun(program, arguments, samples, input).Told();
    }

    // Finds VIRUS, and never answers about "slow one".
    const EngineScript script = [answer = Realistic({.shifted = true})](Wire& wire) {
        if (wire.ReceiveRequest().data.size() == 8) {
            wire.Hold();
        }
        answer(wire);
    };
    ScriptedEngine engine{script};
    Installation installed;
    const std::filesystem::path samples = installed.top / "samples";
    const std::filesystem::path program = installed.folder / "kestoscan.exe";
};

TEST_F(HostTest, TellsEachFilesVerdictAndTheWorstByItsStatus) {
    installed.StartStandIn(installed.engine);
    const std::wstring part(100, L'x');
    const std::wstring deep = L"deep\\" + part + L"\\" + part + L"\\" + part;
    for (const wchar_t* name : {L"odd\\dot", L"odd\\blank", L"odd\\sub\\in", L"loop\\clean", L"huge"}) {
        Sample(name, "nothing");
    }
    for (const wchar_t* name : {L"infected", L"[clean]", L"NUL.txt", L"odd\\dot.", L"odd\\blank ",
                                L"odd\\sub.\\in", L"\u0436\u6F22", deep.c_str()}) {
        Sample(name, "a VIRUS");
    }
    Sample(L"garble", "GARBLE");
    Sample(L"zeros", std::string_view("clean\n\0infected\0infected", 24));
    Sample(L"wide", std::string_view("\xFF\xFE\x36\x04\x22\x6F\r\0\n\0", 10));
    std::filesystem::resize_file(samples / "huge", 5'000'000'000);
    RunBelow(L"ln -s . loop/again");
    ASSERT_TRUE(WaitFor([this] { return std::filesystem::exists(samples / "loop\\again\\clean"); }));
    const std::string found = ": Test.Virus FOUND\n";
    const std::string narrow_deep(deep.begin(), deep.end());
    const std::pair<std::wstring, std::string> cases[] = {
        {L"missing odd\\dot.", "1: missing: ERROR File not found (2)\nodd\\dot." + found},
        {L"garble clean", "2: garble: ERROR Unexpected response from KESTOAV - what? (1003)\nclean: OK\n"},
        {L"clea* loo*", "0: clean: OK\nloop: SKIPPED Is a folder (--recursive scans it)\n"},
        {L"--json --exclude \u0416* \u0436*", "0: {\"files\": [\n]}\n"},
        {L"[clean] clean", "1: [clean]" + found + "clean: OK\n"},
        {L"NUL NUL.txt", "1: NUL: ERROR File not found (2)\nNUL.txt" + found},
        {L"\\\\.\\NUL", "2: \\\\.\\NUL: ERROR Is a device, not a file (123)\n"},
        {L"-r o?d -i", "1: odd\\blank " + found + "odd\\dot." + found + "odd\\sub.\\in" + found},
        {L"-r --exclude BLANK* --exclude-dir *dd\\sub*\\ --exclude C:/*/dot odd", "1: odd\\dot." + found},
        {L"-i missing clean", "2: ! missing: ERROR File not found (2)\n"},
        {L"-r deep", "1: " + narrow_deep + found},
        {L"-r loop", "0: loop\\clean: OK\n"},
        {L"huge", "2: huge: ERROR File too large for a 32-bit process (223)\n"},
        {L"--file-list zeros",
         "2: ! kestoscan: the list zeros holds NUL characters: save it as UTF-8, or all of it as UTF-16\n"},
        {L"--file-list wide", "1: \u0436\u6F22" + found},
        {L"--timeout 1 slow clean", "2: slow: ERROR No verdict within 1 s (1460)\nclean: OK\n"},
    };
    installed.WriteSettings(Servers(FreePort(), engine.Port()));  // a server is asked whether it accepts
    for (const auto& [arguments, told] : cases) {
        EXPECT_EQ(Told(L"--no-summary " + arguments), told);
    }
    EXPECT_EQ(Told(L"--no-summary -", std::string(70'000, ' ')), "0: -: OK\n");
    EXPECT_EQ(Told(L"--no-summary --file-list -", "clean\r\n"), "0: clean: OK\n");
    EXPECT_THAT(Told(L"--exclude infe* missing infected clean in*d"),
                HasSubstr("\n\nScanned files: 2\nInfected files: 1\nErrors: 1\nLeft out: 1\n"
                          "Data scanned: 14 B\nTime: "));
    EXPECT_THAT(Told(L"--log Z:\\dev\\full clean"), StartsWith("2: clean: OK\n"));
    RunBelow(L"rm -r loop odd deep");  // what Windows would misread
    EXPECT_TRUE(WaitFor([this] { return !std::filesystem::exists(samples / "deep"); }));
}

TEST_F(HostTest, PrintsOneJsonDocumentAndPutsAwayWithoutOverwriting) {
    installed.StartStandIn(installed.engine);
    CreateDirectoryW((samples / "away").c_str(), nullptr);
    Sample(L"infected", "a VIRUS");
    EXPECT_THAT(Told(L"--log log --copy away infected"), StartsWith("1: "));
    EXPECT_THAT(ReadFile(samples / "log"),
                AllOf(StartsWith("kestoscan on 20"),
                      HasSubstr("infected: copied to " + (samples / "away\\infected").string())));
    Sample(L"infected", "b VIRUS");
    const std::string json = Told(L"--json --move away clean infected missing");
    EXPECT_THAT(json, StartsWith(R"(1: {"files": [
{"path": "clean", "result": "clean", "size": 7},
{"path": "infected", "result": "infected", "size": 7, "name": "Test.Virus", "moved_to": ")"));
    EXPECT_THAT(json, HasSubstr(R"(\\away\\infected.001"},
{"path": "missing", "result": "error", "error": "File not found", "code": 2}
], "summary": {"scanned": 2, "infected": 1, "errors": 1, "not_scanned": 0, "left_out": 0, "bytes": 14, "milliseconds": )"));
    EXPECT_THAT(json, EndsWith(", \"interrupted\": false}}\n"));
    EXPECT_EQ(ReadFile(samples / "away" / "infected") + ReadFile(samples / "away" / "infected.001"),
              "a VIRUSb VIRUS");
    EXPECT_FALSE(std::filesystem::exists(samples / "infected"));
    EXPECT_EQ(Told(L"--no-summary --move away away\\infected"), "1: away\\infected: Test.Virus FOUND\n");
    // What is no longer the scanned file stays.
    Sample(L"infected", "a VIRUS");
    engine.Play([&](Wire& wire) {
        wire.ReceiveRequest();
        Sample(L"infected", "another");
        script(wire);
    });
    EXPECT_EQ(Told(L"--no-summary --move away infected"),
              "1: infected: Test.Virus FOUND\n"
              "infected: ERROR Not moved: the file has changed since it was read (1006)\n");
    EXPECT_EQ(ReadFile(samples / "infected"), "another");
}

TEST_F(HostTest, JobsRestartAnEngineThatDoesNotAcceptOnce) {
    installed.StartStandIn(installed.elsewhere);
    Configure(installed.PlaceBridge(engine.Address()));
    EXPECT_THAT(Told(L"-j 8 clean clean clean clean clean clean clean clean"),
                HasSubstr("\nScanned files: 8\nInfected files: 0\nErrors: 0\n"));
    EXPECT_THAT(installed.LogMessages(), Contains("restarting kestoav process").Times(1));
}

TEST_F(HostTest, StopsWhereNoScanCouldSucceed) {
    installed.StartStandIn(installed.engine);
    engine.Kill();
    EXPECT_THAT(Told(L"--timeout 1 clean clean"),
                HasSubstr("\n! kestoscan: no server accepts a connection - " + engine.Address()));

    installed.EndPrograms();
    const size_t starts = installed.Starts(installed.engine);
    installed.PlaceStandIn(installed.engine, "1");
    WriteFile(installed.engine_folder / "bridge.ini", "[bridge]\r\nidle=0\r\n");
    EXPECT_THAT(Told(L"clean clean"),
                StartsWith("2: ! kestoscan: the engine " + installed.engine.string() +
                           " ends at once\nfailed   bridge settings: bridge.ini line 2: idle=0 "));
    EXPECT_EQ(installed.Starts(installed.engine), starts + 1);
    installed.PlaceStandIn(installed.engine);
    installed.WriteSettings(Servers(engine.Port()) + "connectwait=60");
    const size_t logged = installed.LogMessages().size();
    const ProgramRun ends(program, L"clean clean", samples);
    ASSERT_TRUE(WaitFor([&] { return installed.LogMessages().size() > logged; }));
    installed.PlaceStandIn(installed.engine, "3");
    EXPECT_THAT(ends.Told(), AllOf(StartsWith("2: \n"), HasSubstr("\nErrors: 0\nNot scanned: 2\n")));
    Configure(engine.Port());
    DeleteFileW(installed.engine.c_str());
    installed.StartStandIn(installed.elsewhere);
    EXPECT_THAT(Told(L"clean clean"),
                AllOf(StartsWith("2: clean: ERROR Error connecting to AV server (1001)\n\n"),
                      HasSubstr("\nErrors: 1\nNot scanned: 1\n")));
}

TEST_F(HostTest, EndsWithWholeLinesAndWithTheEngineThatItStartedUnlessOthersScanThere) {
    const auto gone = [&] { return EngineIn(installed.engine_folder).empty(); };
    const uint16_t port = installed.PlaceBridge(engine.Address());
    Configure(port);
    const std::string started =
        "! kestoscan: started " + installed.engine.string() + ", which ends with kestoscan\n";
    EXPECT_THAT(Told(L"clean clean"), EndsWith(" s\n" + started));
    EXPECT_TRUE(gone());
    ProgramRun alone(program, L"clean slow", samples);
    const auto last = [&] { return engine.Requests().back(); };
    ASSERT_TRUE(WaitFor([&] { return last().data == "slow one" && last().whole; }));
    alone.PressCtrlC();
    EXPECT_THAT(alone.Told(), AllOf(StartsWith("2: clean: OK\n\nInterrupted\nScanned files: 1\n"),
                                    HasSubstr("\nNot scanned: 1\n"), EndsWith(" s\n" + started)));
    EXPECT_TRUE(gone());
    const size_t asked = engine.Requests().size();
    ProgramRun beside(program, L"slow", samples);
    ASSERT_TRUE(WaitFor([&] { return engine.Requests().size() > asked && last().whole; }));
    EXPECT_EQ(Ask(port, ScanRequestOf("another")), WithNul("stream: OK"));
    beside.PressCtrlC();
    EXPECT_THAT(beside.Told(), EndsWith(started + "kestoscan: others scan with " + installed.engine.string() +
                                        " as well, so it goes on running\n"));
    EXPECT_THAT(Told(L"clean"), StartsWith("0: "));
    EXPECT_FALSE(gone());  // it ran before
}

TEST_F(HostTest, RefusesWhatIsNotThePlugInOrNotUnderstood) {
    const std::pair<std::wstring, const char*> cases[] = {
        {L"x --folder C:\\" + std::wstring(229, L'x'), "at most 227 characters, and has 232"},
        {L"x --library C:\\windows\\system32\\version.dll", "it lacks CLOSESCANNER, DOSIMPLEUPDATE"},
        {L"--exclude-dir \"C:\\T\\tmp\\\" C:\\T\\bad", "holds a quotation mark"},
        {L"x --folder C:\\windows", "C:\\windows holds no part of the plug-in"},
        {L"x --move missing", "is not a folder that files can"},
        {L"--json --version", "{\"error\": \"--json goes with files to scan and with --check only\"}\n"},
        {L"--jobs 17 --json x", "{\"error\": \"--jobs: "},
    };
    for (const auto& [arguments, error] : cases) {
        EXPECT_THAT(Told(arguments), AllOf(StartsWith("2: "), HasSubstr(error)));
    }
}

TEST_F(HostTest, VersionWaitsForAnEngineThatItStartedAndNoPlugInIsNeededToAskIt) {
    engine.Play([this](Wire& wire) {  // at first it only hangs up, as one that starts does
        engine.Requests().size() > 1 ? Realistic()(wire) : wire.FinishSending();
    });
    EXPECT_THAT(Told(L"--version"),
                StartsWith("0: KESTOAV Version 1.0.4\nAV Database 27000 - Updated Mon Jan  1"));
    const std::string server = engine.Address() + ": ";
    installed.WriteSettings(Servers(FreePort(), engine.Port()));
    EXPECT_THAT(Told(L"--ping"), StartsWith("0: " + server + "answers, in "));
    EXPECT_EQ(Told(L"--stats"),
              "2: ! kestoscan: no counters - " + server + "the reply was \"UNKNOWN COMMAND\"\n");
    engine.Play(Replying("kestoav_clients 3\n"));
    EXPECT_EQ(Told(L"--stats"), "0: kestoav_clients 3\n");
    engine.Kill();
    EXPECT_THAT(Told(L"--wait 1"), StartsWith("2: ! kestoscan: the engine does not answer - " + server));
}

TEST_F(HostTest, UpdatesOnceAtATimeByAnyProgramOrByACommandOrLooksAtTheSignatures) {
    Configure(engine.Port(), "autostart=0");
    EXPECT_EQ(Told(L"--update"),
              "2: ! KESTO Antivirus Update Failed\nThe KESTO Antivirus Update attempt failed with error 2\n");
    installed.PlaceStandIn(installed.updater);
    const ProgramRun first(program, L"--update", samples);
    ASSERT_TRUE(WaitFor([&] { return installed.Starts(installed.updater) == 1; }));
    EXPECT_THAT(Told(L"--update"), HasSubstr("under way already"));
    installed.PlaceStandIn(installed.updater, "0");
    EXPECT_EQ(first.Told(), "0: Update finished\n");
    EXPECT_EQ(installed.Starts(installed.updater), 1u);
    std::filesystem::rename(installed.updater, installed.top / "former.exe");  // it may still be in use
    std::filesystem::copy_file(BuiltFolder() / "kestoavu.exe", installed.updater);
    const std::filesystem::path slow = installed.top / "slow.exe";
    installed.PlaceStandIn(slow);
    const auto version = [](int days) { return Realistic({.version = VersionOfDaysAgo(days)}); };
    WriteFile(installed.engine_folder / "output", "10%\r20%\r\n\033[2Jnext");
    ScriptedEngine young(version(0)), old(version(1)), odd(Realistic({.version = "ClamAV"})), silent;
    silent.Kill();
    const std::string asked = "[updater]\nsignatures=1\n[bridge]\nupstreams=" + young.Address() + " ";
    const std::string command = "[bridge]\n[updater]\n";
    // the file, the error (0: updated), and what the updater's log tells
    const std::tuple<std::string, int, const char*> cases[] = {
        {asked + silent.Address(), 0, " does not answer: "},
        {asked + old.Address() + " " + odd.Address(), 1,
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
        const std::string end =
            error == 0 ? "Update finished\n" : "attempt failed with error " + std::to_string(error) + "\n";
        EXPECT_THAT(Told(L"--update"), AllOf(HasSubstr(told), EndsWith(end), Not(HasSubstr(earlier)))) << ini;
        earlier = told;
    }
    EXPECT_THAT(ReadFile(installed.engine_folder / "update.log"), EndsWith("'up?stream'\r\n"));
    EXPECT_TRUE(WaitFor([&] { return DeleteFileW(slow.c_str()) != FALSE; }));  // which no running program is
}

}  // namespace

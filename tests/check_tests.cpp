// kestoscan --check against a healthy installation and against broken ones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "host/check/test_samples.h"
#include "tests/support/installation.h"
#include "tests/support/scripted_engine.h"

namespace kesto {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::string VersionOfDaysAgo(int days) {
    const std::time_t then = std::time(nullptr) - days * 86400;
    char date[64];
    std::strftime(date, sizeof date, "%a %b %d %H:%M:%S %Y", std::gmtime(&then));
    return std::string("Engine 1/27000/") + date;
}

EngineScript Clamd(bool shifted, int days = 0) {
    return Realistic({.shifted = shifted, .version = VersionOfDaysAgo(days)});
}

// Answers scans with this and everything else as a clamd does.
EngineScript ScansSaying(const std::string& reply) {
    return [=, other = Clamd(true)](Wire& wire) {
        if (wire.ReceiveRequest().command == "zINSTREAM") {
            wire.ReplyAndHangUp(reply);
        }
        other(wire);
    };
}

// The lines with this state, without it; the port stands there as PORT.
std::vector<std::string> LinesOf(const std::string& state, const std::string& out, uint16_t port) {
    std::vector<std::string> lines;
    std::istringstream all(out);
    for (std::string line; std::getline(all, line);) {
        if (const size_t at = line.find(":" + std::to_string(port) + " "); at != std::string::npos) {
            line.replace(at + 1, std::to_string(port).size(), "PORT");
        }
        if (line.starts_with(state + " ")) {
            lines.push_back(line.substr(9));
        }
    }
    return lines;
}

class CheckTest : public testing::Test {
 protected:
    explicit CheckTest(const std::wstring& folder = L"plugin") : installed(folder) {
        installed.CreateLog();
        installed.PlaceStandIn(installed.engine, "wait");
        installed.StartStandIn(installed.engine);
        Configure();
    }
    void Configure(const std::string& more = "", uint16_t port = 0) {
        installed.WriteSettings("servers=127.0.0.1:" + std::to_string(port == 0 ? engine.Port() : port) +
                                "\n" + more);
    }
    RunResult Check(const std::wstring& arguments = L"") const {
        return ProgramRun(installed.folder / "kestoscan.exe", L"--check" + arguments).Finish();
    }

    ScriptedEngine engine{Clamd(true)};
    Installation installed;
};

TEST_F(CheckTest, HealthyInstallationPassesEveryCheckAndIsLeftAsItIs) {
    const RunResult result = Check();
    EXPECT_EQ(result.status, 0u);
    std::string checks;
    for (const std::string& line : LinesOf("ok", result.out, engine.Port())) {
        checks += line.substr(0, line.find(": ")) + ", ";
    }
    const std::string server = ", server 127.0.0.1:PORT ";
    EXPECT_EQ(checks, "library, settings, log, engine program, engine process" + server + "connection" +
                          server + "zPING" + server + "zVERSION" + server + "clean sample" + server +
                          "EICAR, updater, ");
    EXPECT_THAT(result.out, HasSubstr("\n11 ok, 0 warnings, 0 failed\n"));
    EXPECT_THAT(installed.LogMessages(), IsEmpty());
    EXPECT_EQ(installed.Starts(installed.engine).size(), 1u);
}

TEST_F(CheckTest, NamesTheFaultOfEachBrokenInstallationAndNoOther) {
    const std::string server = "server 127.0.0.1:PORT ";
    const EngineScript well = Clamd(true);
    const struct {
        std::string state, beginning;  // of the first line with it; empty: there is none
        EngineScript script;
        std::string settings = "";
        std::wstring arguments = L"";
    } cases[] = {
        {"failed", "library: ", well, "", L" --library C:\\windows\\system32\\version.dll"},
        {"failed", "settings: kestoav.ini line 3: the key \"encrpyt\" is not known", well, "encrpyt=0"},
        {"failed", "log: C:\\missing\\av.log cannot be written: Path not", well,
         "logfile=C:\\missing\\av.log"},
        {"failed", server + "EICAR: found only with encrypt=1", well, "encrypt=0"},
        {"failed", server + "EICAR: found only with encrypt=0", Clamd(false)},
        {"failed", server + "EICAR: found clean -> check that", ScansSaying("stream: OK")},
        {"failed", server + "clean sample: found infected with X", ScansSaying("stream: X FOUND")},
        {"failed", server + "clean sample: the reply was \"stream: disk\"", ScansSaying("stream: disk")},
        {"failed", server + "zPING: no answer: the connection was closed", DyingAfter(1)},
        {"warning", server + "zVERSION: \"Engine 1/27000/", Clamd(true, 8)},
        {"warning", "", Clamd(true, 7)},
        {"warning", server + "zVERSION: \"Engine 1\": the age of",
         Realistic({.shifted = true, .version = "Engine 1"})},
    };
    for (const auto& it : cases) {
        engine.Play(it.script);
        Configure(it.settings);
        const RunResult result = Check(it.arguments);
        EXPECT_EQ(result.status, it.state == "failed" ? 2u : 0u) << result.out;
        auto lines = LinesOf(it.state, result.out, engine.Port());
        // A server that answers every scan alike fails with EICAR as well.
        std::erase_if(lines,
                      [](const std::string& line) { return line.find("EICAR: the reply") != line.npos; });
        EXPECT_EQ(lines.size(), it.beginning.empty() ? 0u : 1u) << result.out;
        EXPECT_EQ(lines.empty() ? "" : lines[0].substr(0, it.beginning.size()), it.beginning) << result.out;
    }
}

TEST_F(CheckTest, AsksEachServerOfTheBridge) {
    ScriptedEngine good(Clamd(false)), blind(ScansSaying("stream: OK"));
    const uint16_t dead = FreePort();
    installed.EndPrograms();
    const uint16_t port =
        installed.PlaceBridge(good.Address() + " " + blind.Address() + " 127.0.0.1:" + std::to_string(dead));
    const ProgramRun bridge(installed.engine);
    ASSERT_TRUE(WaitFor([&] { return Ask(port, WithNul("zPING")) == WithNul("PONG"); }));
    Configure("", port);
    const RunResult fleet = Check();
    EXPECT_EQ(fleet.status, 2u);
    EXPECT_THAT(fleet.out, HasSubstr("ok       upstream " + good.Address() + " 2 MB stream: found clean"));
    EXPECT_THAT(fleet.out, HasSubstr("failed   upstream " + blind.Address() + " EICAR: found clean"));
    EXPECT_THAT(fleet.out,
                HasSubstr("failed   upstream 127.0.0.1:" + std::to_string(dead) + " connection: not made"));

    WriteFile(installed.engine_folder / "bridge.ini", "[bridge]\r\nidle=0\r\n");
    EXPECT_THAT(Check().out,
                HasSubstr("failed   bridge settings: bridge.ini line 2: idle=0 is not a number"));
    WriteFile(installed.engine_folder / "bridge.ini",
              "[bridge]\r\nidle=5\r\ndecrypt=0\r\nlisten=0.0.0.0:" + std::to_string(port));
    SetFileAttributesW((installed.engine_folder / "bridge.log").c_str(), FILE_ATTRIBUTE_READONLY);
    const RunResult doubtful = Check();
    SetFileAttributesW((installed.engine_folder / "bridge.log").c_str(), FILE_ATTRIBUTE_NORMAL);
    EXPECT_THAT(doubtful.out, HasSubstr("failed   bridge settings: decrypt differs from encrypt=1"));
    EXPECT_THAT(doubtful.out, HasSubstr("warning  bridge settings: listens on 0.0.0.0:"));
    EXPECT_THAT(doubtful.out, HasSubstr("warning  bridge settings: idle=5 gives up"));
    EXPECT_THAT(doubtful.out, HasSubstr("bridge.log cannot be written: it is read-only"));
}

TEST_F(CheckTest, EndsWhateverTheServerDoesAndSaysTheSameAsJson) {
    engine.Play(ReplyingBytes("s", Then::kHolds));
    const ProgramRun text(installed.folder / "kestoscan.exe", L"--check");
    const RunResult json = Check(L" --json");
    const std::string line = "server " + engine.Address() + " zPING";
    EXPECT_THAT(json.out, HasSubstr("\n{\"check\": \"" + line +
                                    "\", \"state\": \"failed\", \"text\": \"no answer: no end came"));
    EXPECT_THAT(
        json.out,
        HasSubstr("\n], \"summary\": {\"state\": \"failed\", \"ok\": 7, \"warnings\": 0, \"failed\": 1}}"));
    EXPECT_THAT(text.Finish().out, HasSubstr("failed   " + line + ": no answer: no end came"));
    EXPECT_EQ(json.status, 2u);
}

TEST_F(CheckTest, TellsWhatIsWrongWithTheEngine) {
    const auto says = [&](const char* words) { EXPECT_THAT(Check().out, HasSubstr(words)); };
    installed.EndPrograms();
    says("failed   engine process: kestoav.exe does not run");
    installed.PlaceStandIn(installed.elsewhere, "wait");
    installed.StartStandIn(installed.elsewhere);
    says("warning  engine process: kestoav.exe runs from elsewhere");
    installed.StartStandIn(installed.engine);
    says("warning  engine process: 2 processes named kestoav.exe run");
    installed.EndPrograms();
    WriteFile(installed.engine, "no program");
    says("kestoav.exe is no program: no engine can be started");
    DeleteFileW(installed.engine.c_str());
    says("kestoav.exe is missing: no engine can be started");
}

TEST_F(CheckTest, TakesSettingsInUtf16) {
    std::string wide = "\xFF\xFE";
    for (const char c :
         "[kestoav]\r\nservers=127.0.0.1:" + std::to_string(engine.Port()) + "\r\nencrypt=yes\r\n") {
        wide += {c, '\0'};
    }
    WriteFile(installed.folder / "kestoav.ini", wide);
    EXPECT_THAT(Check().out, HasSubstr("kestoav.ini line 3: encrypt=\"yes\" is no number"));
}

TEST_F(CheckTest, WorksByTheShortNameAndWarnsOfBlanks) {
    const Installation odd(L"\u0436 mail");
    odd.PlaceStandIn(odd.engine, "wait");
    odd.WriteSettings("servers=" + engine.Address());
    const auto check = [&] { return ProgramRun(odd.folder / "kestoscan.exe", L"--check").Finish(); };
    EXPECT_EQ(check().status, 0u);
    EXPECT_THAT(check().out, HasSubstr("warning  folder: its path holds a blank"));
    WriteFile(odd.top / L"\u0436.exe", "not ours");
    EXPECT_THAT(check().out, HasSubstr(".exe would be started in place of the engine"));
}

// A file that holds the test string whole would be quarantined on many machines.
TEST(TestSamples, ProgramDoesNotHoldTheTestString) {
    EXPECT_EQ(EicarTestString().size(), 68u);
    const std::string program = ReadFile(BuiltFolder() / "kestoscan.exe");
    EXPECT_GT(program.size(), 100'000u);
    EXPECT_THAT(program, Not(HasSubstr(EicarTestString())));
}

}  // namespace
}  // namespace kesto

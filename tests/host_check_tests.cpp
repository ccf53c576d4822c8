// kestoscan --check against a healthy installation and against broken ones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "tests/support/host_test.h"

namespace kesto {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

std::string FreshVersion() {
    const std::time_t now = std::time(nullptr);
    char date[64];
    std::strftime(date, sizeof date, "%a %b %d %H:%M:%S %Y", std::gmtime(&now));
    return std::string("Engine 1/27000/") + date;
}

class HostCheck : public HostTest {
 protected:
    std::string Updater() const { return folder.engine_folder() + "\\kestoavu.exe"; }

    void Install(uint16_t port) const {
        Configure(port);
        folder.CreateLog();
        folder.PlaceEngine("wait");
        folder.StartProgram(folder.engine_program());
        folder.PlaceProgram(Updater(), "exit 0");
    }

    // What the lines with this state are about. `port` stands there as PORT.
    static std::vector<std::string> Checks(const std::string& out, const std::string& state, uint16_t port) {
        std::vector<std::string> checks;
        for (std::string line : Lines(out)) {
            if (!line.starts_with(state + " ")) {
                continue;
            }
            line.erase(0, 9);
            if (const size_t at = line.find(":" + std::to_string(port) + " "); at != std::string::npos) {
                line.replace(at, std::to_string(port).size() + 1, ":PORT");
            }
            checks.push_back(line.substr(0, line.find(": ")));
        }
        return checks;
    }
};

TEST_F(HostCheck, HealthyInstallationPassesEveryCheck) {
    FakeEngine engine(Reader(true, FreshVersion()));
    Install(engine.port());
    const RunResult result = Run(L"--check");
    EXPECT_EQ(result.status, 0u) << result.out;
    EXPECT_THAT(Checks(result.out, "ok", engine.port()),
                ElementsAre("library", "settings", "log", "engine program", "engine process",
                            "server 127.0.0.1:PORT connection", "server 127.0.0.1:PORT zPING",
                            "server 127.0.0.1:PORT zVERSION", "server 127.0.0.1:PORT clean sample",
                            "server 127.0.0.1:PORT EICAR", "updater"));
    // The folder's name holds a blank.
    EXPECT_THAT(Checks(result.out, "warning", engine.port()), ElementsAre("folder"));
    EXPECT_THAT(result.out, EndsWith("\n11 ok, 1 warnings, 0 failed\n"));
    EXPECT_THAT(folder.LogMessages(), IsEmpty());
    EXPECT_EQ(folder.Starts(folder.engine_program()).size(), 1u);
}

TEST_F(HostCheck, NamesTheFaultOfEachBrokenInstallationAndNoOther) {
    EngineScript blind = Reader(true, FreshVersion());
    blind.answer = [answer = blind.answer](const Conversation& conversation) {
        return conversation.command == "zINSTREAM" ? WithNul("stream: OK") : answer(conversation);
    };
    EngineScript mute;
    mute.close_after = 1;
    const EngineScript healthy = Reader(true, FreshVersion());
    struct Broken {
        const char* name;
        const char* state;
        std::vector<std::string> checks;
        std::string text;
        std::string settings = "";
        std::wstring arguments = L"";
        EngineScript script;
    };
    const std::string server = "server 127.0.0.1:PORT ";
    const Broken cases[] = {
        {"NotTheLibrary",
         "failed",
         {"library"},
         "it lacks CHECKLICENCE",
         "",
         L" --library C:\\windows\\system32\\version.dll",
         healthy},
        {"MisspeltSetting",
         "failed",
         {"settings"},
         "kestoav.ini line 5: the key \"encrpyt\" is not known",
         "encrpyt=0",
         L"",
         healthy},
        {"EngineShiftsAndPlugInDoesNot",
         "failed",
         {server + "EICAR"},
         "found only with encrypt=1",
         "encrypt=0",
         L"",
         healthy},
        {"PlugInShiftsAndEngineDoesNot",
         "failed",
         {server + "EICAR"},
         "found only with encrypt=0",
         "",
         L"",
         Reader(false, FreshVersion())},
        {"NoSignatures", "failed", {server + "EICAR"}, "loaded its signatures", "", L"", blind},
        {"NothingBehindTheEngine", "failed", {server + "zPING"}, "no answer", "", L"", mute},
        {"LogFolderMissing",
         "failed",
         {"log"},
         "Path not found",
         "logfile=C:\\missing\\av.log",
         L"",
         healthy},
        {"OldSignatures", "warning", {"folder", server + "zVERSION"}, " days old", "", L"", Reader()},
        {"SignaturesOfUnknownAge",
         "warning",
         {"folder", server + "zVERSION"},
         "unknown",
         "",
         L"",
         Reader(true, "Engine 1")},
    };
    Install(FreePort());
    for (const Broken& it : cases) {
        FakeEngine engine(it.script);
        Configure(engine.port(), it.settings);
        const RunResult result = Run(L"--check" + it.arguments);
        EXPECT_EQ(result.status, it.state == std::string("failed") ? 2u : 0u) << it.name;
        EXPECT_THAT(Checks(result.out, it.state, engine.port()), ElementsAreArray(it.checks))
            << it.name << "\n"
            << result.out;
        EXPECT_THAT(result.out, HasSubstr(it.text)) << it.name;
    }
}

TEST_F(HostCheck, TellsWhatIsWrongWithTheEngineProcess) {
    FakeEngine engine(Reader(true, FreshVersion()));
    Configure(engine.port());
    const RunResult missing = Run(L"--check");
    EXPECT_EQ(missing.status, 2u);
    EXPECT_THAT(Checks(missing.out, "failed", engine.port()),
                ElementsAre("engine program", "engine process"));
    EXPECT_THAT(Checks(missing.out, "warning", engine.port()), ElementsAre("log", "updater"));

    folder.PlaceEngine("wait");
    const RunResult not_running = Run(L"--check");
    EXPECT_THAT(Checks(not_running.out, "failed", engine.port()), ElementsAre("engine process"));

    folder.StartProgram(folder.engine_program());
    folder.StartProgram(folder.engine_program());
    const RunResult two = Run(L"--check");
    EXPECT_EQ(two.status, 0u);
    EXPECT_THAT(two.out, HasSubstr("warning  engine process: 2 processes named kestoav.exe run"));
}

TEST_F(HostCheck, WarnsOfProgramsThatWouldStartInPlaceOfTheEngine) {
    Configure(FreePort());
    folder.PlaceEngine("wait");
    WriteFile(folder.parent() + "\\mail.exe", "not ours");
    const RunResult result = Run(L"--check");
    EXPECT_THAT(result.out, HasSubstr("failed   folder: " + folder.parent() + "\\mail.exe would be started"));
}

TEST_F(HostCheck, PrintsTheSameAsJson) {
    const uint16_t port = FreePort();
    Install(port);
    const RunResult result = Run(L"--check --json");
    EXPECT_EQ(result.status, 2u);
    const std::vector<std::string> lines = Lines(result.out);
    ASSERT_EQ(lines.size(), 10u) << result.out;
    EXPECT_EQ(lines[0], "{\"checks\": [");
    EXPECT_THAT(
        lines[7],
        AllOf(StartsWith("{\"check\": \"server 127.0.0.1:" + std::to_string(port) +
                         " connection\", \"state\": \"failed\", \"text\": \"not made: WSAECONNREFUSED "),
              HasSubstr("\", \"remedy\": \"start what listens there"), EndsWith("\"},")));
    EXPECT_EQ(lines[9],
              "], \"summary\": {\"state\": \"failed\", \"ok\": 6, \"warnings\": 1, \"failed\": 1}}");
}

// A file that holds the test string whole would be quarantined on many machines.
TEST(TestSamples, ProgramDoesNotHoldTheTestString) {
    EXPECT_EQ(EicarTestString().size(), 68u);
    std::ifstream program(std::filesystem::path(BuiltKestoscan()), std::ios::binary);
    std::stringstream content;
    content << program.rdbuf();
    EXPECT_GT(content.str().size(), 100'000u);
    EXPECT_THAT(content.str(), Not(HasSubstr(EicarTestString())));
}

}  // namespace
}  // namespace kesto

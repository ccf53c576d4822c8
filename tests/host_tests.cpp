// kestoscan.exe with the real library, engine processes that only exist, and a scripted engine server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tests/support/host_test.h"

namespace kesto {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;

class HostScan : public HostTest {
 protected:
    HostScan() {
        folder.PlaceEngine("wait");
        Configure(engine.port());
    }

    FakeEngine engine{Reader()};
};

TEST_F(HostScan, TellsEachFilesVerdictAndTheWorstByItsStatus) {
    Sample(L"clean", "nothing");
    Sample(L"empty", "");
    Sample(L"infected", "a VIRUS");
    Sample(L"garble", "GARBLE");
    const auto line = [&](const char* name, const char* verdict) { return SampleText(name) + verdict; };
    const std::string clean = line("clean", ": OK");
    const std::string infected = line("infected", ": Test.Virus FOUND");
    const std::string missing = line("missing", ": ERROR File not found (2)");
    const std::string garble = line("garble", ": ERROR Error 1003 (1003)");
    const std::string a_folder = Samples().string() + ": ERROR Is a folder (--recursive scans it) (267)";
    const struct {
        std::wstring arguments;
        std::vector<std::string> lines;
        DWORD status;
        std::string totals;
    } cases[] = {
        {Named(L"clean") + Named(L"empty"),
         {clean, line("empty", ": OK")},
         0,
         "files: 2\nInfected files: 0\nErrors: 0"},
        {Named(L"infected") + Named(L"clean"),
         {infected, clean},
         1,
         "files: 2\nInfected files: 1\nErrors: 0"},
        {Named(L"missing") + Named(L"clean"), {missing, clean}, 2, "files: 1\nInfected files: 0\nErrors: 1"},
        {Named(L"missing") + Named(L"infected"),
         {missing, infected},
         1,
         "files: 1\nInfected files: 1\nErrors: 1"},
        {Named(L"garble") + Named(L"clean"), {garble, clean}, 2, "files: 1\nInfected files: 0\nErrors: 1"},
        {AllSamples() + Named(L"clean"), {a_folder, clean}, 2, "files: 1\nInfected files: 0\nErrors: 1"},
        {Named(L"c*n") + Named(L"x?"), {clean, line("x?", ": ERROR File not found (2)")}, 2, "files: 1"},
    };
    for (const auto& it : cases) {
        const RunResult result = Run(it.arguments);
        EXPECT_EQ(result.status, it.status) << result.out << result.err;
        std::string expected;
        for (const std::string& each : it.lines) {
            expected += each + "\n";
        }
        EXPECT_THAT(result.out, StartsWith(expected + "\n"));
        EXPECT_THAT(result.out, HasSubstr("\nScanned " + it.totals + "\n"));
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(HostScan, RecursiveWithJobsPrintsEveryFileOnceInWholeLines) {
    std::vector<std::string> expected;
    for (int i = 0; i < 40; ++i) {
        const std::string name = (i % 3 == 0   ? "a\\"
                                  : i % 3 == 1 ? "a\\b\\"
                                               : "") +
                                 std::to_string(i) + ".eml";
        Sample(std::filesystem::path(name).wstring(), i % 8 == 0 ? "VIRUS" : "fine");
        expected.push_back(SampleText(name) + (i % 8 == 0 ? ": Test.Virus FOUND" : ": OK"));
    }
    // No engine runs yet: four threads must not start four.
    Configure(engine.port(), "autostart=0");
    const RunResult all = Run(L"-r -j 4" + AllSamples());
    EXPECT_EQ(folder.Starts(folder.engine_program()).size(), 1u);
    EXPECT_EQ(all.status, 1u);
    std::vector<std::string> lines = Lines(all.out);
    lines.resize(std::min(lines.size(), expected.size()));
    EXPECT_THAT(lines, UnorderedElementsAreArray(expected));

    const RunResult infected = Run(L"--recursive --infected --jobs 4" + AllSamples() + Named(L"missing"));
    EXPECT_EQ(infected.status, 1u);
    EXPECT_THAT(infected.out, AllOf(Not(HasSubstr(": OK")), Not(HasSubstr("ERROR"))));
    EXPECT_THAT(Lines(infected.out), testing::SizeIs(5 + 6));
    EXPECT_EQ(infected.err, SampleText("missing") + ": ERROR File not found (2)\n");
}

TEST_F(HostScan, PrintsOneJsonDocument) {
    Sample(L"clean", "nothing");
    Sample(L"infected", "a VIRUS");
    std::string text = SampleText("");
    for (size_t at = 0; (at = text.find('\\', at)) != std::string::npos; at += 2) {
        text.insert(at, "\\");
    }
    const RunResult result = Run(L"--json" + Named(L"clean") + Named(L"infected") + Named(L"missing"));
    EXPECT_EQ(result.status, 1u);
    EXPECT_THAT(
        result.out,
        StartsWith("{\"files\": [\n"
                   "{\"path\": \"" +
                   text +
                   "clean\", \"result\": \"clean\", \"size\": 7},\n"
                   "{\"path\": \"" +
                   text +
                   "infected\", \"result\": \"infected\", \"size\": 7, "
                   "\"name\": \"Test.Virus\"},\n"
                   "{\"path\": \"" +
                   text +
                   "missing\", \"result\": \"error\", "
                   "\"error\": \"File not found\", \"code\": 2}\n"
                   "], \"summary\": {\"scanned\": 2, \"infected\": 1, \"errors\": 1, \"not_scanned\": 0, "
                   "\"bytes\": 14, \"milliseconds\": "));
    EXPECT_THAT(result.out, EndsWith(", \"interrupted\": false}}\n"));
}

TEST_F(HostScan, TakesPathsThatAnsiProgramsCannot) {
    Sample(L"\u0436\u6F22.eml", "VIRUS");
    const std::wstring part(100, L'x');
    Sample(L"short", "");
    const std::wstring deep = L"\\\\?\\" + Samples().wstring() + L"\\" + part + L"\\" + part;
    std::filesystem::create_directory(Samples() / part);
    std::filesystem::create_directory(deep);
    std::ofstream(std::filesystem::path(deep + L"\\" + part), std::ios::binary) << "VIRUS";
    const RunResult result = Run(L"-r" + AllSamples());
    EXPECT_EQ(result.status, 1u);
    EXPECT_THAT(result.out, HasSubstr("\\\u0436\u6F22.eml: Test.Virus FOUND\n"));
    EXPECT_THAT(result.out, HasSubstr("\\xxx"));
    EXPECT_THAT(result.out, HasSubstr("xxx: Test.Virus FOUND\n"));
    // The test's own clean-up does not reach so deep.
    std::filesystem::remove(std::filesystem::path(deep + L"\\" + part));
    std::filesystem::remove(deep);
}

TEST_F(HostScan, ReportsFilesThatCannotBeHeldInMemory) {
    Sample(L"clean", "nothing");
    for (const auto& [name, size] :
         {std::pair{L"huge", 5'000'000'000ull}, std::pair{L"large", 2'100'000'000ull}}) {
        Sample(name, "");
        std::filesystem::resize_file(Samples() / name, size);
    }
    const RunResult result = Run(Named(L"huge") + Named(L"large") + Named(L"clean"));
    EXPECT_EQ(result.status, 2u);
    EXPECT_EQ(Lines(result.out)[0], SampleText("huge") + ": ERROR File too large for a 32-bit process (223)");
    EXPECT_EQ(Lines(result.out)[1],
              SampleText("large") + ": ERROR File too large for a 32-bit process (223)");
    EXPECT_EQ(Lines(result.out)[2], SampleText("clean") + ": OK");
}

TEST_F(HostScan, ByDefaultUsesTheLibraryAndTheFolderBesideIt) {
    Sample(L"infected", "VIRUS");
    const std::filesystem::path built = std::filesystem::path(BuiltKestoscan()).parent_path();
    for (const char* file : {"kestoscan.exe", "CLAMDLL.dll"}) {
        std::filesystem::copy_file(built / file, std::filesystem::path(folder.path()) / file);
    }
    const std::wstring program = (std::filesystem::path(folder.path()) / "kestoscan.exe").wstring();
    const RunResult result = KestoscanRun(Named(L"infected"), program).Finish();
    EXPECT_EQ(result.status, 1u) << result.out << result.err;
    EXPECT_TRUE(folder.WaitForStarts(folder.engine_program(), 1));
}

TEST_F(HostScan, InterruptedEndsWithWholeLinesAndTheErrorStatus) {
    EngineScript silent;
    silent.answer = [](const Conversation& conversation) {
        return conversation.data.size() == 4 ? WithNul("stream: OK") : std::string();
    };
    silent.hangs_up = false;
    FakeEngine slow(silent);
    Configure(slow.port());
    Sample(L"fine", "fine");
    Sample(L"slow", "slow one");
    KestoscanRun run(Named(L"fine") + Named(L"slow") + FolderOption(), BuiltKestoscan(), true);
    ASSERT_TRUE(
        WaitFor([&] { return slow.Conversations().size() == 2 && slow.Conversations()[1].complete; }));
    run.Interrupt();
    const RunResult result = run.Finish();
    EXPECT_EQ(result.status, 2u);
    EXPECT_THAT(result.out, StartsWith(SampleText("fine") + ": OK\n\nInterrupted\nScanned files: 1\n"));
    EXPECT_THAT(result.out, AllOf(HasSubstr("\nNot scanned: 1\n"), EndsWith(" s\n")));
}

TEST_F(HostTest, StopsWhereNoScanCouldSucceed) {
    Sample(L"a", "a");
    Sample(L"b", "b");
    const std::wstring both = Named(L"a") + Named(L"b");

    Configure(FreePort());
    const RunResult not_started = Run(both);
    EXPECT_EQ(not_started.status, 2u);
    EXPECT_EQ(not_started.out, "");
    EXPECT_THAT(not_started.err, HasSubstr("kestoav.exe cannot be started: File not found (2)\n"));

    Configure(FreePort(), "autostart=0\r\nstartwait=0");
    const RunResult fatal = Run(both);
    EXPECT_EQ(fatal.status, 2u);
    EXPECT_THAT(fatal.out, StartsWith(SampleText("a") + ": ERROR Error connecting to AV server (1001)\n\n"));
    EXPECT_THAT(fatal.out, HasSubstr("\nErrors: 1\nNot scanned: 1\n"));
}

TEST_F(HostTest, RefusesWhatIsNotThePlugIn) {
    Sample(L"text.dll", "no library");
    const struct {
        std::wstring arguments;
        const char* error;
    } cases[] = {
        {L"x --library" + Named(L"missing.dll"), "cannot load "},
        {L"x --library" + Named(L"text.dll"), "cannot load "},
        {L"x --library kernel32.dll", "cannot load "},
        {L"x --library C:\\windows\\system32\\version.dll", "it lacks CHECKLICENCE, CLOSEINSTANCE"},
        {L"x --folder C:\\" + std::wstring(300, L'f'), "at most 259 characters"},
        {L"x --check", "name files to scan"},
        {L"", "name files to scan"},
        {L"--jobs 0 x", "not in range 1 to 16"},
        {L"--colour x", "--colour"},
        {L"--json --version", "--json goes with"},
    };
    for (const auto& it : cases) {
        const RunResult result = KestoscanRun(it.arguments).Finish();
        EXPECT_EQ(result.status, 2u);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, AllOf(StartsWith("kestoscan: "), HasSubstr(it.error)));
    }
}

TEST_F(HostScan, PrintsTheVersionDetails) {
    const RunResult result = Run(L"--version");
    EXPECT_EQ(result.status, 0u);
    EXPECT_EQ(result.out, "KESTOAV Version 1.0.4\nAV Database 27000 - Updated Thu Jan  1 00:00:00 2015\n");
}

TEST_F(HostTest, UpdatesAsTheMailServerDoes) {
    Configure(FreePort(), "autostart=0");
    const std::string updater = folder.engine_folder() + "\\kestoavu.exe";
    const std::string failed =
        "KESTO Antivirus Update Failed\nThe KESTO Antivirus Update attempt failed with error ";
    const RunResult missing = Run(L"--update");
    EXPECT_EQ(missing.status, 2u);
    EXPECT_EQ(missing.err, failed + "2\n");

    folder.PlaceProgram(updater, "exit 3");
    const RunResult three = Run(L"--update");
    EXPECT_EQ(three.status, 2u);
    EXPECT_EQ(three.err, failed + "3\n");

    folder.PlaceProgram(updater, "exit 0");
    const RunResult good = Run(L"--update");
    EXPECT_EQ(good.status, 0u) << good.err;
    EXPECT_EQ(good.out, "Update finished\n");
}

}  // namespace
}  // namespace kesto

#include <memory>

#include "tests/support/scanner_test.h"

namespace kesto {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class StartUpTest : public ScannerTest {};

TEST_F(StartUpTest, FillsNamesAndOutValueWhateverTheVersion) {
    folder.CreateLog();
    folder.WriteSettings("autostart=0");
    const struct { int32_t version, status; } cases[] = {{1, 0}, {2, 1}, {0, 1}, {-1, 1}};
    for (const auto& each : cases) {
        std::string short_name(kShortNameSize, 'x'), long_name(kLongNameSize, 'x');
        uint32_t out_value = kUntouched;
        EXPECT_EQ(plugin.InitializeScanner(each.version, short_name.data(), long_name.data(), &out_value,
                                           folder.path().c_str()),
                  each.status);
        EXPECT_STREQ(short_name.c_str(), "KESTOAV");
        EXPECT_STREQ(long_name.c_str(), "KESTO AV");
        EXPECT_EQ(out_value, 0u);
        plugin.CloseScanner();
    }
    EXPECT_THAT(folder.LogMessages(),
                ElementsAre("API version mismatch 2 != 1", "API version mismatch 0 != 1",
                            "API version mismatch -1 != 1"));
}

TEST_F(StartUpTest, IsInPlaceAfterAVersionMismatchButStartsNoEngine) {
    FakeEngine engine;
    folder.CreateLog();
    folder.PlaceEngine("wait");
    folder.WriteSettings(Servers(engine.port()) + "encrypt=0");
    EXPECT_EQ(plugin.InitializeScanner(2, nullptr, nullptr, nullptr, folder.path().c_str()), 1);
    EXPECT_THAT(ProcessesNamed("kestoav.exe"), IsEmpty());
    folder.StartProgram(folder.engine_program());
    EXPECT_TRUE(Scan("as it is").Clean());
    EXPECT_EQ(engine.Conversations().at(0).data, "as it is");
    EXPECT_THAT(folder.LogMessages(), ElementsAre(StartsWith("API"), "Scan file - mail.eml - 8"));
}

TEST_F(StartUpTest, StartsTheEngineHiddenInItsFolderAndOnlyOnce) {
    StartWithIdleEngine("");
    EXPECT_EQ(Start(""), 0);  // finds it running
    plugin.CloseScanner();    // and leaves it running
    EXPECT_EQ(ProcessesNamed("kestoav.exe").size(), 1u);
    const auto starts = folder.Starts(folder.engine_program());
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_STRCASEEQ(starts[0].folder.c_str(), folder.engine_folder().c_str());
    EXPECT_EQ(starts[0].command_line, folder.engine_program());
    EXPECT_EQ(starts[0].show_state, "hidden");
    EXPECT_THAT(folder.LogMessages(), ElementsAre("starting kestoav process"));
}

TEST_F(StartUpTest, WithoutAutostartDoesNotLookForTheEngine) {
    folder.CreateLog();
    EXPECT_EQ(Start("autostart=0"), 0);
    EXPECT_THAT(folder.LogMessages(), IsEmpty());
}

TEST_F(StartUpTest, ReturnsTheSystemsErrorWhenTheEngineDoesNotStart) {
    folder.CreateLog();
    EXPECT_EQ(Start(""), ERROR_FILE_NOT_FOUND);
    WriteFile(folder.engine_program(), "no program at all");
    EXPECT_EQ(Start(""), ERROR_BAD_EXE_FORMAT);
    EXPECT_THAT(folder.LogMessages(),
                ElementsAre("starting kestoav process", "Error starting kestoav process - 2",
                            "starting kestoav process", "Error starting kestoav process - 193"));
}

TEST_F(StartUpTest, SecondStartAppendsItsServers) {
    auto first = std::make_unique<FakeEngine>();
    FakeEngine second;
    StartWithIdleEngine(Servers(first->port()));
    ASSERT_EQ(Start(Servers(second.port())), 0);
    EXPECT_TRUE(Scan("1").Clean());
    EXPECT_EQ(first->Conversations().size(), 1u);
    first.reset();
    EXPECT_TRUE(Scan("2").Clean());
    EXPECT_EQ(second.Conversations().size(), 1u);
}

TEST_F(StartUpTest, KeepsItsOwnCopyOfTheFolder) {
    folder.WriteSettings("autostart=0");
    folder.PlaceProgram(folder.engine_folder() + "\\kestoavu.exe", "exit 0");
    std::string hosts_text = folder.path();
    EXPECT_EQ(plugin.InitializeScanner(1, nullptr, nullptr, nullptr, hosts_text.c_str()), 0);
    std::fill(hosts_text.begin(), hosts_text.end(), '?');
    plugin.GetExpiry(0, 0, 0);
    EXPECT_EQ(plugin.DoSimpleUpdate(nullptr, nullptr), 1u);
}

TEST_F(StartUpTest, RefusesFoldersThatCannotBe) {
    EXPECT_EQ(plugin.InitializeScanner(1, nullptr, nullptr, nullptr, nullptr), ERROR_INVALID_PARAMETER);
    for (const std::string& each :
         {std::string(), "C:\\" + std::string(300, 'x'), std::string(100'000, '\\')}) {
        const int32_t status = plugin.InitializeScanner(1, nullptr, nullptr, nullptr, each.c_str());
        EXPECT_NE(status, 0) << each.size();  // what the system says of an engine program there
        EXPECT_NE(status, 1) << each.size();
    }
}

TEST(StartUpInFolders, WithBlanksIsLeftToTheSystemsReadingOfAnUnquotedPath) {
    for (const bool decoy : {false, true}) {
        PluginFolder folder("with blank");
        const std::string shorter = folder.parent() + "\\with.exe";
        folder.PlaceEngine("wait");
        if (decoy) {
            folder.PlaceProgram(shorter, "wait");
        }
        PluginLibrary plugin;
        EXPECT_EQ(plugin.InitializeScanner(1, nullptr, nullptr, nullptr, folder.path().c_str()), 0);
        EXPECT_TRUE(folder.WaitForStarts(decoy ? shorter : folder.engine_program(), 1));
    }
}

TEST(ErrorTexts, AreBoundedAndTerminated) {
    const PluginLibrary plugin;
    const struct {
        uint32_t code;
        int32_t size;
        std::string text;  // empty: the buffer is untouched
    } cases[] = {
        {1001, 64, "Error connecting to AV server"},
        {1002, 64, "Error communicating with AV server"},
        {1003, 64, "Error 1003"},
        {0, 64, "Error 0"},
        {0xFFFFFFFF, 64, "Error 4294967295"},
        {1001, 10, "Error con"},
        {5, 4, "Err"},
        {5, 8, "Error 5"},
        {5, 0, ""},
        {1001, 0, ""},
        {1001, -1, ""},
        {5, INT32_MIN, ""},
    };
    for (const auto& each : cases) {
        std::string buffer(64, 'x');
        plugin.GetErrorText(each.code, buffer.data(), each.size);
        std::string expected(64, 'x');
        if (!each.text.empty()) {
            expected.replace(0, each.text.size() + 1, WithNul(each.text));
        }
        EXPECT_EQ(buffer, expected) << each.code << ' ' << each.size;
    }
    std::string one(2, 'x');
    plugin.GetErrorText(1002, one.data(), 1);
    EXPECT_EQ(one, std::string("\0x", 2));
    plugin.GetErrorText(1002, nullptr, 64);

    for (const uint32_t code : {0u, 1u, 1000u, 1002u, 1003u, 0xFFFFFFFFu}) {
        EXPECT_EQ(plugin.IsFatalError(code), 0u) << code;
    }
    EXPECT_EQ(plugin.IsFatalError(1001), 1u);
}

}  // namespace
}  // namespace kesto

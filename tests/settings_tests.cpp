#include "tests/support/scanner_test.h"

namespace kesto {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

TEST(Settings, EncryptAndServersFollowTheRulesOfProfileFiles) {
    PluginFolder folder;
    folder.PlaceEngine("wait");
    folder.StartProgram(folder.engine_program());
    FakeEngine engine;
    const std::string server = "127.0.0.1:" + std::to_string(engine.port());
    const std::string servers = "servers=" + server + "\n";
    const struct {
        std::string lines;
        bool encrypted;
    } cases[] = {
        {servers, true},
        {servers + "encrypt=1", true},
        {servers + "encrypt=2", true},
        {servers + "encrypt=256", true},
        {servers + "encrypt=-1", true},
        {servers + "encrypt=0", false},
        {servers + "encrypt=abc", false},
        {servers + "ENCRYPT = 0x ", false},
        {"servers =  \"" + server + "\"  \nencrypt=0", false},
    };
    for (const auto& each : cases) {
        folder.WriteSettings(each.lines);
        PluginLibrary plugin;
        ASSERT_EQ(plugin.InitializeScanner(1, nullptr, nullptr, nullptr, folder.path().c_str()), 0);
        ASSERT_TRUE(ScanWith(plugin, "BCD").Clean());
        EXPECT_EQ(engine.Conversations().back().data, each.encrypted ? "ABC" : "BCD") << each.lines;
    }
}

class SettingsTest : public ScannerTest {};

TEST_F(SettingsTest, WithoutServersAsksThisMachine) {
    folder.CreateLog();
    folder.PlaceProgram(folder.elsewhere(), "wait");
    folder.StartProgram(folder.elsewhere());
    ASSERT_EQ(Start("connectwait=0\nstartwait=0\n[other]\nservers=127.0.0.2\nautostart=0"), 0);
    EXPECT_TRUE(Scan("x").Failed(1001));
    EXPECT_THAT(folder.LogMessages(), Contains(AllOf(StartsWith("Couldn't connect to kestoav process - "),
                                                     HasSubstr("127.0.0.1"), HasSubstr("3313"))));
}

TEST_F(SettingsTest, WaitsAreUnsigned) {
    const uint16_t port = FreePort();
    StartWithIdleEngine(Servers(port) + "connectwait=-1\nstartwait=-1");
    ScanOutcome outcome{};
    std::thread scan([&] { outcome = Scan("x"); });
    // A negative limit would have passed with the first attempt.
    EXPECT_TRUE(folder.WaitForLog("Couldn't connect", 5));
    FakeEngine late({}, port);
    scan.join();
    EXPECT_TRUE(outcome.Clean());
    EXPECT_THAT(folder.LogMessages(), testing::Not(Contains("restarting kestoav process")));
}

TEST_F(SettingsTest, AreReadAtStartUpOnly) {
    FakeEngine engine, other;
    StartWithIdleEngine(Servers(engine.port()) + "encrypt=0");
    folder.WriteSettings(Servers(other.port()) + "encrypt=1\nlogfile=" + folder.path() + "\\new.log");
    EXPECT_TRUE(Scan("as it was").Clean());
    EXPECT_EQ(engine.Conversations().at(0).data, "as it was");
    EXPECT_TRUE(other.Conversations().empty());
    EXPECT_EQ(folder.LogMessages().back(), "Scan file - mail.eml - 9");
}

}  // namespace
}  // namespace kesto

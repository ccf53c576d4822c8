// The whole road with real processes: engine and updater that the plug-in starts, ends and finds, and a real
// clamd behind the bridge.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "host/check/test_samples.h"
#include "tests/support/plugin_host.h"

namespace kesto {
namespace {

using namespace testing;

class RoadTest : public testing::Test {
 protected:
    int32_t Start(const std::string& settings) {
        plugin.close_scanner();  // a second start lets go of an open log without closing it
        installed.CreateLog();
        installed.WriteSettings(settings);
        return plugin.Initialize(installed.folder);
    }
    ScanOutcome Scan(std::string_view data) const { return ScanWith(plugin, data); }
    void ExpectStartedOnce(const std::filesystem::path& program) const {
        EXPECT_TRUE(installed.WaitForStarts(program, 1));
        const auto starts = installed.Starts(program);
        ASSERT_EQ(starts.size(), 1u);
        EXPECT_STRCASEEQ(starts[0].folder.c_str(), installed.engine_folder.string().c_str());
        EXPECT_EQ(starts[0].command_line, program.string());
    }

    Installation installed;
    LoadedPlugin plugin{installed};
};

TEST_F(RoadTest, EngineIsStartedOnceAndOutlivesThePlugIn) {
    installed.PlaceStandIn(installed.engine, "wait");
    EXPECT_EQ(Start(""), 0);
    installed.WaitForStarts(installed.engine, 1);
    EXPECT_EQ(Start(""), 0);  // finds it running
    plugin.close_scanner();
    EXPECT_EQ(ProcessesNamed("kestoav.exe").size(), 1u);
    ExpectStartedOnce(installed.engine);
}

TEST_F(RoadTest, EngineThatDoesNotAcceptIsReplaced) {
    const uint16_t port = FreePort();
    installed.PlaceStandIn(installed.elsewhere, "wait");
    installed.StartStandIn(installed.elsewhere);
    installed.PlaceStandIn(installed.engine, "engine " + std::to_string(port) + " stream: New FOUND");
    EXPECT_EQ(Start("servers=127.0.0.1:" + std::to_string(port) + "\nconnectwait=0\nstartwait=5"), 0);
    EXPECT_TRUE(Scan("x").Infected("mail.eml", "New"));
    EXPECT_EQ(ProcessesNamed("kestoav.exe").size(), 1u);
    ExpectStartedOnce(installed.engine);
}

TEST_F(RoadTest, EngineKilledUnderFourThreadsComesBack) {
    const uint16_t port = FreePort();
    installed.PlaceStandIn(installed.engine, "engine " + std::to_string(port) + " shifted");
    ASSERT_EQ(Start("servers=127.0.0.1:" + std::to_string(port) + "\nconnectwait=0\nstartwait=3"), 0);
    std::atomic<int> scans[4] = {}, wrong = 0;
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (auto& right : scans) {
        threads.emplace_back([&, infected = threads.size() % 2 == 1, name = std::to_string(threads.size())] {
            while (!stop) {
                const auto outcome =
                    ScanWith(plugin, std::string(200'000, 'x') + (infected ? "VIRUS" : ""), name);
                const bool as_it_is = infected ? outcome.Infected(name, "Test.Virus") : outcome.Clean();
                right += as_it_is;
                wrong += !as_it_is && !outcome.Failed(1001) && !outcome.Failed(1002) && !outcome.Failed(1003);
            }
        });
    }
    for (int kill = 0; kill < 3; ++kill) {
        for (auto& each : scans) {
            EXPECT_TRUE(WaitFor([&, from = each.load()] { return each >= from + 5; }, 3 * kTestLimit));
        }
        installed.EndPrograms();
    }
    stop = true;
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(wrong, 0);
    for (const std::string& each : installed.LogMessages()) {  // whole lines, whoever wrote them
        EXPECT_TRUE(each.size() == 22 || !each.starts_with("Scan")) << each;
    }
}

TEST_F(RoadTest, UpdaterRunsHiddenInTheEngineFolderOneAtATime) {
    installed.PlaceStandIn(installed.updater, "release 259");
    ASSERT_EQ(Start("autostart=0"), 0);
    plugin.get_expiry(1, 2, 3);
    std::string message(kUpdateMessageSize, '\0');
    int32_t first = 5;
    std::thread update([&] { first = plugin.do_simple_update(nullptr, message.data()); });
    ExpectStartedOnce(installed.updater);
    EXPECT_EQ(plugin.do_simple_update(nullptr, nullptr), 1);
    EXPECT_TRUE(Scan("").Clean());  // scans go on meanwhile
    installed.Release(installed.updater);
    update.join();
    EXPECT_EQ(first, 0);
    EXPECT_STREQ(message.c_str(), "The KESTO Antivirus Update attempt failed with error 259");
    EXPECT_EQ(installed.Starts(installed.updater).size(), 1u);
}

TEST_F(RoadTest, LeadsToARealClamd) {
    const char* const clamd_port = getenv("KESTOAV_TEST_CLAMD_PORT");
    if (clamd_port == nullptr) {
        GTEST_SKIP() << "KESTOAV_TEST_CLAMD_PORT names no clamd; scripts/test starts one";
    }
    const uint16_t port = installed.PlaceBridge("127.0.0.1:" + std::string(clamd_port));
    ASSERT_EQ(Start("servers=127.0.0.1:" + std::to_string(port)), 0);  // and every default
    EXPECT_TRUE(Scan("nothing in here").Clean());
    EXPECT_TRUE(Scan(EicarTestString()).Infected("mail.eml", "Eicar-Test-Signature.UNOFFICIAL"));
    EXPECT_TRUE(Scan(std::string(3'000'001, '\0')).Clean());
    EXPECT_THAT(plugin.VersionDetails(), StartsWith("KESTOAV Version 1.0.4\nClamAV"));  // undated: as it is
    EXPECT_THAT(installed.LogMessages(), Not(Contains(StartsWith("Unexpected"))));
    // 64 MB is the limit of the clamd that the tests use.
    EXPECT_TRUE(Scan(std::string(65 << 20, 'x')).Failed(1003));
    EXPECT_EQ(installed.LogMessages().back(),
              "Unexpected response from KESTOAV - INSTREAM size limit exceeded. ERROR");
    EXPECT_TRUE(Scan("small").Clean());
}

}  // namespace
}  // namespace kesto

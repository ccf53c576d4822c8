// The whole road with real processes: an engine, which the plug-in starts, ends and finds, and a real clamd
// behind the bridge.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "host/check/test_samples.h"
#include "tests/support/plugin_host.h"

namespace kesto {
using namespace host;

namespace {

using namespace testing;

class RoadTest : public testing::Test, protected InstalledPlugin {
 protected:
    RoadTest() { installed.CreateLog(); }
};

TEST_F(RoadTest, EngineThatIsKilledComesBack) {
    const uint16_t port = FreePort();
    installed.PlaceStandIn(installed.engine, "engine " + std::to_string(port));
    ASSERT_EQ(Start("servers=127.0.0.1:" + std::to_string(port) + "\nconnectwait=0\nstartwait=3"), 0);
    for (size_t starts = 1; starts < 4; ++starts, installed.EndPrograms()) {
        EXPECT_EQ(Scan("VIRUS"), "mail.eml: Test.Virus");
        EXPECT_EQ(installed.Starts(installed.engine), starts);
    }
}

TEST_F(RoadTest, LeadsToARealClamd) {
    const char* const clamd_port = getenv("KESTOAV_TEST_CLAMD_PORT");
    if (clamd_port == nullptr) {
        GTEST_SKIP() << "KESTOAV_TEST_CLAMD_PORT names no clamd; scripts/test starts one";
    }
    const uint16_t port = installed.PlaceBridge("127.0.0.1:" + std::string(clamd_port));
    ASSERT_EQ(Start("servers=127.0.0.1:" + std::to_string(port)), 0);  // and every default
    EXPECT_EQ(Scan(EicarTestString()), "mail.eml: Eicar-Test-Signature.UNOFFICIAL");
    EXPECT_EQ(Scan(std::string(3'000'001, '\0')), "clean");
    // Its signatures have no date, so the reply is shown as it is.
    EXPECT_THAT(plugin.VersionDetails(), StartsWith("KESTOAV Version 1.0.4\nClamAV"));
    EXPECT_THAT(installed.LogMessages(), Not(Contains(StartsWith("Unexpected"))));
    // 64 MB is the limit of the clamd that the tests use.
    EXPECT_EQ(Scan(std::string(65 << 20, 'x')), "failed 1003");
    EXPECT_EQ(installed.LogMessages().back(),
              "Unexpected response from KESTOAV - INSTREAM size limit exceeded. ERROR");
    EXPECT_EQ(Scan("small"), "clean");
}

}  // namespace
}  // namespace kesto

// The whole road with real processes: an engine that the plug-in starts and finds, and a real clamd behind it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "host/check/test_samples.h"
#include "tests/support/plugin_host.h"

namespace kesto {
using namespace host;

namespace {

using namespace testing;

TEST(Road, LeadsToARealClamd) {
    const char* const clamd_port = getenv("KESTOAV_TEST_CLAMD_PORT");
    if (clamd_port == nullptr) {
        GTEST_SKIP() << "KESTOAV_TEST_CLAMD_PORT names no clamd; scripts/test starts one";
    }
    InstalledPlugin it;
    it.installed.CreateLog();
    const uint16_t port = it.installed.PlaceBridge("127.0.0.1:" + std::string(clamd_port));
    ASSERT_EQ(it.Start("servers=127.0.0.1:" + std::to_string(port)), 0);  // and every default
    EXPECT_EQ(it.Scan(EicarTestString()), "mail.eml: Eicar-Test-Signature.UNOFFICIAL");
    EXPECT_EQ(it.Scan(std::string(3'000'001, '\0')), "clean");
    // Its signatures have no date, so the reply is shown as it is.
    EXPECT_THAT(it.plugin.VersionDetails(), StartsWith("KESTOAV Version 1.0.4\nClamAV"));
    EXPECT_THAT(it.installed.LogMessages(), Not(Contains(StartsWith("Unexpected"))));
    // 64 MB is the limit of the clamd that the tests use.
    EXPECT_EQ(it.Scan(std::string(65 << 20, 'x')), "failed 1003");
    EXPECT_EQ(it.installed.LogMessages().back(),
              "Unexpected response from KESTOAV - INSTREAM size limit exceeded. ERROR");
    it.installed.EndPrograms();
    EXPECT_EQ(it.Scan("small"), "clean");
}

}  // namespace
}  // namespace kesto

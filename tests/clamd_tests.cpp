// The whole road: the plug-in, the engine bridge that it starts, and a real clamd.
#include <cstdlib>

#include "tests/support/scanner_test.h"

namespace kesto {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

class ClamdTest : public ScannerTest {
 protected:
    void SetUp() override {
        const char* const clamd_port = getenv("KESTOAV_TEST_CLAMD_PORT");
        if (clamd_port == nullptr) {
            GTEST_SKIP() << "KESTOAV_TEST_CLAMD_PORT names no clamd; scripts/test starts one";
        }
        const uint16_t port = FreePort();
        ASSERT_TRUE(CopyFileA((TestProgramFolder() + "\\..\\kestoav.exe").c_str(),
                              folder.engine_program().c_str(), TRUE));
        WriteFile(folder.engine_folder() + "\\bridge.ini",
                  "[bridge]\r\nlisten=127.0.0.1:" + std::to_string(port) +
                      "\r\nupstreams=127.0.0.1:" + clamd_port + "\r\n");
        folder.CreateLog();
        folder.WriteSettings(Servers(port));  // and every default
        ASSERT_EQ(plugin.InitializeScanner(1, nullptr, nullptr, nullptr, folder.path().c_str()), 0);
    }
    void TearDown() override { EndProcesses("kestoav.exe"); }
};

TEST_F(ClamdTest, FindsWhatIsThereAndNothingElse) {
    // Assembled only here: a file that holds the whole string is quarantined on many machines.
    const std::string eicar =
        std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-") + "STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
    EXPECT_TRUE(Scan("nothing in here", "clean.txt").Clean());
    EXPECT_TRUE(Scan(eicar, "eicar.com").Infected("eicar.com", "Eicar-Test-Signature.UNOFFICIAL"));
    std::string large(3'000'001, '\0');
    for (size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>(i * i >> 7);
    }
    EXPECT_TRUE(Scan(large, "large.bin").Clean());
    EXPECT_TRUE(Scan(eicar, "eicar.com").Infected("eicar.com", "Eicar-Test-Signature.UNOFFICIAL"));

    EXPECT_THAT(folder.LogMessages(), Contains("Scan file - large.bin - 3000001"));
    EXPECT_THAT(folder.LogMessages(), testing::Not(Contains(StartsWith("Unexpected"))));
    char version[200];
    plugin.GetVersionDetails(version, sizeof version);
    EXPECT_THAT(version, StartsWith("KESTOAV Version 1.0.4\n"));
    EXPECT_THAT(version, HasSubstr("ClamAV"));  // without a dated database, the reply as it is
}

TEST_F(ClamdTest, ReportsAFileBeyondTheEnginesLimit) {
    const std::string too_large(65 << 20, 'x');  // 64 MB is the limit of the clamd that the tests use
    EXPECT_TRUE(Scan(too_large).Failed(1003));
    EXPECT_EQ(folder.LogMessages().back(),
              "Unexpected response from KESTOAV - INSTREAM size limit exceeded. ERROR");
    EXPECT_TRUE(Scan("small").Clean());
}

}  // namespace
}  // namespace kesto

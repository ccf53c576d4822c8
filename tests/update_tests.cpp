#include <filesystem>

#include "tests/support/scanner_test.h"

namespace kesto {
namespace {

constexpr char kTitle[] = "KESTO Antivirus Update Failed";

class UpdateTest : public ScannerTest {
 protected:
    void SetUp() override {
        folder.CreateLog();
        ASSERT_EQ(Start("autostart=0"), 0);
    }
    // The host's buffers: sizes as agreed, and guard bytes behind them.
    struct Outcome {
        uint32_t result;
        std::string title = std::string(kUpdateTitleSize + 8, '\x5E');
        std::string message = std::string(kUpdateMessageSize + 8, '\x5E');
        bool Untouched() const { return title == Outcome{0}.title && message == Outcome{0}.message; }
    };
    Outcome Update() const {
        Outcome outcome{0};
        outcome.result = plugin.DoSimpleUpdate(outcome.title.data(), outcome.message.data());
        return outcome;
    }
    static void ExpectFailed(const Outcome& outcome, const std::string& reason) {
        EXPECT_EQ(outcome.result, 0u);
        EXPECT_STREQ(outcome.title.c_str(), kTitle);
        EXPECT_EQ(outcome.message.c_str(), "The KESTO Antivirus Update attempt failed " + reason);
        EXPECT_EQ(outcome.title.back(), '\x5E');
        EXPECT_EQ(outcome.message.back(), '\x5E');
    }
    std::string MirrorRecord() const { return folder.engine_folder() + "\\db\\mirrors.dat"; }

    const std::string updater = folder.engine_folder() + "\\kestoavu.exe";
};

TEST_F(UpdateTest, IsRefusedWithoutALicenceAndEverAfter) {
    folder.PlaceProgram(updater, "exit 0");
    ExpectFailed(Update(), "because you do not have a valid licence");
    plugin.GetExpiry(0, 0, 0);
    plugin.CloseScanner();
    Start("autostart=0");
    const Outcome later = Update();
    EXPECT_EQ(later.result, 1u);
    EXPECT_TRUE(later.Untouched());
    EXPECT_TRUE(folder.Starts(updater).empty());
}

TEST_F(UpdateTest, ReportsHowTheUpdaterEnds) {
    // Arguments are the host's own: they must never be followed.
    plugin.GetExpiry2(1, 2, 3, 4, 5);
    std::filesystem::create_directories(folder.engine_folder() + "\\db");
    const struct {
        const char* role;    // null: no updater
        const char* reason;  // null: success
    } cases[] = {
        {nullptr, "with error 2"},
        {"exit 0", nullptr},
        {"exit 3", "with error 3"},
        {"exit 259", "with error 259"},  // also what a running process reports
        {"exit 4294967295", "with error 4294967295"},
        {"exit 0", nullptr},  // a failure does not stand in the way of the next attempt
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.role ? each.role : "missing");
        if (each.role) {
            folder.PlaceProgram(updater, each.role);
        }
        WriteFile(MirrorRecord(), "mirrors");
        const Outcome outcome = Update();
        if (each.reason) {
            ExpectFailed(outcome, each.reason);
        } else {
            EXPECT_EQ(outcome.result, 1u);
            EXPECT_TRUE(outcome.Untouched());
        }
        EXPECT_EQ(std::filesystem::exists(MirrorRecord()), each.reason == nullptr);
    }
    folder.PlaceProgram(updater, "exit 3");
    DeleteFileA(MirrorRecord().c_str());
    ExpectFailed(Update(), "with error 3");
    EXPECT_TRUE(folder.LogMessages().empty());
}

TEST_F(UpdateTest, RunsHiddenInTheEngineFolderOneAtATime) {
    plugin.GetExpiry(1, 2, 3);
    folder.PlaceProgram(updater, "release 7");
    Outcome first{0};
    std::thread update([&] { first = Update(); });
    EXPECT_TRUE(folder.WaitForStarts(updater, 1));
    const Outcome second = Update();
    EXPECT_EQ(second.result, 1u);
    EXPECT_TRUE(second.Untouched());
    EXPECT_TRUE(Scan("").Clean());  // scans go on meanwhile
    folder.Release();
    update.join();
    ExpectFailed(first, "with error 7");

    const auto starts = folder.Starts(updater);
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_STRCASEEQ(starts[0].folder.c_str(), folder.engine_folder().c_str());
    EXPECT_EQ(starts[0].command_line, updater);
    EXPECT_EQ(starts[0].show_state, "hidden");
}

}  // namespace
}  // namespace kesto

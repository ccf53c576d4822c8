#include <ctime>
#include <filesystem>
#include <regex>

#include "tests/support/scanner_test.h"

namespace kesto {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LogTest : public ScannerTest {
 protected:
    // The one line that an empty file leaves.
    void LogALine() const { EXPECT_TRUE(Scan("").Clean()); }
};

TEST_F(LogTest, IsOffUntilItsFileExists) {
    Start("autostart=0");
    LogALine();
    EXPECT_FALSE(std::filesystem::exists(folder.log_path()));
}

TEST_F(LogTest, AppendsWholeLinesWithTheLocalTime) {
    WriteFile(folder.log_path(), "kept\r\n");
    Start("autostart=0");
    const time_t before = time(nullptr);
    LogALine();
    const time_t after = time(nullptr);
    std::smatch parts;
    const std::string log = ReadFile(folder.log_path());
    ASSERT_TRUE(std::regex_match(
        log, parts,
        std::regex(
            "kept\r\n(\\d{4})/([1-9]\\d?)/([1-9]\\d?) (\\d|[12]\\d):(\\d\\d):(\\d\\d): Scan file - mail.eml "
            "- 0\r\n")))
        << log;
    tm stamp{};
    stamp.tm_year = std::stoi(parts[1]) - 1900;
    stamp.tm_mon = std::stoi(parts[2]) - 1;
    stamp.tm_mday = std::stoi(parts[3]);
    stamp.tm_hour = std::stoi(parts[4]);
    stamp.tm_min = std::stoi(parts[5]);
    stamp.tm_sec = std::stoi(parts[6]);
    stamp.tm_isdst = -1;
    EXPECT_GE(mktime(&stamp), before);
    EXPECT_LE(mktime(&stamp), after);
}

TEST_F(LogTest, FollowsTheLogfileSetting) {
    folder.CreateLog();
    const std::string other = folder.path() + "\\other.log";
    Start("autostart=0\nlogfile=" + other);
    LogALine();
    EXPECT_THAT(ReadFile(other), testing::EndsWith(": Scan file - mail.eml - 0\r\n"));
    EXPECT_THAT(folder.LogMessages(), IsEmpty());
}

TEST_F(LogTest, DoesNotFallBackWhenTheSetFileCannotBeOpened) {
    folder.CreateLog();
    for (const std::string& file : {folder.path(), folder.path() + "\\none\\x.log", std::string(500, 'x')}) {
        Start("autostart=0\nlogfile=" + file);
        LogALine();
        plugin.CloseScanner();
    }
    EXPECT_THAT(folder.LogMessages(), IsEmpty());
}

TEST_F(LogTest, IsOpenToOtherReadersAndAppenders) {
    folder.CreateLog();
    Start("autostart=0");
    LogALine();
    EXPECT_EQ(folder.LogMessages().size(), 1u);
    FILE* const appender = fopen(folder.log_path().c_str(), "ab");
    ASSERT_NE(appender, nullptr);
    fputs("someone else's\r\n", appender);
    fclose(appender);
    LogALine();
    EXPECT_THAT(folder.LogMessages(),
                ElementsAre("Scan file - mail.eml - 0\nsomeone else's", "Scan file - mail.eml - 0"));
}

TEST_F(LogTest, EndsWithCloseAndBeginsAgainWithAStart) {
    folder.CreateLog();
    Start("autostart=0");
    plugin.CloseScanner();
    plugin.CloseScanner();
    LogALine();
    EXPECT_THAT(folder.LogMessages(), IsEmpty());
    Start("autostart=0");
    LogALine();
    EXPECT_EQ(folder.LogMessages().size(), 1u);
}

TEST_F(LogTest, CutsFileNamesAndNeverReadsThemAsFormats) {
    folder.CreateLog();
    Start("autostart=0");
    Scan("", "100%s%n%d.eml");
    Scan("", std::string(300, 'n'));  // fills its field without a NUL
    EXPECT_THAT(folder.LogMessages(), ElementsAre("Scan file - 100%s%n%d.eml - 0",
                                                  "Scan file - " + std::string(100, 'n') + " - 0"));
}

}  // namespace
}  // namespace kesto

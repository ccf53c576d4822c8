#include <gmock/gmock.h>

#include "host/check/database_age.h"
#include "host/check/ini_lint.h"
#include "host/progress.h"

namespace kesto {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

struct IniCase {
    const char* name;
    std::string text;
    const char* finding;  // part of the one finding's text and remedy; empty for none
    bool misread = true;
    size_t line = 2;
};

IniCase Setting(const char* name, const std::string& line, const char* finding, bool misread = true) {
    return {name, "[kestoav]\r\n" + line + "\r\n", finding, misread};
}

// One test for all: each test is a process of its own.
TEST(IniLint, FindsExactlyTheFaultOfEachFile) {
    const IniCase cases[] = {
        IniCase{"AllGood",
                "; comment\r\n[other]\r\nanything goes\r\n[KestoAV]\r\n# comment\r\nServers = \"10.0.0.1 "
                "scan:3310\"\r\n"
                "encrypt=0\r\nautostart=1\r\nstartwait=120\r\nconnectwait=10\r\nrestartcount=3\r\n"
                "logfile=C:\\logs\\av.log\r\n",
                ""},
        IniCase{"NoLineEndAtTheEnd", "[kestoav]\nencrypt=1", ""},
        IniCase{"Empty", "", "no section [kestoav]", true, 1},
        IniCase{"MisspeltSection", "[kestoav]\n[kestav]\n", "write [kestoav]"},
        IniCase{"SecondSection", "[kestoav]\n[kestoav]\nencrypt=0\n", "second section"},
        IniCase{"ByteOrderMark", "\xEF\xBB\xBF[kestoav]\n", "byte order mark", true, 1},
        IniCase{"RepeatedKey", "[kestoav]\nencrypt=1\nEncrypt=0\n", "second time", true, 3},
        Setting("MisspeltKey", "autostrat=0", "write autostart="),
        Setting("UnknownKey", "colour=red", "remove the line", false),
        Setting("NoKey", "just words", "no setting", false),
        Setting("SwitchInWords", "encrypt=true", "read as 0, which is off"),
        Setting("SwitchEmpty", "autostart=", "no number"),
        Setting("NumberWithUnit", "startwait=120s", "ends before"),
        Setting("NegativeLimit", "connectwait=-1", "over a century"),
        Setting("LongLimit", "startwait=86400", "over an hour", false),
        Setting("PortZero", "servers=127.0.0.1:0", "port of \"127.0.0.1:0\" is 0"),
        Setting("PortTooLarge", "servers=127.0.0.1:70000", "above 65535"),
        Setting("PortLargestIsFine", "servers=127.0.0.1:65535 b:1", ""),
        Setting("PortMissing", "servers=127.0.0.1:", "port of \"127.0.0.1:\" is no number"),
        Setting("EmptyHost", "servers=:3310", "empty host"),
        Setting("EmptyServers", "servers=", "empty host"),
        Setting("TwoBlanks", "servers=a:1  b:2", "empty host"),
        Setting("Comma", "servers=a:1,b:2", "single blanks only"),
        Setting("Tab", "servers=a:1\tb:2", "single blanks only"),
        Setting("Comment", "servers=127.0.0.1:3313 ; ours", "comment"),
        Setting("Localhost", "servers=LocalHost:3313", "write 127.0.0.1", false),
        Setting("ServersTooLong", "servers=" + std::string(1000, 'a'), "cut"),
        Setting("RelativeLog", "logfile=av.log", "relative", false),
        Setting("LogInEnvironment", "logfile=C:\\%TEMP%\\av.log", "not replaced", false),
        Setting("LogTooLong", "logfile=C:\\" + std::string(300, 'a'), "cut")};
    for (const IniCase& it : cases) {
        SCOPED_TRACE(it.name);
        const std::vector<IniFinding> findings = LintIni(it.text);
        if (*it.finding == '\0') {
            EXPECT_THAT(findings, IsEmpty());
            continue;
        }
        ASSERT_EQ(findings.size(), 1u);
        EXPECT_THAT(findings[0].text + " -> " + findings[0].remedy, HasSubstr(it.finding));
        EXPECT_EQ(findings[0].misread, it.misread);
        EXPECT_EQ(findings[0].line, it.line);
    }
}

TEST(DatabaseAge, CountsDaysOfThreeFieldsOnly) {
    using namespace std::chrono;
    const sys_days today = 2026y / November / 21;
    EXPECT_EQ(DatabaseAgeDays("ClamAV 1.0.9/27821/Sat Nov 21 09:12:31 2026", today), 0);
    EXPECT_EQ(DatabaseAgeDays("ClamAV 1.0.9/27821/Fri Feb  6 09:12:31 2026", today), 288);
    EXPECT_EQ(DatabaseAgeDays("ClamAV 1.0.9/27821/Tue Dec  1 09:12:31 2026", today), -10);
    for (const char* odd : {"", "ClamAV 1.0.9", "a/b", "a/b/c", "a/b/c/d", "a/27821/Fri Foo  6 09:12:31 2026",
                            "a/27821/Fri Feb 30 09:12:31 2026", "a/27821/Fri Feb 6 2026"}) {
        EXPECT_EQ(DatabaseAgeDays(odd, today), std::nullopt) << odd;
    }
}

TEST(ProgressText, TellsCountBytesRateAndTimeLeft) {
    EXPECT_EQ(ProgressLine({0, 40, 0, 5'000'000, 0}), "0/40 files, 0 B");
    EXPECT_EQ(ProgressLine({12, 40, 3'140'000, 10'140'000, 2}), "12/40 files, 3.1 MB, 1.6 MB/s, 0:04 left");
    EXPECT_EQ(ProgressLine({1, 2, 1'000'000, 5'000'000'000, 1}), "1/2 files, 1.0 MB, 1.0 MB/s, 1:23:19 left");
    // A file that has grown since it was listed.
    EXPECT_EQ(ProgressLine({1, 2, 5000, 1000, 1}), "1/2 files, 5.0 kB, 5.0 kB/s, 0:00 left");
    EXPECT_EQ(ByteText(999), "999 B");
    EXPECT_EQ(ByteText(999'960), "1.0 MB");
}

}  // namespace
}  // namespace kesto

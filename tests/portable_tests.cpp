// The parts that need no Windows; they also run natively under the sanitizers.
#include <gmock/gmock.h>

#include "base/server_list.h"
#include "common/log_limit.h"
#include "common/signatures.h"
#include "host/check/ini_lint.h"

namespace {

using namespace kesto;

TEST(ServerList, SplitsAtSingleBlanksAndReadsPortsAsNumbersOf16Bits) {
    const std::pair<const char*, const char*> cases[] = {
        {" a:1  b ", "<|3313><a|1><|3313><b|3313><|3313>"},
        {"a\t,b:2 [::1]:3310 h:1:2", "<a\t,b|2><[|0><h|1>"},
        {"h: h:x h:-1 h:70000 h:010 h:0x1F h:+7 h:\t8 h:9z",
         "<h|0><h|0><h|65535><h|4464><h|10><h|0><h|7><h|8><h|9>"},
    };
    for (const auto& [text, expected] : cases) {
        ServerList servers;
        servers.Append(text);
        std::string list;
        for (const ServerEntry& each : servers) {
            list += std::string("<") + each.host + "|" + std::to_string(each.port) + ">";
        }
        EXPECT_EQ(list, expected);
    }
}

TEST(IniLint, FindsExactlyTheFaultOfEachFile) {
    // The lines below the section, of which the last has the fault; a part of the text and remedy of their
    // only finding (empty when there is none), and whether the plug-in misreads them.
    const std::tuple<std::string, const char*, bool> cases[] = {
        {"# comment\r\nServers = \"10.0.0.1 scan:65535 b:01\"\r\nencrypt=0\r\nrestartcount=010\r\n"
         "logfile=C:\\av.log\r\n[other]\r\nwords",
         "", true},
        {"encrypt=0\n[kestoav]\n", "second section", true},
        {"encrypt=1\nEncrypt=0\n", "given twice", true},
        {"colour=red", "one of the keys servers, encrypt,", true},
        {"just words", "is not a setting", false},
        {"encrypt=true", "read as 0, which is off", true},
        {"autostart=", "\"\" is not a number and is read as its default", true},
        {"startwait=0", "no time to listen", false},
        {"connectwait=-1", "read as 4294967295", true},
        {"startwait=0x1F", "read as 31 ", true},
        {"startwait=86400", "over an hour", false},
        {"servers=[::1]:3310", "host \"[\", port 0", true},
        {"servers=a:1  b:2", "\"\" is read as host \"\", port 3313", true},
        {"servers=x a,b", "\"a,b\" is read as host \"a,b\"", true},
        {"servers=127.0.0.1:3313 ; ours, too", "comment", true},
        {"servers=LocalHost:3313", "write 127.0.0.1", false},
        {"servers=" + std::string(1000, 'a'), "cut", true},
        {"logfile=av.log", "relative", false},
        {"logfile=C:\\av.log ; ours", "put the comment", true},
        {"[other]\r\nencrypt=0\r\n", "outside the section", false},
        {"logfile=C:\\%TEMP%\\av.log", "not replaced", false},
        {"logfile=C:\\" + std::string(300, 'a'), "cut", true},
    };
    for (const auto& [lines, expected, misread] : cases) {
        const auto findings = host::LintIni("[kestoav]\r\n" + lines);
        ASSERT_EQ(findings.size(), *expected == '\0' ? 0u : 1u) << lines;
        for (const host::IniFinding& each : findings) {
            EXPECT_THAT(each.text + " -> " + each.remedy, testing::HasSubstr(expected));
            EXPECT_EQ(each.misread, misread) << lines;
            EXPECT_EQ(each.line, 2 + std::count(lines.begin(), lines.end() - 1, '\n')) << lines;
        }
    }
    // In ours as well, it is not told.
    EXPECT_EQ(host::LintIni("[kestoav]\nencrypt=1\n[other]\nencrypt=0").size(), 0u);
    EXPECT_THAT(host::LintIni(std::string_view("[\0k\0", 4)).at(0).remedy, testing::HasSubstr("ANSI"));
    EXPECT_THAT(host::LintIni("").at(0).text, testing::HasSubstr("no section [kestoav]"));
    EXPECT_THAT(host::LintIni("\xEF\xBB\xBF[kestoav]\n").at(0).text, testing::HasSubstr("byte order mark"));
}

TEST(Signatures, AreReadOfThreeFieldsOnlyAndAgeByTheCalendar) {
    for (const char* odd :
         {"ClamAV 1.0.9", "a/b/c/d", "a/1/Fri Foo  6 09:12:31 2026", "a/1/Fri Feb 6 2026"}) {
        EXPECT_FALSE(ReadSignatures(odd)) << odd;
    }
    const auto late = ReadSignatures("a/1/Fri Nov 20 23:00:00 2026");
    EXPECT_EQ(AgeInDays(*late, late->written + std::chrono::hours(2)), 1);
}

TEST(LogLimit, WritesTenOfAKindAMinuteAndTellsWhatItLeftOut) {
    using namespace std::chrono;
    using Lines = std::vector<std::string>;
    LogLimit limit;
    const LogLimit::Time start{hours(1)};
    for (int i = 0; i < 25; ++i) {
        EXPECT_EQ(limit.Take("lost", "a", start + seconds(i)), Lines(i < 10, "a"));
    }
    EXPECT_EQ(limit.Take("other", "b", start), Lines{"b"});
    EXPECT_EQ(limit.Overdue(start + seconds(59)), Lines());
    EXPECT_EQ(limit.Take("lost", "c", start + seconds(60)),
              (Lines{"15 more such lines left out, the last: a", "c"}));
}

}  // namespace

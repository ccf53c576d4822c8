// kestoscan --check against a healthy installation and against broken ones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/clamd_words.h"
#include "host/check/checks.h"
#include "host/check/dynamic_ports.h"
#include "tests/support/plugin_host.h"
// It needs windows.h before it.
#include <sddl.h>

namespace {

using namespace kesto;
using namespace testing;
using namespace std::literals;

EngineScript Clamd(bool shifted, int days = 0) {
    return Realistic({.shifted = shifted, .version = VersionOfDaysAgo(days)});
}

// Answers scans of so many bytes with this and everything else as a clamd does.
EngineScript ScansSaying(std::string_view reply, size_t least = 0) {
    return [=, other = Clamd(true)](Wire& wire) {
        if (wire.ReceiveRequest().command == "zINSTREAM" && wire.ReceiveRequest().data.size() >= least) {
            Replying(reply)(wire);
        }
        other(wire);
    };
}

auto Descriptor(const std::string& text) {
    PSECURITY_DESCRIPTOR made = nullptr;
    ConvertStringSecurityDescriptorToSecurityDescriptorA(text.c_str(), 1, &made, nullptr);
    return std::unique_ptr<void, decltype(&LocalFree)>(made, LocalFree);
}

class CheckTest : public Test {
 protected:
    CheckTest() {
        installed.CreateLog();
        installed.StartStandIn(installed.engine);
        Configure();
    }
    void Configure(const std::string& more = "") { installed.WriteSettings(Servers(engine.Port()) + more); }
    std::string Check(const std::wstring& arguments = L"") const {
        return ProgramRun(installed.folder / "kestoscan.exe", L"--check" + arguments).Told();
    }

    void Tells(const std::vector<std::string>& lines) const {
        const std::string out = Check();
        for (const std::string& line : lines) {
            EXPECT_THAT(out, HasSubstr(line));
        }
    }

    ScriptedEngine engine{Clamd(true)};
    Installation installed;
};

TEST_F(CheckTest, NamesTheFaultOfEachInstallationAndNoOtherAndLeavesItAsItIs) {
    const auto log = installed.top / "new.log";
    const std::string failed = "failed   ", server = "server " + engine.Address() + " ";
    const EngineScript well = Clamd(true);
    // the beginning of the line that is told, the server behind it, and the settings
    const std::tuple<std::string, EngineScript, std::string> cases[] = {
        {"\n11 ok, ", well, "logfile=" + log.string()},
        {failed + "settings: kestoav.ini line 3: the key \"encrpyt\" is not", well, "encrpyt=0"},
        {failed + "log: C:\\missing\\av.log cannot be written: Path", well, "logfile=C:\\missing\\av.log"},
        {failed + server + "EICAR: found only with encrypt=1", well, "encrypt=0"},
        {failed + server + "EICAR: found only with encrypt=0", Clamd(false), ""},
        {failed + server + "EICAR: found clean -> check that", ScansSaying("stream: OK"), ""},
        {failed + server + "clean sample: found infected with X", ScansSaying("stream: X FOUND"), ""},
        {failed + server + "2 MB stream: the reply was \"INST", ScansSaying(kSizeLimitReply, 2 << 20), ""},
        {failed + server + "zPING: no answer: the connection ", [](Wire& wire) { wire.Close(true); }, ""},
        {failed + server + "zPING: no answer: no end came", ReplyingBytes("s", Then::kHolds), ""},
        {"warning  " + server + "zVERSION: \"Engine 1/27000/", Clamd(true, 8), ""},
        {"ok       " + server + "zVERSION: ", Clamd(true, 7), ""},
        {"warning  " + server + "zVERSION: \"E\": the age of", Realistic({.shifted = true, .version = "E"}),
         ""},
    };
    for (const auto& [line, script, settings] : cases) {
        engine.Play(script);
        Configure(settings);
        const bool fails = line.starts_with(failed), warns = line.starts_with("warning");
        EXPECT_THAT(Check(), AllOf(StartsWith(fails ? "2: " : "0: "), HasSubstr(line),
                                   HasSubstr(warns ? " 1 warning, " : " 0 warnings, "),
                                   HasSubstr(fails ? " 1 failed\n" : " 0 failed\n")));
    }
    engine.Play(ScansSaying("stream: disk"));
    EXPECT_THAT(
        Check(L" --json"),
        AllOf(StartsWith("2: "),
              HasSubstr(R"({"check": ")" + server +
                        R"(clean sample", "state": "failed", "text": "the reply was \"stream: disk\")"),
              HasSubstr(R"({"state": "failed", "ok": 9, "warnings": 0, "failed": 2}})")));  // and EICAR
    EXPECT_THAT(Check(L" --library C:\\windows\\system32\\version.dll"), HasSubstr("failed   library: "));
    EXPECT_FALSE(std::filesystem::exists(log));
    EXPECT_EQ(installed.Starts(installed.engine), 1u);
}

TEST_F(CheckTest, AsksEachServerOfTheBridge) {
    ScriptedEngine good(Clamd(false)), blind(ScansSaying("stream: OK"));
    const std::string dead = "127.0.0.1:" + std::to_string(FreePort());
    installed.EndPrograms();
    const uint16_t port = installed.PlaceBridge(good.Address() + " " + blind.Address() + " " + dead);
    const ProgramRun bridge(installed.engine);
    ASSERT_TRUE(WaitFor([&] { return Ask(port, WithNul("zPING")) == WithNul("PONG"); }));
    installed.WriteSettings(Servers(port));
    Tells({"ok       upstream " + good.Address() + " 2 MB stream: found clean",
           "ok       engine worker: kestobridge.exe runs",
           "failed   upstream " + blind.Address() + " EICAR: found clean",
           "failed   upstream " + dead + " connection: not made"});

    for (int ended = 0; ended < 2; ++ended) {
        installed.EndPrograms(installed.worker);
        EXPECT_EQ(Ask(port, WithNul("zPING")), WithNul("PONG"));
    }
    Tells({"warning  engine worker: kestobridge.exe has been started 3 times, "});
    std::filesystem::rename(installed.worker, installed.top / "old");
    Tells({"kestobridge.exe is missing: every scan ends with error 1003"});
    installed.PlaceStandIn(installed.worker);
    Tells({"kestobridge.exe is damaged"});
    std::string newer = ReadFile(installed.top / "old");
    newer.replace(newer.find("P\0r\0o\0d\0u\0c\0t\0V\0e\0r\0s\0i\0o\0n"s) + 30, 1, "9");
    WriteFile(installed.worker, newer);
    Tells({"warning  engine worker: kestobridge.exe is of version 9"});

    const auto log = installed.engine_folder / "bridge.log";
    WriteFile(installed.engine_folder / "bridge.ini",
              std::string(2000, ';') + "\r\n[bridge]\r\nidle=5\r\ndecrypt=0\r\nwait=121\r\nupstreams=" +
                  good.Address() + "\r\nlisten=0.0.0.0:" + std::to_string(port));
    SetFileAttributesW(log.c_str(), FILE_ATTRIBUTE_READONLY);
    Tells({"failed   bridge settings: decrypt differs from encrypt=1",
           "warning  bridge settings: listens on 0.0.0.0:", "warning  bridge settings: idle=5 gives up",
           "warning  bridge settings: wait=121 is longer", "bridge.log cannot be written: it is read-only"});
    SetFileAttributesW(log.c_str(), FILE_ATTRIBUTE_NORMAL);
    blind.Kill();
    // The files agree again, but the bridge still runs with what they said before.
    installed.WriteSettings(Servers(port) + "encrypt=0");
    EXPECT_THAT(Check(), AllOf(Not(HasSubstr("decrypt differs")),
                               HasSubstr("EICAR: found only with encrypt=1: plug-in and engine do not "
                                         "agree, and every virus passes -> run kestoscan --restart")));
}

TEST_F(CheckTest, TellsWhatIsWrongWithTheEngine) {
    SetFileSecurityW(installed.folder.c_str(), DACL_SECURITY_INFORMATION, Descriptor("D:(A;;FA;;;WD)").get());
    Tells({"failed   rights: Everyone may write to "});
    installed.EndPrograms();
    Configure("autostart=0");
    Tells({"warning  engine process: kestoav.exe does not run: with autostart=0 the first scan starts it"});
    // An old reason is none.
    WriteFile(installed.engine_folder / "bridge.log", "cannot start - old\r\nstopped\r\n");
    WriteFile(installed.engine_folder / "bridge.ini", "[bridge]\r\nlisten=" + engine.Address());
    const std::string taken = "before it does; its port " + engine.Address() + " is taken by ";
    Tells({"failed   engine process: kestoav.exe does not run: no scan connects " + taken});
    WriteFile(installed.engine_folder / "bridge.log", "old\r\ncannot start - new\r\n");
    Tells({"; the last line of its log is \"cannot start - new\""});
    installed.StartStandIn(installed.elsewhere);
    Tells({"warning  engine process: kestoav.exe runs from elsewhere"});
    installed.StartStandIn(installed.engine);
    Tells({"warning  engine process: 2 processes named kestoav.exe run"});
    installed.EndPrograms();
    WriteFile(installed.engine, "no program");
    Tells({"kestoav.exe is not a program, or is damaged: no engine can be started"});
    WriteFile(installed.updater, "");
    Tells({"kestoavu.exe is not a program, or is damaged: no update can be started"});
    DeleteFileW(installed.engine.c_str());
    Tells({"kestoav.exe is missing: no engine can be started"});
    const std::u16string text = u"\uFEFF[kestoav]\r\n\r\nencrypt=yes\r\n";
    const std::string wide(reinterpret_cast<const char*>(text.data()), 2 * text.size());
    WriteFile(installed.folder / "kestoav.ini", wide);
    Tells({"kestoav.ini line 3: encrypt=\"yes\" is not a number"});
    WriteFile(installed.folder / "kestoav.ini", wide.substr(2));  // which the plug-in cannot read
    Tells({"-> save it as ANSI text"});
}

TEST_F(CheckTest, WorksByTheShortNameAndWarnsOfBlanks) {
    const Installation odd(L"\u0436 mail");
    odd.PlaceStandIn(odd.engine);
    odd.WriteSettings("servers=" + engine.Address());
    const auto check = [&] { return ProgramRun(odd.folder / "kestoscan.exe", L"--check").Told(); };
    EXPECT_THAT(check(), AllOf(StartsWith("0: "), HasSubstr("warning  folder: its path holds a blank")));
    WriteFile(odd.top / L"\u0436.exe", "not ours");
    EXPECT_THAT(check(), HasSubstr(".exe would be started in place of the engine"));
}

TEST(EngineProcess, IsToldAsFarAsThisAccountMaySee) {
    const host::InstalledPlugin plugin;
    const InstalledBridge bridge{{}, true, true, {}, ""};
    const ProgramProcess ours{7, true, L""}, hidden{8, false, L""};
    const PortOwner chat{9, "chat.exe"};
    const std::tuple<std::vector<ProgramProcess>, std::optional<PortOwner>, const char*> cases[] = {
        {{ours}, PortOwner{7, "a"}, "ok       engine process: kestoav.exe runs as process 7 under VM\\mail"},
        {{ours}, chat, "failed   engine process: kestoav.exe runs as process 7 under VM\\mail, but its port"},
        {{hidden}, {}, "warning  engine process: kestoav.exe runs as process 8 under another account -> "},
        {{hidden}, chat, "failed   engine process: kestoav.exe runs as process 8 under another account, but"},
    };
    for (const auto& [engines, owner, line] : cases) {
        Findings findings;
        TellEngineProcess(findings, plugin, bridge, engines, owner, "VM\\mail");
        EXPECT_THAT(FindingLine(findings.All().at(0)), StartsWith(line));
    }
}

TEST(Rights, UsersMayWriteByAnyRightThatLeadsThere) {
    const std::pair<const char*, std::vector<const char*>> cases[] = {
        {"",
         {"D:", "O:BAD:(A;;FA;;;BA)(A;;FRFX;;;AU)(A;;FRFX;;;WD)(A;;FRFX;;;BU)", "D:(A;OICIIO;GA;;;BU)",
          "D:(D;;GA;;;WD)(A;;GA;;;BU)"}},
        {"Users",
         {"D:(A;;0x1301bf;;;BU)", "D:(A;;0x2;;;BU)", "D:(A;;0x4;;;BU)", "D:(A;;0x40;;;BU)", "D:(A;;SD;;;BU)",
          "D:(A;;WD;;;BU)", "D:(A;;WO;;;BU)", "D:(A;;GW;;;BU)", "D:(A;;GA;;;BU)",
          "D:(A;;GA;;;BU)(D;;GA;;;WD)", "D:(D;;FR;;;BU)(A;;GA;;;BU)", "D:(D;;GA;;;BG)(A;;GA;;;BU)",
          "O:BUD:"}},
        {"Everyone", {"O:BA", "D:(D;;GA;;;AU)(A;;GA;;;WD)"}},
        {"Authenticated Users", {"D:(A;;GA;;;AU)"}},
        {"Guests", {"D:(A;;GA;;;BG)"}},
    };
    for (const auto& [who, descriptors] : cases) {
        for (const char* each : descriptors) {
            EXPECT_EQ(WhoMayWrite(Descriptor(each).get()), who) << each;
        }
    }
}

TEST(DynamicPorts, AreTheLastTwoNumbersInAnyLanguage) {
    const auto range = PortRangeIn("Protokoll tcp4\r\n---\r\nStartport : 1025\r\nZahl : 64511\r\n");
    EXPECT_EQ(range->first * 100'000ull + range->count, 102'564'511u);
    EXPECT_FALSE(PortRangeIn("") || PortRangeIn("Port 3") || PortRangeIn("123456 : 7"));
}

}  // namespace

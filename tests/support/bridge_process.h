// A real bridge as a process, with its guard.
#pragma once

#include <gtest/gtest.h>

#include <optional>

#include "tests/support/plugin_host.h"

namespace kesto {

inline const std::string kFound = WithNul("stream: Test.Virus FOUND");

// A real guard and bridge beside their bridge.ini and in no plug-in's folder. The guard runs under another
// name, so that no plug-in of a test beside this one takes it for its engine; for the road through the
// plug-in see Installation::PlaceBridge.
struct BridgeProcess {
    // On a free port with these upstreams and further ini lines; waits until it serves.
    explicit BridgeProcess(const std::string& upstreams, const std::string& more_lines = "")
        : port(home.PlaceBridge(upstreams, more_lines, kProgram)) {
        run.emplace(home.engine_folder / kProgram);
        EXPECT_TRUE(WaitFor([this] { return !Command("zSTATS").empty(); })) << Log();
    }
    void WriteIni(const std::string& text) const { WriteFile(home.engine_folder / "bridge.ini", text); }
    std::string Log(const char* name = "bridge.log") const { return ReadText(home.engine_folder / name); }
    // Whether its log holds the text, or will.
    bool Tells(const std::string& text, const char* log = "bridge.log",
               std::chrono::milliseconds limit = kTestLimit) const {
        return WaitFor([&] { return Log(log).find(text) != std::string::npos; }, limit);
    }
    // The reply to a scan of `data`, shifted as the plug-in does, with its NUL; empty for none.
    std::string Scan(const std::string& data) const { return Ask(port, ScanRequestOf(data)); }
    std::string Command(const char* command) const { return Ask(port, WithNul(command)); }
    // Has another bridge take the place of this one.
    RunResult Restart() const { return ProgramRun(home.folder / "kestoscan.exe", L"--restart").Finish(); }

    static constexpr char kProgram[] = "bridge_alone.exe";
    Installation home{L"bridge"};
    uint16_t port;
    std::optional<ProgramRun> run;
};

}  // namespace kesto

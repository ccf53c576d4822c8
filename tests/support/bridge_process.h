// A real kestoav.exe that the test itself runs, beside its bridge.ini and in no plug-in's folder. It runs
// under another name, so that no plug-in of a test beside this one takes it for its engine; for the road
// through the plug-in see Installation::PlaceBridge.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/support/installation.h"
#include "tests/support/scripted_engine.h"

namespace kesto {

struct BridgeProcess {
    // Starts it on a free port with these upstreams and further ini lines, and waits until it listens.
    explicit BridgeProcess(const std::string& upstreams, const std::string& more_lines = "")
        : port(home.PlaceBridge(upstreams, more_lines, kProgram)) {
        run.emplace(home.engine_folder / kProgram);
        EXPECT_TRUE(WaitFor([this] { return !run->Running() || !Command("zSTATS").empty(); }) &&
                    run->Running())
            << run->Err();
    }
    // Starts it with exactly this ini text and does not wait: for settings that it refuses.
    struct Ini {
        std::string text;
    };
    explicit BridgeProcess(const Ini& ini) : port(home.PlaceBridge("", "", kProgram)) {
        WriteIni(ini.text);
        run.emplace(home.engine_folder / kProgram);
    }

    void WriteIni(const std::string& text) const { WriteFile(home.engine_folder / "bridge.ini", text); }
    // bridge.log, with bare line feeds.
    std::string Log() const { return ReadText(home.engine_folder / "bridge.log"); }
    // The reply to a scan of `data`, shifted as the plug-in does, with its NUL; empty for none.
    std::string Scan(const std::string& data) const { return Ask(port, ScanRequestOf(data)); }
    std::string Command(const char* command) const { return Ask(port, WithNul(command)); }

    static constexpr char kProgram[] = "bridge_alone.exe";
    Installation home{L"bridge"};
    uint16_t port;
    std::optional<ProgramRun> run;  // console events, exit status, standard error
};

}  // namespace kesto

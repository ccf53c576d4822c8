// A real kestoav.exe that the test itself runs, beside its bridge.ini and in no plug-in's folder. It runs
// under another name, so that no plug-in of a test beside this one takes it for its engine; for the road
// through the plug-in see Installation::PlaceBridge.
#pragma once

#include <memory>
#include <string>

#include "tests/support/installation.h"
#include "tests/support/scripted_engine.h"

namespace kesto {

class BridgeProcess {
 public:
    // Starts it on a free port with these upstreams and further ini lines, and waits until it listens.
    explicit BridgeProcess(const std::string& upstreams, const std::string& more_lines = "");
    // Starts it with exactly this ini text and does not wait: for settings that it refuses.
    static BridgeProcess WithIni(const std::string& ini);

    uint16_t Port() const { return port_; }
    const std::filesystem::path& Folder() const { return home_->engine_folder; }
    std::string Log() const;  // with bare line feeds
    void WriteIni(const std::string& ini) const { WriteFile(Folder() / "bridge.ini", ini); }
    const ProgramRun& Run() const { return *run_; }  // console events, exit status, standard error
    void Restart();                                  // ends it hard and starts it anew
    bool WaitUntilListening() const;

    // The reply to a scan of `data`, shifted as the plug-in does, with its NUL; empty for none.
    std::string Scan(const std::string& data) const { return Ask(port_, ScanRequestOf(data)); }
    std::string Command(const char* command) const { return Ask(port_, WithNul(command)); }

 private:
    BridgeProcess() = default;

    std::unique_ptr<Installation> home_ = std::make_unique<Installation>(L"bridge");
    uint16_t port_ = 0;
    std::unique_ptr<ProgramRun> run_;
};

}  // namespace kesto

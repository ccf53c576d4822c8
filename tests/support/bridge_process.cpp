#include "tests/support/bridge_process.h"

#include <stdexcept>

namespace kesto {

BridgeProcess::BridgeProcess(const std::string& upstreams, const std::string& more_lines)
    : port_(home_->PlaceBridge(upstreams, more_lines)) {
    WriteFile(Folder() / "bridge.log", "");
    Restart();
    if (!WaitUntilListening()) {
        throw std::runtime_error("the bridge does not listen: " + run_->Err());
    }
}

BridgeProcess BridgeProcess::WithIni(const std::string& ini) {
    BridgeProcess bridge;
    bridge.home_->PlaceBridge("");
    bridge.WriteIni(ini);
    WriteFile(bridge.Folder() / "bridge.log", "");
    bridge.Restart();
    return bridge;
}

void BridgeProcess::Restart() {
    const std::filesystem::path program = Folder() / "bridge_alone.exe";
    CopyFileW(home_->engine.c_str(), program.c_str(), TRUE);
    run_.reset();
    run_ = std::make_unique<ProgramRun>(program);
}

std::string BridgeProcess::Log() const {
    std::string log = ReadFile(Folder() / "bridge.log");
    std::erase(log, '\r');
    return log;
}

bool BridgeProcess::WaitUntilListening() const {
    return WaitFor([this] { return !run_->Running() || !Command("zSTATS").empty(); }) && run_->Running();
}

}  // namespace kesto

// kestoavu.exe: the plug-in starts it when the mail server asks for an update, and reports its exit code.
#include "common/bridge_ini.h"
#include "common/bridge_log.h"
#include "common/program_folder.h"
#include "updater/command.h"
#include "updater/signatures.h"

namespace kesto::updater {
namespace {

uint32_t Update() {
    const std::wstring folder = ProgramFolder();
    const BridgeIni ini = ReadBridgeIni(folder);
    const std::wstring log = UpdateLogPath(ini.settings, folder);
    UseLog(log);
    for (const auto* problems : {&ini.problems, &ini.updater_problems}) {
        if (!problems->empty()) {
            LogBridge("settings", problems->front());
            return 1;
        }
    }
    return ini.settings.command.empty() ? LookAtSignatures(ini.settings)
                                        : RunCommand(ini.settings.command, folder, ini.settings.timeout, log);
}

}  // namespace
}  // namespace kesto::updater

int main() {
    return static_cast<int>(kesto::updater::Update());
}

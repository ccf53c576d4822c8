#include <windows.h>

#include "common/text.h"
#include "host/check/checks.h"

namespace kesto::host {
namespace {

constexpr size_t kLongestProgramPath = 259;

}  // namespace

void CheckUpdater(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge) {
    const std::string name = Utf8FromWide(installed.updater);
    if (installed.updater.size() > kLongestProgramPath) {
        findings.Warning("updater", name + " is too long a path for the plug-in to start the program",
                         "install into a folder of at most 228 characters if there is to be an updater");
        return;
    }
    for (const std::string& problem : bridge.ini.updater_problems) {
        findings.Failed("updater", problem, "correct that line: no signatures are updated");
    }
    const Fault fault = ProgramFault(installed.updater);
    if (fault.code == ERROR_FILE_NOT_FOUND) {
        findings.Ok("updater", name + " is not there, and not needed where clamd has its own");
    } else if (fault) {
        findings.Failed("updater", name + " " + fault.text + ": no update can be started",
                        "put a program there, or remove it");
    } else {
        findings.Ok("updater", name + " is there");
    }
}

}  // namespace kesto::host

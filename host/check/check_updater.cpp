#include <windows.h>

#include "common/text.h"
#include "host/check/checks.h"

namespace kesto::host {

void CheckUpdater(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge) {
    const std::string name = Utf8FromWide(installed.updater);
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

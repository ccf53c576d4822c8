#include "common/text.h"
#include "host/check/checks.h"

namespace kesto::host {

void CheckFolder(Findings& findings, const InstalledPlugin& installed) {
    if (installed.folder_fault) {
        findings.Failed("folder", installed.folder_fault.text,
                        "install into a shorter path, with plain letters");
    } else if (!HoldsPlugin(installed)) {
        findings.Failed("folder", Utf8FromWide(installed.folder) + " holds no part of the plug-in",
                        "name the folder in which kestoav.ini and plugins lie");
    }
}

}  // namespace kesto::host

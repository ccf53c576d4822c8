// kestoav.ini and the plug-in's log.
#pragma once

#include "host/check/check_report.h"
#include "host/common/installed_plugin.h"

namespace kesto::host {

Findings CheckSettings(const InstalledPlugin& installed);

Findings CheckLog(const InstalledPlugin& installed);

// Whether this account can append to a log file at this path. Leaves no file behind.
void CheckLogFile(Findings& findings, const char* check, const std::wstring& path);

}  // namespace kesto::host

// kestoav.ini and the plug-in's log.
#pragma once

#include "host/check/check_report.h"
#include "host/common/installed_plugin.h"

namespace kesto::host {

Findings CheckSettings(const InstalledPlugin& installed);

Findings CheckLog(const InstalledPlugin& installed);

// Why a log file at this path cannot be appended to, by this account; empty when it can. What was not there
// is not there afterwards either.
std::string LogFault(const std::wstring& path);

}  // namespace kesto::host

// Diagnoses an installation and tells what to do.
#pragma once

#include <string>

#include "host/common/installed_plugin.h"

namespace kesto::host {

// Looks at the plug-in's library and folder, its settings, logs, engine and engine servers without changing
// any of them, and returns the exit status. Ends within 30 seconds, whatever the servers do.
int CheckInstallation(const std::wstring& library, const std::wstring& folder, bool json);

// What in the engine's files and settings would make it end at once, in lines as the check prints them:
// UTF-8, each with its line feed. Empty when nothing is known.
std::string WhyEngineEnds(const InstalledPlugin& installed);

// Why no engine can be used, in such lines: it ends at once, or this account may not see the one that runs.
std::string WhyUnusable(const InstalledPlugin& installed);

}  // namespace kesto::host

// Diagnoses an installation and says what to do.
#pragma once

#include <string>

namespace kesto {

// Looks at the plug-in's library and folder, its settings, log, engine and engine servers, changes none of
// them, and returns the exit status.
int CheckInstallation(const std::wstring& library, const std::wstring& folder, bool json);

}  // namespace kesto

// A signature update in the mail server's way.
#pragma once

#include "host/common/installed_plugin.h"
#include "host/common/plugin_library.h"

namespace kesto::host {

// Prints the result and returns the exit status. Refuses to run a second updater while one runs.
// Ctrl-C ends us, but not the updater: half an update could leave the engine without signatures.
int Update(const PluginLibrary& plugin, const InstalledPlugin& installed);

}  // namespace kesto::host

// Scans the listed files through the plug-in and reports each.
#pragma once

#include <vector>

#include "host/common/plugin_library.h"
#include "host/file_list.h"
#include "host/report.h"

namespace kesto {

// Scans with up to `jobs` threads and returns the exit status. A file that cannot be read does not stop
// the rest; an error that the plug-in calls fatal does, since every further scan would wait for the
// engine in vain.
int ScanFiles(const PluginLibrary& plugin, const std::vector<ListedFile>& files, unsigned jobs,
              const ReportOptions& options);

}  // namespace kesto

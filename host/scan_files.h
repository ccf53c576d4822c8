// Scans the listed files through the plug-in and reports each.
#pragma once

#include <string>
#include <vector>

#include "host/common/installed_plugin.h"
#include "host/common/plugin_library.h"
#include "host/file_list.h"
#include "host/report.h"

namespace kesto::host {

struct ScanOptions {
    unsigned jobs = 1;        // files scanned at a time
    unsigned timeout = 300;   // seconds for a file
    std::wstring quarantine;  // empty: infected files stay where they are
    bool move = false;        // into the quarantine; otherwise copy
    ReportOptions report;
};

struct ScanOutcome {
    int status;
    bool threads_left;  // calls were given up that have not returned: the plug-in must stay loaded
};

// A file that cannot be read does not stop the others. An error that the plug-in calls fatal does, since
// every further scan would wait for the engine in vain. So does an engine that ends whenever it is started.
ScanOutcome ScanFiles(const PluginLibrary& plugin, const InstalledPlugin& installed, FileListing listing,
                      const ScanOptions& options);

}  // namespace kesto::host

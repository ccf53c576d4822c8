// Scans the listed files through the plug-in and reports each.
#pragma once

#include <memory>
#include <string>

#include "host/common/installed_plugin.h"
#include "host/common/plugin_library.h"
#include "host/file_list.h"
#include "host/report.h"

namespace kesto::host {

struct ScanOptions {
    unsigned jobs = 1;        // files scanned at a time
    unsigned timeout = 300;   // seconds for a file
    std::wstring quarantine;  // absolute; empty: infected files stay where they are
    bool move = false;        // into the quarantine; otherwise copy
};

// Returns the exit status. A file that cannot be read does not stop the others. An error that the plug-in
// calls fatal does, since every further scan would wait for the engine in vain. So does an engine that ends
// whenever it is started. A call that was given up and has not returned keeps the plug-in loaded.
int ScanFiles(const std::shared_ptr<const PluginLibrary>& plugin, const InstalledPlugin& installed,
              FileListing listing, const ScanOptions& options, const ReportOptions& report);

}  // namespace kesto::host

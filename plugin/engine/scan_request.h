// One scan for the host: finding an engine server, the scan, and the verdict in the host's records.
#pragma once

#include <cstdint>

#include "base/host_records.h"

namespace kesto {

// Returns 1 for a scanned or empty file, and 0 on failure with `error_code` set to 1001, 1002 or 1003.
// `result` is written only when a virus is found. When a record that is needed is null, the scan fails with
// 1002; when `error_code` is null, the code is not written.
uint32_t ScanFile(const ScanFileInput* input, ScanFileResult* result, uint32_t* error_code);

}  // namespace kesto

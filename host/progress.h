// How far a scan has come, and the line that tells it.
#pragma once

#include <cstdint>
#include <string>

namespace kesto::host {

// The numbers of one run.
struct ScanTotals {
    uint64_t files = 0;  // listed
    uint64_t done = 0;   // of them
    uint64_t scanned = 0;
    uint64_t infected = 0;
    uint64_t errors = 0;
    uint64_t left_out = 0;      // by the user's patterns
    uint64_t bytes = 0;         // scanned
    uint64_t bytes_listed = 0;  // of files that did not fail; one may have changed since
    double seconds = 0;         // since the start
};

// "12/40 files, 3.1 MB, 1.5 MB/s, 0:07 left"; the time left is given only when there is a rate.
std::string ProgressLine(const ScanTotals& totals);

// "512 B", "3.1 MB": powers of 1000.
std::string ByteText(uint64_t bytes);

}  // namespace kesto::host

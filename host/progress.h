// The line that tells how far a scan has come.
#pragma once

#include <cstdint>
#include <string>

namespace kesto::host {

struct Progress {
    uint64_t files_done = 0;
    uint64_t files_total = 0;
    uint64_t bytes_done = 0;
    uint64_t bytes_total = 0;  // as listed; a file may have changed since
    double seconds = 0;        // since the start
};

// "12/40 files, 3.1 MB, 1.5 MB/s, 0:07 left"; the time left is given only when there is a rate.
std::string ProgressLine(const Progress& progress);

// "512 B", "3.1 MB": powers of 1000.
std::string ByteText(uint64_t bytes);

}  // namespace kesto::host

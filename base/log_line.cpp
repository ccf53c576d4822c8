#include "base/log_line.h"

#include <ctime>

namespace kesto {

void WriteLogLine(FILE* log, const char* message) {
    // The 32-bit functions of these names fail from 2038 on.
    const __time64_t now = _time64(nullptr);
    tm local = {};
    if (const tm* found = _localtime64(&now)) {  // the C runtime keeps one result for each thread
        local = *found;
    }
    fprintf(log, "%d/%d/%d %d:%02d:%02d: %s\n", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
            local.tm_hour, local.tm_min, local.tm_sec, message);
    fflush(log);
}

}  // namespace kesto

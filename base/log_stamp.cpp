#include "base/log_stamp.h"

#include <cstdio>
#include <ctime>

namespace kesto {

LogStamp LogStampNow() {
    // The 32-bit functions of these names fail from 2038 on.
    const __time64_t now = _time64(nullptr);
    tm local = {};
    if (const tm* found = _localtime64(&now)) {  // the C runtime keeps one result for each thread
        local = *found;
    }
    LogStamp stamp;
    snprintf(stamp.text, sizeof stamp.text, "%d/%d/%d %d:%02d:%02d: ", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return stamp;
}

}  // namespace kesto

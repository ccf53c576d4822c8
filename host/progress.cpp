#include "host/progress.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kesto::host {

std::string ByteText(uint64_t bytes) {
    static constexpr const char* kUnits[] = {"B", "kB", "MB", "GB", "TB"};
    auto amount = static_cast<double>(bytes);
    size_t unit = 0;
    while (amount >= 999.95 && unit + 1 < std::size(kUnits)) {
        amount /= 1000;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", amount, kUnits[unit]);
    return text;
}

std::string ProgressLine(const ScanTotals& totals) {
    std::string line = std::to_string(totals.done) + "/" + std::to_string(totals.files) + " files, " +
                       ByteText(totals.bytes);
    if (totals.seconds <= 0 || totals.bytes == 0) {
        return line;
    }
    const double rate = static_cast<double>(totals.bytes) / totals.seconds;
    const uint64_t bytes_left = std::max(totals.bytes_listed, totals.bytes) - totals.bytes;
    const auto left = static_cast<uint64_t>(std::llround(static_cast<double>(bytes_left) / rate));
    const std::string hours = left >= 3600 ? std::to_string(left / 3600) + ":" : "";
    char time[16];
    std::snprintf(time, sizeof time, hours.empty() ? "%u:%02u" : "%02u:%02u",
                  static_cast<unsigned>(left / 60 % 60), static_cast<unsigned>(left % 60));
    return line + ", " + ByteText(static_cast<uint64_t>(rate)) + "/s, " + hours + time + " left";
}

}  // namespace kesto::host

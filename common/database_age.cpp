#include "common/database_age.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

namespace kesto {

std::optional<int> DatabaseAgeDays(std::string_view version_reply, std::chrono::sys_days now) {
    static constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (std::count(version_reply.begin(), version_reply.end(), '/') != 2) {
        return std::nullopt;
    }
    const std::string date(version_reply.substr(version_reply.rfind('/') + 1));
    char month_name[4] = "";
    int day = 0;
    int year = 0;
    if (std::sscanf(date.c_str(), "%*3s %3s %2d %*2d:%*2d:%*2d %4d", month_name, &day, &year) != 3) {
        return std::nullopt;
    }
    const auto month = std::find(kMonths.begin(), kMonths.end(), month_name);
    const std::chrono::year_month_day written(
        std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month - kMonths.begin()) + 1),
        std::chrono::day(static_cast<unsigned>(day)));
    if (!written.ok()) {
        return std::nullopt;
    }
    return static_cast<int>((now - std::chrono::sys_days(written)).count());
}

}  // namespace kesto

#include "common/signatures.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

namespace kesto {

std::optional<Signatures> ReadSignatures(std::string_view version_reply) {
    static constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (std::count(version_reply.begin(), version_reply.end(), '/') != 2) {
        return std::nullopt;
    }
    const std::string behind_engine(version_reply.substr(version_reply.find('/')));
    unsigned version = 0;
    char month_name[4] = "";
    unsigned day = 0, hour = 0, minute = 0, second = 0;
    int year = 0;
    if (std::sscanf(behind_engine.c_str(), "/%9u/%*3s %3s %2u %2u:%2u:%2u %4d", &version, month_name, &day,
                    &hour, &minute, &second, &year) != 7) {
        return std::nullopt;
    }
    using namespace std::chrono;
    const auto month_at = std::find(kMonths.begin(), kMonths.end(), month_name) - kMonths.begin();
    const year_month_day date(std::chrono::year(year), month(static_cast<unsigned>(month_at) + 1),
                              std::chrono::day(day));
    if (!date.ok()) {
        return std::nullopt;
    }
    return Signatures{version, sys_days(date) + hours(hour) + minutes(minute) + seconds(second)};
}

int AgeInDays(const Signatures& signatures, std::chrono::system_clock::time_point now) {
    using std::chrono::days, std::chrono::floor;
    return static_cast<int>((floor<days>(now) - floor<days>(signatures.written)).count());
}

}  // namespace kesto

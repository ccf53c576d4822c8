// The table of results, and the same as JSON.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace kesto {

struct Row {
    std::string name;
    std::string unit;
    double value;
    // What it is measured against, in the same unit; empty for a figure that stands alone.
    std::string beside_name = {};
    double beside = 0;
    std::optional<double> ratio = {};
    // The ratio should be at least this.
    std::optional<double> least_ratio = {};
    // The value should be at most this.
    std::optional<double> most = {};
    // Said below the table where the aim is missed.
    std::string explanation = {};

    bool Missed() const { return (least_ratio && *ratio < *least_ratio) || (most && value > *most); }
};

using Rows = std::vector<Row>;

// Like printf.
[[gnu::format(__MINGW_PRINTF_FORMAT, 1, 2)]] std::string Formatted(const char* format, ...);

void WriteTable(std::ostream& out, const Rows& rows);
void WriteJson(std::ostream& out, const Rows& rows);

}  // namespace kesto

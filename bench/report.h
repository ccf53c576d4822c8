// The table of results.
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
    std::optional<double> least_ratio = {};
    std::optional<double> most = {};  // that the value should be
};

using Rows = std::vector<Row>;

// As Markdown, with columns that are also aligned on a terminal.
void WriteTable(std::ostream& out, const Rows& rows);

}  // namespace kesto

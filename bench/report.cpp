#include "bench/report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ostream>

namespace kesto {
namespace {

std::string Number(double value) {
    char digits[40];
    snprintf(digits, sizeof digits, value < 10 ? "%.2f" : value < 100 ? "%.1f" : "%.0f", value);
    std::string text = digits;
    if (text.find('.') != std::string::npos) {
        text.erase(text.find_last_not_of('0') + 1);
        text.erase(text.find_last_not_of('.') + 1);
    }
    return text;
}

std::string AimOf(const Row& row) {
    if (row.least_ratio) {
        return "at least " + Number(*row.least_ratio) + (*row.ratio < *row.least_ratio ? ", missed" : "");
    }
    return row.most ? "at most " + Number(*row.most) + (row.value > *row.most ? ", missed" : "") : "";
}

}  // namespace

void WriteTable(std::ostream& out, const Rows& rows) {
    std::vector<std::array<std::string, 5>> lines = {{"measured", "figure", "beside", "ratio", "aim"}, {}};
    for (const Row& row : rows) {
        const std::string beside =
            row.beside_name.empty() ? "" : Number(row.beside) + " " + row.unit + " " + row.beside_name;
        lines.push_back({row.name, Number(row.value) + " " + row.unit, beside,
                         row.ratio ? Number(*row.ratio) : "", AimOf(row)});
    }
    size_t widths[5] = {};
    for (const auto& line : lines) {
        for (size_t i = 0; i < line.size(); ++i) {
            widths[i] = std::max(widths[i], line[i].size());
        }
    }
    for (size_t i = 0; i < std::size(widths); ++i) {
        lines[1][i] = std::string(widths[i] - 1, '-') + (i == 1 || i == 3 ? ':' : '-');
    }
    for (const auto& line : lines) {
        for (size_t i = 0; i < line.size(); ++i) {
            out << "| " << line[i] << std::string(widths[i] - line[i].size() + 1, ' ');
        }
        out << "|\n";
    }
}

}  // namespace kesto

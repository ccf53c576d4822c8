#include "bench/report.h"

#include <cstdarg>
#include <cstdio>
#include <ostream>

#include "host/common/json_line.h"

namespace kesto {
using namespace host;

std::string Formatted(const char* format, ...) {
    char text[500];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    return text;
}

namespace {

std::string Number(double value) {
    return Formatted(value < 10 ? "%.2f" : value < 100 ? "%.1f" : "%.0f", value);
}

void WriteLine(std::ostream& out, const std::string& name, const std::string& figure,
               const std::string& beside, const std::string& ratio, const std::string& aim) {
    std::string line = Formatted("%-44s %13s  %-32s %6s  %s", name.c_str(), figure.c_str(), beside.c_str(),
                                 ratio.c_str(), aim.c_str());
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
}

}  // namespace

void WriteTable(std::ostream& out, const Rows& rows) {
    WriteLine(out, "measured", "figure", "beside", "ratio", "aim");
    for (const Row& row : rows) {
        std::string aim;
        if (row.least_ratio || row.most) {
            aim = (row.least_ratio ? ">= " + Number(*row.least_ratio) : "<= " + Number(*row.most)) +
                  (row.Missed() ? " missed" : " met");
        }
        WriteLine(out, row.name, Number(row.value) + " " + row.unit,
                  row.beside_name.empty() ? "" : Number(row.beside) + " " + row.unit + " " + row.beside_name,
                  row.ratio ? Number(*row.ratio) : "", aim);
    }
    for (const Row& row : rows) {
        if (row.Missed()) {
            out << "\nNote on " << row.name << ": " << row.explanation << ".\n";
        }
    }
}

void WriteJson(std::ostream& out, const Rows& rows) {
    const auto or_null = [](const std::optional<double>& value) { return value ? Json(*value) : Json(); };
    const char* separator = "[\n";
    for (const Row& row : rows) {
        const Json object = {{"name", row.name},
                             {"unit", row.unit},
                             {"value", row.value},
                             {"beside", row.beside_name},
                             {"beside_value", row.beside_name.empty() ? Json() : Json(row.beside)},
                             {"ratio", or_null(row.ratio)},
                             {"least_ratio", or_null(row.least_ratio)},
                             {"most", or_null(row.most)},
                             {"missed", row.Missed()},
                             {"explanation", row.Missed() ? row.explanation : ""}};
        out << separator << JsonLine(object);
        separator = ",\n";
    }
    out << "\n]\n";
}

}  // namespace kesto

#include "bench/processor_time.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace kesto {
namespace {

constexpr double kTicksPerSecond = 100;

std::string Content(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Fields 14 and 15 of a process's line; the name in front, in parentheses, may hold blanks.
double TicksOf(const std::string& stat) {
    std::istringstream fields(stat.substr(std::min(stat.rfind(')') + 1, stat.size())));
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return user + system;
}

}  // namespace

double ProcessorSeconds(std::string_view text) {
    double ticks = 0;
    std::error_code none;
    for (const auto& process : std::filesystem::directory_iterator("Z:\\proc", none)) {
        const std::string name = process.path().filename().string();
        if (name.find_first_not_of("0123456789") == std::string::npos &&
            Content(process.path() / "cmdline").find(text) != std::string::npos) {
            ticks += TicksOf(Content(process.path() / "stat"));
        }
    }
    return ticks / kTicksPerSecond;
}

}  // namespace kesto

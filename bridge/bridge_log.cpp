#include "bridge/bridge_log.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "base/bounded_text.h"
#include "base/log_line.h"
#include "bridge/log_limit.h"
#include "common/text.h"

namespace kesto::bridge {
namespace {

std::wstring g_path;  // empty: off
LogLimit g_limit;

void Write(const std::vector<std::string>& lines) {
    if (lines.empty() || g_path.empty()) {
        return;
    }
    FILE* log = _wfopen(g_path.c_str(), L"at");
    if (log == nullptr) {
        return;
    }
    for (std::string line : lines) {
        line.resize(std::min<size_t>(line.size(), kMessageSize - 1));
        WriteLogLine(log, Printable(line).c_str());
    }
    std::fclose(log);
}

}  // namespace

bool UseBridgeLog(const std::wstring& path, bool only_if_present) {
    g_path.clear();
    if (only_if_present && GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
        return true;
    }
    FILE* log = _wfopen(path.c_str(), L"at");
    if (log == nullptr) {
        return false;
    }
    std::fclose(log);
    g_path = path;
    return true;
}

void LogBridge(const std::string& kind, const std::string& message) {
    Write(g_limit.Take(kind, message, std::chrono::steady_clock::now()));
}

void LogLeftOut() {
    Write(g_limit.Overdue(std::chrono::steady_clock::now()));
}

}  // namespace kesto::bridge

#include "bridge/bridge_log.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>

namespace kesto {

namespace {

constexpr size_t kLongestMessage = 999;

FILE* g_log = nullptr;  // open until the process ends

}  // namespace

bool OpenBridgeLog(const std::string& path, bool only_if_present) {
    if (only_if_present && GetFileAttributesA(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
        return true;
    }
    g_log = std::fopen(path.c_str(), "at");
    return g_log != nullptr;
}

void LogBridge(const std::string& message) {
    if (g_log == nullptr) {
        return;
    }
    std::string text = message.substr(0, kLongestMessage);
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    SYSTEMTIME now;
    GetLocalTime(&now);
    std::fprintf(g_log, "%d/%d/%d %d:%02d:%02d: %s\n", now.wYear, now.wMonth, now.wDay, now.wHour,
                 now.wMinute, now.wSecond, text.c_str());
    std::fflush(g_log);
}

}  // namespace kesto

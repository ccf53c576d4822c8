#include "bridge/bridge_log.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>

#include "base/bounded_text.h"
#include "base/log_line.h"

namespace kesto {
namespace {

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
    std::string text = message.substr(0, kMessageSize - 1);
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    WriteLogLine(g_log, text.c_str());
}

}  // namespace kesto

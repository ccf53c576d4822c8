#include "common/bridge_log.h"

#include <windows.h>
#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <vector>

#include "base/bounded_text.h"
#include "base/log_line.h"
#include "common/error_words.h"
#include "common/log_limit.h"
#include "common/text.h"

namespace kesto {
namespace {

std::wstring g_path;  // empty: off
LogLimit g_limit;

// Null, with the system's error code set, when it cannot be opened. Guard and bridges write to one file: a
// handle that may only append puts each line after everything that others have written.
FILE* OpenLog(const std::wstring& path) {
    const HANDLE file = CreateFileW(path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    const int number =
        file == INVALID_HANDLE_VALUE ? -1 : _open_osfhandle(reinterpret_cast<intptr_t>(file), _O_APPEND);
    return number == -1 ? nullptr : _fdopen(number, "at");
}

void Write(std::vector<std::string> lines) {
    if (lines.empty() || g_path.empty()) {
        return;
    }
    for (std::string& line : lines) {
        line.resize(std::min<size_t>(line.size(), kMessageSize - 1));
        line = Printable(line);
    }
    FILE* log = OpenLog(g_path);
    if (log == nullptr) {
        return;
    }
    for (const std::string& line : lines) {
        WriteLogLine(log, line.c_str());
    }
    std::fclose(log);
}

bool UseLog(const std::wstring& path, bool only_if_present) {
    g_path.clear();
    if (only_if_present && GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
        return true;
    }
    FILE* log = OpenLog(path);
    if (log == nullptr) {
        return false;
    }
    std::fclose(log);
    g_path = path;
    return true;
}

}  // namespace

std::string UseBridgeLog(const BridgeIni& ini, const std::wstring& program_folder) {
    if (UseLog(ini.log_path, ini.log_only_if_present)) {
        return "";
    }
    std::string problem = "cannot write the log file " +
                          (ini.settings.logfile.empty() ? "bridge.log" : ini.settings.logfile) + " - " +
                          ErrorWords(GetLastError());
    UseLog(DefaultBridgeLog(program_folder), false);
    return problem;
}

void LogBridge(const std::string& kind, const std::string& message) noexcept {
    try {
        Write(g_limit.Take(kind, message, std::chrono::steady_clock::now()));
    } catch (const std::exception&) {  // there is no memory for the line
    }
}

void LogLeftOut() {
    Write(g_limit.Overdue(std::chrono::steady_clock::now()));
}

}  // namespace kesto

#include "common/bridge_log.h"

#include <windows.h>

#include <exception>
#include <vector>

#include "base/bounded_text.h"
#include "base/log_stamp.h"
#include "common/bridge_ini.h"
#include "common/error_words.h"
#include "common/log_limit.h"
#include "common/owned_handle.h"
#include "common/text.h"

namespace kesto {
namespace {

std::wstring g_path;  // empty: off
LogLimit g_limit;

// Guard and bridges write to one file: a handle that may only append puts each line after everything that
// others have written.
OwnedHandle OpenToAppend(const std::wstring& path, bool inherited = false) {
    SECURITY_ATTRIBUTES security = {sizeof security, nullptr, inherited};
    return Own(CreateFileW(path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &security, OPEN_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, nullptr));
}

void Write(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += LogStampNow().text + Printable(line.substr(0, kMessageSize - 1)) + "\r\n";
    }
    if (const OwnedHandle log = lines.empty() || g_path.empty() ? nullptr : OpenToAppend(g_path)) {
        DWORD written = 0;
        WriteFile(log.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    }
}

}  // namespace

std::string UseBridgeLog(const BridgeSettings& settings, const std::wstring& program_folder) {
    const std::wstring path = BridgeLogPath(settings, program_folder);
    if (settings.logfile.empty() && GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
        g_path.clear();
        return "";
    }
    if (UseLog(path)) {
        return "";
    }
    std::string problem = "cannot write the log file " +
                          (settings.logfile.empty() ? "bridge.log" : settings.logfile) + " - " +
                          ErrorWords(GetLastError());
    UseLog(BridgeLogPath({}, program_folder));
    return problem;
}

bool UseLog(const std::wstring& path) {
    g_path = OpenToAppend(path) ? path : L"";
    return !g_path.empty();
}

void* InheritedLog() {
    return OpenToAppend(g_path, true).release();
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

#include "host/common/output.h"

#include <windows.h>

#include <atomic>
#include <string>

#include "host/common/text.h"

namespace kesto {
namespace {

std::atomic<bool> g_output_failed = false;
size_t g_progress_width = 0;

bool IsTerminal(DWORD stream) {
    DWORD mode;
    return GetConsoleMode(GetStdHandle(stream), &mode) != FALSE;
}

bool Write(DWORD stream, std::string_view text) {
    HANDLE handle = GetStdHandle(stream);
    if (IsTerminal(stream)) {
        const std::wstring wide = WideFromUtf8(text);
        DWORD written;
        return WriteConsoleW(handle, wide.data(), static_cast<DWORD>(wide.size()), &written, nullptr) !=
               FALSE;
    }
    while (!text.empty()) {
        DWORD written = 0;
        if (!WriteFile(handle, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
            written == 0) {
            return false;
        }
        text.remove_prefix(written);
    }
    return true;
}

}  // namespace

std::recursive_mutex& OutputLock() {
    static std::recursive_mutex lock;
    return lock;
}

void PrintOut(std::string_view lines) {
    const std::lock_guard guard(OutputLock());
    ClearProgress();
    if (!Write(STD_OUTPUT_HANDLE, lines)) {
        g_output_failed = true;
    }
}

void PrintError(std::string_view lines) {
    const std::lock_guard guard(OutputLock());
    ClearProgress();
    Write(STD_ERROR_HANDLE, lines);
}

bool OutputFailed() {
    return g_output_failed;
}

bool ProgressShown() {
    return IsTerminal(STD_ERROR_HANDLE);
}

void DrawProgress(std::string_view line) {
    const std::lock_guard guard(OutputLock());
    std::string text = "\r";
    text += line;
    if (line.size() < g_progress_width) {
        text.append(g_progress_width - line.size(), ' ');
    }
    Write(STD_ERROR_HANDLE, text);
    g_progress_width = line.size();
}

void ClearProgress() {
    const std::lock_guard guard(OutputLock());
    if (g_progress_width == 0) {
        return;
    }
    std::string text = "\r";
    text.append(g_progress_width, ' ');
    text += '\r';
    Write(STD_ERROR_HANDLE, text);
    g_progress_width = 0;
}

}  // namespace kesto

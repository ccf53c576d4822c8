#include "host/common/output.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "common/error_words.h"
#include "common/text.h"

namespace kesto::host {
namespace {

// These are used under OutputLock.
Fault g_output_fault;
size_t g_progress_width = 0;
HANDLE g_file = nullptr;  // open until the process ends

struct Stream {
    explicit Stream(DWORD which) : handle(GetStdHandle(which)) {
        DWORD mode;
        terminal = GetConsoleMode(handle, &mode) != FALSE;
    }
    HANDLE handle;
    bool terminal;
};

const Stream kOut(STD_OUTPUT_HANDLE);
const Stream kError(STD_ERROR_HANDLE);

// Returns the system's error code.
DWORD WriteBytes(HANDLE handle, std::string_view text) {
    while (!text.empty()) {
        DWORD written = 0;
        if (!WriteFile(handle, text.data(), static_cast<DWORD>(text.size()), &written, nullptr)) {
            return GetLastError();
        }
        if (written == 0) {
            return ERROR_WRITE_FAULT;
        }
        text.remove_prefix(written);
    }
    return 0;
}

DWORD Write(const Stream& stream, std::string_view text) {
    if (!stream.terminal) {
        return WriteBytes(stream.handle, text);
    }
    const std::wstring wide = WideFromUtf8(text);
    DWORD written;
    return WriteConsoleW(stream.handle, wide.data(), static_cast<DWORD>(wide.size()), &written, nullptr)
               ? 0
               : GetLastError();
}

void NoteFailure(const char* what, DWORD code) {
    if (code != 0 && !g_output_fault) {
        g_output_fault = {what + (" cannot be written: " + SystemErrorWithCode(code)), code};
    }
}

void WriteToFile(std::string_view text) {
    if (g_file != nullptr) {
        NoteFailure("the log file", WriteBytes(g_file, text));
    }
}

}  // namespace

std::recursive_mutex& OutputLock() {
    static std::recursive_mutex lock;
    return lock;
}

void PrintOut(std::string_view lines) {
    const std::lock_guard guard(OutputLock());
    ClearProgress();
    NoteFailure("standard output", Write(kOut, lines));
    WriteToFile(lines);
}

void PrintError(std::string_view lines) {
    const std::lock_guard guard(OutputLock());
    ClearProgress();
    Write(kError, lines);
    WriteToFile(lines);
}

int Complain(const std::string& words) {
    PrintError("kestoscan: " + words + (words.ends_with('\n') ? "" : "\n"));
    return kExitError;
}

Fault PrintToFileToo(const std::wstring& path) {
    HANDLE file = CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        const DWORD code = GetLastError();
        return {"the log " + Utf8FromWide(path) + " cannot be written: " + SystemErrorWithCode(code), code};
    }
    const std::lock_guard guard(OutputLock());
    g_file = file;
    SYSTEMTIME now;
    char line[64];
    GetLocalTime(&now);
    std::snprintf(line, sizeof line, "kestoscan on %04u-%02u-%02u at %02u:%02u:%02u\n", now.wYear, now.wMonth,
                  now.wDay, now.wHour, now.wMinute, now.wSecond);
    WriteBytes(file, line);  // a failure shows with the first line that matters
    return {};
}

Fault OutputFault() {
    const std::lock_guard guard(OutputLock());
    return g_output_fault;
}

bool ProgressShown() {
    return kError.terminal;
}

void DrawProgress(std::string_view line) {
    const std::lock_guard guard(OutputLock());
    CONSOLE_SCREEN_BUFFER_INFO screen;
    if (GetConsoleScreenBufferInfo(kError.handle, &screen) && screen.dwSize.X > 1) {
        line = line.substr(0, static_cast<size_t>(screen.dwSize.X) - 1);  // a longer one could not be erased
    }
    std::string text(line);
    text.resize(std::max(line.size(), g_progress_width), ' ');
    Write(kError, "\r" + text);
    g_progress_width = line.size();
}

void ClearProgress() {
    const std::lock_guard guard(OutputLock());
    if (g_progress_width != 0) {
        DrawProgress("");
        Write(kError, "\r");
    }
}

}  // namespace kesto::host

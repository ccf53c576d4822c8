// The plug-in as its host sees it: the library, loaded at run time, and its exports.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/host_records.h"

namespace kesto {

// The folder of the test program, without a backslash at its end; the built programs lie around it.
std::string TestProgramFolder();

struct PluginLibrary {
    // Loads the library, so that everything in it starts afresh.
    PluginLibrary();
    // Closes the scanner and unloads the library.
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    HMODULE module;
    int32_t(__stdcall* InitializeScanner)(int32_t version, char* short_name, char* long_name,
                                          uint32_t* out_value, const char* folder);
    void(__stdcall* CloseScanner)();
    uint32_t(__stdcall* IsFatalError)(uint32_t code);
    void(__stdcall* GetErrorText)(uint32_t code, char* text, int32_t size);
    uint32_t(__stdcall* ScanFile)(uint32_t, const ScanFileInput* input, ScanFileResult* result,
                                  uint32_t* error, uint32_t, uint32_t);
    uint32_t(__stdcall* DoSimpleUpdate)(char* title, char* message);
    void(__stdcall* GetVersionDetails)(char* text, uint32_t size);
    uint32_t(__stdcall* GetExpiry)(uint32_t, uint32_t, uint32_t);
    uint32_t(__stdcall* GetExpiry2)(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t);
};

inline constexpr uint32_t kUntouched = 0x5EED5EED;  // what the host's words hold before a call

// What one scan left behind in the host's memory.
struct ScanOutcome {
    uint32_t result;
    uint32_t error = kUntouched;
    uint32_t reserved = kUntouched;
    uint32_t infected = kUntouched;
    std::string detection = std::string(kDetectionSize + 16, '\x5E');  // 16 guard bytes at its end

    bool Clean() const;  // and nothing written at all
    bool Failed(uint32_t code) const;
    bool Infected(std::string_view file_name, std::string_view virus_name) const;
};

// Scans as the host does. A name of 256 characters or more fills its field without a NUL.
ScanOutcome ScanWith(const PluginLibrary& plugin, std::string_view data, std::string_view name = "mail.eml");

}  // namespace kesto

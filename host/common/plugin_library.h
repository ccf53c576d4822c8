// The plug-in as the mail server uses it: a library that is loaded at run time and called through its
// exports.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/host_records.h"
#include "common/fault.h"

namespace kesto::host {

// Closed with CLOSESCANNER and unloaded at its end.
struct PluginLibrary {
    PluginLibrary() = default;
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    void* module = nullptr;
    int32_t(__stdcall* initialize_scanner)(int32_t version, char* short_name, char* long_name,
                                           uint32_t* out_value, const char* folder) = nullptr;
    void(__stdcall* close_scanner)() = nullptr;
    int32_t(__stdcall* is_fatal_error)(uint32_t code) = nullptr;
    void(__stdcall* get_error_text)(uint32_t code, char* text, int32_t size) = nullptr;
    int32_t(__stdcall* scan_file)(uint32_t host_value, const ScanFileInput* input, ScanFileResult* result,
                                  uint32_t* error_code, uint32_t unused1, uint32_t unused2) = nullptr;
    int32_t(__stdcall* do_simple_update)(char* title, char* message) = nullptr;
    void(__stdcall* get_version_details)(char* text, uint32_t size) = nullptr;
    int32_t(__stdcall* get_expiry)(uint32_t a, uint32_t b, uint32_t c) = nullptr;
};

// The fault tells why the library cannot be loaded, or which of the exports above it lacks, or of these,
// which are separated by blanks.
Fault LoadPlugin(const std::wstring& path, PluginLibrary& plugin, const char* more_exports = "");

}  // namespace kesto::host

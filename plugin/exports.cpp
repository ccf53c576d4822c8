// The routines behind the exported names.
#include <windows.h>

#include <algorithm>
#include <cstdint>

#include "base/bounded_text.h"
#include "base/host_records.h"
#include "base/log.h"
#include "plugin/engine/scan_request.h"
#include "plugin/engine/version_details.h"
#include "plugin/licence/licence.h"
#include "plugin/scanner.h"
#include "plugin/update/update_launcher.h"

namespace {

// Kept as the loader passes it; nothing reads it.
HINSTANCE g_module;

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD, LPVOID) {
    g_module = module;
    return TRUE;
}

extern "C" {

int32_t __stdcall InitializeScanner(int32_t interface_version, char* short_name, char* long_name,
                                    uint32_t* out_value, const char* folder) {
    return kesto::InitializeScanner(interface_version, short_name, long_name, out_value, folder);
}

void __stdcall CloseScanner() {
    kesto::CloseLog();  // the engine goes on running
}

int32_t __stdcall InitializeInstance(uint32_t) {
    return 0;
}

void __stdcall CloseInstance(uint32_t) {}

int32_t __stdcall IsFatalError(uint32_t code) {
    return code == kesto::kErrorConnect ? 1 : 0;
}

void __stdcall GetErrorText(uint32_t code, char* buffer, int32_t size) {
    char other[32];
    kesto::FormatText(other, sizeof other, "Error %lu", static_cast<unsigned long>(code));
    const char* const text = code == kesto::kErrorConnect       ? "Error connecting to AV server"
                             : code == kesto::kErrorCommunicate ? "Error communicating with AV server"
                                                                : other;
    kesto::CopyText(buffer, static_cast<size_t>(std::max(size, 0)), text);
}

uint32_t __stdcall ScanFile(uint32_t, const kesto::ScanFileInput* input, kesto::ScanFileResult* result,
                            uint32_t* error_code, uint32_t, uint32_t) {
    return kesto::ScanFile(input, result, error_code);
}

int32_t __stdcall DoUpdate(uint32_t, uint32_t, uint32_t, uint32_t) {
    return 1;
}

uint32_t __stdcall DoSimpleUpdate(char* title, char* message) {
    return kesto::RunUpdate(title, message);
}

int32_t __stdcall ReloadScanner() {
    return 1;
}

void __stdcall GetVersionDetails(char* buffer, int32_t size) {
    kesto::WriteVersionDetails(buffer, size);
}

int32_t __stdcall ProcessWindowsMessage(uint32_t, uint32_t, uint32_t) {
    return 0;
}

// The arguments of the licence routines mean something to the host only, and are never dereferenced.

int32_t __stdcall CheckLicence(uint32_t, uint32_t) {
    return kesto::LicenceHeld() ? 1 : 0;
}

int32_t __stdcall GetExpiry(uint32_t, uint32_t, uint32_t) {
    kesto::QueryLicence();
    return 1;
}

int32_t __stdcall GetExpiry2(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {
    kesto::QueryLicence();
    return 1;
}

}  // extern "C"

// The routines behind the exported names: the call, and the guard that keeps exceptions from the host.
#include <windows.h>

#include <cstdint>

#include "base/host_records.h"
#include "engine/scan_request.h"
#include "engine/version_details.h"
#include "licence/licence.h"
#include "plugin/result_codes.h"
#include "plugin/scanner.h"
#include "update/update_launcher.h"

namespace {

// Kept as the loader hands it over; nothing reads it.
HINSTANCE g_module;

// The result of `call`, or `failed` if it throws, as it does when memory runs out.
template <typename Result, typename Call>
Result Guarded(Result failed, Call call) noexcept {
    try {
        return call();
    } catch (...) {
        return failed;
    }
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD, LPVOID) {
    g_module = module;
    return TRUE;
}

extern "C" {

int32_t __stdcall InitializeScanner(int32_t interface_version, char* short_name, char* long_name,
                                    uint32_t* out_value, const char* folder) {
    return Guarded<int32_t>(ERROR_NOT_ENOUGH_MEMORY, [&] {
        return kesto::InitializeScanner(interface_version, short_name, long_name, out_value, folder);
    });
}

void __stdcall CloseScanner() {
    kesto::CloseScanner();
}

int32_t __stdcall InitializeInstance(uint32_t) {
    return 0;
}

void __stdcall CloseInstance(uint32_t) {}

int32_t __stdcall IsFatalError(uint32_t code) {
    return kesto::IsFatal(code) ? 1 : 0;
}

void __stdcall GetErrorText(uint32_t code, char* buffer, int32_t size) {
    kesto::WriteErrorText(code, buffer, size);
}

uint32_t __stdcall ScanFile(uint32_t, const kesto::ScanFileInput* input, kesto::ScanFileResult* result,
                            uint32_t* error_code, uint32_t, uint32_t) {
    try {
        return kesto::ScanFile(input, result, error_code);
    } catch (...) {
        // Only the reply takes memory; one that could not be looked at was not understood.
        return kesto::FailScan(error_code, kesto::kErrorReply);
    }
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
    Guarded(0, [&] {
        kesto::WriteVersionDetails(buffer, size);
        return 0;
    });
}

int32_t __stdcall ProcessWindowsMessage(uint32_t, uint32_t, uint32_t) {
    return 0;
}

// The licence routines' arguments are the host's own and never followed.

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

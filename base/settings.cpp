#include "base/settings.h"

#include <windows.h>
#include <io.h>

namespace kesto {
namespace {

constexpr char kSection[] = "kestoav";

ScannerSettings g_settings;

}  // namespace

const ScannerSettings& Settings() {
    return g_settings;
}

void ReadSettings(const char* folder, char (&log_path)[kPathSize]) {
    char path[kPathSize];
    FormatText(path, sizeof path, "%s\\kestoav.ini", folder);
    if (_access(path, 0) != 0) {
        return;
    }
    const ScannerSettings defaults;
    GetPrivateProfileStringA(kSection, "servers", defaults.servers, g_settings.servers,
                             sizeof g_settings.servers, path);
    // Compared before narrowing: 256 is on, too.
    g_settings.encrypt = GetPrivateProfileIntA(kSection, "encrypt", defaults.encrypt, path) != 0;
    g_settings.autostart = GetPrivateProfileIntA(kSection, "autostart", defaults.autostart, path) != 0;
    g_settings.startwait =
        GetPrivateProfileIntA(kSection, "startwait", static_cast<int>(defaults.startwait), path);
    g_settings.connectwait =
        GetPrivateProfileIntA(kSection, "connectwait", static_cast<int>(defaults.connectwait), path);
    g_settings.restartcount =
        GetPrivateProfileIntA(kSection, "restartcount", static_cast<int>(defaults.restartcount), path);
    GetPrivateProfileStringA(kSection, "logfile", "", log_path, sizeof log_path, path);
}

}  // namespace kesto

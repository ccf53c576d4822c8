#include "base/settings.h"

#include <windows.h>
#include <io.h>

namespace kesto {
namespace {

constexpr char kSection[] = "kestoav";

ScannerSettings g_settings;

}  // namespace

ScannerSettings& Settings() {
    return g_settings;
}

void ReadSettings(const char* folder, ScannerSettings& settings) {
    settings.logfile[0] = '\0';
    char path[kPathSize];
    FormatText(path, sizeof path, "%s\\kestoav.ini", folder);
    if (_access(path, 0) != 0) {
        return;
    }
    const ScannerSettings defaults;
    GetPrivateProfileStringA(kSection, "servers", defaults.servers, settings.servers, sizeof settings.servers,
                             path);
    // Compared before it becomes a bool: 256 means on, too.
    settings.encrypt = GetPrivateProfileIntA(kSection, "encrypt", defaults.encrypt, path) != 0;
    settings.autostart = GetPrivateProfileIntA(kSection, "autostart", defaults.autostart, path) != 0;
    settings.startwait =
        GetPrivateProfileIntA(kSection, "startwait", static_cast<int>(defaults.startwait), path);
    settings.connectwait =
        GetPrivateProfileIntA(kSection, "connectwait", static_cast<int>(defaults.connectwait), path);
    settings.restartcount =
        GetPrivateProfileIntA(kSection, "restartcount", static_cast<int>(defaults.restartcount), path);
    GetPrivateProfileStringA(kSection, "logfile", "", settings.logfile, sizeof settings.logfile, path);
}

}  // namespace kesto

#include "plugin/scanner.h"

#include <windows.h>

#include "base/host_records.h"
#include "base/log.h"
#include "base/server_list.h"
#include "base/settings.h"
#include "plugin/net/socket_connection.h"
#include "plugin/process/engine_process.h"
#include "plugin/process/plugin_folder.h"

namespace kesto {

int32_t InitializeScanner(int32_t interface_version, char* short_name, char* long_name, uint32_t* out_value,
                          const char* folder) {
    CopyText(short_name, kShortNameSize, "KESTOAV");
    CopyText(long_name, kLongNameSize, "KESTO AV");
    if (out_value != nullptr) {
        *out_value = 0;
    }
    if (folder == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    SetPluginFolder(folder);
    ReadSettings(PluginFolder(), Settings());
    if (!Servers().Append(Settings().servers)) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    char log_path[kPathSize];
    if (FindLogPath(PluginFolder(), Settings().logfile, log_path)) {
        OpenLog(log_path);
    }
    if (interface_version != kInterfaceVersion) {
        LogMessage("API version mismatch %d != %d", static_cast<int>(interface_version),
                   static_cast<int>(kInterfaceVersion));
        return 1;
    }
    if (!SocketConnection::LayerStarted()) {
        return -1;
    }
    if (Settings().autostart && FindEngineProcess() == 0) {
        return static_cast<int32_t>(StartEngineProcess());
    }
    return 0;
}

}  // namespace kesto

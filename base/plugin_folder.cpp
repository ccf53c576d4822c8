#include "base/plugin_folder.h"

namespace kesto {
namespace {

char g_plugin_folder[kPathSize];

}  // namespace

void SetPluginFolder(const char* folder) {
    CopyText(g_plugin_folder, sizeof g_plugin_folder, folder);
}

const char* PluginFolder() {
    return g_plugin_folder;
}

bool FormatEngineFolder(char (&folder)[kMessageSize]) {
    if (g_plugin_folder[0] == '\0') {
        return false;
    }
    FormatText(folder, sizeof folder, "%s\\plugins\\kestoav", g_plugin_folder);
    return true;
}

}  // namespace kesto

#include "plugin/process/plugin_folder.h"

namespace kesto {
namespace {

char g_plugin_folder[kPathSize];
bool g_given;  // whether the host has named one, which may be an empty text

}  // namespace

void SetPluginFolder(const char* folder) {
    CopyText(g_plugin_folder, sizeof g_plugin_folder, folder);
    g_given = true;
}

const char* PluginFolder() {
    return g_plugin_folder;
}

bool FormatEngineFolder(char (&folder)[kMessageSize]) {
    if (!g_given) {
        return false;
    }
    FormatText(folder, sizeof folder, "%s\\plugins\\kestoav", g_plugin_folder);
    return true;
}

}  // namespace kesto

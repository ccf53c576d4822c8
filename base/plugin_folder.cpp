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

void FormatEngineFolder(char (&folder)[kMessageSize]) {
    FormatText(folder, sizeof folder, "%s\\plugins\\kestoav", g_plugin_folder);
}

}  // namespace kesto

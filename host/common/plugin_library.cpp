#include "host/common/plugin_library.h"

#include <windows.h>

#include <sstream>
#include <type_traits>

#include "common/error_words.h"
#include "common/text.h"

namespace kesto::host {

Fault LoadPlugin(const std::wstring& path, PluginLibrary& plugin, const char* more_exports) {
    const HMODULE module = LoadLibraryW(path.c_str());
    if (!module) {
        const DWORD code = GetLastError();
        return {"cannot load " + Utf8FromWide(path) + ": " + SystemErrorWithCode(code) +
                    (code == ERROR_BAD_EXE_FORMAT ? "; it is damaged, or not a 32-bit library" : ""),
                code};
    }
    std::string missing;
    const auto find = [&](const std::string& name) {
        void* const function = reinterpret_cast<void*>(GetProcAddress(module, name.c_str()));
        if (function == nullptr) {
            missing += (missing.empty() ? "" : ", ") + name;
        }
        return function;
    };
    const auto bind = [&](const char* name, auto& function) {
        function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(find(name));
    };
    bind("CLOSESCANNER", plugin.close_scanner);
    bind("DOSIMPLEUPDATE", plugin.do_simple_update);
    bind("GETERRORTEXT", plugin.get_error_text);
    bind("GETEXPIRY", plugin.get_expiry);
    bind("GETVERSIONDETAILS", plugin.get_version_details);
    bind("INITIALIZESCANNER", plugin.initialize_scanner);
    bind("ISFATALERROR", plugin.is_fatal_error);
    bind("SCANFILE", plugin.scan_file);
    std::istringstream more(missing.empty() ? more_exports : "");
    for (std::string name; more >> name;) {
        find(name);
    }
    if (!missing.empty()) {
        FreeLibrary(module);
        return {Utf8FromWide(path) + " is not this plug-in, or is damaged: it lacks " + missing};
    }
    plugin.module = module;
    return {};
}

PluginLibrary::~PluginLibrary() {
    if (module != nullptr) {
        close_scanner();
        FreeLibrary(static_cast<HMODULE>(module));
    }
}

}  // namespace kesto::host

#include "host/common/plugin_library.h"

#include <windows.h>

#include <type_traits>

#include "common/error_words.h"
#include "common/folder_limit.h"
#include "common/text.h"

namespace kesto::host {

Fault LacksExports(const std::wstring& path, const std::string& names) {
    return {Utf8FromWide(path) + " is not this plug-in, or is damaged: it lacks " + names};
}

Fault LoadPlugin(const std::wstring& path, PluginLibrary& plugin) {
    const HMODULE module = LoadLibraryW(path.c_str());
    if (!module) {
        const DWORD code = GetLastError();
        return {"cannot load " + Utf8FromWide(path) + ": " + SystemErrorWithCode(code) +
                    (code == ERROR_BAD_EXE_FORMAT ? "; it is damaged, or not a 32-bit library" : ""),
                code};
    }
    std::string missing;
    const auto bind = [&](const char* name, auto& function) {
        using Function = std::remove_reference_t<decltype(function)>;
        function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
        if (function == nullptr) {
            missing += (missing.empty() ? "" : ", ") + std::string(name);
        }
    };
    bind("CLOSESCANNER", plugin.close_scanner);
    bind("DOSIMPLEUPDATE", plugin.do_simple_update);
    bind("GETERRORTEXT", plugin.get_error_text);
    bind("GETEXPIRY", plugin.get_expiry);
    bind("GETVERSIONDETAILS", plugin.get_version_details);
    bind("INITIALIZESCANNER", plugin.initialize_scanner);
    bind("ISFATALERROR", plugin.is_fatal_error);
    bind("SCANFILE", plugin.scan_file);
    if (!missing.empty()) {
        FreeLibrary(module);
        return LacksExports(path, missing);
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

Fault StartPlugin(const PluginLibrary& plugin, const std::wstring& folder, bool& without_engine) {
    std::string ansi_folder;
    if (Fault fault = AnsiFolder(folder, ansi_folder)) {
        return fault;
    }
    char short_name[kShortNameSize];
    char long_name[kLongNameSize];
    uint32_t out_value;
    const int32_t result =
        plugin.initialize_scanner(kInterfaceVersion, short_name, long_name, &out_value, ansi_folder.c_str());
    if (result == 0) {
        return {};
    }
    if (result == 1) {
        return {"the plug-in refuses this interface version (1): program and library do not belong together"};
    }
    if (result == -1) {
        return {"the plug-in cannot start the Windows Sockets layer (-1)"};
    }
    const auto code = static_cast<uint32_t>(result);
    without_engine = true;
    return {"the engine program " + Utf8FromWide(folder) +
                "\\plugins\\kestoav\\kestoav.exe cannot be started: " + SystemErrorWithCode(code),
            code};
}

Fault AnsiFolder(const std::wstring& folder, std::string& ansi) {
    // A letter that is only replaced by a similar one names another folder.
    const auto convert = [&](const std::wstring& path) {
        ansi = AnsiFromWide(path);
        return WideFromAnsi(ansi) == path;
    };
    wchar_t short_path[MAX_PATH];
    const DWORD length = GetShortPathNameW(folder.c_str(), short_path, MAX_PATH);
    if (!convert(folder) && !(length > 0 && length < MAX_PATH && convert(short_path))) {
        return {"the folder " + Utf8FromWide(folder) +
                " has letters that this system's code page lacks, and no short name without them"};
    }
    if (ansi.size() > kLongestPluginFolder) {
        return {"the folder's path may have at most " + std::to_string(kLongestPluginFolder) +
                " characters, and has " + std::to_string(ansi.size()) +
                ": Windows starts no program by a path above " + "259, as is that of " +
                Utf8FromWide(folder) + "\\plugins\\kestoav\\kestobridge.exe"};
    }
    return {};
}

std::string PluginErrorText(const PluginLibrary& plugin, uint32_t code) {
    char text[256] = "";
    plugin.get_error_text(code, text, sizeof text);
    return Utf8FromAnsi(text);
}

}  // namespace kesto::host

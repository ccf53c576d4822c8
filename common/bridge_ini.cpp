#include "common/bridge_ini.h"

#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <utility>

#include "common/error_words.h"
#include "common/text.h"

namespace kesto {
namespace {

constexpr DWORD kLargestIni = 1 << 20;

// Returns the system's error code.
DWORD ReadText(const std::wstring& path, std::string& text) {
    HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return GetLastError();
    }
    DWORD size = 0;
    text.resize(kLargestIni);
    const DWORD error = ReadFile(file, text.data(), kLargestIni, &size, nullptr) ? 0 : GetLastError();
    text.resize(size);
    CloseHandle(file);
    return error;
}

bool IsRelative(const std::string& path) {
    return path[0] != '\\' && path[0] != '/' && path.substr(1, 1) != ":";
}

}  // namespace

BridgeIni ReadBridgeIni(const std::wstring& program_folder) {
    BridgeIni ini;
    std::string text;
    const DWORD error = ReadText(program_folder + L"\\bridge.ini", text);
    if (error == 0) {
        auto [settings, problems, updater_problems] = ReadBridgeSettings(text, OwnAddresses());
        ini.settings = std::move(settings);
        ini.problems = std::move(problems);
        ini.updater_problems = std::move(updater_problems);
    } else if (error != ERROR_FILE_NOT_FOUND) {
        ini.problems = {"bridge.ini cannot be read - " + ErrorWords(error)};
        ini.readable = false;
    }
    const std::string& log = ini.settings.logfile;
    ini.log_only_if_present = log.empty();
    ini.log_path = log.empty()       ? DefaultBridgeLog(program_folder)
                   : IsRelative(log) ? program_folder + L"\\" + WideFromAnsi(log)
                                     : WideFromAnsi(log);
    return ini;
}

std::wstring DefaultBridgeLog(const std::wstring& program_folder) {
    return program_folder + L"\\bridge.log";
}

FileStamp BridgeIniStamp(const std::wstring& program_folder) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW((program_folder + L"\\bridge.ini").c_str(), GetFileExInfoStandard, &data)) {
        return {};
    }
    const auto whole = [](DWORD high, DWORD low) { return static_cast<uint64_t>(high) << 32 | low; };
    return {whole(data.ftLastWriteTime.dwHighDateTime, data.ftLastWriteTime.dwLowDateTime),
            whole(data.nFileSizeHigh, data.nFileSizeLow)};
}

std::wstring UpdateLogPath(const BridgeIni& ini) {
    return ini.log_path.substr(0, ini.log_path.find_last_of(L"\\/") + 1) + L"update.log";
}

std::vector<ServerAddress> OwnAddresses() {
    std::vector<ServerAddress> addresses;
    ULONG size = 32768;
    std::string memory;
    ULONG result = ERROR_BUFFER_OVERFLOW;
    for (int tries = 0; tries < 3 && result == ERROR_BUFFER_OVERFLOW; ++tries) {
        memory.resize(size);
        result = GetAdaptersAddresses(
            AF_UNSPEC, GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER, nullptr,
            reinterpret_cast<IP_ADAPTER_ADDRESSES*>(memory.data()), &size);
    }
    if (result != ERROR_SUCCESS) {
        return addresses;
    }
    for (const auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(memory.data()); adapter;
         adapter = adapter->Next) {
        for (const auto* unicast = adapter->FirstUnicastAddress; unicast; unicast = unicast->Next) {
            char text[INET6_ADDRSTRLEN + 1] = "";
            getnameinfo(unicast->Address.lpSockaddr, unicast->Address.iSockaddrLength, text, sizeof text,
                        nullptr, 0, NI_NUMERICHOST);
            const std::string host(text);
            if (const auto address = ParseHost(host.substr(0, host.find('%')))) {
                addresses.push_back(*address);
            }
        }
    }
    return addresses;
}

}  // namespace kesto

#include "common/bridge_ini.h"

#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>
#include <ws2tcpip.h>

#include "common/error_words.h"
#include "common/file_bytes.h"
#include "common/text.h"

namespace kesto {
namespace {

bool IsRelative(const std::string& path) {
    return path[0] != '\\' && path[0] != '/' && path.substr(1, 1) != ":";
}

}  // namespace

std::wstring BridgeIniPath(const std::wstring& program_folder) {
    return program_folder + L"\\bridge.ini";
}

BridgeIni ReadBridgeIni(const std::wstring& program_folder, const std::optional<ServerAddress>& listens) {
    const FileBytes file = ReadWholeFile(BridgeIniPath(program_folder));
    if (!file.fault) {
        return ReadBridgeSettings({reinterpret_cast<const char*>(file.data.get()), file.size}, OwnAddresses(),
                                  listens);
    }
    BridgeIni ini;
    if (file.fault.code != ERROR_FILE_NOT_FOUND) {
        ini.problems = {"bridge.ini cannot be read - " + ErrorWords(file.fault.code)};
        ini.readable = false;
    }
    return ini;
}

std::wstring BridgeLogPath(const BridgeSettings& settings, const std::wstring& program_folder) {
    const std::string& log = settings.logfile;
    return log.empty()       ? program_folder + L"\\bridge.log"
           : IsRelative(log) ? program_folder + L"\\" + WideFromAnsi(log)
                             : WideFromAnsi(log);
}

std::wstring UpdateLogPath(const BridgeSettings& settings, const std::wstring& program_folder) {
    const std::wstring log = BridgeLogPath(settings, program_folder);
    return log.substr(0, log.find_last_of(L"\\/") + 1) + L"update.log";
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

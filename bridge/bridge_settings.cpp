#include "bridge/bridge_settings.h"

#include <windows.h>
#include <shlwapi.h>

#include <algorithm>
#include <asio/ip/address_v4.hpp>
#include <charconv>
#include <optional>
#include <sstream>

namespace kesto {
namespace {

constexpr char kSection[] = "bridge";
constexpr const char* kKeys[] = {"listen", "upstreams", "decrypt", "idle", "logfile"};
constexpr unsigned kLongestIdle = 3600;

std::optional<unsigned> Number(const std::string& text, unsigned lowest, unsigned highest) {
    unsigned value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < lowest || value > highest) {
        return std::nullopt;
    }
    return value;
}

bool IsAddress(const std::string& host) {
    asio::error_code error;
    asio::ip::make_address_v4(host, error);
    return !error;
}

// "host:port"; the host an IPv4 address or a name.
std::optional<Upstream> HostAndPort(const std::string& text) {
    const size_t colon = text.find(':');
    if (colon == 0 || colon == std::string::npos) {
        return std::nullopt;
    }
    const std::string host = text.substr(0, colon);
    const auto port = Number(text.substr(colon + 1), 1, 65535);
    const bool digits_only = host.find_first_not_of("0123456789.") == std::string::npos;
    if (!port || (digits_only && !IsAddress(host))) {
        return std::nullopt;
    }
    Upstream server;
    server.host = host;
    server.port = static_cast<uint16_t>(*port);
    return server;
}

std::string Value(const std::string& ini, const char* key, const char* preset) {
    std::string value(8192, '\0');
    value.resize(GetPrivateProfileStringA(kSection, key, preset, value.data(),
                                          static_cast<DWORD>(value.size()), ini.c_str()));
    return value;
}

// Names in the file, section names or keys of our section: the profile functions give them one after the
// other, each with its NUL.
std::vector<std::string> Names(const std::string& ini, const char* section) {
    std::string names(32768, '\0');
    names.resize(GetPrivateProfileStringA(section, nullptr, "", names.data(),
                                          static_cast<DWORD>(names.size()), ini.c_str()));
    std::vector<std::string> list;
    std::istringstream stream(names);
    for (std::string name; std::getline(stream, name, '\0');) {
        list.push_back(name);
    }
    return list;
}

bool SameName(const std::string& a, const char* b) {
    return lstrcmpiA(a.c_str(), b) == 0;
}

// A misspelt key or section would leave a default in force unnoticed.
std::string UnknownNames(const std::string& ini) {
    if (GetFileAttributesA(ini.c_str()) == INVALID_FILE_ATTRIBUTES) {
        return "";
    }
    const auto sections = Names(ini, nullptr);
    if (std::none_of(sections.begin(), sections.end(),
                     [](const std::string& name) { return SameName(name, kSection); })) {
        return "has no [bridge] section, or cannot be read";
    }
    for (const std::string& key : Names(ini, kSection)) {
        if (std::none_of(std::begin(kKeys), std::end(kKeys),
                         [&](const char* known) { return SameName(key, known); })) {
            return "has an unknown setting '" + key + "'";
        }
    }
    return "";
}

}  // namespace

std::string ReadBridgeSettings(const std::string& program_folder, BridgeSettings& settings) {
    const std::string ini = program_folder + "\\bridge.ini";

    const std::string log = Value(ini, "logfile", "");
    settings.log_only_if_present = log.empty();
    settings.log_path = log.empty()                    ? program_folder + "\\bridge.log"
                        : PathIsRelativeA(log.c_str()) ? program_folder + "\\" + log
                                                       : log;

    if (const std::string unknown = UnknownNames(ini); !unknown.empty()) {
        return ini + " " + unknown;
    }

    const std::string listen = Value(ini, "listen", "127.0.0.1:3313");
    const auto listener = HostAndPort(listen);
    if (!listener || !IsAddress(listener->host)) {
        return "listen=" + listen + " is not an IPv4 address and port, like 127.0.0.1:3313";
    }
    settings.listen_host = listener->host;
    settings.listen_port = listener->port;

    std::istringstream upstreams(Value(ini, "upstreams", "127.0.0.1:3310"));
    for (std::string text; upstreams >> text;) {
        const auto server = HostAndPort(text);
        if (!server) {
            return "upstreams: '" + text + "' is not host:port, like 127.0.0.1:3310";
        }
        settings.upstreams.push_back(*server);
    }
    if (settings.upstreams.empty()) {
        return "upstreams= names no server";
    }

    const std::string decrypt = Value(ini, "decrypt", "1");
    const auto decrypt_number = Number(decrypt, 0, 1);
    if (!decrypt_number) {
        return "decrypt=" + decrypt + " is neither 0 nor 1";
    }
    settings.decrypt = *decrypt_number == 1;

    const std::string idle = Value(ini, "idle", "30");
    const auto idle_number = Number(idle, 1, kLongestIdle);
    if (!idle_number) {
        return "idle=" + idle + " is not a number of seconds from 1 to " + std::to_string(kLongestIdle);
    }
    settings.idle = std::chrono::seconds(*idle_number);
    return "";
}

std::string ProgramFolder() {
    char path[MAX_PATH] = "";
    const DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    const std::string program(path, std::min<DWORD>(length, MAX_PATH - 1));
    return program.substr(0, program.find_last_of('\\'));
}

}  // namespace kesto

#include "common/bridge_settings.h"

#include <algorithm>
#include <charconv>
#include <cstddef>

#include "common/ini_lines.h"

namespace kesto {
namespace {

constexpr struct {
    std::string_view key;
    unsigned BridgeSettings::*value;
    unsigned lowest, highest;
    const char* what;
} kNumbers[] = {
    {"idle", &BridgeSettings::idle, 1, 3600, "a number of seconds"},
    {"keep", &BridgeSettings::keep, 0, 1024, "a number of MB"},
    {"wait", &BridgeSettings::wait, 0, 3600, "a number of seconds"},
    {"verdict", &BridgeSettings::verdict, 1, 3600, "a number of seconds"},
    {"clients", &BridgeSettings::clients, 1, 20000, "a number"},
};

class Reader {
 public:
    explicit Reader(const std::vector<ServerAddress>& own) : own_(own) {}

    BridgeSettingsRead Read(std::string_view text) {
        const IniText ini = ReadIniText(text);
        if (ini.has_nul) {
            Problem("is not ANSI text: save it as such");
            return std::move(read_);
        }
        if (ini.mark_hides_line) {
            line_ = 1;
            Problem("begins with a byte order mark: save the file as ANSI text");
        }
        for (const IniLine& line : ini.lines) {
            line_ = line.number;
            Line(line);
        }
        line_ = 0;
        if (!section_seen_) {
            Problem("has no [bridge] section");
        }
        RefuseRings();
        return std::move(read_);
    }

 private:
    void Problem(const std::string& text) {
        const std::string where = line_ == 0 ? " " : " line " + std::to_string(line_) + ": ";
        read_.problems.push_back("bridge.ini" + where + text);
    }

    void Line(const IniLine& line) {
        const std::string quoted = "'" + std::string(line.text.substr(0, 100)) + "'";
        if (line.kind == IniLineKind::kSection) {
            Section(line, quoted);
        } else if (line.kind == IniLineKind::kWords) {
            Problem(quoted + " is not a setting; write key=value, or ; in front of a comment");
        } else if (!in_section_) {
            Problem(quoted + " stands above the section [bridge]");
        } else {
            Setting(line.name, line.value);
        }
    }

    void Section(const IniLine& line, const std::string& quoted) {
        if (line.name != "bridge" || !line.closed) {
            Problem(quoted + " is not the section [bridge]");
        } else if (section_seen_) {
            Problem("a second section [bridge]");
        } else {
            section_seen_ = true;
        }
        in_section_ = true;
    }

    void Setting(const std::string& key, std::string_view value) {
        if (std::find(seen_.begin(), seen_.end(), key) != seen_.end()) {
            Problem("'" + key + "' is given twice");
            return;
        }
        seen_.push_back(key);
        BridgeSettings& settings = read_.settings;
        const std::string text = key + "=" + std::string(value.substr(0, 100));
        if (key == "listen") {
            const auto address = ParseServerAddress(value);
            if (!address || address->kind != HostKind::kIpv4 ||
                (address->host != "0.0.0.0" && !MayBeServer(*address))) {
                Problem(text + " is not an IPv4 address and port, like 127.0.0.1:3313");
            } else {
                settings.listen = *address;
            }
        } else if (key == "upstreams") {
            Upstreams(TrimmedIni(value));
        } else if (key == "decrypt") {
            if (value != "0" && value != "1") {
                Problem(text + " is neither 0 nor 1");
            }
            settings.decrypt = value != "0";
        } else if (key == "logfile") {
            // Blanks and semicolons may be part of a name, but hardly one behind the other.
            if (value.find(" ;") != std::string_view::npos || value.find("\t;") != std::string_view::npos) {
                Problem(text + " holds a comment; put it on a line of its own");
            }
            settings.logfile = value;
        } else {
            Number(key, value, text);
        }
    }

    void Number(const std::string& key, std::string_view text, const std::string& setting) {
        const auto* known = std::find_if(std::begin(kNumbers), std::end(kNumbers),
                                         [&](const auto& number) { return number.key == key; });
        if (known == std::end(kNumbers)) {
            Problem("unknown setting '" + key.substr(0, 100) + "'");
            return;
        }
        unsigned number = 0;
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, number);
        if (error != std::errc() || stop != end || number < known->lowest || number > known->highest) {
            Problem(setting + " is not " + known->what + " from " + std::to_string(known->lowest) + " to " +
                    std::to_string(known->highest));
            return;
        }
        read_.settings.*known->value = number;
    }

    void Upstreams(std::string_view value) {
        auto& servers = read_.settings.upstreams;
        servers.clear();
        upstreams_line_ = line_;
        if (value.empty()) {
            Problem("upstreams= names no server");
        }
        for (; !value.empty(); value = TrimmedIni(value)) {
            const size_t end = std::min(value.find_first_of(" \t\v\f"), value.size());
            const std::string text(value.substr(0, end));
            value.remove_prefix(end);
            const std::string subject = "upstreams: '" + text.substr(0, 300) + "' ";
            const auto server = ParseServerAddress(text);
            if (!server) {
                Problem(subject + "is not host:port, like 127.0.0.1:3310");
            } else if (!MayBeServer(*server)) {
                Problem(subject + "is not the address of a server");
            } else if (std::find(servers.begin(), servers.end(), *server) != servers.end()) {
                Problem(subject + "is given twice");
            } else {
                servers.push_back(*server);
            }
        }
    }

    // Scans would go round in circles.
    void RefuseRings() {
        const BridgeSettings& settings = read_.settings;
        line_ = upstreams_line_;
        for (const ServerAddress& server : settings.upstreams) {
            if (IsBridgeItself(server, settings, own_)) {
                Problem("upstreams: '" + AddressText(server) + "' is the bridge itself");
            }
        }
    }

    const std::vector<ServerAddress>& own_;
    BridgeSettingsRead read_;
    std::vector<std::string> seen_;
    size_t line_ = 0;
    size_t upstreams_line_ = 0;
    bool in_section_ = false;  // of whatever name: what stands in a wrong one is read all the same
    bool section_seen_ = false;
};

}  // namespace

std::string SettingsText(const BridgeSettings& settings) {
    std::string text = "listen=" + AddressText(settings.listen) + " upstreams=";
    for (const ServerAddress& server : settings.upstreams) {
        text += AddressText(server) + (server == settings.upstreams.back() ? "" : " ");
    }
    text += std::string(" decrypt=") + (settings.decrypt ? "1" : "0");
    for (const auto& number : kNumbers) {
        text += " " + std::string(number.key) + "=" + std::to_string(settings.*number.value);
    }
    return text;
}

bool IsBridgeItself(const ServerAddress& server, const BridgeSettings& settings,
                    const std::vector<ServerAddress>& own) {
    ServerAddress host = server;
    host.port = 0;
    const bool here = host.host == "localhost" || (host.kind == HostKind::kIpv4 && host.bytes[0] == 127) ||
                      std::find(own.begin(), own.end(), host) != own.end();
    return server == settings.listen || (here && server.port == settings.listen.port);
}

BridgeSettingsRead ReadBridgeSettings(std::string_view text, const std::vector<ServerAddress>& own) {
    return Reader(own).Read(text);
}

}  // namespace kesto

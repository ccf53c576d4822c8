#include "common/bridge_settings.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <set>

#include "common/ini_lines.h"

namespace kesto {
namespace {

constexpr struct {
    std::string_view key;
    unsigned BridgeSettings::*value;
    unsigned lowest, highest;
    const char* what;
    bool of_updater = false;
} kNumbers[] = {
    {"idle", &BridgeSettings::idle, 1, 3600, "a number of seconds"},
    {"keep", &BridgeSettings::keep, 0, 1024, "a number of MB"},
    {"wait", &BridgeSettings::wait, 0, 3600, "a number of seconds"},
    {"verdict", &BridgeSettings::verdict, 1, 3600, "a number of seconds"},
    {"clients", &BridgeSettings::clients, 1, 20000, "a number"},
    {"timeout", &BridgeSettings::timeout, 1, 86400, "a number of seconds", true},
    {"signatures", &BridgeSettings::signatures, 1, 365, "a number of days", true},
};

class Reader {
 public:
    Reader(const std::vector<ServerAddress>& own, const std::optional<ServerAddress>& listens)
        : own_(own), listens_(listens) {}

    BridgeIni Read(std::string_view text) {
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
        in_updater_ = false;
        if (!seen_.contains("[bridge]")) {
            Problem("has no [bridge] section");
        }
        RefuseRings();
        return std::move(read_);
    }

 private:
    void Problem(const std::string& text) {
        const std::string where = line_ == 0 ? " " : " line " + std::to_string(line_) + ": ";
        (in_updater_ ? read_.updater_problems : read_.problems).push_back("bridge.ini" + where + text);
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
            Setting(line);
        }
    }

    void Section(const IniLine& line, const std::string& quoted) {
        const std::string name = "[" + line.name + "]";
        in_updater_ = name == "[updater]";
        if ((name != "[bridge]" && !in_updater_) || !line.closed) {
            Problem(quoted + " is neither the section [bridge] nor [updater]");
        } else if (!seen_.insert(name).second) {
            Problem("a second section " + name);
        }
        in_section_ = true;
    }

    void Setting(const IniLine& line) {
        const std::string& key = line.name;
        const std::string_view value = line.value;
        const std::string name = (in_updater_ ? "[updater] " : "") + key;
        if (!seen_.insert(name).second) {
            Problem("'" + key + "' is given twice");
            return;
        }
        BridgeSettings& settings = read_.settings;
        const std::string text = key + "=" + std::string(value.substr(0, 100));
        if (name == "[updater] command") {
            // Quotation marks are part of a command line.
            settings.command = TrimmedIni(line.text.substr(line.text.find('=') + 1));
        } else if (name == "listen") {
            const auto address = ParseServerAddress(value);
            if (!address || address->kind != HostKind::kIpv4 ||
                (address->host != "0.0.0.0" && !MayBeServer(*address))) {
                Problem(text + " is not an IPv4 address and port, like 127.0.0.1:3313");
            } else {
                settings.listen = *address;
            }
        } else if (name == "upstreams") {
            Upstreams(TrimmedIni(value));
        } else if (name == "decrypt") {
            if (value != "0" && value != "1") {
                Problem(text + " is neither 0 nor 1");
            }
            settings.decrypt = value != "0";
        } else if (name == "logfile") {
            // A name may have blanks and semicolons in it, but hardly a blank before a semicolon.
            if (value.find(" ;") != std::string_view::npos || value.find("\t;") != std::string_view::npos) {
                Problem(text + " holds a comment; put it on a line of its own");
            }
            settings.logfile = value;
        } else {
            Number(key, value, text);
        }
    }

    void Number(const std::string& key, std::string_view text, const std::string& setting) {
        const auto* known = std::find_if(std::begin(kNumbers), std::end(kNumbers), [&](const auto& number) {
            return number.key == key && number.of_updater == in_updater_;
        });
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

    // The bridge would pass its scans to itself for ever.
    void RefuseRings() {
        const BridgeSettings& settings = read_.settings;
        line_ = upstreams_line_;
        for (const ServerAddress& server : settings.upstreams) {
            const std::string subject = "upstreams: '" + AddressText(server) + "' is the bridge itself";
            if (IsBridgeItself(server, settings.listen, own_)) {
                Problem(subject);
            } else if (listens_ && IsBridgeItself(server, *listens_, own_)) {
                Problem(subject + " until it is restarted");
            }
        }
    }

    const std::vector<ServerAddress>& own_;
    const std::optional<ServerAddress>& listens_;
    BridgeIni read_;
    std::set<std::string> seen_;  // settings and sections
    size_t line_ = 0;
    size_t upstreams_line_ = 0;
    bool in_section_ = false;  // of any name: settings in a wrong section are read all the same
    bool in_updater_ = false;
};

}  // namespace

std::string SettingsText(const BridgeSettings& settings) {
    std::string text = "listen=" + AddressText(settings.listen) + " upstreams=";
    for (const ServerAddress& server : settings.upstreams) {
        text += AddressText(server) + (server == settings.upstreams.back() ? "" : " ");
    }
    text += std::string(" decrypt=") + (settings.decrypt ? "1" : "0");
    for (const auto& number : kNumbers) {
        const std::string setting = std::string(number.key) + "=" + std::to_string(settings.*number.value);
        text += number.of_updater ? "" : " " + setting;
    }
    return text;
}

bool IsBridgeItself(const ServerAddress& server, const ServerAddress& listen,
                    const std::vector<ServerAddress>& own) {
    ServerAddress host = server;
    host.port = 0;
    const bool here = host.host == "localhost" || (host.kind == HostKind::kIpv4 && host.bytes[0] == 127) ||
                      std::find(own.begin(), own.end(), host) != own.end();
    return server == listen || (here && server.port == listen.port);
}

BridgeIni ReadBridgeSettings(std::string_view text, const std::vector<ServerAddress>& own,
                             const std::optional<ServerAddress>& listens) {
    return Reader(own, listens).Read(text);
}

}  // namespace kesto

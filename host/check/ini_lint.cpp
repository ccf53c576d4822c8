#include "host/check/ini_lint.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <utility>

#include "base/server_list.h"
#include "common/ini_lines.h"

namespace kesto::host {
namespace {

enum class ValueKind { kServers, kSwitch, kSeconds, kCount, kPath };

constexpr std::string_view kSection = "kestoav";
const std::map<std::string, ValueKind> kKnownKeys = {
    {"servers", ValueKind::kServers},     {"encrypt", ValueKind::kSwitch},
    {"autostart", ValueKind::kSwitch},    {"startwait", ValueKind::kSeconds},
    {"connectwait", ValueKind::kSeconds}, {"restartcount", ValueKind::kCount},
    {"logfile", ValueKind::kPath},
};

constexpr size_t kMostServersText = 999;  // characters that the reader accepts
constexpr size_t kMostPath = 259;
constexpr uint32_t kLongWait = 3600;  // seconds; a mail that waits longer for its scan is lost anyway

std::string Quoted(std::string_view text) {
    return "\"" + std::string(text.substr(0, 100)) + "\"";
}

bool AllDigits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// As it is written when it is printed; zeros in front of a number make no difference.
std::string_view WithoutZeros(std::string_view number) {
    return number.substr(std::min(number.find_first_not_of('0'), number.size() - 1));
}

// What the profile functions take of it, 0x included. They cut it to 32 bits.
uint32_t TakenNumber(const std::string& value) {
    return static_cast<uint32_t>(std::strtoull(value.c_str(), nullptr, value.find("0x") <= 1 ? 16 : 10));
}

class Linter {
 public:
    std::vector<IniFinding> Lint(std::string_view text) {
        const IniText ini = ReadIniText(text);
        if (ini.has_nul) {
            Misread("the file is not ANSI text", "save it as ANSI text");
            return std::move(findings_);
        }
        if (ini.mark_hides_line) {
            Misread(
                "the file begins with a UTF-8 byte order mark, which hides its first line from the reader",
                "save it as ANSI text");
        }
        for (const IniLine& line : ini.lines) {
            line_ = line.number;
            Line(line);
        }
        for (const auto& [key, finding] : elsewhere_) {
            if (!seen_.contains(key)) {
                findings_.push_back(finding);
            }
        }
        line_ = 1;
        if (ini.bare_returns) {
            Doubt("lines end with a carriage return alone, which not every reader takes for an end",
                  "save the file with the line ends of Windows");
        }
        if (!section_seen_) {
            Misread("there is no section [kestoav], so nothing in the file is read",
                    "put [kestoav] above the settings");
        }
        return std::move(findings_);
    }

 private:
    void Misread(std::string text, std::string remedy) {
        findings_.push_back({line_, true, std::move(text), std::move(remedy)});
    }

    void Doubt(std::string text, std::string remedy) {
        findings_.push_back({line_, false, std::move(text), std::move(remedy)});
    }

    void Line(const IniLine& line) {
        if (line.kind == IniLineKind::kSection) {
            Section(line);
        } else if (!in_section_) {
            SettingElsewhere(line);
        } else if (line.kind == IniLineKind::kWords) {
            Doubt(Quoted(line.text) + " is not a setting and is not read",
                  "write key=value, or ; in front of a comment");
        } else {
            Setting(line);
        }
    }

    // Other programs may have sections of their own in the file.
    void SettingElsewhere(const IniLine& line) {
        if (!kKnownKeys.contains(line.name)) {
            return;
        }
        const std::string text = Quoted(line.text) + " is outside the section [kestoav] and is not read";
        if (other_section_) {
            elsewhere_.push_back(
                {line.name,
                 {line_, false, text, "move it below the line [kestoav], if it is meant for the plug-in"}});
        } else if (!section_seen_) {
            Misread(text, "move it below the line [kestoav]");
        }
    }

    void Section(const IniLine& line) {
        in_section_ = line.name == kSection && !section_seen_;
        other_section_ = line.name != kSection;
        if (in_section_) {
            section_seen_ = true;
            if (line.text.find(']') == std::string_view::npos) {
                Doubt("the section's name has no ] at its end", "write [kestoav]");
            }
        } else if (!other_section_) {
            Misread("a second section [kestoav] is not read", "move its settings into the first");
        }
    }

    void Setting(const IniLine& line) {
        const auto key = kKnownKeys.find(line.name);
        if (key == kKnownKeys.end()) {
            Misread("the key " + Quoted(line.name) + " is not known, and its value not read",
                    "remove the line, or write one of the keys servers, encrypt, autostart, startwait, "
                    "connectwait, restartcount and logfile");
        } else if (!seen_.insert(line.name).second) {
            Misread("the key " + Quoted(line.name) + " is given twice: only the first is read",
                    "remove one of the two lines");
        } else if (key->second == ValueKind::kServers) {
            ServersValue(line.value);
        } else if (key->second == ValueKind::kPath) {
            PathValue(line.value);
        } else {
            NumberValue(line.name, key->second, std::string(line.value));
        }
    }

    void NumberValue(const std::string& name, ValueKind kind, const std::string& value) {
        const bool seconds = kind == ValueKind::kSeconds;
        const uint32_t taken = TakenNumber(value);
        if (!AllDigits(value) || WithoutZeros(value) != std::to_string(taken)) {
            const bool minus = value.starts_with('-');
            const bool whole = AllDigits(value.substr(minus));
            const bool is_switch = kind == ValueKind::kSwitch;
            findings_.push_back({line_, !whole || (minus && seconds),
                                 name + "=" + Quoted(value) +
                                     (whole ? " is read as " : " is not a number and is read as ") +
                                     (value.empty() ? "its default"
                                      : !is_switch  ? std::to_string(taken)
                                      : taken == 0  ? "0, which is off"
                                                    : "1, which is on"),
                                 is_switch ? "write " + name + "=1 or " + name + "=0"
                                           : "write " + name + "= and a whole number"});
        } else if (seconds && taken > kLongWait) {
            Doubt(name + " is over an hour, for which a mail may have to wait",
                  "write a number of seconds such as 120");
        } else if (taken == 0 && name == "startwait") {
            Doubt("startwait=0 gives an engine that was started again no time to listen",
                  "write startwait=120");
        }
    }

    void PathValue(std::string_view value) {
        if (value.empty()) {
            return;
        }
        const bool on_drive = value.size() > 2 && value[1] == ':' && (value[2] == '\\' || value[2] == '/');
        if (value.size() > kMostPath) {
            Misread("logfile is longer than 259 characters and is cut", "write a shorter path");
        } else if (!on_drive && !value.starts_with("\\\\")) {
            Doubt("logfile is relative: where it lies depends on the mail server's working folder",
                  "write the whole path, with its drive");
        }
        if (value.find(" ;") != std::string_view::npos || value.find("\t;") != std::string_view::npos) {
            Misread("the comment after the path of logfile is read as part of the path",
                    "put the comment on a line of its own");
        }
        if (value.find('%') != std::string_view::npos) {
            Doubt("logfile holds a %: environment variables are not replaced", "write the path itself");
        }
    }

    void ServersValue(std::string_view value) {
        if (value.size() > kMostServersText) {
            Misread("servers is longer than 999 characters and is cut", "name fewer servers");
            value = value.substr(0, kMostServersText);
        }
        ServerList servers;
        servers.Append(value);
        for (const ServerEntry& taken : servers) {
            const std::string_view written = value.substr(0, value.find(' '));
            value.remove_prefix(std::min(written.size() + 1, value.size()));
            const std::string_view host = taken.host;
            const std::string port = std::to_string(taken.port);
            const bool has_port = host.size() < written.size();
            const std::string_view given = has_port ? written.substr(host.size() + 1) : port;
            const bool comment = written.starts_with(';') || written.starts_with('#');
            if (comment || host.empty() || host.find_first_of(",;\t[]/") != std::string_view::npos ||
                taken.port == 0 || !AllDigits(given) || WithoutZeros(given) != port) {
                Misread(Quoted(written) + " is read as host " + Quoted(host) + ", port " + port,
                        "write host:port with a port from 1 to 65535, single blanks only between servers, "
                        "and a comment on a line of its own");
            } else if (LowerAscii(host) == "localhost") {
                Doubt("a refused connection to localhost can cost two seconds", "write 127.0.0.1");
            }
            if (comment) {
                return;
            }
        }
    }

    std::vector<IniFinding> findings_;
    std::vector<std::pair<std::string, IniFinding>> elsewhere_;  // of known keys in other sections
    std::set<std::string> seen_;                                 // known keys
    size_t line_ = 1;
    bool section_seen_ = false;
    bool in_section_ = false;
    bool other_section_ = false;
};

}  // namespace

std::vector<IniFinding> LintIni(std::string_view text) {
    return Linter().Lint(text);
}

}  // namespace kesto::host

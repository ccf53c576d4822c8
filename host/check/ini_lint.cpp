#include "host/check/ini_lint.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "common/ini_lines.h"

namespace kesto::host {
namespace {

enum class ValueKind { kServers, kSwitch, kSeconds, kCount, kPath };

struct KnownKey {
    std::string_view name;
    ValueKind kind;
};

constexpr std::string_view kSection = "kestoav";
constexpr std::array kKnownKeys = {
    KnownKey{"servers", ValueKind::kServers},     KnownKey{"encrypt", ValueKind::kSwitch},
    KnownKey{"autostart", ValueKind::kSwitch},    KnownKey{"startwait", ValueKind::kSeconds},
    KnownKey{"connectwait", ValueKind::kSeconds}, KnownKey{"restartcount", ValueKind::kCount},
    KnownKey{"logfile", ValueKind::kPath},
};

constexpr size_t kMostServersText = 999;  // characters that the reader accepts
constexpr size_t kMostPath = 259;
constexpr long kLongWait = 3600;  // seconds; a mail that waits longer for its scan is lost anyway

std::string Quoted(std::string_view text) {
    return "\"" + std::string(text.substr(0, 100)) + "\"";
}

bool AllDigits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

const KnownKey* Known(std::string_view name) {
    const auto* found = std::find_if(kKnownKeys.begin(), kKnownKeys.end(),
                                     [&](const KnownKey& key) { return key.name == name; });
    return found == kKnownKeys.end() ? nullptr : found;
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
        for (const Elsewhere& setting : elsewhere_) {
            if (!seen_[setting.key]) {
                line_ = setting.line;
                Doubt(setting.text + " is outside the section [kestoav] and is not read",
                      "move it below the line [kestoav], if it is meant for the plug-in");
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
        const KnownKey* const key = Known(line.name);
        if (key && !other_section_ && !section_seen_) {
            Misread(Quoted(line.text) + " is outside the section [kestoav] and is not read",
                    "move it below the line [kestoav]");
        } else if (key && other_section_) {
            elsewhere_.push_back({line_, static_cast<size_t>(key - kKnownKeys.data()), Quoted(line.text)});
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
        const KnownKey* const key = Known(line.name);
        if (key == nullptr) {
            Misread("the key " + Quoted(line.name) + " is not known, and its value not read",
                    "remove the line, or write one of the keys servers, encrypt, autostart, startwait, "
                    "connectwait, restartcount and logfile");
            return;
        }
        bool& seen = seen_[static_cast<size_t>(key - kKnownKeys.data())];
        if (seen) {
            Misread("the key " + Quoted(line.name) + " is given twice: only the first is read",
                    "remove one of the two lines");
            return;
        }
        seen = true;
        Value(*key, line.value);
    }

    void Value(const KnownKey& key, std::string_view value) {
        switch (key.kind) {
            case ValueKind::kServers:
                ServersValue(value);
                break;
            case ValueKind::kPath:
                PathValue(value);
                break;
            case ValueKind::kSwitch:
            case ValueKind::kSeconds:
            case ValueKind::kCount:
                NumberValue(key, value);
                break;
        }
    }

    void NumberValue(const KnownKey& key, std::string_view value) {
        const std::string name(key.name);
        const bool is_switch = key.kind == ValueKind::kSwitch;
        const std::string remedy =
            is_switch ? "write " + name + "=1 or " + name + "=0" : "write " + name + "= and a whole number";
        if (AllDigits(value) && value.size() <= 9) {
            if (key.name == "startwait" && value.find_first_not_of('0') == std::string_view::npos) {
                Doubt("startwait=0 gives an engine that was started again no time to listen",
                      "write startwait=120");
            }
            if (key.kind == ValueKind::kSeconds && std::stol(std::string(value)) > kLongWait) {
                Doubt(name + " is over an hour, for which a mail may have to wait",
                      "write a number of seconds such as 120");
            }
            return;
        }
        // The reader stops at the first character that is not a digit.
        const size_t digits = value.find_first_not_of("0123456789");
        const bool minus = value.starts_with('-') && AllDigits(value.substr(1));
        if (minus && key.kind == ValueKind::kSeconds) {
            Misread(name + "=" + std::string(value.substr(0, 20)) + " is read as a limit of over a century",
                    remedy);
        } else if (minus || (digits == std::string_view::npos && !value.empty())) {
            Doubt(Quoted(value) + " is an odd value for " + name, remedy);
        } else if (value.empty() || digits == 0) {
            Misread(name + "=" + Quoted(value) + " is not a number and is read as 0" +
                        (is_switch ? ", which is off" : ""),
                    remedy);
        } else {
            Misread(name + "=" + Quoted(value) +
                        " is read as a number that ends before the first other character",
                    remedy);
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
        for (;;) {
            const size_t end = std::min(value.find(' '), value.size());
            if (!Server(value.substr(0, end)) || end == value.size()) {
                return;
            }
            value.remove_prefix(end + 1);
        }
    }

    // False when the rest of the line is a comment, which has been reported already.
    bool Server(std::string_view server) {
        const size_t colon = server.find(':');
        const std::string_view host = server.substr(0, colon);
        if (server.starts_with(';') || server.starts_with('#')) {
            Misread("the comment after the servers is read as further servers",
                    "put the comment on a line of its own");
            return false;
        }
        if (server.find_first_of(",;\t") != std::string_view::npos) {
            Misread(Quoted(server) + " is read as one server", "separate servers by single blanks only");
            return true;
        }
        if (host.empty()) {
            Misread("servers holds an empty host, which never answers",
                    "write host:port, with single blanks between servers");
        } else if (host.find_first_of("[]/") != std::string_view::npos) {
            Misread(Quoted(host) + " is read as the name of a host",
                    "write an IPv4 address or a name, then :port");
        } else if (LowerAscii(host) == "localhost") {
            Doubt("a refused connection to localhost can cost two seconds", "write 127.0.0.1");
        }
        if (colon != std::string_view::npos) {
            Port(server.substr(colon + 1), server);
        }
        return true;
    }

    void Port(std::string_view port, std::string_view server) {
        const std::string remedy = "write host:port with a port from 1 to 65535";
        if (!AllDigits(port)) {
            Misread("the port of " + Quoted(server) +
                        " is not a number: it is read up to the first other character, "
                        "and as 0 without a digit",
                    remedy);
            return;
        }
        const size_t zeros = std::min(port.find_first_not_of('0'), port.size());
        const std::string_view significant = port.substr(zeros);
        if (significant.empty()) {
            Misread("the port of " + Quoted(server) + " is 0, on which nothing can listen", remedy);
        } else if (significant.size() > 5 || std::stol(std::string(significant)) > UINT16_MAX) {
            Misread("the port of " + Quoted(server) + " is above 65535 and becomes another one", remedy);
        }
    }

    struct Elsewhere {
        size_t line;
        size_t key;  // its index
        std::string text;
    };

    std::vector<IniFinding> findings_;
    std::vector<Elsewhere> elsewhere_;
    std::array<bool, kKnownKeys.size()> seen_ = {};
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

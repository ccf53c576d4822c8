#include "host/check/check_engine.h"

#include <windows.h>

#include <algorithm>
#include <string_view>

#include "common/error_words.h"
#include "common/file_bytes.h"
#include "common/processes.h"
#include "common/text.h"
#include "host/check/check_settings.h"
#include "host/check/dynamic_ports.h"
#include "host/check/port_owner.h"

namespace kesto::host {
namespace {

constexpr unsigned kLeastIdle = 20;          // seconds for which the plug-in waits for a byte
constexpr unsigned kMostUsefulWait = 120;    // seconds; a scan ends soon after that in any case
constexpr unsigned kMostSensibleKeep = 512;  // MB; a 32-bit program has 2 GB for everything
constexpr unsigned kDefaultDynamic = 49152;  // first of the ports for outgoing connections
constexpr uint32_t kLogTail = 4096;          // bytes; holds the last line

// The plug-in starts programs by an unquoted command line, in which the system tries each part up to a
// blank first.
void CheckBlanks(Findings& findings, const std::wstring& program) {
    for (size_t blank = program.find(L' '); blank != std::wstring::npos;
         blank = program.find(L' ', blank + 1)) {
        const std::wstring part = program.substr(0, blank);
        for (const std::wstring& other : {part, part + L".exe"}) {
            if (IsFile(other)) {
                findings.Failed(
                    "folder", Utf8FromWide(other) + " would be started in place of the engine",
                    "remove it and find out who put it there, or install into a folder without blanks");
                return;
            }
        }
    }
    if (program.find(L' ') != std::wstring::npos) {
        findings.Warning(
            "folder", "its path holds a blank: another program could be put in the engine's place",
            "install into a folder without blanks, or keep users from writing to the folders above it");
    }
}

// The last line of the bridge's log, if it tells why the bridge did not start.
std::string LastEnd(const std::wstring& log_path) {
    const std::string tail = FileTail(log_path, kLogTail);
    std::string_view text = tail;
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    text.remove_prefix(text.find_last_of("\r\n") + 1);
    const size_t at = text.find(kCannotStart);
    return at == std::string_view::npos ? "" : Utf8FromAnsi(text.substr(at));
}

void CheckMeaning(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge) {
    const BridgeSettings& settings = bridge.ini.settings;
    const std::string check = "bridge settings";
    if (bridge.used && settings.decrypt != installed.settings.encrypt) {
        const std::string value = installed.settings.encrypt ? "1" : "0";
        findings.Failed(check,
                        "decrypt differs from encrypt=" + value + " in kestoav.ini: every virus passes",
                        "write decrypt=" + value + " into bridge.ini, then run kestoscan --restart");
    }
    if (!settings.listen.host.starts_with("127.")) {
        findings.Warning(check,
                         "listens on " + AddressText(settings.listen) +
                             ", where other machines reach it, and asks nobody for a password",
                         "write listen=127.0.0.1:" + std::to_string(settings.listen.port) +
                             ", or have the firewall keep others out");
    }
    const auto dynamic = DynamicPorts();
    if (dynamic && settings.listen.port - dynamic->first < dynamic->count) {
        const std::string port = std::to_string(settings.listen.port);
        findings.Warning(check,
                         "port " + port +
                             " is one that Windows gives to outgoing connections: while the engine is down a "
                             "scan can be connected to itself",
                         settings.listen.port < kDefaultDynamic
                             ? "run: netsh int ipv4 set dynamicport tcp start=49152 num=16384"
                             : "choose a port below 49152 for listen= and servers=");
    }
    if (settings.idle < kLeastIdle) {
        findings.Warning(check,
                         "idle=" + std::to_string(settings.idle) +
                             " gives up what the plug-in still waits for, which is 20 s",
                         "write idle=30");
    }
    if (settings.keep > kMostSensibleKeep) {
        findings.Warning(
            check, "keep=" + std::to_string(settings.keep) + " may be more memory than kestobridge.exe gets",
            "write keep=128, or 512 at most");
    }
    for (const auto& [key, value] : {std::pair{"wait", settings.wait}, {"verdict", settings.verdict}}) {
        if (value > kMostUsefulWait) {
            findings.Warning(check,
                             std::string(key) + "=" + std::to_string(value) +
                                 " is longer than the plug-in can be kept waiting",
                             std::string("write ") + key + "=120 or less");
        }
    }
}

}  // namespace

bool LeadsTo(const Endpoint& server, const InstalledBridge& bridge) {
    const ServerAddress& listen = bridge.ini.settings.listen;
    if (server.port != listen.port) {
        return false;
    }
    auto address = ParseHost(server.host);
    if (!address || address->kind == HostKind::kName) {
        return address.has_value();
    }
    address->port = listen.port;
    return listen.host == "0.0.0.0" ? IsOfThisMachine(*address, bridge) : *address == listen;
}

bool IsOfThisMachine(const ServerAddress& listen, const InstalledBridge& bridge) {
    ServerAddress address = listen;
    address.port = 0;
    return address.bytes[0] == 127 ||
           std::find(bridge.own.begin(), bridge.own.end(), address) != bridge.own.end();
}

std::string ShiftRemedy(const Endpoint& server, const InstalledPlugin& installed,
                        const InstalledBridge& bridge) {
    if (!bridge.has_ini || !LeadsTo(server, bridge)) {
        return std::string("write encrypt=") + (installed.settings.encrypt ? "0" : "1") +
               " into kestoav.ini, and start the mail server again";
    }
    return !bridge.ini.problems.empty() ? "first correct bridge.ini"
           : bridge.ini.settings.decrypt != installed.settings.encrypt
               ? "do what is said of decrypt under \"bridge settings\""
               : "run kestoscan --restart: the bridge still runs with earlier settings";
}

InstalledBridge ReadBridge(const InstalledPlugin& installed) {
    InstalledBridge bridge;
    bridge.has_ini = !IsMissing(BridgeIniPath(installed.engine_folder));
    bridge.ini = ReadBridgeIni(installed.engine_folder);
    bridge.own = OwnAddresses();
    bridge.used = std::any_of(installed.servers.begin(), installed.servers.end(),
                              [&](const Endpoint& server) { return LeadsTo(server, bridge); });
    bridge.last_end = LastEnd(BridgeLogPath(bridge.ini.settings, installed.engine_folder));
    return bridge;
}

bool StartsWithTheFirstScan(const InstalledPlugin& installed, const InstalledBridge& bridge) {
    return !installed.settings.autostart && bridge.last_end.empty() && EngineProcesses().empty() &&
           !ProgramFault(installed.engine);
}

Findings CheckEngineProgram(const InstalledPlugin& installed) {
    Findings findings;
    const std::string name = Utf8FromWide(installed.engine);
    if (const Fault fault = ProgramFault(installed.engine)) {
        findings.Failed("engine program", name + " " + fault.text + ": no engine can be started",
                        fault.code == ERROR_ACCESS_DENIED
                            ? "give this account, and the mail server's, the right to read and run it"
                            : "copy kestoav.exe from the release there");
        return findings;
    }
    findings.Ok("engine program", name + " is there");
    CheckBlanks(findings, installed.engine);
    return findings;
}

Findings CheckBridgeSettings(const InstalledPlugin& installed, const InstalledBridge& bridge) {
    Findings findings;
    if (!bridge.has_ini && (!bridge.used || !IsFile(installed.engine))) {
        return findings;
    }
    for (const std::string& problem : bridge.ini.problems) {
        findings.Failed("bridge settings", Utf8FromAnsi(problem),
                        bridge.ini.readable
                            ? "correct it: no scan succeeds before kestobridge.exe can follow it"
                            : "give this account, and the mail server's, the right to read it");
    }
    if (bridge.ini.problems.empty()) {
        CheckMeaning(findings, installed, bridge);
        findings.Ok("bridge settings",
                    std::string(bridge.has_ini ? "in effect: " : "bridge.ini is missing, in effect: ") +
                        SettingsText(bridge.ini.settings));
    }
    const std::wstring log = BridgeLogPath(bridge.ini.settings, installed.engine_folder);
    const bool off =
        bridge.ini.settings.logfile.empty() && GetFileAttributesW(log.c_str()) == INVALID_FILE_ATTRIBUTES;
    if (off) {
        findings.Ok("bridge log", "off; an empty " + Utf8FromWide(log) + " turns it on");
    } else {
        CheckLogFile(findings, "bridge log", log);
    }
    return findings;
}

Findings CheckEngineProcess(const InstalledPlugin& installed, const InstalledBridge& bridge) {
    Findings findings;
    const std::string check = "engine process";
    const std::vector<ProgramProcess> engines = EngineProcesses();
    const auto hidden =
        std::count_if(engines.begin(), engines.end(), [](const auto& e) { return !e.visible; });
    const ServerAddress& listen = bridge.ini.settings.listen;
    const auto owner = bridge.used ? ListenerOn(listen.host, listen.port) : std::nullopt;
    const std::string taken =
        owner ? "its port " + AddressText(listen) + " is taken by " + OwnerText(*owner) : "";
    const std::string free_port =
        "end that program, or change listen= in bridge.ini and servers= in kestoav.ini";
    if (engines.empty()) {
        std::string text = "kestoav.exe does not run: no scan connects before it does";
        std::string remedy = "start the mail server, or " + Utf8FromWide(installed.engine);
        if (StartsWithTheFirstScan(installed, bridge) && !owner) {
            findings.Warning(check, "kestoav.exe does not run: with autostart=0 the first scan starts it",
                             "scan a file with kestoscan, and check again");
            return findings;
        }
        if (!bridge.last_end.empty()) {
            text += "; the last line of its log is \"" + bridge.last_end + "\"";
            remedy = "correct what its log says, then " + remedy;
        }
        if (owner) {
            text += "; " + taken;
            remedy = free_port + "; then " + remedy;
        }
        findings.Failed(check, text, remedy);
    } else if (hidden == static_cast<int64_t>(engines.size())) {
        findings.Failed(check, "kestoav.exe runs, but this account may not see it",
                        "run the check as the mail server's account or as an administrator");
    } else if (engines.size() > 1) {
        findings.Warning(check,
                         std::to_string(engines.size()) +
                             " processes named kestoav.exe run: the plug-in cannot restart its engine then",
                         "end all but one");
    } else if (!engines[0].path.empty() && !NameSameFile(engines[0].path, installed.engine)) {
        findings.Warning(check, "kestoav.exe runs from elsewhere: " + Utf8FromWide(engines[0].path),
                         "end it unless it is meant to be this plug-in's engine");
    } else if (bridge.has_ini && owner && !owner->program.empty() && owner->process_id != engines[0].id) {
        findings.Failed(check,
                        "kestoav.exe runs as process " + std::to_string(engines[0].id) + ", but " + taken,
                        free_port);
    } else {
        findings.Ok(check, "kestoav.exe runs as process " + std::to_string(engines[0].id));
    }
    return findings;
}

}  // namespace kesto::host

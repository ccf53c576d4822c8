#include <windows.h>

#include <utility>

#include "base/clamd_words.h"
#include "common/text.h"
#include "host/check/checks.h"
#include "host/check/dynamic_ports.h"

namespace kesto::host {
namespace {

constexpr unsigned kLeastIdle = kIdleLimitMs / 1000;  // seconds
constexpr unsigned kMostUsefulWait = 120;             // seconds; a scan ends soon after that in any case
constexpr unsigned kMostSensibleKeep = 512;           // MB; a 32-bit program has 2 GB for everything
constexpr unsigned kDefaultDynamic = 49152;           // first of the ports for outgoing connections

void CheckMeaning(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge) {
    const BridgeSettings& settings = bridge.ini.settings;
    const std::string check = "bridge settings", port = std::to_string(settings.listen.port);
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
                         "write listen=127.0.0.1:" + port + ", or have the firewall keep others out");
    }
    const auto dynamic = DynamicPorts();
    if (dynamic && settings.listen.port - dynamic->first < dynamic->count) {
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
                             " gives up what the plug-in still waits for, which is " +
                             std::to_string(kLeastIdle) + " s",
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

void CheckBridge(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge) {
    if (!bridge.has_ini && (!bridge.used || !IsFile(installed.engine))) {
        return;
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
}

}  // namespace kesto::host

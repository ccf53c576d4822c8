#include "common/text.h"
#include "host/check/check_server.h"
#include "host/check/checks.h"

namespace kesto::host {
namespace {

// What to do when the engine at this entry of the list finds viruses only in bytes shifted the other way.
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

void TellWhetherTheyMeet(Findings& findings, const InstalledBridge& bridge, bool all_well) {
    if (!bridge.has_ini || bridge.used || !bridge.ini.problems.empty()) {
        return;
    }
    const std::string listen = kesto::AddressText(bridge.ini.settings.listen);
    const std::string text =
        "listen=" + listen + " is not one of servers= in kestoav.ini: scans bypass the bridge";
    const std::string here = "127.0.0.1:" + std::to_string(bridge.ini.settings.listen.port);
    if (all_well) {
        findings.Ok("bridge settings", text);
    } else if (IsOfThisMachine(bridge.ini.settings.listen, bridge)) {
        findings.Failed("bridge settings", text, "write servers=" + listen + " into kestoav.ini");
    } else {
        findings.Failed("bridge settings", text,
                        "write listen=" + here + " into bridge.ini and servers=" + here +
                            " into kestoav.ini: this machine can be reached there");
    }
}

}  // namespace

void CheckServers(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge,
                  Deadline deadline) {
    std::vector<CheckedServer> asked;
    const bool not_yet = StartsWithTheFirstScan(installed, bridge);
    for (const Endpoint& server : installed.servers) {
        if (!not_yet || !LeadsTo(server, bridge)) {
            asked.push_back({"server " + AddressText(server), server, true, installed.settings.encrypt,
                             ShiftRemedy(server, installed, bridge)});
        }
    }
    if (bridge.used && bridge.ini.problems.empty()) {
        for (const ServerAddress& server : bridge.ini.settings.upstreams) {
            asked.push_back({"upstream " + kesto::AddressText(server),
                             {server.host, server.port},
                             false,
                             false,
                             "have it leave the bytes alone, as a stock clamd does"});
        }
    }
    const std::vector<Findings> answers = AskServers(asked, deadline);
    Findings servers, upstreams;
    for (size_t i = 0; i < asked.size(); ++i) {
        (asked[i].of_plugin ? servers : upstreams).Add(answers[i]);
    }
    findings.Add(servers);
    TellWhetherTheyMeet(findings, bridge, !servers.AnyFailed());
    // Without a bridge.ini there may be another engine in place of the bridge. As long as that scans, the
    // servers behind it do not matter here.
    if (bridge.has_ini || servers.AnyFailed()) {
        findings.Add(upstreams);
    }
}

}  // namespace kesto::host

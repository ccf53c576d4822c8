#include <windows.h>

#include <algorithm>

#include "common/processes.h"
#include "common/text.h"
#include "host/check/checks.h"
#include "host/common/port_owner.h"

namespace kesto::host {
namespace {

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

}  // namespace

void CheckEngineProgram(Findings& findings, const InstalledPlugin& installed) {
    const std::string name = Utf8FromWide(installed.engine);
    if (const Fault fault = ProgramFault(installed.engine)) {
        findings.Failed("engine program", name + " " + fault.text + ": no engine can be started",
                        fault.code == ERROR_ACCESS_DENIED
                            ? "give this account, and the mail server's, the right to read and run it"
                            : "copy kestoav.exe from the release there");
        return;
    }
    findings.Ok("engine program", name + " is there");
    CheckBlanks(findings, installed.engine);
}

void CheckEngineProcess(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge) {
    const ServerAddress& listen = bridge.ini.settings.listen;
    const auto engines = EngineProcesses();
    TellEngineProcess(findings, installed, bridge, engines,
                      bridge.used ? ListenerOn(listen.host, listen.port) : std::nullopt,
                      engines.empty() ? "" : Utf8FromWide(AccountOf(engines[0].id)));
}

void TellEngineProcess(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge,
                       const std::vector<ProgramProcess>& engines, const std::optional<PortOwner>& owner,
                       const std::string& account) {
    const std::string check = "engine process";
    const std::string hidden = HiddenEngine(engines);
    const std::string runs = !hidden.empty() || engines.empty()
                                 ? hidden
                                 : "kestoav.exe runs as process " + std::to_string(engines[0].id) +
                                       (account.empty() ? "" : " under ") + account;
    const std::string taken =
        owner ? "its port " + AddressText(bridge.ini.settings.listen) + " is taken by " + OwnerText(*owner)
              : "";
    const bool lost_port = bridge.has_ini && owner && !owner->program.empty() &&
                           std::none_of(engines.begin(), engines.end(),
                                        [&](const auto& e) { return e.id == owner->process_id; });
    const std::string free_port =
        "end that program, or change listen= in bridge.ini and servers= in kestoav.ini";
    if (engines.empty()) {
        std::string text = "kestoav.exe does not run: no scan connects before it does";
        std::string remedy = "start the mail server, or " + Utf8FromWide(installed.engine);
        if (StartsWithTheFirstScan(installed, bridge) && !owner) {
            findings.Warning(check, "kestoav.exe does not run: with autostart=0 the first scan starts it",
                             "scan a file with kestoscan, and check again");
            return;
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
    } else if (hidden.empty() && engines.size() > 1) {
        findings.Warning(check,
                         std::to_string(engines.size()) +
                             " processes named kestoav.exe run: the plug-in cannot restart its engine then",
                         "end all but one");
    } else if (hidden.empty() && !engines[0].path.empty() &&
               !NameSameFile(engines[0].path, installed.engine)) {
        findings.Warning(check, "kestoav.exe runs from elsewhere: " + Utf8FromWide(engines[0].path),
                         "end it unless it is meant to be this plug-in's engine");
    } else if (lost_port) {
        findings.Failed(check, runs + ", but " + taken, free_port);
    } else if (!hidden.empty()) {
        findings.Warning(check, runs, "run the check as an administrator, who may look at it");
    } else {
        findings.Ok(check, runs);
    }
}

}  // namespace kesto::host

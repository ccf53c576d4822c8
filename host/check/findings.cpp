#include "host/check/findings.h"

#include <algorithm>

#include "common/text.h"
#include "host/common/json_line.h"
#include "host/common/output.h"

namespace kesto::host {
namespace {

constexpr const char* kStateNames[] = {"ok", "warning", "failed"};

const char* Name(CheckState state) {
    return kStateNames[static_cast<size_t>(state)];
}

}  // namespace

bool Findings::AnyFailed() const {
    return std::any_of(all_.begin(), all_.end(),
                       [](const Finding& finding) { return finding.state == CheckState::kFailed; });
}

std::string FindingLine(const Finding& finding) {
    std::string line = Name(finding.state);
    line.resize(9, ' ');
    line += finding.check + ": " + finding.text;
    if (!finding.remedy.empty()) {
        line += " -> " + finding.remedy;
    }
    return Printable(line);
}

void ShowStep(const std::string& what) {
    if (ProgressShown()) {
        DrawProgress("checking " + what + " ...");
    }
}

void CheckReport::Add(const Findings& findings) {
    for (const Finding& finding : findings.All()) {
        ++counts_[static_cast<size_t>(finding.state)];
        if (!json_) {
            PrintOut(FindingLine(finding) + "\n");
            continue;
        }
        Json object = {{"check", Printable(finding.check)},
                       {"state", Name(finding.state)},
                       {"text", Printable(finding.text)}};
        if (!finding.remedy.empty()) {
            object["remedy"] = Printable(finding.remedy);
        }
        json_checks_ += (json_checks_.empty() ? "\n" : ",\n") + JsonLine(object);
    }
}

int CheckReport::Finish() {
    const auto [ok, warnings, failed] = counts_;
    if (json_) {
        const CheckState worst = failed != 0     ? CheckState::kFailed
                                 : warnings != 0 ? CheckState::kWarning
                                                 : CheckState::kOk;
        const Json summary = {{"state", Name(worst)}, {"ok", ok}, {"warnings", warnings}, {"failed", failed}};
        PrintOut("{\"checks\": [" + json_checks_ + "\n], \"summary\": " + JsonLine(summary) + "}\n");
    } else {
        PrintOut("\n" + std::to_string(ok) + " ok, " + std::to_string(warnings) +
                 (warnings == 1 ? " warning, " : " warnings, ") + std::to_string(failed) + " failed\n");
    }
    return failed != 0 ? kExitError : kExitClean;
}

}  // namespace kesto::host

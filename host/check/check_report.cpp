#include "host/check/check_report.h"

#include "host/common/exit_status.h"
#include "host/common/json.h"
#include "host/common/output.h"
#include "host/common/text.h"

namespace kesto {
namespace {

constexpr const char* kStateNames[] = {"ok", "warning", "failed"};

}  // namespace

void CheckReport::Add(CheckState state, std::string_view check, std::string_view text,
                      std::string_view remedy) {
    const auto index = static_cast<size_t>(state);
    ++counts_[index];
    if (json_) {
        JsonObject object;
        object.Add("check", check).Add("state", kStateNames[index]).Add("text", text);
        if (!remedy.empty()) {
            object.Add("remedy", remedy);
        }
        json_checks_ += (json_checks_.empty() ? "\n" : ",\n") + object.Text();
        return;
    }
    std::string line = kStateNames[index];
    line.resize(9, ' ');
    line += Printable(check);
    line += ": ";
    line += Printable(text);
    if (!remedy.empty()) {
        line += " -> ";
        line += Printable(remedy);
    }
    PrintOut(line + "\n");
}

int CheckReport::Finish() {
    const uint64_t failed = counts_[static_cast<size_t>(CheckState::kFailed)];
    const uint64_t warnings = counts_[static_cast<size_t>(CheckState::kWarning)];
    const uint64_t ok = counts_[static_cast<size_t>(CheckState::kOk)];
    if (json_) {
        const CheckState worst = failed != 0     ? CheckState::kFailed
                                 : warnings != 0 ? CheckState::kWarning
                                                 : CheckState::kOk;
        const JsonObject summary = JsonObject()
                                       .Add("state", kStateNames[static_cast<size_t>(worst)])
                                       .Add("ok", ok)
                                       .Add("warnings", warnings)
                                       .Add("failed", failed);
        PrintOut("{\"checks\": [" + json_checks_ + "\n], \"summary\": " + summary.Text() + "}\n");
    } else {
        PrintOut("\n" + std::to_string(ok) + " ok, " + std::to_string(warnings) + " warnings, " +
                 std::to_string(failed) + " failed\n");
    }
    return failed != 0 || OutputFailed() ? kExitError : kExitClean;
}

}  // namespace kesto

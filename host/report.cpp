#include "host/report.h"

#include <cstdio>

#include "common/text.h"
#include "host/common/output.h"

namespace kesto::host {
namespace {

// Printed with the first line, so that an interrupted run leaves a whole document or nothing.
constexpr char kJsonStart[] = "{\"files\": [";

std::string SummaryText(const ScanTotals& totals, bool interrupted) {
    std::string text = interrupted ? "\nInterrupted\n" : "\n";
    const auto line = [&](const char* name, uint64_t number) {
        text += name + (": " + std::to_string(number)) + "\n";
    };
    line("Scanned files", totals.scanned);
    line("Infected files", totals.infected);
    line("Errors", totals.errors);
    if (totals.done != totals.files) {
        line("Not scanned", totals.files - totals.done);
    }
    if (totals.left_out != 0) {
        line("Left out", totals.left_out);
    }
    char time[32];
    std::snprintf(time, sizeof time, "%.1f s", totals.seconds);
    return text + "Data scanned: " + ByteText(totals.bytes) + "\nTime: " + time + "\n";
}

Json SummaryJson(const ScanTotals& totals, bool interrupted) {
    return {{"scanned", totals.scanned},
            {"infected", totals.infected},
            {"errors", totals.errors},
            {"not_scanned", totals.files - totals.done},
            {"left_out", totals.left_out},
            {"bytes", totals.bytes},
            {"milliseconds", static_cast<uint64_t>(totals.seconds * 1000)},
            {"interrupted", interrupted}};
}

}  // namespace

void Report::Clean(const std::string& path, uint64_t size) {
    if (!options_.infected_only) {
        Tell({{"path", path}, {"result", "clean"}, {"size", size}}, path + ": OK", PrintOut);
    }
}

void Report::Infected(const std::string& path, uint64_t size, const std::string& virus,
                      const PutAwayResult& away) {
    const std::string done = away.done, where = Utf8FromWide(away.where);
    Json object = {{"path", path}, {"result", "infected"}, {"size", size}, {"name", virus}};
    if (!done.empty()) {
        object[done + "_to"] = where;
    }
    if (away.fault) {
        object.update({{"error", away.fault.text}, {"code", away.fault.code}});
    }
    Tell(object, path + ": " + (virus.empty() ? "(unnamed)" : virus) + " FOUND", PrintOut);
    if (!done.empty() && !options_.json) {
        PrintOut(Printable(path + ": " + done + " to " + where) + "\n");
    }
    if (away.fault && !options_.json) {
        Failed(path, away.fault);
    }
}

void Report::Failed(const std::string& path, const Fault& fault) {
    Tell({{"path", path}, {"result", "error"}, {"error", fault.text}, {"code", fault.code}},
         path + ": ERROR " + fault.text + " (" + std::to_string(fault.code) + ")",
         options_.infected_only ? PrintError : PrintOut);
}

void Report::Skipped(const std::string& path, const std::string& reason) {
    if (!options_.infected_only) {
        Tell({{"path", path}, {"result", "skipped"}, {"reason", reason}}, path + ": SKIPPED " + reason,
             PrintOut);
    }
}

void Report::Summary(const ScanTotals& totals, bool interrupted) {
    const std::string json_end =
        options_.no_summary ? "}\n" : ", \"summary\": " + JsonLine(SummaryJson(totals, interrupted)) + "}\n";
    if (options_.json) {
        PrintOut(std::string(first_ ? kJsonStart : "") + "\n]" + json_end);
    } else if (!options_.no_summary) {
        PrintOut(SummaryText(totals, interrupted));
    }
}

void Report::Tell(const Json& object, const std::string& line, void (*print)(std::string_view)) {
    if (!options_.json) {
        print(Printable(line) + "\n");
        return;
    }
    PrintOut((first_ ? std::string(kJsonStart) + "\n" : ",\n") + JsonLine(object));
    first_ = false;
}

}  // namespace kesto::host

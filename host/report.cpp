#include "host/report.h"

#include <cstdio>

#include "host/common/json.h"
#include "host/common/output.h"
#include "host/common/text.h"
#include "host/progress.h"

namespace kesto {
namespace {

// Comes with the first line printed, so that an interrupted run leaves a whole document or nothing.
constexpr char kJsonStart[] = "{\"files\": [";

std::string SecondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

std::string SummaryText(const ScanTotals& totals) {
    std::string text = "\n";
    if (totals.interrupted) {
        text += "Interrupted\n";
    }
    text += "Scanned files: " + std::to_string(totals.scanned) + "\n";
    text += "Infected files: " + std::to_string(totals.infected) + "\n";
    text += "Errors: " + std::to_string(totals.errors) + "\n";
    if (totals.not_scanned != 0) {
        text += "Not scanned: " + std::to_string(totals.not_scanned) + "\n";
    }
    text += "Data scanned: " + ByteText(totals.bytes) + "\n";
    text += "Time: " + SecondsText(totals.seconds) + "\n";
    return text;
}

std::string SummaryJson(const ScanTotals& totals) {
    return JsonObject()
        .Add("scanned", totals.scanned)
        .Add("infected", totals.infected)
        .Add("errors", totals.errors)
        .Add("not_scanned", totals.not_scanned)
        .Add("bytes", totals.bytes)
        .Add("milliseconds", static_cast<uint64_t>(totals.seconds * 1000))
        .Add("interrupted", totals.interrupted)
        .Text();
}

}  // namespace

Report::Report(const ReportOptions& options) : options_(options) {}

void Report::Clean(const std::string& path, uint64_t size) {
    if (options_.infected_only) {
        return;
    }
    if (options_.json) {
        JsonFile(JsonObject().Add("path", path).Add("result", "clean").Add("size", size).Text());
    } else {
        PrintOut(Printable(path) + ": OK\n");
    }
}

void Report::Infected(const std::string& path, uint64_t size, const std::string& virus) {
    if (options_.json) {
        JsonFile(JsonObject()
                     .Add("path", path)
                     .Add("result", "infected")
                     .Add("size", size)
                     .Add("name", virus)
                     .Text());
    } else {
        PrintOut(Printable(path + ": " + (virus.empty() ? "(unnamed)" : virus)) + " FOUND\n");
    }
}

void Report::Failed(const std::string& path, const std::string& error, uint32_t code) {
    const std::string line = Printable(path + ": ERROR " + error) + " (" + std::to_string(code) + ")\n";
    if (options_.infected_only) {
        PrintError(line);
    } else if (options_.json) {
        JsonFile(JsonObject()
                     .Add("path", path)
                     .Add("result", "error")
                     .Add("error", error)
                     .Add("code", uint64_t{code})
                     .Text());
    } else {
        PrintOut(line);
    }
}

void Report::Summary(const ScanTotals& totals) {
    if (options_.json) {
        PrintOut(std::string(first_ ? kJsonStart : "") + "\n], \"summary\": " + SummaryJson(totals) + "}\n");
    } else {
        PrintOut(SummaryText(totals));
    }
}

void Report::JsonFile(const std::string& object) {
    PrintOut((first_ ? std::string(kJsonStart) + "\n" : ",\n") + object);
    first_ = false;
}

}  // namespace kesto

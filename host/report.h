// The result of a scan: one line or JSON member for each file as it comes, and the summary.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/fault.h"
#include "host/common/json_line.h"
#include "host/progress.h"
#include "host/quarantine.h"

namespace kesto::host {

struct ReportOptions {
    bool json = false;
    bool infected_only = false;  // clean files are left out, and without JSON errors go to standard error
    bool no_summary = false;
};

// One run's report, to be used under OutputLock by any thread: whole lines and a whole JSON document
// even when the run is interrupted. Texts are UTF-8.
class Report {
 public:
    explicit Report(const ReportOptions& options) : options_(options) {}

    void Clean(const std::string& path, uint64_t size);
    void Infected(const std::string& path, uint64_t size, const std::string& virus,
                  const PutAwayResult& away);
    void Failed(const std::string& path, const Fault& fault);
    void Skipped(const std::string& path, const std::string& reason);
    void Summary(const ScanTotals& totals, bool interrupted);

 private:
    void Tell(const Json& object, const std::string& line, void (*print)(std::string_view));

    const ReportOptions options_;
    bool first_ = true;
};

}  // namespace kesto::host

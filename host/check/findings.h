// What a check finds, and how it is told: a line for each finding as it comes, or one JSON document at the
// end.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kesto::host {

enum class CheckState { kOk, kWarning, kFailed };

// Texts are UTF-8 and one line each.
struct Finding {
    CheckState state;
    std::string check;  // what was looked at; the same name in every run, so that monitoring can use it
    std::string text;
    std::string remedy;  // empty when nothing is to be done
};

class Findings {
 public:
    // The remedy is for what is not as it should be.
    void Add(CheckState state, const std::string& check, const std::string& text, const std::string& remedy) {
        all_.push_back({state, check, text, state == CheckState::kOk ? "" : remedy});
    }
    void Ok(const std::string& check, const std::string& text) { Add(CheckState::kOk, check, text, ""); }
    void Warning(const std::string& check, const std::string& text, const std::string& remedy) {
        Add(CheckState::kWarning, check, text, remedy);
    }
    void Failed(const std::string& check, const std::string& text, const std::string& remedy) {
        Add(CheckState::kFailed, check, text, remedy);
    }
    void Add(const Findings& more) { all_.insert(all_.end(), more.all_.begin(), more.all_.end()); }
    const std::vector<Finding>& All() const { return all_; }
    bool AnyFailed() const;

 private:
    std::vector<Finding> all_;
};

// "failed   engine program: ... -> ..."
std::string FindingLine(const Finding& finding);

// Tells what is looked at next, on a terminal only.
void ShowStep(const std::string& what);

class CheckReport {
 public:
    explicit CheckReport(bool json) : json_(json) {}

    void Add(const Findings& findings);

    // Prints the totals and returns the exit status. Warnings alone are not an error.
    int Finish();

 private:
    const bool json_;
    std::string json_checks_;
    uint64_t counts_[3] = {};  // by state
};

}  // namespace kesto::host

// The findings of a check: a line each as they come, or one JSON document at the end.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kesto::host {

enum class CheckState { kOk, kWarning, kFailed };

// Texts are UTF-8 and one line each.
struct Finding {
    CheckState state;
    std::string check;  // what was looked at, named the same in every run, for monitoring to key on
    std::string text;
    std::string remedy;  // empty when nothing is to be done
};

class Findings {
 public:
    void Ok(const std::string& check, const std::string& text) {
        findings_.push_back({CheckState::kOk, check, text, ""});
    }
    void Warning(const std::string& check, const std::string& text, const std::string& remedy) {
        findings_.push_back({CheckState::kWarning, check, text, remedy});
    }
    void Failed(const std::string& check, const std::string& text, const std::string& remedy) {
        findings_.push_back({CheckState::kFailed, check, text, remedy});
    }
    const std::vector<Finding>& All() const { return findings_; }
    bool Any(CheckState state) const;

 private:
    std::vector<Finding> findings_;
};

// "failed   engine program: ... -> ..."
std::string FindingLine(const Finding& finding);

class CheckReport {
 public:
    explicit CheckReport(bool json) : json_(json) {}

    // What is looked at next, told on a terminal only.
    void Step(std::string_view what) const;

    void Add(const Findings& findings);

    // Prints the totals and returns the exit status: warnings alone are no error.
    int Finish();

 private:
    const bool json_;
    std::string json_checks_;
    uint64_t counts_[3] = {};  // by state
};

}  // namespace kesto::host

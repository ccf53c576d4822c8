// The findings of a check: a line for each as it comes, or one JSON document at the end.
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
    std::string check;  // what was looked at; the same name in every run, so that monitoring can use it
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

    // Tells what is looked at next, on a terminal only.
    void Step(std::string_view what) const;

    void Add(const Findings& findings);

    // Prints the totals and returns the exit status. Warnings alone are not an error.
    int Finish();

 private:
    const bool json_;
    std::string json_checks_;
    uint64_t counts_[3] = {};  // by state
};

}  // namespace kesto::host

// The findings of a check: a line each as they come, or one JSON document at the end.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kesto {

enum class CheckState { kOk, kWarning, kFailed };

// Texts are UTF-8 and one line each.
class CheckReport {
 public:
    explicit CheckReport(bool json) : json_(json) {}

    // `check` names what was looked at, the same in every run, for monitoring to key on.
    void Ok(std::string_view check, std::string_view text) { Add(CheckState::kOk, check, text, ""); }
    void Warning(std::string_view check, std::string_view text, std::string_view remedy) {
        Add(CheckState::kWarning, check, text, remedy);
    }
    void Failed(std::string_view check, std::string_view text, std::string_view remedy) {
        Add(CheckState::kFailed, check, text, remedy);
    }

    // Prints the totals and returns the exit status: warnings alone are no error.
    int Finish();

 private:
    void Add(CheckState state, std::string_view check, std::string_view text, std::string_view remedy);

    const bool json_;
    std::string json_checks_;
    uint64_t counts_[3] = {};  // by state
};

}  // namespace kesto

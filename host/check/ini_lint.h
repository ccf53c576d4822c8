// What a settings file says differently than its writer meant: the reader never complains, but silently takes
// something else.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kesto::host {

struct IniFinding {
    size_t line;         // from 1
    bool misread;        // the scanner uses something else than was written; otherwise it is only a doubt
    std::string text;    // what is wrong
    std::string remedy;  // what to write instead
};

// `text` is the whole file in the ANSI code page. Any bytes will do.
std::vector<IniFinding> LintIni(std::string_view text);

}  // namespace kesto::host

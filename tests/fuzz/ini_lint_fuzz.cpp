#include <algorithm>
#include <cstdint>
#include <string>

#include "host/check/ini_lint.h"

// Every finding has a line that the file has, and something to say.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(data, data + size);
    const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    for (const kesto::IniFinding& finding : kesto::LintIni(text)) {
        if (finding.line < 1 || finding.line > lines || finding.text.empty() || finding.remedy.empty()) {
            __builtin_trap();
        }
    }
    return 0;
}

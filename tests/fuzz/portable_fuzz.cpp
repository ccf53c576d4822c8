// The fuzz target: what is said of any text by the parts that read what others write.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "base/clamd_words.h"
#include "host/check/ini_lint.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(data, data + size);
    const auto expect = [](bool holds) { return holds ? void() : abort(); };

    // Every finding is about a line of the file, and has a text.
    const auto ends_line = [](char c) { return c == '\n' || c == '\r'; };
    const int lines = static_cast<int>(std::count_if(text.begin(), text.end(), ends_line)) + 1;
    for (const kesto::host::IniFinding& each : kesto::host::LintIni(text)) {
        const int line = static_cast<int>(each.line);
        expect(line >= 1 && line <= lines && !each.text.empty() && !each.remedy.empty());
    }

    // The verdict's text is a part of the reply.
    expect(text.find(kesto::VerdictOfReply(text).text) != text.npos);
    return 0;
}

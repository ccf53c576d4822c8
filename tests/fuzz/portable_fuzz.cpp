// The fuzz targets, one for each part. PART names the function that gets the inputs.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "base/clamd_words.h"
#include "host/check/ini_lint.h"

namespace kesto {
using namespace host;

const auto Expect = [](bool holds) { return holds ? void() : abort(); };

// Every finding is about a line of the file, and has a text.
void ini_lint(const std::string& text) {
    const auto ends_line = [](char c) { return c == '\n' || c == '\r'; };
    const int lines = static_cast<int>(std::count_if(text.begin(), text.end(), ends_line)) + 1;
    for (const IniFinding& each : LintIni(text)) {
        const int line = static_cast<int>(each.line);
        Expect(line >= 1 && line <= lines && !each.text.empty() && !each.remedy.empty());
    }
}

// The verdict's text is a part of the reply.
void reply_verdict(const std::string& reply) {
    Expect(reply.find(VerdictOfReply(reply).text) != reply.npos);
}

}  // namespace kesto

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kesto::PART(std::string(data, data + size));
    return 0;
}

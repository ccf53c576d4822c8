#include "updater/update_log.h"

#include <algorithm>
#include <cstdio>

#include "base/bounded_text.h"
#include "base/log_line.h"
#include "common/text.h"

namespace kesto::updater {
namespace {

std::wstring g_path;

}  // namespace

void UseUpdateLog(const std::wstring& path) {
    g_path = path;
}

void LogUpdate(std::string line) {
    line.resize(std::min<size_t>(line.size(), kMessageSize - 1));
    if (FILE* log = _wfopen(g_path.c_str(), L"at")) {
        WriteLogLine(log, Printable(line).c_str());
        std::fclose(log);
    }
}

}  // namespace kesto::updater

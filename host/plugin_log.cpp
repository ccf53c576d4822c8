#include "host/plugin_log.h"

#include "base/log.h"
#include "common/file_bytes.h"
#include "common/text.h"

namespace kesto::host {
namespace {

constexpr uint32_t kTail = 64 << 10;  // enough for the lines of many scans at a time

}  // namespace

std::string LoggedResponse(const std::wstring& log, const std::string& name, uint32_t size) {
    const std::string tail = FileTail(log, kTail);
    char scan_line[kMessageSize];
    FormatText(scan_line, sizeof scan_line, kScanLine, name.c_str(), static_cast<unsigned long>(size));
    const size_t scan = tail.rfind(scan_line + std::string("\r\n"));
    const size_t response = tail.rfind(kUnexpectedReplyLine);
    if (scan == std::string::npos || response == std::string::npos || response < scan) {
        return "";
    }
    const std::string line = tail.substr(response, tail.find_first_of("\r\n", response) - response);
    return Utf8FromAnsi(line) + (line.ends_with(" - ") ? "(no reply)" : "");
}

}  // namespace kesto::host

#include "host/plugin_log.h"

#include <cstdint>

#include "host/common/file_bytes.h"
#include "host/common/text.h"

namespace kesto {
namespace {

constexpr uint32_t kTail = 64 << 10;  // holds the lines of a good many scans at a time
constexpr size_t kLoggedName = 100;   // characters of a file's name that the plug-in logs

}  // namespace

std::string LoggedResponse(const std::wstring& log, std::string_view name, uint32_t size) {
    if (log.empty()) {
        return "";
    }
    const std::string tail = FileTail(log, kTail);
    const size_t scan = tail.rfind("Scan file - " + std::string(name.substr(0, kLoggedName)) + " - " +
                                   std::to_string(size) + "\r\n");
    const size_t response = tail.rfind("Unexpected response from KESTOAV - ");
    if (scan == std::string::npos || response == std::string::npos || response < scan) {
        return "";
    }
    const std::string line = tail.substr(response, tail.find_first_of("\r\n", response) - response);
    return Utf8FromAnsi(line) + (line.ends_with(" - ") ? "(no reply)" : "");
}

}  // namespace kesto

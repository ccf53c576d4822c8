#include "common/error_words.h"

#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "common/text.h"

namespace kesto {
namespace {

// The system has texts for these, too, but they are long, and not every system has them.
constexpr struct {
    unsigned long code;
    const char* words;
} kSocketErrors[] = {
    {WSAEACCES, "access denied"},
    {WSAEMFILE, "out of sockets"},
    {WSAEADDRINUSE, "the port is in use"},
    {WSAEADDRNOTAVAIL, "this machine has no such address"},
    {WSAENETDOWN, "the network is down"},
    {WSAENETUNREACH, "no route to that network"},
    {WSAECONNABORTED, "connection aborted"},
    {WSAECONNRESET, "connection reset"},
    {WSAENOBUFS, "out of memory for sockets"},
    {WSAETIMEDOUT, "no answer"},
    {WSAECONNREFUSED, "connection refused"},
    {WSAEHOSTUNREACH, "no route to that machine"},
    {WSAHOST_NOT_FOUND, "no such name"},
    {WSATRY_AGAIN, "the name server does not answer"},
    {WSANO_RECOVERY, "the name server failed"},
    {WSANO_DATA, "the name has no address"},
};

}  // namespace

std::string SystemErrorText(unsigned long code) {
    const auto* known = std::find_if(std::begin(kSocketErrors), std::end(kSocketErrors),
                                     [code](const auto& error) { return error.code == code; });
    if (known != std::end(kSocketErrors)) {
        return known->words;
    }
    wchar_t buffer[512];
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK, nullptr,
        code, 0, buffer, 512, nullptr);
    std::wstring_view text(buffer, length);
    while (!text.empty() && (text.back() == L' ' || text.back() == L'.')) {
        text.remove_suffix(1);
    }
    return text.empty() ? "System error" : Utf8FromWide(text);
}

Fault SystemFault(unsigned long code, const std::string& before) {
    return {before + SystemErrorText(code), static_cast<uint32_t>(code)};
}

std::string SystemErrorWithCode(unsigned long code) {
    return SystemErrorText(code) + " (" + std::to_string(code) + ")";
}

std::string ErrorWords(unsigned long code) {
    return AnsiFromWide(WideFromUtf8(SystemErrorWithCode(code)));
}

}  // namespace kesto

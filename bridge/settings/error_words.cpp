#include "bridge/settings/error_words.h"

#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <iterator>

namespace kesto {
namespace {

// The system has texts for these, too, but long ones, and not everywhere.
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

std::string SystemWords(unsigned long code) {
    char words[512] = "";
    const DWORD length = FormatMessageA(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK, nullptr,
        code, 0, words, sizeof words, nullptr);
    std::string text(words, length);
    text.erase(text.find_last_not_of(" .\r\n") + 1);
    return text.empty() ? "system error" : text;
}

}  // namespace

std::string ErrorWords(unsigned long code) {
    const auto* known = std::find_if(std::begin(kSocketErrors), std::end(kSocketErrors),
                                     [code](const auto& error) { return error.code == code; });
    return (known != std::end(kSocketErrors) ? known->words : SystemWords(code)) + " (" +
           std::to_string(code) + ")";
}

}  // namespace kesto

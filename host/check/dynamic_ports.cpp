#include "host/check/dynamic_ports.h"

#include <windows.h>

#include <cstdlib>

#include "common/owned_handle.h"

namespace kesto::host {
namespace {

constexpr DWORD kNetshMs = 3000;
constexpr char kDigits[] = "0123456789";

}  // namespace

std::optional<PortRange> PortRangeIn(const std::string& netsh_output) {
    PortRange range = {0, 0};
    size_t number = 0;
    while ((number = netsh_output.find_first_of(kDigits, number)) != std::string::npos) {
        range = {range.count, static_cast<unsigned>(std::strtoul(&netsh_output[number], nullptr, 10))};
        number = netsh_output.find_first_not_of(kDigits, number);
    }
    const bool told = range.first != 0 && range.first <= UINT16_MAX;
    return told ? std::optional(range) : std::nullopt;
}

std::optional<PortRange> DynamicPorts() {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    if (!CreatePipe(&read, &write, &inherited, 0)) {
        return std::nullopt;
    }
    const OwnedHandle reading = Own(read), writing = Own(write);
    wchar_t system[MAX_PATH] = L"";
    GetSystemDirectoryW(system, MAX_PATH);
    std::wstring command =
        L"\"" + std::wstring(system) + L"\\netsh.exe\" interface ipv4 show dynamicport tcp";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write;
    PROCESS_INFORMATION netsh;
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                        &startup, &netsh)) {
        return std::nullopt;
    }
    const OwnedHandle process = Own(netsh.hProcess), thread = Own(netsh.hThread);
    char text[2000] = "";  // its output is far shorter, and fits into the pipe
    if (WaitForSingleObject(netsh.hProcess, kNetshMs) == WAIT_OBJECT_0) {
        PeekNamedPipe(read, text, sizeof text - 1, nullptr, nullptr, nullptr);
    }
    return PortRangeIn(text);
}

}  // namespace kesto::host

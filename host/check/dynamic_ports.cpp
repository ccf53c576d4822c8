#include "host/check/dynamic_ports.h"

#include <windows.h>

#include <algorithm>
#include <string>

namespace kesto::host {
namespace {

constexpr DWORD kNetshMs = 3000;

}  // namespace

std::optional<PortRange> PortRangeIn(std::string_view netsh_output) {
    unsigned numbers[2] = {};
    const std::string text(netsh_output);
    size_t end = text.size();
    for (unsigned& number : numbers) {
        end = text.find_last_of("0123456789", end == 0 ? 0 : end - 1);
        const size_t before = text.find_last_not_of("0123456789", end);
        if (end == std::string::npos || before == std::string::npos || end - before > 5) {
            return std::nullopt;
        }
        number = static_cast<unsigned>(std::stoul(text.substr(before + 1)));
        end = before + 1;
    }
    return PortRange{numbers[1], numbers[0]};
}

std::optional<PortRange> DynamicPorts() {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    wchar_t system[MAX_PATH] = L"";
    GetSystemDirectoryW(system, MAX_PATH);
    std::wstring command =
        L"\"" + std::wstring(system) + L"\\netsh.exe\" interface ipv4 show dynamicport tcp";
    if (!CreatePipe(&read, &write, &inherited, 0)) {
        return std::nullopt;
    }
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write;
    PROCESS_INFORMATION netsh = {};
    char text[2000] = "";  // its output is far shorter, and fits into the pipe
    DWORD size = 0;
    if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                       &startup, &netsh)) {
        if (WaitForSingleObject(netsh.hProcess, kNetshMs) == WAIT_OBJECT_0) {
            PeekNamedPipe(read, text, sizeof text, &size, nullptr, nullptr);
        }
        CloseHandle(netsh.hThread);
        CloseHandle(netsh.hProcess);
    }
    CloseHandle(read);
    CloseHandle(write);
    return PortRangeIn({text, size});
}

}  // namespace kesto::host

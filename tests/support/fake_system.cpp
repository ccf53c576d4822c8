#include "tests/support/fake_system.h"

#include <cstring>
#include <stdexcept>

namespace kesto {
namespace {

constexpr uint32_t kTickBase = 0xFFFFF000;
constexpr uint32_t kHandleBase = 0x10000000;  // above the system's own

FakeProcess* ProcessOf(HANDLE handle) {
    const uint32_t id = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle)) - kHandleBase;
    return id / 4 - 1 < g_system->processes.size() ? &g_system->processes[id / 4 - 1] : nullptr;
}

HANDLE NewHandle(size_t id) {
    ++g_system->open_handles;
    return reinterpret_cast<HANDLE>(kHandleBase + id);
}

DWORD WINAPI TickCount() {
    return kTickBase + (g_system->clock += g_system->look_takes);
}

void WINAPI Pause(DWORD ms) {
    g_system->clock += ms;
}

BOOL WINAPI Enumerate(DWORD* ids, DWORD size, DWORD* bytes) {
    g_system->calls.push_back("enumerate");
    size_t count = 1;
    ids[0] = 0;
    for (size_t i = 0; i < g_system->processes.size() && count < size / sizeof *ids; ++i) {
        const FakeProcess& each = g_system->processes[i];
        if (each.appears <= g_system->clock && g_system->clock < each.ends) {
            ids[count++] = static_cast<DWORD>(4 * (i + 1));
        }
    }
    *bytes = static_cast<DWORD>(count * sizeof *ids);
    return g_system->enumerates;
}

HANDLE WINAPI Open(DWORD rights, BOOL inherited, DWORD id) {
    g_system->calls.push_back("open " + std::to_string(rights) + (inherited ? " inherited " : " ") +
                              std::to_string(id));
    return id == 0 || (rights & g_system->processes.at(id / 4 - 1).refused) != 0 ? nullptr : NewHandle(id);
}

DWORD WINAPI ImageOf(HANDLE process, char* image, DWORD size) {
    const std::string& name = ProcessOf(process)->image;
    return name.size() < size ? name.copy(image, size) + (image[name.size()] = '\0') : 0;
}

BOOL WINAPI Terminate(HANDLE process, UINT code) {
    g_system->calls.push_back("terminate with " + std::to_string(code));
    const bool fails = g_system->end_takes == kNever;
    ProcessOf(process)->ends = fails ? kNever : g_system->clock + g_system->end_takes;
    return !fails;
}

DWORD WINAPI WaitOn(HANDLE handle, DWORD ms) {
    if (ProcessOf(handle) == nullptr) {
        return WaitForSingleObject(handle, ms);
    }
    g_system->calls.push_back("wait " + std::to_string(ms));
    return WAIT_FAILED;
}

BOOL WINAPI Close(HANDLE handle) {
    return ProcessOf(handle) == nullptr ? CloseHandle(handle) : --g_system->open_handles >= 0;
}

BOOL WINAPI Create(const char* application, char* command_line, SECURITY_ATTRIBUTES* of_process,
                   SECURITY_ATTRIBUTES* of_thread, BOOL inherits, DWORD flags, void* environment,
                   const char* folder, STARTUPINFOA* startup, PROCESS_INFORMATION* made) {
    STARTUPINFOA hidden = {};
    hidden.cb = sizeof hidden;
    hidden.dwFlags = STARTF_USESHOWWINDOW;
    const bool plain = application == nullptr && of_process == nullptr && of_thread == nullptr && !inherits &&
                       flags == 0 && environment == nullptr && memcmp(startup, &hidden, sizeof hidden) == 0;
    g_system->calls.push_back(std::string(plain ? "start " : "start otherwise ") + command_line + " in " +
                              folder);
    SetLastError(g_system->start_error);
    if (g_system->starts) {
        g_system->processes.push_back(g_system->started);
        g_system->processes.back().appears += g_system->clock;
        const size_t id = 4 * g_system->processes.size();
        *made = {NewHandle(id), NewHandle(id), static_cast<DWORD>(id), 1};
    }
    return g_system->starts;
}

BOOL WINAPI ExitCodeOf(HANDLE, DWORD* code) {
    *code = g_system->exit_code;
    return TRUE;
}

int WINAPI Connect(SOCKET socket, const sockaddr* address, int size) {
    const auto& server = *reinterpret_cast<const sockaddr_in*>(address);
    if (g_system->clock >= g_system->accepts_from && server.sin_addr.s_net == 127) {
        return connect(socket, address, size);
    }
    g_system->clock += 1000;
    WSASetLastError(WSAECONNREFUSED);
    return SOCKET_ERROR;
}

}  // namespace

void** ImportPatch::FindSlot(void* module, const char* name) {
    char* const base = static_cast<char*>(module);
    const auto& headers =
        *reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const DWORD imports = headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (auto* from = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports); from->Name != 0; ++from) {
        const auto* names = reinterpret_cast<DWORD*>(base + from->OriginalFirstThunk);
        for (size_t i = 0; names[i] != 0; ++i) {
            if (names[i] < IMAGE_ORDINAL_FLAG && strcmp(base + names[i] + 2, name) == 0) {
                return reinterpret_cast<void**>(base + from->FirstThunk) + i;
            }
        }
    }
    throw std::runtime_error(std::string(name) + " is not imported");
}

FakeSystem::FakeSystem(void* plugin)
    : patches_{{plugin, "GetTickCount", TickCount},
               {plugin, "Sleep", Pause},
               {plugin, "K32EnumProcesses", Enumerate},
               {plugin, "OpenProcess", Open},
               {plugin, "K32GetProcessImageFileNameA", ImageOf},
               {plugin, "TerminateProcess", Terminate},
               {plugin, "WaitForSingleObject", WaitOn},
               {plugin, "CloseHandle", Close},
               {plugin, "CreateProcessA", Create},
               {plugin, "GetExitCodeProcess", ExitCodeOf},
               {plugin, "connect", Connect}} {
    g_system = this;
}

}  // namespace kesto

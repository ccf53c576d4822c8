// What a guard (kestoav.exe), its worker (kestobridge.exe) and kestoscan tell each other. An old guard may
// start a new worker: the order of the members stays.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <string>

namespace kesto {

inline constexpr wchar_t kWorkerProgram[] = L"kestobridge.exe";

// The first that the worker finds on its standard input. That pipe breaks when the guard ends, and the worker
// with it.
struct WorkerOrders {
    uint32_t size = sizeof(WorkerOrders);
    uint32_t starts = 0;         // workers that the guard has started so far
    uint32_t known_problem = 0;  // not 0: the settings that could not be followed are as they were
    uint32_t alive = 0;          // handle of an event that the worker sets, again and again while it serves
    WSAPROTOCOL_INFOW listener = {};
};

// The only byte behind it: accept no further client, end the scans, go.
inline constexpr char kLeave = 'L';

// Exit code of a worker that cannot follow its settings, and has said so.
inline constexpr uint32_t kCannotFollow = 78;

// What the guard answers on its pipe when a restart has been asked for, by connecting, and has succeeded. All
// else is why it has not.
inline constexpr char kRestarted[] = "restarted";

// The pipe of the guard that lies in this folder, however its path is written.
std::wstring GuardPipe(const std::wstring& program_folder);

}  // namespace kesto

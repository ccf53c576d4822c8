// What a guard (kestoav.exe), its worker (kestobridge.exe) and kestoscan tell each other. An old guard may
// start a new worker, so the order of the members must not change.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <string>

namespace kesto {

inline constexpr wchar_t kWorkerProgram[] = L"kestobridge.exe";

// The first data on the worker's standard input. That pipe breaks when the guard ends, and then the worker
// ends, too.
struct WorkerOrders {
    uint32_t size = sizeof(WorkerOrders);
    uint32_t starts = 0;         // workers that the guard has started so far
    uint32_t known_problem = 0;  // not 0: the settings could not be followed before, and have not changed
    uint32_t alive = 0;          // handle of an event that the worker sets, again and again while it serves
    WSAPROTOCOL_INFOW listener = {};
};

// The only byte that may follow: accept no more clients, finish the scans, and end.
inline constexpr char kLeave = 'L';

// Exit code of a worker that cannot follow its settings and has logged that.
inline constexpr uint32_t kCannotFollow = 78;

// The guard's answer on its pipe when a restart that was asked for, by connecting, has succeeded. Any other
// answer tells why it has not.
inline constexpr char kRestarted[] = "restarted";

// The pipe of the guard in this folder, however the folder's path is written.
std::wstring GuardPipe(const std::wstring& program_folder);

}  // namespace kesto

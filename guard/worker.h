// A worker as its guard sees it: kestobridge.exe, started without a console or a window.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <string>

#include "common/owned_handle.h"
#include "common/worker_orders.h"

namespace kesto::guard {

struct Worker {
    uint32_t number = 0;
    OwnedHandle process;
    OwnedHandle orders;  // the pipe to it
    OwnedHandle alive;   // the event that it sets
    OwnedHandle closed;  // the event that is set while it accepts nobody
};

// Starts a worker that shares the listening socket. Returns the system's error code.
DWORD StartWorker(const std::wstring& folder, SOCKET listener, WorkerOrders orders, Worker& worker);

// Whether it has given a sign of life since the last call.
bool GaveSign(const Worker& worker);

void TellToLeave(const Worker& worker);

// How a process ended, in words: "crashed by an access violation (0xC0000005)".
std::string EndInWords(DWORD exit_code);

}  // namespace kesto::guard

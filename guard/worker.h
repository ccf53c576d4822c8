// A worker as its guard sees it: kestobridge.exe, started without a console or a window.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <chrono>
#include <string>

#include "common/guard_words.h"
#include "common/worker_orders.h"

namespace kesto::guard {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;

enum class State {
    kStarting,  // no sign of life yet
    kServing,
    kLeaving  // lets no more clients in, and ends after its running scans
};

struct Worker {
    State state = State::kStarting;
    HANDLE process = nullptr;
    HANDLE orders = nullptr;  // the pipe to it
    HANDLE alive = nullptr;   // the event that it sets
    Time started;
    Time heard;
};

// Starts a worker that shares the listening socket. Returns the system's error code.
DWORD StartWorker(const std::wstring& folder, SOCKET listener, WorkerOrders orders, Worker& worker);

// Whether it has given a sign of life since the last call.
bool GaveSign(const Worker& worker);

void TellToLeave(Worker& worker);

// To be called when it has ended.
void Forget(Worker& worker);

// How a process ended, in words: "crashed: access violation (0xC0000005)".
std::string EndInWords(DWORD exit_code);

}  // namespace kesto::guard

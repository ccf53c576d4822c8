// What a guard tells its worker, on the worker's standard input. That pipe breaks when the guard ends, and
// then the worker ends, too. Guard and worker may be of different versions: a new member goes to the end,
// where 0 must mean that the guard does not know it, and the others stay where they are.
#pragma once

#include <winsock2.h>

#include <cstdint>

namespace kesto {

struct WorkerOrders {
    uint32_t size = sizeof(WorkerOrders);
    uint32_t starts = 0;         // workers that the guard has started so far
    uint32_t known_problem = 0;  // not 0: the settings could not be followed before, and have not changed
    uint32_t alive = 0;          // handle of an event that the worker sets, again and again while it serves
    WSAPROTOCOL_INFOW listener = {};
    uint32_t closed = 0;  // handle of an event that is set except while the worker accepts clients
};

// The only byte that may follow: accept no more clients, finish the scans, and end.
inline constexpr char kLeave = 'L';

// Reads the orders as a guard of any version sends them: what it does not send keeps its default, and what
// this version does not know is passed over. False when there is no guard that tells at least where it
// listens.
bool ReadOrders(HANDLE input, WorkerOrders& orders);

}  // namespace kesto

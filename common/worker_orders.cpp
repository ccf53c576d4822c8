#include "common/worker_orders.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>

namespace kesto {
namespace {

bool ReadAll(HANDLE input, void* into, DWORD size) {
    for (DWORD read = 0; size != 0; size -= read, into = static_cast<std::byte*>(into) + read) {
        if (!ReadFile(input, into, size, &read, nullptr) || read == 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool ReadOrders(HANDLE input, WorkerOrders& orders) {
    uint32_t sent = 0;
    if (GetFileType(input) == FILE_TYPE_CHAR || !ReadAll(input, &sent, sizeof sent) ||
        sent < offsetof(WorkerOrders, closed)) {
        return false;
    }
    const auto known = static_cast<DWORD>(std::min<size_t>(sent, sizeof orders));
    char unknown = '\0';
    bool read = ReadAll(input, &orders.starts, known - sizeof orders.size);
    for (DWORD left = sent - known; read && left != 0; --left) {
        read = ReadAll(input, &unknown, 1);
    }
    return read;
}

}  // namespace kesto

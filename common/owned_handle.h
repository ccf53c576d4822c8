// A handle of the system, which is closed with its owner.
#pragma once

#include <windows.h>

#include <memory>

namespace kesto {

struct HandleCloser {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<void, HandleCloser>;

// The owner of what a system call has returned; empty for each of the two values by which such calls fail.
// The system's error code stays as it was.
inline OwnedHandle Own(HANDLE handle) {
    return OwnedHandle(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
}

}  // namespace kesto

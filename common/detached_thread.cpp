#include "common/detached_thread.h"

#include <windows.h>

#include <memory>
#include <utility>

namespace kesto {
namespace {

using Work = std::function<void()>;

DWORD WINAPI Run(void* argument) {
    const std::unique_ptr<Work> work(static_cast<Work*>(argument));
    (*work)();
    return 0;
}

}  // namespace

bool RunDetached(Work work) {
    auto handed_over = std::make_unique<Work>(std::move(work));
    HANDLE thread = CreateThread(nullptr, 0, Run, handed_over.get(), 0, nullptr);
    if (thread == nullptr) {
        return false;
    }
    static_cast<void>(handed_over.release());  // it is the thread's now
    CloseHandle(thread);
    return true;
}

}  // namespace kesto

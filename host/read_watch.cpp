#include "host/read_watch.h"

#include <windows.h>

#include <array>

namespace kesto::host {
namespace {

constexpr uint32_t kStep = 1 << 20;
constexpr uintptr_t kPage = 4096;

std::array<std::atomic<ReadWatch*>, 64> g_watches;

LONG CALLBACK OnException(EXCEPTION_POINTERS* raised) {
    const EXCEPTION_RECORD& record = *raised->ExceptionRecord;
    if (record.ExceptionCode == STATUS_GUARD_PAGE_VIOLATION && record.NumberParameters >= 2) {
        for (const auto& each : g_watches) {
            ReadWatch* const watch = each;
            if (watch != nullptr && watch->Reach(record.ExceptionInformation[1])) {
                return EXCEPTION_CONTINUE_EXECUTION;
            }
        }
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

ReadWatch::ReadWatch(uint8_t* bytes, uint32_t size) : bytes_(bytes), size_(size) {
    static void* const handler = AddVectoredExceptionHandler(TRUE, OnException);
    for (auto& each : g_watches) {
        ReadWatch* none = nullptr;
        if (handler != nullptr && each.compare_exchange_strong(none, this)) {
            Protect(PAGE_READWRITE | PAGE_GUARD);
            return;
        }
    }
}

ReadWatch::~ReadWatch() {
    for (auto& each : g_watches) {
        if (each == this) {
            Protect(PAGE_READWRITE);
            each = nullptr;
        }
    }
}

bool ReadWatch::Reach(uintptr_t address) {
    const uintptr_t offset = address - reinterpret_cast<uintptr_t>(bytes_);
    if (offset >= size_) {
        return false;
    }
    reached_ = static_cast<uint32_t>(offset);
    return true;
}

// Only pages that hold nothing but these bytes.
void ReadWatch::Protect(unsigned long protection) const {
    const uintptr_t misaligned = reinterpret_cast<uintptr_t>(bytes_) % kPage;
    for (uint64_t offset = kStep; offset + kPage < size_; offset += kStep) {
        DWORD before;
        VirtualProtect(bytes_ + offset - misaligned, kPage, protection, &before);
    }
}

}  // namespace kesto::host

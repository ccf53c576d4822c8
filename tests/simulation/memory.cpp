#include "tests/simulation/memory.h"

#include <cstdlib>
#include <new>

using kesto::simulation::g_memory;

namespace {

struct alignas(16) Header {
    int64_t size;  // 0: not the bridge's
};

void Count(const Header& header, int64_t sign) {
    g_memory.blocks += header.size != 0 ? sign : 0;
    g_memory.bytes += sign * header.size;
}

}  // namespace

void kesto::simulation::FailIfLacking() {
    if (g_memory.inside && g_memory.lacking != 0 && (g_memory.spare == 0 || g_memory.spare-- == 0)) {
        --g_memory.lacking;
        ++g_memory.failed;
        throw std::bad_alloc();
    }
}

void* operator new(size_t size) {
    kesto::simulation::FailIfLacking();
    auto* const header = static_cast<Header*>(std::malloc(sizeof(Header) + size));
    if (header == nullptr) {
        throw std::bad_alloc();
    }
    header->size = g_memory.inside ? static_cast<int64_t>(size) : 0;
    Count(*header, 1);
    return header + 1;
}

void operator delete(void* block) noexcept {
    if (block != nullptr) {
        auto* const header = static_cast<Header*>(block) - 1;
        Count(*header, -1);
        std::free(header);
    }
}

void operator delete(void* block, size_t /*size*/) noexcept {
    operator delete(block);
}

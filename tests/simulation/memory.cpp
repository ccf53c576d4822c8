#include "tests/simulation/memory.h"

#include <cstdlib>
#include <new>

namespace kesto::simulation {

Memory g_memory;

namespace {

struct alignas(16) Header {
    size_t size;  // 0: not the bridge's
};

void FailIfLacking() {
    if (g_memory.inside && g_memory.lacking != 0) {
        if (g_memory.spare == 0) {
            --g_memory.lacking;
            ++g_memory.failed;
            throw std::bad_alloc();
        }
        --g_memory.spare;
    }
}

}  // namespace

Outside::Outside(bool allocates) : Inside((allocates ? FailIfLacking() : void(), false)) {}

}  // namespace kesto::simulation

void* operator new(size_t size) {
    using namespace kesto::simulation;
    FailIfLacking();
    auto* const header = static_cast<Header*>(std::malloc(sizeof(Header) + size));
    if (header == nullptr) {
        throw std::bad_alloc();
    }
    header->size = g_memory.inside ? size : 0;
    g_memory.blocks += header->size != 0;
    g_memory.bytes += static_cast<int64_t>(header->size);
    return header + 1;
}

void operator delete(void* block) noexcept {
    using namespace kesto::simulation;
    if (block != nullptr) {
        auto* const header = static_cast<Header*>(block) - 1;
        g_memory.blocks -= header->size != 0;
        g_memory.bytes -= static_cast<int64_t>(header->size);
        std::free(header);
    }
}

void operator delete(void* block, size_t /*size*/) noexcept {
    operator delete(block);
}

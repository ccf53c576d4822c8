// How far the plug-in has come in a file that it reads from our memory: it tells nothing before its verdict.
#pragma once

#include <atomic>
#include <cstdint>

namespace kesto::host {

// Puts a guard on a page of every MB, which the system takes away again when it is first read, and counts
// what was reached. The guards go with the object.
class ReadWatch {
 public:
    ReadWatch(uint8_t* bytes, uint32_t size);
    ~ReadWatch();
    ReadWatch(const ReadWatch&) = delete;
    ReadWatch& operator=(const ReadWatch&) = delete;

    uint32_t Reached() const { return reached_; }

    // Whether the address lies in these bytes; then it counts as reached.
    bool Reach(uintptr_t address);

 private:
    void Protect(unsigned long protection) const;

    uint8_t* const bytes_;
    const uint32_t size_;
    std::atomic<uint32_t> reached_ = 0;
};

}  // namespace kesto::host

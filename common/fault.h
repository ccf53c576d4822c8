// Why something could not be done.
#pragma once

#include <cstdint>
#include <string>

namespace kesto {

struct Fault {
    std::string text{};  // one line in UTF-8; empty when there is no fault
    uint32_t code = 0;   // the system's code for it, if there is one
    explicit operator bool() const { return !text.empty(); }
};

}  // namespace kesto

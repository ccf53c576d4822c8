// Whether a file is a program that Windows can run.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kesto::host {

// Why `bytes`, a whole file, cannot be run on this machine: "is empty", "is cut short" ...; empty when it
// can. `runs_64_bit`: whether the system runs 64-bit programs.
std::string ProgramFault(std::string_view bytes, bool runs_64_bit);

}  // namespace kesto::host

#pragma once

#include <string>

namespace kesto {

// What a system or socket error is in words, and its number: "connection refused (10061)".
std::string ErrorWords(unsigned long code);

}  // namespace kesto

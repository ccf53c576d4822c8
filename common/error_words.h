// System and socket errors in words.
#pragma once

#include <string>

namespace kesto {

// One line in UTF-8, without a final full stop: "connection refused".
std::string SystemErrorText(unsigned long code);

// The same with the number: "connection refused (10061)".
std::string SystemErrorWithCode(unsigned long code);

// That in the ANSI code page, which is the bridge's.
std::string ErrorWords(unsigned long code);

}  // namespace kesto

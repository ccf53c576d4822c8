// System and socket errors in words.
#pragma once

#include <string>

#include "common/fault.h"

namespace kesto {

// One line in UTF-8, without a final full stop: "connection refused".
std::string SystemErrorText(unsigned long code);

// That as a fault; `before` stands in front of it.
Fault SystemFault(unsigned long code, const std::string& before = "");

// The same with the number: "connection refused (10061)".
std::string SystemErrorWithCode(unsigned long code);

// That in the ANSI code page, which is the bridge's.
std::string ErrorWords(unsigned long code);

}  // namespace kesto

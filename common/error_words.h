// System and socket errors in words.
#pragma once

#include <string>

#include "common/fault.h"

namespace kesto {

// One line in UTF-8, without a final full stop: "connection refused".
std::string SystemErrorText(unsigned long code);

// That text as a fault, after `before`.
Fault SystemFault(unsigned long code, const std::string& before = "");

// The text and the number: "connection refused (10061)".
std::string SystemErrorWithCode(unsigned long code);

// The same in the ANSI code page, in which the bridge keeps its texts.
std::string ErrorWords(unsigned long code);

}  // namespace kesto

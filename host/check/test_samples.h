// What engines are tried with.
#pragma once

#include <string>

namespace kesto::host {

// The harmless text that every engine reports as infected. Put together anew at each call: a file that
// holds it whole, this program or its source among them, would itself be reported.
std::string EicarTestString();

inline constexpr char kCleanSample[] = "A sample without anything in it.\r\n";

}  // namespace kesto::host

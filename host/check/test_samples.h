// What engines are tested with.
#pragma once

#include <string>

namespace kesto::host {

// The harmless text that every engine reports as infected. It is put together at each call, since a file that
// holds it whole, such as this program or its source, would itself be reported.
inline std::string EicarTestString() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD") + "-" + "ANTIVIRUS-TEST-FILE!$H+H*";
}

inline constexpr char kCleanSample[] = "A sample without anything in it.\r\n";

}  // namespace kesto::host

#include "host/check/test_samples.h"

namespace kesto::host {

std::string EicarTestString() {
    static constexpr const char* kSecondHalf = "ANTIVIRUS-TEST-FILE!$H+H*";
    static constexpr const char* kFirstHalf = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD";
    return std::string(kFirstHalf) + "-" + kSecondHalf;
}

}  // namespace kesto::host

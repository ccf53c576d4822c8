// How a scan ends.
#pragma once

#include <cstddef>

namespace kesto::bridge {

// Why nobody gives a scan its verdict.
enum class Loss {
    kNone,           // it has one, or its client left
    kOverTime,       // none came within the setting `verdict`
    kNotRepeatable,  // what its server had of it is no longer kept
    kUsedUp,         // as many servers as may have it have had it
    kNoVerdict,      // every server that is up has replied without one
    kSick,           // all servers are down, and probes since then found each of them sick
    kUnreached,      // none has been up for the setting `wait`
};
inline constexpr size_t kLosses = 7;

struct Outcome {
    enum class Kind { kClean, kInfected, kNoVerdict, kNoReply, kLeft };
    Kind kind = Kind::kLeft;
    Loss loss = Loss::kNone;
};
inline constexpr size_t kOutcomes = 5;

}  // namespace kesto::bridge

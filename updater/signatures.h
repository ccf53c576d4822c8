// How old the signatures of the clamds are, where these update themselves.
#pragma once

#include <cstdint>

#include "common/bridge_settings.h"

namespace kesto::updater {

// Asks every upstream. Returns 0 when at least one answers and all that answer have recent signatures;
// otherwise 1, with the reason in the log.
uint32_t LookAtSignatures(const BridgeSettings& settings);

}  // namespace kesto::updater

// How old the signatures of the clamds are, which update themselves.
#pragma once

#include <cstdint>

#include "common/bridge_settings.h"

namespace kesto::updater {

// Asks every upstream. 0: at least one answers, and all that answer have young ones; else 1. The log has the
// reason.
uint32_t LookAtSignatures(const BridgeSettings& settings);

}  // namespace kesto::updater

// What is done for the servers beside the scans: looking their names up, and probing those that are down.
#pragma once

#include "bridge/bridge.h"

namespace kesto::bridge {

// To be called every now and then.
void LookUpAndProbe(Bridge& bridge, Time now);

}  // namespace kesto::bridge

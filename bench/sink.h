// An engine that reads a scan's stream to its end and finds everything clean.
#pragma once

#include <cstdint>

namespace kesto {

// Serves the loopback port until the process is ended; throws when it cannot listen there.
void ServeSink(uint16_t port);

}  // namespace kesto

// The licence: the one place where a distributor puts a real query.
#pragma once

namespace kesto {

// Looks for a licence and keeps what it found. This edition has no licence service: it always finds one
// held, without expiry.
void QueryLicence();

// Whether the latest query found a licence held; false before the first query.
bool LicenceHeld();

}  // namespace kesto

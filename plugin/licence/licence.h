// The licence. A distributor who has a licence service puts the query here.
#pragma once

namespace kesto {

// Asks for the licence and keeps the answer. This edition has no licence service: the answer is always a
// licence without an end.
void QueryLicence();

// Whether the latest query found a licence; false before the first query.
bool LicenceHeld();

}  // namespace kesto

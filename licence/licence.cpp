#include "licence/licence.h"

namespace kesto {

static bool g_licence_held = false;

void QueryLicence() {
    g_licence_held = true;
}

bool LicenceHeld() {
    return g_licence_held;
}

}  // namespace kesto

#include "plugin/licence/licence.h"

namespace kesto {
namespace {

bool g_licence_held = false;

}  // namespace

void QueryLicence() {
    g_licence_held = true;
}

bool LicenceHeld() {
    return g_licence_held;
}

}  // namespace kesto

// Processor time of programs beside the bench, as the Unix system below Wine counts it: Windows' own calls
// do not tell it there, and the Wine server is no Windows process at all.
#pragma once

#include <string_view>

namespace kesto {

// Seconds that the running programs whose command line holds `text` have used so far, user and system
// together; 0 where nothing counts them.
double ProcessorSeconds(std::string_view text);

}  // namespace kesto

// Moves or copies infected files away.
#pragma once

#include <string>

#include "common/fault.h"
#include "common/file_bytes.h"

namespace kesto::host {

struct PutAwayResult {
    const char* done = "";  // or "copied", "moved"
    std::wstring where{};   // the new path
    Fault fault{};          // why it was left where it is, or only copied
};

// Moves or copies the file into the folder, under its own name, or with .001, .002 ... added where that is
// taken. Nothing is ever overwritten, and no incomplete file is left there. A file that is no longer the one
// that was `scanned` stays where it is. A file that is in that folder already stays there without a fault.
PutAwayResult PutAway(const std::wstring& exact_path, const FileIdentity& scanned, const std::wstring& folder,
                      bool move);

}  // namespace kesto::host

// Putting away what was found.
#pragma once

#include <string>

#include "common/fault.h"
#include "common/file_bytes.h"

namespace kesto::host {

enum class PutAwayEnd { kLeft, kCopied, kMoved };

struct PutAwayResult {
    PutAwayEnd end = PutAwayEnd::kLeft;
    std::wstring where{};  // the new path
    Fault fault{};         // why it was left, or only copied
};

// Moves or copies the file into the folder, under its own name, or with .001, .002 ... behind it where that
// is taken: nothing is ever overwritten, and no part of a file is left there. A file that is no longer the
// one that was `scanned` is left alone. One that lies in that folder already is left without a fault.
PutAwayResult PutAway(const std::wstring& exact_path, const FileIdentity& scanned, const std::wstring& folder,
                      bool move);

}  // namespace kesto::host

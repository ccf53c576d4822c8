// Paths in the form that the system takes as they stand.
#pragma once

#include <string>

namespace kesto {

// The full path of `path` with \\?\ in front: of any length, and naming exactly this file. In any other form
// "NUL.txt" is a device, and a blank or full stop at the end of a name is dropped, so that another file than
// the listed one is read. A path that already begins \\?\ or \\.\ is returned as it is.
std::wstring ExactPath(const std::wstring& path);

// The part of `path` up to and with its last separator; may be empty.
std::wstring FolderPart(const std::wstring& path);

}  // namespace kesto

// Paths in the form that the system takes literally.
#pragma once

#include <string>

namespace kesto::host {

// The full path of `path` with \\?\ in front. It may be of any length and names exactly this file: in any
// other form "NUL.txt" is a device, and the system drops a blank or full stop at the end of a name, so that
// it would read another file than the one named. A path that already begins with \\?\ or \\.\ is returned as
// it is.
std::wstring ExactPath(const std::wstring& path);

// The system's own full path. It is right only for names that are not a device and do not end with a blank or
// a full stop.
std::wstring SystemFullPath(const std::wstring& path);

// The part of `path` up to and including its last separator; may be empty.
std::wstring FolderPart(const std::wstring& path);

}  // namespace kesto::host

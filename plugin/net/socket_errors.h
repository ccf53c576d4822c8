// Windows Sockets errors as text. Nowhere else does such an error code become words.
#pragma once

namespace kesto {

// The description of `error`, a constant without a line feed at its end. Null for an error that has none.
const char* SocketErrorDescription(int error);

}  // namespace kesto

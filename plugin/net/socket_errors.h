// Windows Sockets errors as text: the one place where an error code becomes words.
#pragma once

namespace kesto {

// The description of `error`, without line feed at its end; owned here, never freed. Null for an error
// that has none.
const char* SocketErrorDescription(int error);

}  // namespace kesto

#include "plugin/net/socket_errors.h"

#include <winsock2.h>

namespace kesto {
namespace {

constexpr struct {
    int code;
    const char* words;
} kDescriptions[] = {
    {WSANOTINITIALISED, "WSANOTINITIALISED A successful WSAStartup must occur before using this function."},
    {WSAEWOULDBLOCK, "WSAEWOULDBLOCK The socket would block."},
    {WSAECONNABORTED,
     "WSAECONNABORTED An established connection was aborted by the software in your host machine."},
    {WSAENETDOWN, "WSAENETDOWN The network subsystem or the associated service provider has failed."},
    {WSAEAFNOSUPPORT, "WSAEAFNOSUPPORT The specified address family is not supported."},
    {WSAEINPROGRESS,
     "WSAEINPROGRESS A blocking Windows Sockets 1.1 call is in progress, or the service provider is still "
     "processing a callback function."},
    {WSAEMFILE, "WSAEMFILE No more socket descriptors are available."},
    {WSAENOBUFS, "WSAENOBUFS No buffer space is available. The socket cannot be created."},
    {WSAEPROTONOSUPPORT, "WSAEPROTONOSUPPORT The specified protocol is not supported."},
    {WSAEPROTOTYPE, "WSAEPROTOTYPE The specified protocol is the wrong type for this socket."},
    {WSAESOCKTNOSUPPORT,
     "WSAESOCKTNOSUPPORT The specified socket type is not supported in this address family."},
    {WSAENETUNREACH, "WSAENETUNREACH A socket operation was attempted to an unreachable network."},
    {WSAETIMEDOUT,
     "WSAETIMEDOUT A connection attempt failed because the connected party did not properly respond after a "
     "period of time, or established connection failed because connected host has failed to respond."},
    {WSAECONNREFUSED,
     "WSAECONNREFUSED No connection could be made because the target machine actively refused it."},
    {WSAECONNRESET, "WSAECONNRESET An existing connection was forcibly closed by the remote host."},
    {WSAEADDRINUSE,
     "WSAEADDRINUSE Only one usage of each socket address (protocol/network address/port) is normally "
     "permitted."},
    {WSAEACCES,
     "WSAEACCES An attempt was made to access a socket in a way forbidden by its access permissions."},
    {WSAEINVAL, "WSAEINVAL An invalid argument was supplied."},
    {WSAEADDRNOTAVAIL, "WSAEADDRNOTAVAIL Cannot assign requested address."},
    {WSAEPROVIDERFAILEDINIT,
     "WSAEPROVIDERFAILEDINIT The requested service provider could not be loaded or initialized."},
    {WSAHOST_NOT_FOUND, "WSAHOST_NOT_FOUND No such host is known."},
    {WSANO_DATA,
     "WSANO_DATA The requested name is valid, but no data of the requested type was found.\n"
     "WSANO_DATA typically indicates a problem with DNS -- possibly a missing CNAME record for the host."},
};

}  // namespace

const char* SocketErrorDescription(int error) {
    for (const auto& description : kDescriptions) {
        if (description.code == error) {
            return description.words;
        }
    }
    return nullptr;
}

}  // namespace kesto

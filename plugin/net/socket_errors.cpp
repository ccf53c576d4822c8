#include "plugin/net/socket_errors.h"

#include <winsock2.h>

namespace kesto {

const char* SocketErrorDescription(int error) {
    switch (error) {
        case WSANOTINITIALISED:
            return "WSANOTINITIALISED A successful WSAStartup must occur before using this function.";
        case WSAEWOULDBLOCK:
            return "WSAEWOULDBLOCK The socket would block.";
        case WSAECONNABORTED:
            return "WSAECONNABORTED An established connection was aborted by the software in your host "
                   "machine.";
        case WSAENETDOWN:
            return "WSAENETDOWN The network subsystem or the associated service provider has failed.";
        case WSAEAFNOSUPPORT:
            return "WSAEAFNOSUPPORT The specified address family is not supported.";
        case WSAEINPROGRESS:
            return "WSAEINPROGRESS A blocking Windows Sockets 1.1 call is in progress, or the service "
                   "provider is still processing a callback function.";
        case WSAEMFILE:
            return "WSAEMFILE No more socket descriptors are available.";
        case WSAENOBUFS:
            return "WSAENOBUFS No buffer space is available. The socket cannot be created.";
        case WSAEPROTONOSUPPORT:
            return "WSAEPROTONOSUPPORT The specified protocol is not supported.";
        case WSAEPROTOTYPE:
            return "WSAEPROTOTYPE The specified protocol is the wrong type for this socket.";
        case WSAESOCKTNOSUPPORT:
            return "WSAESOCKTNOSUPPORT The specified socket type is not supported in this address family.";
        case WSAENETUNREACH:
            return "WSAENETUNREACH A socket operation was attempted to an unreachable network.";
        case WSAETIMEDOUT:
            return "WSAETIMEDOUT A connection attempt failed because the connected party did not properly "
                   "respond after a period of time, or established connection failed because connected host "
                   "has failed to respond.";
        case WSAECONNREFUSED:
            return "WSAECONNREFUSED No connection could be made because the target machine actively refused "
                   "it.";
        case WSAECONNRESET:
            return "WSAECONNRESET An existing connection was forcibly closed by the remote host.";
        case WSAEADDRINUSE:
            return "WSAEADDRINUSE Only one usage of each socket address (protocol/network address/port) is "
                   "normally permitted.";
        case WSAEACCES:
            return "WSAEACCES An attempt was made to access a socket in a way forbidden by its access "
                   "permissions.";
        case WSAEINVAL:
            return "WSAEINVAL An invalid argument was supplied.";
        case WSAEADDRNOTAVAIL:
            return "WSAEADDRNOTAVAIL Cannot assign requested address.";
        case WSAEPROVIDERFAILEDINIT:
            return "WSAEPROVIDERFAILEDINIT The requested service provider could not be loaded or "
                   "initialized.";
        case WSAHOST_NOT_FOUND:
            return "WSAHOST_NOT_FOUND No such host is known.";
        case WSANO_DATA:
            return "WSANO_DATA The requested name is valid, but no data of the requested type was found.\n"
                   "WSANO_DATA typically indicates a problem with DNS -- possibly a missing CNAME record "
                   "for the host.";
        default:
            return nullptr;
    }
}

}  // namespace kesto

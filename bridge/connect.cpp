#include "bridge/connect.h"

#include <winsock2.h>
#include <mswsock.h>

#include <algorithm>
#include <asio/windows/overlapped_ptr.hpp>
#include <iterator>
#include <utility>

namespace kesto::bridge {
namespace {

using asio::ip::tcp;

// Asio's own connect sends nothing: another round through the system for every scan.
LPFN_CONNECTEX ConnectEx(tcp::socket& socket) {
    static LPFN_CONNECTEX function = nullptr;
    if (function == nullptr) {
        GUID name = WSAID_CONNECTEX;
        DWORD size = 0;
        WSAIoctl(socket.native_handle(), SIO_GET_EXTENSION_FUNCTION_POINTER, &name, sizeof name, &function,
                 sizeof function, &size, nullptr, nullptr);
    }
    return function;
}

// A connect that ends later ends with the system's errors, not with those of sockets.
asio::error_code SocketError(const asio::error_code& error) {
    constexpr std::pair<int, int> kErrors[] = {
        {ERROR_CONNECTION_REFUSED, WSAECONNREFUSED}, {ERROR_NETWORK_UNREACHABLE, WSAENETUNREACH},
        {ERROR_HOST_UNREACHABLE, WSAEHOSTUNREACH},   {ERROR_SEM_TIMEOUT, WSAETIMEDOUT},
        {ERROR_NETNAME_DELETED, WSAECONNRESET},      {ERROR_CONNECTION_ABORTED, WSAECONNABORTED}};
    const auto* known = std::find_if(std::begin(kErrors), std::end(kErrors),
                                     [&](const auto& each) { return each.first == error.value(); });
    return known == std::end(kErrors) ? error : asio::error_code(known->second, error.category());
}

}  // namespace

void Connect(tcp::socket& socket, const tcp::endpoint& server, asio::const_buffer first,
             std::function<void(const asio::error_code& error, size_t sent)> done) {
    asio::windows::overlapped_ptr overlapped(
        socket.get_executor(), [&socket, done = std::move(done)](const asio::error_code& error, size_t sent) {
            if (!error) {
                setsockopt(socket.native_handle(), SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0);
            }
            done(SocketError(error), sent);
        });
    asio::error_code error;
    socket.open(server.protocol(), error);
    if (!error) {
        socket.bind(tcp::endpoint(server.protocol(), 0), error);
    }
    if (!error) {
        const auto connect = ConnectEx(socket);
        DWORD sent_at_once = 0;
        if (connect == nullptr) {
            error = asio::error::operation_not_supported;
        } else if (!connect(socket.native_handle(), server.data(), static_cast<int>(server.size()),
                            const_cast<void*>(first.data()), static_cast<DWORD>(first.size()), &sent_at_once,
                            overlapped.get()) &&
                   WSAGetLastError() != ERROR_IO_PENDING) {
            error.assign(WSAGetLastError(), asio::system_category());
        }
    }
    if (error) {
        overlapped.complete(error, 0);
    } else {
        overlapped.release();
    }
}

}  // namespace kesto::bridge

#include "guard/listener.h"

#include <windows.h>

#include <array>
#include <cstring>
#include <span>
#include <utility>

#include "base/clamd_words.h"
#include "common/bridge_ini.h"
#include "common/bridge_log.h"
#include "common/error_words.h"
#include "common/owned_handle.h"
#include "common/tcp_options.h"

namespace kesto::guard {
namespace {

constexpr DWORD kWaitForPortMs = 10'000;
constexpr DWORD kWaitForPortQuietlyMs = 1000;  // another guard of this folder listens within milliseconds
constexpr DWORD kBetweenTriesMs = 250;
constexpr int kLongestSilenceMs = kIdleLimitMs;
constexpr LONG kMostTurnedAway = 200;  // at a time, who are let finish; and in each step

// SOMAXCONN_HINT(1000), which the compiler's headers lack: all scans at a time of a large mail server may
// have to wait for a worker, and SOMAXCONN stands for about 200.
constexpr int kMostWaiting = -1000;

volatile LONG g_turned_away = 0;

SOCKET TryToListen(const sockaddr_in& where) {
    const SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    const BOOL on = TRUE;
    u_long nonblocking = 1;
    // Keeps the other accounts of this machine from the port, but also a new guard for as long as a
    // connection of the former one is not over. On loopback the system protects the port without it.
    if (where.sin_addr.S_un.S_un_b.s_b1 != 127) {
        setsockopt(listener, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on), sizeof on);
    }
    AcknowledgeAtOnce(listener);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0 &&
        ioctlsocket(listener, FIONBIO, &nonblocking) == 0 &&
        (listen(listener, kMostWaiting) == 0 || listen(listener, SOMAXCONN) == 0)) {
        return listener;
    }
    const int error = WSAGetLastError();
    closesocket(listener);
    WSASetLastError(error);
    return INVALID_SOCKET;
}

DWORD WINAPI LetFinish(void* argument) {
    const auto client = reinterpret_cast<SOCKET>(argument);
    u_long nonblocking = 0;
    ioctlsocket(client, FIONBIO, &nonblocking);
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&kLongestSilenceMs),
               sizeof kLongestSilenceMs);
    char scrap[4096];
    while (recv(client, scrap, sizeof scrap, 0) > 0) {
    }
    closesocket(client);
    InterlockedDecrement(&g_turned_away);
    return 0;
}

}  // namespace

SOCKET Listen(const std::wstring& folder, bool quietly) {
    const BridgeIni ini = ReadBridgeIni(folder);
    UseBridgeLog(ini.settings, folder);
    const ServerAddress& listen_on = ini.settings.listen;
    sockaddr_in where = {};
    where.sin_family = AF_INET;
    where.sin_port = htons(listen_on.port);
    std::memcpy(&where.sin_addr, listen_on.bytes.data(), sizeof where.sin_addr);
    const DWORD start = GetTickCount();
    for (bool told = false;;) {
        const SOCKET listener = TryToListen(where);
        if (listener != INVALID_SOCKET) {
            return listener;
        }
        const bool over = GetTickCount() - start >= (quietly ? kWaitForPortQuietlyMs : kWaitForPortMs);
        if (!quietly && (over || !std::exchange(told, true))) {
            const std::string why = ErrorWords(static_cast<DWORD>(WSAGetLastError()));
            LogBridge("listen", (over ? kCannotStart : "") + ("cannot listen on " + AddressText(listen_on)) +
                                    (over ? "" : " yet") + " - " + why);
        }
        if (over) {
            return INVALID_SOCKET;
        }
        Sleep(kBetweenTriesMs);
    }
}

bool HasClient(SOCKET listener) {
    fd_set waiting = {};
    timeval at_once = {};
    FD_SET(listener, &waiting);
    return select(0, &waiting, nullptr, nullptr, &at_once) == 1;
}

bool TurnAway(SOCKET listener) {
    // Nobody is hung up on before all have been taken, since whoever is may come again at once.
    std::array<SOCKET, kMostTurnedAway> clients;
    size_t taken = 0;
    bool all = false;
    for (size_t tries = 0; tries < clients.size() && !all; ++tries) {
        clients[taken] = accept(listener, nullptr, nullptr);
        all = clients[taken] == INVALID_SOCKET && WSAGetLastError() == WSAEWOULDBLOCK;
        taken += clients[taken] != INVALID_SOCKET;
    }
    for (const SOCKET client : std::span(clients).first(taken)) {
        shutdown(client, SD_SEND);
        OwnedHandle thread;
        if (InterlockedIncrement(&g_turned_away) <= kMostTurnedAway) {
            thread.reset(CreateThread(nullptr, 65536, LetFinish, reinterpret_cast<void*>(client),
                                      STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
        }
        if (!thread) {
            InterlockedDecrement(&g_turned_away);
            closesocket(client);
        }
    }
    return all;
}

}  // namespace kesto::guard

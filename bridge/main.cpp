// kestobridge.exe: the bridge between the plug-in and one or more clamd servers. kestoav.exe starts it.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "bridge/bridge.h"
#include "bridge/listener.h"
#include "bridge/loop.h"
#include "bridge/reload.h"
#include "common/bridge_ini.h"
#include "common/bridge_log.h"
#include "common/detached_thread.h"
#include "common/error_words.h"
#include "common/guard_words.h"
#include "common/program_folder.h"
#include "common/worker_orders.h"

namespace kesto::bridge {
namespace {

// A sign of life is given this often.
constexpr unsigned kTicksASign = 4;

// Runs until the bridge is stopped and takes no memory of its own. `alive` shows the guard that it works.
void RunLoop(Bridge& bridge, Listener& listener, Reload& reload, HANDLE alive) {
    Loop loop(bridge);
    for (unsigned ticks = 0; !bridge.io.stopped();) {
        if (!loop.RunOnce([&] { listener.LetIn(); })) {
            continue;
        }
        if (ticks++ % kTicksASign == 0) {
            SetEvent(alive);
        }
        const Time now = Clock::now();
        Contain([&] { reload.Tick(bridge, now); });
        Contain(LogLeftOut);
        listener.Tick(now);
    }
}

// The socket on which the guard listens; where that is, is written into `where`. INVALID_SOCKET with the
// system's error code.
SOCKET TakeOver(WorkerOrders& orders, ServerAddress& where) {
    const SOCKET shared = WSASocketW(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO,
                                     &orders.listener, 0, WSA_FLAG_OVERLAPPED);
    sockaddr_in bound = {};
    int size = sizeof bound;
    if (getsockname(shared, reinterpret_cast<sockaddr*>(&bound), &size) == 0) {
        const asio::ip::address_v4 address(ntohl(bound.sin_addr.s_addr));
        where = *ParseServerAddress(address.to_string() + ":" + std::to_string(ntohs(bound.sin_port)));
    }
    return shared;
}

HANDLE EventOf(uint32_t handle) {
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(handle));
}

int Run() {
    WorkerOrders orders;
    if (!ReadOrders(GetStdHandle(STD_INPUT_HANDLE), orders)) {
        std::fputs("kestobridge.exe is started by kestoav.exe of the same folder.\n", stderr);
        return 2;
    }
    // None of these is ever destroyed, since a lookup or the guard may still use them while the process ends.
    Bridge& bridge = *new Bridge;
    const std::wstring folder = ProgramFolder();
    const SOCKET shared = TakeOver(orders, bridge.settings.listen);
    const auto error = static_cast<DWORD>(WSAGetLastError());
    Reload reload(folder);
    BridgeIni ini = ReadBridgeIni(folder, bridge.settings.listen);
    const std::string log_problem = UseBridgeLog(ini.settings, folder);
    if (shared == INVALID_SOCKET) {
        if (orders.known_problem == 0) {
            LogBridge("start",
                      kCannotStart + ("cannot take over the socket of kestoav.exe - " + ErrorWords(error)));
        }
        return kCannotTakeOver;
    }
    bridge.own = OwnAddresses();
    if (ini.problems.empty() || orders.known_problem == 0) {
        if (!log_problem.empty()) {
            LogBridge("log", log_problem);
        }
        for (const std::string& problem : ini.problems) {
            LogBridge("start", kCannotStart + problem);
        }
    }
    if (!ini.problems.empty()) {
        return kCannotFollow;
    }
    if (!(ini.settings.listen == bridge.settings.listen)) {
        LogBridge("start", "listen is taken up when kestoav.exe is started anew");
    }
    ini.settings.listen = bridge.settings.listen;
    bridge.settings = std::move(ini.settings);
    LogBridge("start",
              "listening on " + AddressText(bridge.settings.listen) + ": " + SettingsText(bridge.settings));
    bridge.metrics.started = Clock::now();
    bridge.metrics.worker_starts = orders.starts;
    Apply(bridge, Clock::now());

    Listener& listener = *new Listener(bridge, shared, EventOf(orders.closed));
    if (!RunDetached([&] {
            HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
            DWORD read = 0;
            for (char order = '\0'; ReadFile(input, &order, 1, &read, nullptr) && read == 1;) {
                listener.Leave();
            }
            TerminateProcess(GetCurrentProcess(), 0);  // the guard has ended
        })) {
        return 1;
    }
    RunLoop(bridge, listener, reload, EventOf(orders.alive));
    LogBridge("end", "ended");
    return 0;
}

}  // namespace
}  // namespace kesto::bridge

int main() {
    try {
        return kesto::bridge::Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestobridge: %s\n", error.what());
        return 1;
    }
}

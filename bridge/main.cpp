// kestobridge.exe: the bridge between the plug-in and one or more clamd servers. kestoav.exe starts it.
#include <winsock2.h>
#include <windows.h>

#include <asio/post.hpp>
#include <chrono>
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
#include "common/guard_words.h"
#include "common/program_folder.h"

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;

constexpr unsigned kTicksASign = 4;  // of life

// A client that is let in at the last moment gets this long to begin with its command.
constexpr auto kLastArrivals = 2s;

// Another worker takes the clients from now on.
class Leaving {
 public:
    void Begin(Listener& listener) {
        LogBridge("end", "ending after the running scans");
        listener.Stop();
        since_ = Clock::now();
    }

    void Tick(Bridge& bridge, const Listener& listener, Time now) const {
        if (!bridge.stopping && now >= since_ + kLastArrivals && !listener.HasArrival()) {
            Stop(bridge, now);
        }
    }

 private:
    Time since_ = Time::max() - kLastArrivals;
};

// Runs until the bridge is stopped and takes no memory of its own. `alive` shows the guard that it works.
void RunLoop(Bridge& bridge, Listener& listener, Reload& reload, const Leaving& leaving, HANDLE alive) {
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
        leaving.Tick(bridge, listener, now);
    }
}

// The socket on which the guard listens; where that is, is written into `where`.
SOCKET OpenListener(WorkerOrders& orders, ServerAddress& where) {
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

// Reads what the guard writes, until the guard ends.
bool ReadOrders(void* orders, DWORD size) {
    HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    DWORD read = 0;
    return GetFileType(input) == FILE_TYPE_PIPE && ReadFile(input, orders, size, &read, nullptr) &&
           read == size;
}

int Run() {
    WorkerOrders orders;
    if (!ReadOrders(&orders, sizeof orders) || orders.size != sizeof orders) {
        std::fputs("kestobridge.exe is started by kestoav.exe of the same version.\n", stderr);
        return 2;
    }
    // None of these is ever destroyed, since a lookup or the guard may still use them while the process ends.
    Bridge& bridge = *new Bridge;
    Leaving& leaving = *new Leaving;
    const std::wstring folder = ProgramFolder();
    const SOCKET shared = OpenListener(orders, bridge.settings.listen);
    if (shared == INVALID_SOCKET) {
        return 1;
    }
    Reload reload(folder);
    BridgeIni ini = ReadBridgeIni(folder, bridge.settings.listen);
    const std::string log_problem = UseBridgeLog(ini.settings, folder);
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

    Listener& listener = *new Listener(bridge, shared);
    if (!RunDetached([&] {
            for (char order = '\0'; ReadOrders(&order, 1);) {
                asio::post(bridge.io, [&] { leaving.Begin(listener); });
            }
            TerminateProcess(GetCurrentProcess(), 0);
        })) {
        return 1;
    }
    RunLoop(bridge, listener, reload, leaving,
            reinterpret_cast<HANDLE>(static_cast<uintptr_t>(orders.alive)));
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

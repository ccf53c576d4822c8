// kestoav.exe: stands between the plug-in and one or more clamd servers. Started without arguments.
#include <windows.h>

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "bridge/bridge.h"
#include "bridge/bridge_log.h"
#include "bridge/client.h"
#include "bridge/listener.h"
#include "bridge/reload.h"
#include "bridge/upkeep.h"
#include "common/bridge_ini.h"
#include "common/error_words.h"
#include "common/program_folder.h"

namespace kesto::bridge {
namespace {

using asio::ip::tcp;
using namespace std::chrono_literals;

// One timer serves every time limit: limits of a session that moved with each byte would cost system calls.
constexpr auto kTick = 250ms;

// For the console's handler, which has no arguments and runs on a thread of its own.
Bridge* g_bridge = nullptr;
tcp::acceptor* g_acceptor = nullptr;
HANDLE g_ended = nullptr;

void Stop() {
    if (std::exchange(g_bridge->stopping, true)) {
        return;
    }
    g_bridge->stopped_at = Clock::now();
    LogBridge("end", "ending after the running scans");
    asio::error_code ignored;
    g_acceptor->close(ignored);
    const auto clients = g_bridge->clients;
    for (const auto& client : clients) {
        client->Stop();
    }
    if (g_bridge->clients.empty()) {
        g_bridge->io.stop();
    }
}

BOOL WINAPI OnConsoleEvent(DWORD event) {
    static LONG asked = 0;
    if (event == CTRL_LOGOFF_EVENT) {
        return TRUE;  // services hear of it whenever anybody logs off
    }
    if (InterlockedExchange(&asked, 1) != 0 && (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT)) {
        return FALSE;  // asked twice: end at once
    }
    asio::post(g_bridge->io, Stop);
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
        WaitForSingleObject(g_ended, INFINITE);  // the process is ended when this returns
    }
    return TRUE;
}

// For want of memory only what it came from may fail: time goes on for all else.
template <typename Work>
void Guarded(Work work) {
    try {
        work();
    } catch (const std::exception& error) {
        LogBridge("exception", std::string("out of step - ") + error.what());
    }
}

void Tick(Bridge& bridge, Reload& reload, Time now) {
    const auto attempts = bridge.attempts;
    for (const auto& attempt : attempts) {
        Guarded([&] { attempt->Tick(now); });
    }
    const auto clients = bridge.clients;
    unsigned places = bridge.crowded ? 1 + bridge.settings.clients / 4 : 0;
    for (const auto& client : clients) {
        Guarded([&] {
            client->Tick(now);
            places -= places != 0 && client->MakeWay(now);
        });
    }
    LookUpAndProbe(bridge, now);
    reload.Tick(bridge, now);
    bridge.room.ShrinkSpare();
    LogLeftOut();
}

Task KeepTime(Bridge& bridge, Reload& reload) {
    asio::steady_timer timer(bridge.io);
    for (;;) {
        timer.expires_after(kTick);
        auto tick = Operation([&timer](auto handler) { timer.async_wait(std::move(handler)); });
        co_await tick;
        Guarded([&] { Tick(bridge, reload, Clock::now()); });
    }
}

int Fail(const std::string& problem) {
    LogBridge("start", kCannotStart + problem);
    std::fprintf(stderr, "kestoav: %s\n", problem.c_str());
    return 1;
}

int Run() {
    // Never destroyed: a console event or a lookup may still come while the process ends.
    Bridge& bridge = *new Bridge;
    const std::wstring folder = ProgramFolder();
    BridgeIni ini = ReadBridgeIni(folder);
    UseLogOf(ini, folder);
    if (!ini.problems.empty()) {
        for (const std::string& problem : ini.problems) {
            Fail(problem);
        }
        return 1;
    }
    bridge.settings = std::move(ini.settings);
    auto& acceptor = *new tcp::acceptor(bridge.io);
    const std::string where = AddressText(bridge.settings.listen);
    if (const auto error = Listen(acceptor, bridge.settings.listen)) {
        return Fail("cannot listen on " + where + " - " +
                    ErrorWords(static_cast<unsigned long>(error.value())));
    }
    LogBridge("start", "listening on " + where + ": " + SettingsText(bridge.settings));

    bridge.own = OwnAddresses();
    bridge.metrics.started = Clock::now();
    bridge.fleet.tell = LogBridge;
    Apply(bridge, Clock::now());

    g_bridge = &bridge;
    g_acceptor = &acceptor;
    g_ended = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
    Reload reload(folder);
    LetIn(bridge, acceptor);
    KeepTime(bridge, reload);
    while (!bridge.io.stopped()) {
        Guarded([&] { bridge.io.run(); });
    }
    LogBridge("end", "ended");
    SetEvent(g_ended);
    return 0;
}

}  // namespace

}  // namespace kesto::bridge

int main() {
    try {
        return kesto::bridge::Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestoav: %s\n", error.what());
        return 1;
    }
}

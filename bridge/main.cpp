// kestoav.exe: stands between the plug-in and one or more clamd servers. Started without arguments.
#include <windows.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "bridge/bridge_log.h"
#include "bridge/error_text.h"
#include "bridge/session.h"

namespace kesto {
namespace {

using asio::redirect_error;
using asio::use_awaitable;
using asio::ip::tcp;

// For the console's handler, which has no arguments and runs on a thread of its own.
Bridge* g_bridge = nullptr;
tcp::acceptor* g_acceptor = nullptr;
HANDLE g_ended = nullptr;

void Stop() {
    if (std::exchange(g_bridge->stopping, true)) {
        return;
    }
    LogBridge("ending after the running scans");
    asio::error_code ignored;
    g_acceptor->close(ignored);
    for (tcp::socket* idle : g_bridge->awaiting_command) {
        idle->close(ignored);
    }
}

BOOL WINAPI OnConsoleEvent(DWORD event) {
    static LONG asked = 0;
    if (InterlockedExchange(&asked, 1) != 0 && (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT)) {
        return FALSE;  // asked twice: end at once
    }
    asio::post(g_bridge->io, Stop);
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
        WaitForSingleObject(g_ended, INFINITE);  // the process is ended when this returns
    }
    return TRUE;
}

asio::awaitable<void> Accept(Bridge& bridge, tcp::acceptor& acceptor) {
    while (!bridge.stopping) {
        asio::error_code error;
        tcp::socket client = co_await acceptor.async_accept(redirect_error(use_awaitable, error));
        if (!error) {
            asio::co_spawn(bridge.io, ServeClient(bridge, std::move(client)), asio::detached);
        } else if (!bridge.stopping) {
            // Most likely out of sockets: some will be free again soon.
            LogBridge("could not accept a client - " + ErrorText(error));
            asio::steady_timer pause(bridge.io, std::chrono::milliseconds(100));
            co_await pause.async_wait(use_awaitable);
        }
    }
}

int Fail(const std::string& problem) {
    LogBridge("cannot start - " + problem);
    std::fprintf(stderr, "kestoav: %s\n", problem.c_str());
    return 1;
}

// Nobody else may take the port as well while we listen on it.
asio::error_code Listen(tcp::acceptor& acceptor, const tcp::endpoint& where) {
    asio::error_code error;
    acceptor.open(where.protocol(), error);
    if (error) {
        return error;
    }
    const BOOL on = TRUE;
    setsockopt(acceptor.native_handle(), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on),
               sizeof on);
    acceptor.bind(where, error);
    if (!error) {
        acceptor.listen(tcp::acceptor::max_listen_connections, error);
    }
    return error;
}

int Run() {
    static Bridge bridge;  // a console event may still come while the process ends
    BridgeSettings& settings = bridge.settings;
    const std::string problem = ReadBridgeSettings(ProgramFolder(), settings);
    if (!OpenBridgeLog(settings.log_path, settings.log_only_if_present)) {
        std::fprintf(stderr, "kestoav: cannot write the log file %s\n", settings.log_path.c_str());
    }
    if (!problem.empty()) {
        return Fail(problem);
    }
    static tcp::acceptor acceptor(bridge.io);
    const tcp::endpoint where(asio::ip::make_address_v4(settings.listen_host), settings.listen_port);
    const std::string where_text = settings.listen_host + ":" + std::to_string(settings.listen_port);
    if (const auto error = Listen(acceptor, where)) {
        return Fail("cannot listen on " + where_text + " - " + ErrorText(error));
    }
    std::string servers;
    for (const Upstream& server : settings.upstreams) {
        servers.append(" ").append(AddressText(server));
    }
    LogBridge("listening on " + where_text + ", decrypt " + (settings.decrypt ? "on" : "off") +
              ", upstreams" + servers);

    g_bridge = &bridge;
    g_acceptor = &acceptor;
    g_ended = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
    asio::co_spawn(bridge.io, Accept(bridge, acceptor), asio::detached);
    bridge.io.run();
    LogBridge("ended");
    SetEvent(g_ended);
    return 0;
}

}  // namespace

}  // namespace kesto

int main() {
    try {
        return kesto::Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestoav: %s\n", error.what());
        return 1;
    }
}

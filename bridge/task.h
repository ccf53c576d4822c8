// Coroutines over Asio's operations that take no detour: a task runs at once up to its first wait, and goes
// on in the very call that ends the wait. Asio's own kind posts each start and each wake to its queue, which
// is several system calls a scan.
#pragma once

#include <asio/buffer.hpp>
#include <asio/error_code.hpp>
#include <coroutine>
#include <exception>
#include <utility>

namespace kesto::bridge {

// Nobody waits for it; its memory goes when it ends. What it uses must be kept alive by its parameters.
struct Task {
    struct promise_type {
        Task get_return_object() { return {}; }
        std::suspend_never initial_suspend() { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::rethrow_exception(std::current_exception()); }
    };
};

struct Outcome {
    asio::error_code error;
    size_t size = 0;
};

// Begins an operation when it is waited for; `start` is handed the handler.
template <typename Start>
class Operation {
 public:
    explicit Operation(Start start) : start_(std::move(start)) {}
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiting) {
        start_([this, waiting](const asio::error_code& error, size_t size = 0) {
            outcome_ = {error, size};
            waiting.resume();
        });
    }
    Outcome await_resume() const noexcept { return outcome_; }

 private:
    Start start_;
    Outcome outcome_;
};

template <typename Socket>
auto ReadSome(Socket& socket, asio::mutable_buffer buffer) {
    return Operation([&socket, buffer](auto handler) { socket.async_read_some(buffer, std::move(handler)); });
}

template <typename Socket, typename Buffers>
auto WriteSome(Socket& socket, const Buffers& buffers) {
    return Operation(
        [&socket, buffers](auto handler) { socket.async_write_some(buffers, std::move(handler)); });
}

// One task waits here until somebody opens the gate, and runs on within that call.
class Gate {
 public:
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiting) { waiting_ = waiting; }
    void await_resume() const noexcept {}
    void Open() {
        if (const auto waiting = std::exchange(waiting_, nullptr)) {
            waiting.resume();
        }
    }

 private:
    std::coroutine_handle<> waiting_;
};

}  // namespace kesto::bridge

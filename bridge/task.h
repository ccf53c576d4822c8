// Coroutines over Asio's operations without detours: a task runs at once up to its first wait, and goes on
// within the call that ends the wait. Asio's own coroutines post each start and each wake-up to a queue,
// which costs several system calls for each scan.
#pragma once

#include <asio/buffer.hpp>
#include <asio/error_code.hpp>
#include <cassert>
#include <coroutine>
#include <memory>
#include <utility>

namespace kesto::bridge {

// Nobody waits for a task, and its memory is freed when it ends. It belongs to its only parameter, the shared
// pointer that keeps the owner alive: an exception ends the owner and nothing else.
template <typename Owner>
struct Task {
    struct promise_type {
        explicit promise_type(std::shared_ptr<Owner>& owner) : owner_(*owner) {}
        Task get_return_object() { return {}; }
        std::suspend_never initial_suspend() { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { owner_.Failed(); }

     private:
        Owner& owner_;
    };
};

struct IoResult {
    asio::error_code error;
    size_t size = 0;
};

// Begins an operation when it is waited for; `start` is given the handler. The object must have a name: the
// compiler destroys a temporary one twice.
template <typename Start>
class Operation {
 public:
    explicit Operation(Start start) : start_(std::move(start)) {}
    Operation& operator co_await() & { return *this; }
    void operator co_await() && = delete;
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiting) {
        start_([this, waiting](const asio::error_code& error, size_t size = 0) {
            result_ = {error, size};
            waiting.resume();
        });
    }
    IoResult await_resume() const noexcept { return result_; }

 private:
    Start start_;
    IoResult result_;
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

// A task waits here until the gate is opened, and then goes on within that call up to its next wait.
class Gate {
 public:
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiting) {
        assert(!waiting_);
        waiting_ = waiting;
    }
    void await_resume() const noexcept {}
    bool IsWaitedAt() const { return static_cast<bool>(waiting_); }
    void Open() {
        if (const auto waiting = std::exchange(waiting_, nullptr)) {
            waiting.resume();
        }
    }

 private:
    std::coroutine_handle<> waiting_;
};

}  // namespace kesto::bridge

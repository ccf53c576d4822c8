// Sockets of the virtual network. As with the real ones no operation ends within the call that begins it.
#pragma once

#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace asio::ip {

template <size_t kSize>
struct address_of {
    using bytes_type = std::array<unsigned char, kSize>;
    explicit address_of(const bytes_type& bytes) : bytes(bytes) {}
    bytes_type bytes;
};
using address_v4 = address_of<4>;
using address_v6 = address_of<16>;

class address {
 public:
    address(const address_v4& v4) : bytes_(v4.bytes.begin(), v4.bytes.end()) {}
    address(const address_v6& v6) : bytes_(v6.bytes.begin(), v6.bytes.end()) {}
    std::string to_string() const {
        std::string text;
        for (const unsigned char byte : bytes_) {
            text += (text.empty() ? "" : ".") + std::to_string(byte);
        }
        return text;
    }

 private:
    std::vector<unsigned char> bytes_;
};

class tcp {
 public:
    class endpoint {
     public:
        endpoint(const ip::address& address, unsigned short port) : address_(address), port_(port) {}
        const ip::address& address() const { return address_; }
        unsigned short port() const { return port_; }

     private:
        ip::address address_;
        unsigned short port_;
    };

    struct no_delay {
        explicit no_delay(bool /*on*/) {}
    };

    class socket {
     public:
        enum shutdown_type { shutdown_send };

        explicit socket(io_context& /*io*/) {}
        explicit socket(kesto::simulation::LinePtr line) : line_(std::move(line)) { line_->Open(); }
        socket(socket&&) = default;
        ~socket() { Close(); }
        bool is_open() const { return line_ != nullptr; }
        uintptr_t native_handle() const { return reinterpret_cast<uintptr_t>(line_.get()); }

        void async_connect(const endpoint& where, kesto::simulation::Handler handler) {
            const kesto::simulation::Outside outside(true);
            const std::string port = ":" + std::to_string(where.port());
            line_ = kesto::simulation::Network::It().connect(where.address().to_string() + port);
            line_->Connect(std::move(handler));
        }
        void async_read_some(mutable_buffer bytes, kesto::simulation::Handler handler) {
            const kesto::simulation::Outside outside(true);
            line_->Read(bytes, std::move(handler));
        }
        template <typename Buffers>
        void async_write_some(const Buffers& buffers, kesto::simulation::Handler handler) {
            const kesto::simulation::Outside outside(true);
            if constexpr (std::is_same_v<Buffers, const_buffer>) {
                line_->Write({buffers}, std::move(handler));
            } else {
                line_->Write({buffers.begin(), buffers.end()}, std::move(handler));
            }
        }
        size_t read_some(mutable_buffer bytes, error_code& error) { return line_->ReadNow(bytes, error); }
        void cancel(error_code& error) { error = line_ ? (line_->Cancel(), 0) : 10038; }
        void close(error_code& /*error*/) { Close(); }
        void shutdown(shutdown_type /*what*/, error_code& /*error*/) { line_->Shutdown(); }
        void non_blocking(bool /*on*/, error_code& error) { error = line_ ? 0 : 10038; }
        void set_option(no_delay /*option*/, error_code& /*error*/) {}

     private:
        void Close() {
            const kesto::simulation::Outside outside;
            if (const auto line = std::exchange(line_, nullptr)) {
                line->Close();
            }
        }
        kesto::simulation::LinePtr line_;
    };
};

}  // namespace asio::ip

// Of the library's errors those that its users here distinguish, with Windows' numbers.
#pragma once

namespace asio {

class error_code {
 public:
    constexpr error_code(int value = 0) : value_(value) {}
    int value() const { return value_; }
    explicit operator bool() const { return value_ != 0; }
    bool operator==(const error_code&) const = default;

 private:
    int value_;
};

namespace error {
inline constexpr error_code eof = 2, operation_aborted = 995, would_block = 10035, connection_aborted = 10053,
                            connection_reset = 10054, timed_out = 10060, connection_refused = 10061;
}

}  // namespace asio

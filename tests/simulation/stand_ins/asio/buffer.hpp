#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace asio {

using mutable_buffer = std::span<uint8_t>;

class const_buffer : public std::span<const uint8_t> {
 public:
    using std::span<const uint8_t>::span;
    const_buffer operator+(size_t size) const { return {data() + size, this->size() - size}; }
};

inline mutable_buffer buffer(void* data, size_t size) {
    return {static_cast<uint8_t*>(data), size};
}
inline const_buffer buffer(const void* data, size_t size) {
    return {static_cast<const uint8_t*>(data), size};
}
inline const_buffer buffer(const std::string& text) {
    return buffer(static_cast<const void*>(text.data()), text.size());
}
template <size_t kSize>
mutable_buffer buffer(std::array<char, kSize>& bytes) {
    return buffer(static_cast<void*>(bytes.data()), kSize);
}

}  // namespace asio

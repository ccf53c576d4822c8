#pragma once

#include <asio/error_code.hpp>
#include <string>

namespace kesto {

// The system's words and the error's number, by which it can be looked up where the words are missing.
std::string ErrorText(const asio::error_code& error);

}  // namespace kesto

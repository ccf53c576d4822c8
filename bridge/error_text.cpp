#include "bridge/error_text.h"

#include <asio/error.hpp>

namespace kesto {

std::string ErrorText(const asio::error_code& error) {
    if (error == asio::error::eof) {
        return "connection closed";
    }
    return error.message() + " (" + std::to_string(error.value()) + ")";
}

}  // namespace kesto

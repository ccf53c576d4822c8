#pragma once

#include "tests/simulation/network.h"

namespace asio {

class io_context {
 public:
    using executor_type = int;
    explicit io_context(int /*threads*/) {}
    executor_type get_executor() { return 0; }
    void run_one_until(kesto::bridge::Time until) { kesto::simulation::Network::It().RunOne(until); }
    void stop() { stopped_ = true; }
    bool stopped() const { return stopped_; }

 private:
    bool stopped_ = false;
};

}  // namespace asio

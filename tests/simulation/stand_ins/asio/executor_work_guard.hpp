#pragma once

namespace asio {

template <typename Executor>
class executor_work_guard {
 public:
    explicit executor_work_guard(Executor /*executor*/) {}
};

}  // namespace asio

// Requests for a restart, from a pipe whose name holds the folder: whoever may connect to it asks for one by
// doing so, and is answered on it. It also marks that a guard is at work: a folder has one at a time.
#pragma once

#include <windows.h>

#include <string>

namespace kesto::guard {

class Requests {
 public:
    // False: another guard of this folder is at work. Where there can be no such pipe, nobody asks.
    bool Open(const std::wstring& folder);

    // Set when Take is to be called.
    HANDLE Event() const { return event_.hEvent; }
    // True when a restart is asked for: it is to be answered.
    bool Take();
    bool Asked() const { return state_ == State::kAsked; }
    void Answer(const std::string& text);

 private:
    enum class State { kWaiting, kAsked, kAnswered };
    void Wait();

    State state_ = State::kWaiting;
    HANDLE pipe_ = INVALID_HANDLE_VALUE;
    OVERLAPPED event_ = {};
    char scrap_ = '\0';
};

}  // namespace kesto::guard

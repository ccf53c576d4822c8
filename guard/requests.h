// Requests for a restart, by a pipe whose name holds the folder: whoever connects to it asks for a restart,
// and gets the answer there. The pipe also shows that a guard is at work: a folder has one at a time.
#pragma once

#include <windows.h>

#include <string>

namespace kesto::guard {

class Requests {
 public:
    // False: another guard of this folder is at work. If the pipe cannot be made, nobody can ask.
    bool Open(const std::wstring& folder);

    // Set when Take is to be called.
    HANDLE Event() const { return event_.hEvent; }
    // True when somebody asks for a restart, who must get an answer.
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

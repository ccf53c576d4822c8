// Requests for a restart, by a pipe whose name holds the folder: whoever connects to it asks for a restart,
// and gets the answer there.
#pragma once

#include <windows.h>

#include <string>

namespace kesto::guard {

class Requests {
 public:
    // Makes the pipe, or returns the system's error code: nobody can ask until a later call succeeds. Mostly
    // another guard of this folder is at work then. But any program can make a pipe of this name.
    DWORD Open(const std::wstring& folder);

    bool IsOpen() const { return pipe_ != INVALID_HANDLE_VALUE; }

    // Set when Take is to be called.
    HANDLE Event() const { return event_.hEvent; }
    // True when somebody asks for a restart, who must get an answer.
    bool Take();
    void Answer(const std::string& text);

 private:
    void Wait();

    bool waiting_ = true;  // for somebody to ask; then for who has asked to read the answer
    HANDLE pipe_ = INVALID_HANDLE_VALUE;
    OVERLAPPED event_ = {0, 0, {}, CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    char scrap_ = '\0';
};

}  // namespace kesto::guard

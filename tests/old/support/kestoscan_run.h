// kestoscan as its user sees it: a process with arguments, output and an exit status.
#pragma once

#include <windows.h>

#include <string>

namespace kesto {

struct RunResult {
    DWORD status;
    std::string out;
    std::string err;
};

// The kestoscan.exe that was built.
std::wstring BuiltKestoscan();

class KestoscanRun {
 public:
    // Starts `program` with `arguments` as they stand; `own_console` gives it one, which takes time.
    explicit KestoscanRun(const std::wstring& arguments, const std::wstring& program = BuiltKestoscan(),
                          bool own_console = false);
    ~KestoscanRun();
    KestoscanRun(const KestoscanRun&) = delete;
    KestoscanRun& operator=(const KestoscanRun&) = delete;

    // Ctrl-C, for a run with its own console.
    void Interrupt();

    // Waits for the end; a run that takes too long is ended, and its status is STILL_ACTIVE.
    RunResult Finish();

 private:
    std::wstring out_path_;
    std::wstring err_path_;
    PROCESS_INFORMATION process_ = {};
};

}  // namespace kesto

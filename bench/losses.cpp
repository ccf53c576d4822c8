// What a mail server with 24 scanning threads loses when its engine ends, hangs, is exchanged or cannot
// follow its settings: a line for each, with a clamd that takes half a second. Takes three minutes.
//
//     cmake --build build/release && scripts/wine build/release/bench/losses.exe
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/plugin_host.h"
// Needs windows.h before it.
#include <tlhelp32.h>

namespace kesto {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kThreads = 24;

std::vector<DWORD> ProcessesOf(const wchar_t* program) {
    std::vector<DWORD> ids;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
        if (_wcsicmp(entry.szExeFile, program) == 0) {
            ids.push_back(entry.th32ProcessID);
        }
    }
    CloseHandle(snapshot);
    return ids;
}

// As taskkill does.
void EndAll(const wchar_t* program) {
    for (const DWORD id : ProcessesOf(program)) {
        const HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, id);
        TerminateProcess(process, 1);
        CloseHandle(process);
    }
}

void StopAll(const wchar_t* program) {
    const auto suspend = reinterpret_cast<LONG(WINAPI*)(HANDLE)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtSuspendProcess")));
    for (const DWORD id : ProcessesOf(program)) {
        const HANDLE process = OpenProcess(PROCESS_ALL_ACCESS, FALSE, id);
        suspend(process);
        CloseHandle(process);
    }
}

struct Counts {
    unsigned clean = 0, failed_1001 = 0, failed_1002 = 0, failed_1003 = 0, other = 0;
    double slowest = 0, slowest_lost = 0, gap = 0;  // seconds; the last without a single clean scan
};

class Host {
 public:
    explicit Host(const char* name) : name_(name) {
        ScriptedEngine* clamd = &clamd_;
        clamd->Play([](Wire& wire) {
            wire.ReceiveRequest();
            Sleep(500);
            wire.ReplyAndHangUp("stream: OK");
        });
        port_ = it_.installed.PlaceBridge(clamd->Address());
        good_ = ReadFile(Ini());
        it_.installed.CreateLog();
        it_.Start(Servers(port_) + "startwait=20\n");
    }
    ~Host() { Stop(); }

    std::filesystem::path Ini() const { return it_.installed.engine_folder / "bridge.ini"; }
    const std::string& GoodIni() const { return good_; }
    const Installation& Installed() const { return it_.installed; }
    void WaitUntilItServes() const {
        WaitFor([this] { return !Ask(port_, WithNul("zSTATS")).empty(); });
    }
    void Begin(int scans = INT_MAX) {
        last_clean_ = Clock::now();
        for (int i = 0; i < kThreads; ++i) {
            threads_.emplace_back([this, scans] {
                for (int n = 0; n < scans && !stop_; ++n) {
                    Scan();
                }
            });
        }
    }
    unsigned Clean() const {
        const std::lock_guard lock(guard_);
        return counts_.clean;
    }
    void Join() { threads_.clear(); }
    void Stop() {
        stop_ = true;
        Join();
    }
    void Print() {
        Stop();
        Sleep(3000);
        const std::string log = ReadFile(it_.installed.log);
        std::printf(
            "%-45s %5u clean, 1001: %u, 1002: %u, 1003: %u, other: %u; slowest %.1f s, slowest lost %.1f s, "
            "longest time without a clean one %.1f s; left %zu guards, %zu workers; %zd lines in "
            "kestoav.log\n",
            name_, counts_.clean, counts_.failed_1001, counts_.failed_1002, counts_.failed_1003,
            counts_.other, counts_.slowest, counts_.slowest_lost, counts_.gap,
            ProcessesOf(L"kestoav.exe").size(), ProcessesOf(L"kestobridge.exe").size(),
            std::count(log.begin(), log.end(), '\n'));
        std::fflush(stdout);
    }

 private:
    void Scan() {
        const auto start = Clock::now();
        const std::string said = it_.Scan("some mail");
        const auto end = Clock::now();
        const std::lock_guard lock(guard_);
        const double took = std::chrono::duration<double>(end - start).count();
        ++(said == "clean"         ? counts_.clean
           : said == "failed 1001" ? counts_.failed_1001
           : said == "failed 1002" ? counts_.failed_1002
           : said == "failed 1003" ? counts_.failed_1003
                                   : counts_.other);
        counts_.slowest = std::max(counts_.slowest, took);
        if (said == "clean") {
            counts_.gap = std::max(counts_.gap, std::chrono::duration<double>(end - last_clean_).count());
            last_clean_ = end;
        } else {
            counts_.slowest_lost = std::max(counts_.slowest_lost, took);
        }
    }

    const char* const name_;
    ScriptedEngine clamd_;
    InstalledPlugin it_;
    uint16_t port_ = 0;
    std::string good_;
    std::atomic<bool> stop_ = false;
    mutable std::mutex guard_;
    Counts counts_;
    Clock::time_point last_clean_;
    std::vector<std::jthread> threads_;
};

void EndFiveTimes(const char* name, const wchar_t* program) {
    Host host(name);
    host.WaitUntilItServes();
    host.Begin();
    for (int i = 0; i < 5; ++i) {
        Sleep(3000);
        EndAll(program);
        Sleep(3000);
    }
    host.Print();
}

void Hang() {
    Host host("the worker stands still");
    host.WaitUntilItServes();
    host.Begin();
    Sleep(3000);
    StopAll(L"kestobridge.exe");
    Sleep(27'000);
    host.Print();
}

void Exchange() {
    Host host("three exchanges");
    host.WaitUntilItServes();
    host.Begin();
    for (int i = 0; i < 3; ++i) {
        Sleep(3000);
        const RunResult run = ProgramRun(host.Installed().folder / "kestoscan.exe", L"--restart").Finish();
        if (run.status != 0) {
            std::printf("exchange failed: %s", run.err.c_str());
        }
    }
    Sleep(3000);
    host.Print();
}

void BreakSettings() {
    Host host("settings broken for 8 s, and the worker ended");
    host.WaitUntilItServes();
    host.Begin();
    Sleep(2000);
    WriteFile(host.Ini(), host.GoodIni() + "idle=soon\r\n");
    EndAll(L"kestobridge.exe");
    Sleep(8000);
    WriteFile(host.Ini(), host.GoodIni());
    const unsigned before = host.Clean();
    const auto mended = Clock::now();
    WaitFor([&] { return host.Clean() > before; });
    std::printf("settings followed %.1f s after they were mended\n",
                std::chrono::duration<double>(Clock::now() - mended).count());
    Sleep(2000);
    host.Print();
}

void BeginWithoutEngine() {
    Host host("24 threads begin without an engine, 20 times");
    for (int i = 0; i < 20; ++i) {
        EndAll(L"kestoav.exe");
        WaitFor([] { return ProcessesOf(L"kestoav.exe").empty(); });
        host.Begin(1);
        host.Join();
    }
    host.Print();
}

}  // namespace
}  // namespace kesto

int main(int count, char** arguments) {
    testing::InitGoogleTest(&count, arguments);
    const std::string only = count > 1 ? arguments[1] : "";
    const auto run = [&](const char* name, auto show) {
        if (only.empty() || only == name) {
            show();
        }
    };
    run("end", [] { kesto::EndFiveTimes("the worker is ended five times in 30 s", L"kestobridge.exe"); });
    run("hang", kesto::Hang);
    run("exchange", kesto::Exchange);
    run("settings", kesto::BreakSettings);
    run("taskkill", [] { kesto::EndFiveTimes("kestoav.exe is ended five times in 30 s", L"kestoav.exe"); });
    run("start", kesto::BeginWithoutEngine);
}

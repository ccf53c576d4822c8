// kestoav.exe: owns the port on which the plug-in finds its engine, and makes sure that a worker serves
// there: kestobridge.exe of the same folder. It does little else, so that it never goes away, since each scan
// that finds no kestoav.exe starts one for itself. It is started without arguments.
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "common/bridge_ini.h"
#include "common/bridge_log.h"
#include "common/error_words.h"
#include "common/file_bytes.h"
#include "common/program_folder.h"
#include "guard/listener.h"
#include "guard/policy.h"
#include "guard/requests.h"
#include "guard/worker.h"

namespace kesto::guard {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr DWORD kStepMs = 250;
constexpr DWORD kTenseStepMs = 25;
constexpr auto kBetweenTries = 5s;  // to make a pipe that somebody else has

class Guard {
 public:
    Guard(std::wstring folder, SOCKET listener, Requests& requests)
        : folder_(std::move(folder)), listener_(listener), requests_(requests) {}

    void Run() {
        Wait(policy_.IsTense() ? kTenseStepMs : kStepMs);
        const Time now = Clock::now();
        policy_.Look(now);
        LookAfterWorkers(now);
        LookAfterRequests(now);
        if (!policy_.Serves()) {
            policy_.ClientsWait(HasClient(listener_), now);
        }
        for (Step step = policy_.Next(now); step.kind != Step::Kind::kNothing; step = policy_.Next(now)) {
            Do(step, now);
        }
        if (policy_.IsToTurnAway(now)) {
            policy_.ClientsWait(!TurnAway(listener_), now);
        }
        LogLeftOut();
    }

    void Log(const std::string& kind, const std::string& message) const {
        UseBridgeLog(ReadBridgeIni(folder_).settings, folder_);
        LogBridge(kind, message);
    }

 private:
    void Wait(DWORD limit) const {
        std::vector<HANDLE> handles = {requests_.Event()};
        for (const Worker& worker : workers_) {
            handles.push_back(worker.process.get());
            handles.push_back(worker.alive.get());
        }
        const auto count = static_cast<DWORD>(std::min<size_t>(handles.size(), MAXIMUM_WAIT_OBJECTS));
        if (WaitForMultipleObjects(count, handles.data(), FALSE, limit) == WAIT_FAILED) {
            Sleep(limit);
        }
    }

    void LookAfterWorkers(Time now) {
        for (auto at = workers_.begin(); at != workers_.end();) {
            const Worker& worker = *at;
            if (GaveSign(worker)) {
                policy_.GaveSign(worker.number, now);
            }
            if (WaitForSingleObject(worker.closed.get(), 0) == WAIT_OBJECT_0) {
                policy_.AcceptsNobody(worker.number);
            }
            if (DWORD code = 0; WaitForSingleObject(worker.process.get(), 0) == WAIT_OBJECT_0) {
                GetExitCodeProcess(worker.process.get(), &code);
                HasEnded(worker.number, code, EndInWords(code), now);
                at = workers_.erase(at);
            } else {
                ++at;
            }
        }
    }

    void HasEnded(uint32_t worker, DWORD code, const std::string& how, Time now) {
        if (const std::string line = policy_.Ended(worker, code, how, now); !line.empty()) {
            Log("worker", line);
        }
    }

    void LookAfterRequests(Time now) {
        if (WaitForSingleObject(requests_.Event(), 0) == WAIT_OBJECT_0 && requests_.Take()) {
            policy_.RestartAsked();
        }
        if (!requests_.IsOpen() && now >= next_try_) {
            next_try_ = now + kBetweenTries;
            if (requests_.Open(folder_) == 0) {
                Log("pipe", "restarts can be asked for");
            }
        }
    }

    void Do(const Step& step, Time now) {
        const auto at = std::find_if(workers_.begin(), workers_.end(),
                                     [&](const Worker& worker) { return worker.number == step.worker; });
        switch (step.kind) {
            case Step::Kind::kNothing:
                break;
            case Step::Kind::kStart:
                return Start(step.worker, now);
            case Step::Kind::kTellToLeave:
                return TellToLeave(*at);
            case Step::Kind::kEnd:
                if (at != workers_.end()) {
                    TerminateProcess(at->process.get(), 1);
                    workers_.erase(at);
                }
                return HasEnded(step.worker, 1, step.text, now);
            case Step::Kind::kAnswer:
                return requests_.Answer(step.text);
        }
    }

    void Start(uint32_t number, Time now) {
        WorkerOrders orders;
        orders.starts = number;
        const std::optional<FileIdentity> settings = IdentityOf(BridgeIniPath(folder_));
        orders.known_problem = policy_.IsProblemKnown() && settings == tried_;
        tried_ = settings;
        Worker& worker = workers_.emplace_back();
        worker.number = number;
        if (const DWORD error = StartWorker(folder_, listener_, orders, worker)) {
            workers_.pop_back();
            const std::string problem = "cannot start kestobridge.exe - " + ErrorWords(error);
            policy_.StartFailed(number, problem, now);
            Log("worker", problem);
        }
    }

    const std::wstring folder_;
    const SOCKET listener_;
    Requests& requests_;
    Policy policy_{Clock::now()};
    std::list<Worker> workers_;
    // The settings that the last worker has read.
    std::optional<FileIdentity> tried_;
    Time next_try_ = Clock::now() + kBetweenTries;
};

// Whatever fails because there is no memory is tried again, since the engine needs its guard.
template <typename Work>
auto Persist(Work work) {
    for (;;) {
        try {
            return work();
        } catch (const std::exception&) {
            Sleep(kStepMs);
        }
    }
}

int Explain() {
    constexpr char kText[] =
        "kestoav.exe is started by the mail server's plug-in, without arguments. It starts kestobridge.exe "
        "and goes on running. kestoscan.exe --help lists what you can do with it.\r\n";
    AttachConsole(ATTACH_PARENT_PROCESS);
    HANDLE out = GetStdHandle(STD_ERROR_HANDLE);
    DWORD written = 0;
    if (!WriteFile(out, kText, sizeof kText - 1, &written, nullptr)) {
        out = CreateFileW(L"CONOUT$", GENERIC_WRITE, FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
        WriteFile(out, kText, sizeof kText - 1, &written, nullptr);
    }
    return 2;
}

int Run() {
    // Inherited, so that no dialogue keeps a crashed worker.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    const std::wstring folder = Persist(ProgramFolder);
    Requests requests;
    // Whoever has the port is the guard; others of this folder show themselves by the pipe.
    const DWORD no_pipe = Persist([&] { return requests.Open(folder); });
    const SOCKET listener = Persist([&] { return Listen(folder, no_pipe != 0); });
    if (listener == INVALID_SOCKET) {
        return no_pipe != 0 ? 0 : 1;
    }
    Guard guard(folder, listener, requests);
    if (no_pipe != 0) {
        Persist([&] {
            guard.Log("pipe", "restarts cannot be asked for yet, since the pipe for it cannot be made - " +
                                  ErrorWords(no_pipe));
        });
    }
    for (;;) {
        Persist([&] { guard.Run(); });
    }
}

}  // namespace
}  // namespace kesto::guard

int main(int count, char**) {
    return count > 1 ? kesto::guard::Explain() : kesto::guard::Run();
}

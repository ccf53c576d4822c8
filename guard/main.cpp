// kestoav.exe: owns the port on which the plug-in finds its engine, and makes sure that a worker serves
// there: kestobridge.exe of the same folder. It does little else, so that it never goes away, since each scan
// that finds no kestoav.exe starts one for itself. It is started without arguments.
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <list>
#include <optional>
#include <string>
#include <utility>

#include "common/bridge_ini.h"
#include "common/bridge_log.h"
#include "common/error_words.h"
#include "common/file_bytes.h"
#include "common/program_folder.h"
#include "guard/listener.h"
#include "guard/requests.h"
#include "guard/worker.h"

namespace kesto::guard {
namespace {

using namespace std::chrono_literals;

constexpr auto kLongestSilence = 15s;  // the plug-in gives up a scan after 20 s
constexpr auto kLongestStart = 10s;    // of a worker beside another
constexpr auto kSettled =
    5s;  // a worker that ends later than this does not count as one that ends again and again
constexpr auto kFirstPause = 250ms;
constexpr auto kLongestPause = 8000ms;
constexpr auto kSettingsPause = 5s;  // until settings that cannot be followed are tried again
constexpr auto kGap = 1800ms;        // how long clients wait in the system's queue for a worker: 2 s in all
constexpr auto kStandstill = 2s;     // so long between two steps: the machine was asleep
constexpr DWORD kStepMs = 250;
constexpr DWORD kStepWithoutWorkerMs = 25;

class Guard {
 public:
    Guard(std::wstring folder, SOCKET listener, Requests& requests)
        : folder_(std::move(folder)), listener_(listener), requests_(requests) {}

    void Step() {
        Wait(Any(State::kServing) ? kStepMs : kStepWithoutWorkerMs);
        const Time now = Clock::now();
        const bool stood_still = now > stepped_ + kStandstill;
        stepped_ = now;
        LookAfterWorkers(now, stood_still);
        if (WaitForSingleObject(requests_.Event(), 0) == WAIT_OBJECT_0 && requests_.Take() &&
            !Any(State::kStarting)) {
            Start(now);
        }
        if (!Any(State::kStarting) && !Any(State::kServing) && now >= next_start_) {
            Start(now);
        }
        if (Any(State::kServing)) {
            served_ = now;
        } else if (now > served_ + kGap) {
            TurnAway(listener_);
        }
        LogLeftOut();
    }

 private:
    bool Any(State state) const {
        return std::any_of(workers_.begin(), workers_.end(),
                           [state](const Worker& worker) { return worker.state == state; });
    }

    void Log(const std::string& kind, const std::string& message) const {
        UseBridgeLog(ReadBridgeIni(folder_).settings, folder_);
        LogBridge(kind, message);
    }

    void Wait(DWORD limit) const {
        HANDLE handles[8];
        DWORD count = 0;
        if (requests_.Event() != nullptr) {
            handles[count++] = requests_.Event();
        }
        for (const Worker& worker : workers_) {
            if (worker.state != State::kLeaving && count + 2 <= std::size(handles)) {
                handles[count++] = worker.process;
                handles[count++] = worker.alive;
            }
        }
        if (count == 0 || WaitForMultipleObjects(count, handles, FALSE, limit) == WAIT_FAILED) {
            Sleep(limit);
        }
    }

    void LookAfterWorkers(Time now, bool stood_still) {
        for (auto at = workers_.begin(); at != workers_.end();) {
            Worker& worker = *at;
            const bool sign = GaveSign(worker);
            if (sign || stood_still) {
                worker.heard = now;
            }
            if (sign && worker.state == State::kStarting) {
                BeginsToServe(worker);
            }
            const auto limit = worker.state == State::kStarting && Any(State::kServing)
                                   ? std::chrono::seconds(kLongestStart)
                                   : kLongestSilence;
            DWORD code = 0;
            std::string how;
            if (WaitForSingleObject(worker.process, 0) == WAIT_OBJECT_0) {
                GetExitCodeProcess(worker.process, &code);
                how = EndInWords(code);
            } else if (now > worker.heard + limit) {
                TerminateProcess(worker.process, 1);
                code = 1;
                how = "gave no sign of life for " + std::to_string(limit.count()) + " s and was ended";
            } else {
                ++at;
                continue;
            }
            const Worker ended = worker;
            Forget(worker);
            at = workers_.erase(at);
            HasEnded(ended, code, how, now);
        }
    }

    void BeginsToServe(Worker& worker) {
        for (Worker& other : workers_) {
            if (other.state == State::kServing) {
                TellToLeave(other);
            }
        }
        worker.state = State::kServing;
        settings_wrong_ = false;
        Answer(kRestarted);
    }

    void HasEnded(const Worker& worker, DWORD code, const std::string& how, Time now) {
        if (worker.state == State::kLeaving) {
            if (code != 0) {
                Log("worker", "the former kestobridge.exe " + how);
            }
            return;
        }
        if (code == kCannotFollow) {
            settings_wrong_ = true;
            next_start_ = now + kSettingsPause;
        } else {
            if (worker.state == State::kServing && now > worker.started + kSettled) {
                pause_ = 0ms;
            }
            Log("worker", "kestobridge.exe " + how);
            Pause(now);
        }
        if (worker.state == State::kStarting) {
            Answer("the new kestobridge.exe " + how);
        }
    }

    void Pause(Time now) {
        next_start_ = now + pause_;
        pause_ = pause_ == 0ms ? kFirstPause : std::min(2 * pause_, std::chrono::milliseconds(kLongestPause));
    }

    void Start(Time now) {
        WorkerOrders orders;
        orders.starts = ++starts_;
        const std::optional<FileIdentity> settings = IdentityOf(BridgeIniPath(folder_));
        orders.known_problem = settings_wrong_ && settings == tried_;
        tried_ = settings;
        Worker& worker = workers_.emplace_back();
        worker.started = worker.heard = now;
        if (const DWORD error = StartWorker(folder_, listener_, orders, worker)) {
            workers_.pop_back();
            const std::string problem = "cannot start kestobridge.exe - " + ErrorWords(error);
            Pause(now);
            Log("worker", problem);
            Answer(problem);
        }
    }

    void Answer(const std::string& text) {
        if (requests_.Asked()) {
            requests_.Answer(text);
        }
    }

    const std::wstring folder_;
    const SOCKET listener_;
    Requests& requests_;
    std::list<Worker>
        workers_;  // the one that starts or serves, or both during an exchange, and those that leave
    uint32_t starts_ = 0;
    Time stepped_ = Clock::now();
    Time served_ = Clock::now();  // when a worker served last
    Time next_start_{};
    std::chrono::milliseconds pause_{};
    std::optional<FileIdentity> tried_;  // the settings that the last worker has read
    bool settings_wrong_ = false;        // none has served since one could not follow them
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
        "and "
        "goes on running. kestoscan.exe --help lists what you can do with it.\r\n";
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
    SetErrorMode(SEM_FAILCRITICALERRORS |
                 SEM_NOGPFAULTERRORBOX);  // inherited, so that no dialogue keeps a crashed worker
    const std::wstring folder = Persist(ProgramFolder);
    Requests requests;
    if (!Persist([&] { return requests.Open(folder); })) {
        return 0;
    }
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    const SOCKET listener = Persist([&] { return Listen(folder); });
    if (listener == INVALID_SOCKET) {
        return 1;
    }
    Guard guard(folder, listener, requests);
    for (;;) {
        Persist([&] { guard.Step(); });
    }
}

}  // namespace
}  // namespace kesto::guard

int main(int count, char**) {
    return count > 1 ? kesto::guard::Explain() : kesto::guard::Run();
}

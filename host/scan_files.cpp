#include "host/scan_files.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "common/error_words.h"
#include "common/file_bytes.h"
#include "common/text.h"
#include "host/common/exit_status.h"
#include "host/common/output.h"
#include "host/engine_start.h"
#include "host/interrupt.h"
#include "host/plugin_log.h"
#include "host/probe.h"
#include "host/progress.h"
#include "host/quarantine.h"
#include "host/read_watch.h"

namespace kesto::host {
namespace {

using Clock = std::chrono::steady_clock;
using Guard = std::unique_lock<std::recursive_mutex>;

// Of the files in memory together: several large ones at once could exhaust the address space though each
// fits. A file above this is in memory alone.
constexpr uint64_t kMostHeld = 128u << 20;
constexpr uint32_t kWatchedFrom = 4u << 20;  // a file of this size shows how far its scan has come
constexpr auto kWatchInterval = std::chrono::milliseconds(250);
constexpr auto kThreadsLeave = std::chrono::milliseconds(500);  // what they take that need nothing more
constexpr uint32_t kTimedOut = 1460;                            // the system's code for it

enum class LaneState { kReading, kWaiting, kScanning };

// A thread that takes one file after the other.
struct Lane {
    const ListedFile* file = nullptr;  // none between two
    size_t index = 0;
    LaneState state = LaneState::kReading;
    Clock::time_point began;       // of the state
    Clock::duration reading = {};  // how long that took
    bool given_up = false;         // its call may return or not; nobody waits for it
    ReadWatch* watch = nullptr;
};

// Kept by every thread of it: one that was given up may outlast the run.
class ScanRun : public std::enable_shared_from_this<ScanRun> {
 public:
    ScanRun(const PluginLibrary& plugin, const InstalledPlugin& installed, std::vector<ListedFile> files,
            const ScanOptions& options)
        : plugin_(plugin),
          installed_(installed),
          files_(std::move(files)),
          options_(options),
          report_(options.report) {
        for (const ListedFile& file : files_) {
            progress_.bytes_total += file.size;
        }
        progress_.files_total = files_.size();
    }

    ScanOutcome Run() {
        Guard guard(OutputLock());
        SetLastWords([this] { Finish(true); });
        // One more than scans: while the others scan, it reads the next file.
        for (size_t i = 0; i < std::min<size_t>(options_.jobs + 1, files_.size()); ++i) {
            AddLane();
        }
        auto drawn = start_;
        while (!AllDone()) {
            changed_.wait_for(guard, kWatchInterval);
            const auto now = Clock::now();
            if (GiveUpLateLanes(now) && stop_words_.empty()) {
                guard.unlock();
                const std::string words = NoServerAccepts(installed_);
                guard.lock();
                stop_words_ = words;
            }
            if (!engine_answered_ && stop_words_.empty() && StartedEngineIsGone()) {
                stop_words_ = EngineEndsText(installed_);
            }
            if (ProgressShown() && !AllDone() && now - drawn >= kWatchInterval) {
                drawn = now;
                DrawProgress(ProgressLine(CurrentProgress()));
            }
        }
        stopped_ = true;
        Finish(false);
        SetLastWords(nullptr);
        if (!stop_words_.empty()) {
            PrintError("kestoscan: " + stop_words_);
        }
        changed_.notify_all();
        changed_.wait_for(guard, kThreadsLeave, [this] { return threads_ == 0; });
        return {Status(), threads_ != 0};
    }

 private:
    // Nothing is waited for once the run is of no use.
    bool AllDone() const {
        return done_ == files_.size() || (stopped_ && scanning_ == 0) || !stop_words_.empty() ||
               !OutputFailure().empty();
    }

    int Status() const {
        if (totals_.infected != 0) {
            return kExitInfected;
        }
        return totals_.errors != 0 || totals_.not_scanned != 0 ? kExitError : kExitClean;
    }

    Progress CurrentProgress() const {
        Progress now = progress_;
        now.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
        for (const auto& lane : lanes_) {
            now.bytes_done += lane->watch != nullptr ? lane->watch->Reached() : 0;
        }
        return now;
    }

    void Finish(bool interrupted) {
        totals_.seconds = CurrentProgress().seconds;
        totals_.interrupted = interrupted;
        totals_.not_scanned = files_.size() - done_;
        report_.Summary(totals_);
    }

    void AddLane() {
        auto lane = std::make_shared<Lane>();
        lanes_.push_back(lane);
        ++threads_;
        std::thread([run = shared_from_this(), lane] {
            Guard guard(OutputLock());
            run->Work(guard, *lane);
            --run->threads_;
            run->changed_.notify_all();
        }).detach();
    }

    // Returns whether there was a scan among them. A thread that reads ahead of its turn holds nobody up.
    bool GiveUpLateLanes(Clock::time_point now) {
        bool scans = false;
        for (size_t i = 0; i < lanes_.size(); ++i) {
            Lane& lane = *lanes_[i];
            const bool counts = lane.state == LaneState::kScanning ||
                                (lane.state == LaneState::kReading && lane.index == turn_);
            if (lane.given_up || lane.file == nullptr || !counts ||
                now - lane.began + lane.reading < std::chrono::seconds(options_.timeout)) {
                continue;
            }
            scans = scans || lane.state == LaneState::kScanning;
            if (lane.state == LaneState::kReading) {
                ++turn_;
            }
            Fail(lane, "No verdict within " + std::to_string(options_.timeout) + " s", kTimedOut);
            LetGo(lane);
            lane.given_up = true;
            engine_answered_ = false;
            AddLane();
        }
        return scans;
    }

    // Returns where the run or the lane ends.
    void Work(Guard& guard, Lane& lane) {
        while (TakeFile(guard, lane)) {
            const ListedFile& file = *lane.file;
            guard.unlock();
            const FileBytes bytes = Read(file);
            guard.lock();
            if (!WaitForTurn(guard, lane)) {
                return;
            }
            if (!bytes.error.empty()) {
                Fail(lane, bytes.error, bytes.code);
            } else {
                Scan(guard, lane, bytes);
            }
            if (lane.given_up) {
                return;
            }
            LetGo(lane);
        }
    }

    // False when the lane is to end.
    template <typename Ready>
    bool Wait(Guard& guard, const Lane& lane, Ready ready) {
        changed_.wait(guard, [&] { return stopped_ || lane.given_up || ready(); });
        return !stopped_ && !lane.given_up;
    }

    bool TakeFile(Guard& guard, Lane& lane) {
        const auto fits = [this] {
            return next_ == files_.size() || held_ == 0 || held_ + files_[next_].size <= kMostHeld;
        };
        if (!Wait(guard, lane, fits) || next_ == files_.size()) {
            return false;
        }
        lane.index = next_++;
        lane.file = &files_[lane.index];
        lane.reading = {};
        held_ += lane.file->size;
        Enter(lane, LaneState::kReading);
        return true;
    }

    static void Enter(Lane& lane, LaneState state) {
        lane.state = state;
        lane.began = Clock::now();
    }

    static FileBytes Read(const ListedFile& file) {
        if (!file.error.empty()) {
            return {nullptr, 0, file.error, file.code};
        }
        return file.exact.empty() ? ReadStandardInput() : ReadWholeFile(file.exact);
    }

    // Scans begin in the order in which the files were listed. Several run at a time only as long as the
    // engine answers: threads that all find it unreachable would each restart it, and end one another's.
    bool WaitForTurn(Guard& guard, Lane& lane) {
        lane.reading = Clock::now() - lane.began;
        lane.state = LaneState::kWaiting;
        const auto ready = [&] {
            return turn_ == lane.index && scanning_ < (engine_answered_ ? options_.jobs : 1);
        };
        if (!Wait(guard, lane, ready)) {
            return false;
        }
        ++turn_;
        changed_.notify_all();
        return true;
    }

    void Scan(Guard& guard, Lane& lane, const FileBytes& bytes) {
        Enter(lane, LaneState::kScanning);
        ++scanning_;
        std::optional<ReadWatch> watch;
        if (bytes.size >= kWatchedFrom && ProgressShown()) {
            lane.watch = &watch.emplace(bytes.data.get(), bytes.size);
        }
        const bool suspect = std::exchange(engine_suspect_, false);
        const std::string name = AnsiFromWide(lane.file->path);
        guard.unlock();
        if (suspect && EnsureEngine(installed_) == EngineStart::kEndedAtOnce) {
            const std::string words = EngineEndsText(installed_);
            guard.lock();
            stop_words_ = words;
            if (!lane.given_up) {
                Fail(lane, "The engine ends at once", kErrorConnect);
            }
            return;
        }
        ScanFileInput input = {};
        std::strncpy(input.name, name.c_str(), sizeof input.name - 1);
        input.size = bytes.size;
        input.data = bytes.data.get();
        char detection[kDetectionSize] = "";
        ScanFileResult result = {0, 0, detection};
        uint32_t code = 0;
        const bool scanned = plugin_.scan_file(0, &input, &result, &code, 0, 0) != 0;
        const std::string error = scanned ? "" : ErrorText(code, name, bytes.size);
        guard.lock();
        lane.watch = nullptr;
        if (lane.given_up) {
            return;
        }
        engine_answered_ = scanned && (engine_answered_ || bytes.size != 0);
        if (!scanned) {
            engine_suspect_ = true;
            stopped_ = stopped_ || plugin_.is_fatal_error(code) != 0;
            Fail(lane, error, code);
            return;
        }
        ++totals_.scanned;
        totals_.bytes += bytes.size;
        progress_.bytes_done += bytes.size;
        if (result.infected) {
            detection[kDetectionSize - 1] = '\0';
            Infected(lane, bytes.size, Utf8FromAnsi(detection + kDetectionVirusName));
        } else {
            report_.Clean(Utf8FromWide(lane.file->path), bytes.size);
        }
    }

    // The plug-in's own words for 1003 say nothing.
    std::string ErrorText(uint32_t code, const std::string& name, uint32_t size) const {
        std::string logged = code == kErrorReply ? LoggedResponse(installed_.log, name, size) : std::string();
        if (!logged.empty()) {
            return logged;
        }
        return PluginErrorText(plugin_, code) +
               (code == kErrorReply ? ": no verdict in the engine's reply, which kestoav.log would tell"
                                    : "");
    }

    void Infected(const Lane& lane, uint32_t size, const std::string& virus) {
        ++totals_.infected;
        const std::string path = Utf8FromWide(lane.file->path);
        std::wstring where;
        const unsigned long code = options_.quarantine.empty()
                                       ? 0
                                       : PutAway(lane.file->exact, options_.quarantine, options_.move, where);
        const char* const done = where.empty() ? "" : options_.move ? "moved" : "copied";
        report_.Infected(path, size, virus, done, Utf8FromWide(where));
        if (code != 0) {
            ++totals_.errors;
            report_.Failed(
                path,
                std::string("Not ") + (options_.move ? "moved" : "copied") + ": " + SystemErrorText(code),
                code);
        }
    }

    void Fail(const Lane& lane, const std::string& error, uint32_t code) {
        progress_.bytes_total -= std::min(progress_.bytes_total, lane.file->size);
        if (lane.file->skipped) {
            report_.Skipped(Utf8FromWide(lane.file->path), error);
            return;
        }
        ++totals_.errors;
        report_.Failed(Utf8FromWide(lane.file->path), error, code);
    }

    // The lane's file is done with.
    void LetGo(Lane& lane) {
        held_ -= lane.file->size;
        scanning_ -= lane.state == LaneState::kScanning ? 1 : 0;
        ++done_;
        ++progress_.files_done;
        lane.file = nullptr;
        lane.watch = nullptr;
        changed_.notify_all();
    }

    const PluginLibrary plugin_;
    const InstalledPlugin installed_;
    const std::vector<ListedFile> files_;
    const ScanOptions options_;
    const Clock::time_point start_ = Clock::now();
    std::condition_variable_any changed_;

    // What follows, and all lanes, are used under OutputLock.
    Report report_;
    ScanTotals totals_;
    Progress progress_;
    std::vector<std::shared_ptr<Lane>> lanes_;
    std::string stop_words_;  // not empty: why the run is of no use any more
    size_t threads_ = 0;
    size_t next_ = 0;  // the file to be read next
    size_t turn_ = 0;  // the file to be scanned next
    size_t done_ = 0;
    size_t scanning_ = 0;
    uint64_t held_ = 0;  // bytes of the files in memory, as listed
    bool engine_answered_ = false;
    bool engine_suspect_ = false;  // a scan has failed since it last answered
    bool stopped_ = false;
};

}  // namespace

ScanOutcome ScanFiles(const PluginLibrary& plugin, const InstalledPlugin& installed,
                      std::vector<ListedFile> files, const ScanOptions& options) {
    return std::make_shared<ScanRun>(plugin, installed, std::move(files), options)->Run();
}

}  // namespace kesto::host

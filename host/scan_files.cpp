#include "host/scan_files.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "common/detached_thread.h"
#include "common/file_bytes.h"
#include "common/text.h"
#include "host/check/check.h"
#include "host/common/exit_status.h"
#include "host/common/output.h"
#include "host/engine_start.h"
#include "host/interrupt.h"
#include "host/plugin_log.h"
#include "host/probe.h"
#include "host/progress.h"
#include "host/quarantine.h"

namespace kesto::host {
namespace {

using Clock = std::chrono::steady_clock;
using Guard = std::unique_lock<std::recursive_mutex>;

// Limit for all files in memory together, since several large ones could exhaust the address space though
// each fits. A larger file is in memory alone.
constexpr uint64_t kMostHeld = 128u << 20;
constexpr auto kWatchInterval = std::chrono::milliseconds(250);
constexpr auto kThreadsLeave =
    std::chrono::milliseconds(500);   // that is enough for threads that have nothing more to do
constexpr uint32_t kTimedOut = 1460;  // the system's code for it

// A thread that takes one file after the other.
struct Lane {
    const ListedFile* file = nullptr;  // null between two files
    Clock::time_point began;           // with it
    bool scanning = false;             // it has been read
    bool given_up = false;             // nobody waits for its call any more
};

// Every thread of the run keeps it, since a thread that was given up may outlast the run.
class ScanRun : public std::enable_shared_from_this<ScanRun> {
 public:
    ScanRun(const PluginLibrary& plugin, const InstalledPlugin& installed, FileListing listing,
            const ScanOptions& options)
        : plugin_(plugin),
          installed_(installed),
          files_(std::move(listing.files)),
          options_(options),
          report_(options.report) {
        totals_.left_out = listing.left_out;
        progress_.files_total = files_.size();
        for (const ListedFile& file : files_) {
            progress_.bytes_total += file.size;
        }
    }

    ScanOutcome Run() {
        Guard guard(OutputLock());
        SetLastWords([this] {
            Finish(true);
            return totals_.infected != 0 ? kExitInfected : kExitError;
        });
        for (size_t i = 0; i < std::min<size_t>(options_.jobs, files_.size()); ++i) {
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
    // Nothing is waited for when the run has become useless.
    bool AllDone() const {
        const auto scans = [](const auto& lane) { return lane->file && lane->scanning && !lane->given_up; };
        return progress_.files_done == files_.size() || !stop_words_.empty() || OutputFault() ||
               (stopped_ && std::none_of(lanes_.begin(), lanes_.end(), scans));
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
        return now;
    }

    void Finish(bool interrupted) {
        totals_.seconds = CurrentProgress().seconds;
        totals_.interrupted = interrupted;
        totals_.not_scanned = files_.size() - progress_.files_done;
        report_.Summary(totals_);
    }

    void AddLane() {
        auto lane = std::make_shared<Lane>();
        lanes_.push_back(lane);
        ++threads_;
        const bool began = RunDetached([run = shared_from_this(), lane] {
            Guard guard(OutputLock());
            run->Work(guard, *lane);
            --run->threads_;
            run->changed_.notify_all();
        });
        if (!began && --threads_ == 0) {
            stop_words_ = "the system has no thread for a scan\n";
        }
    }

    // Returns whether there was a scan among them.
    bool GiveUpLateLanes(Clock::time_point now) {
        bool scans = false;
        for (size_t i = 0; i < lanes_.size(); ++i) {
            Lane& lane = *lanes_[i];
            if (lane.file == nullptr || now - lane.began < std::chrono::seconds(options_.timeout)) {
                continue;
            }
            scans = scans || lane.scanning;
            Failed(lane, {"No verdict within " + std::to_string(options_.timeout) + " s", kTimedOut});
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
            FileBytes bytes = file.fault           ? FileBytes{.fault = file.fault}
                              : file.exact.empty() ? ReadStandardInput()
                                                   : ReadWholeFile(file.exact);
            guard.lock();
            if (lane.given_up || stopped_) {
                return;
            }
            if (bytes.fault) {
                Failed(lane, bytes.fault);
            } else {
                Scan(guard, lane, bytes);
            }
            if (lane.given_up) {
                return;
            }
            bytes = {};  // before the next file may be read
            LetGo(lane);
        }
    }

    // False when the lane is to end. Several files are taken at a time only as long as the engine answers:
    // threads that all find it unreachable would each restart it, and end one another's.
    bool TakeFile(Guard& guard, Lane& lane) {
        changed_.wait(guard, [this] {
            return stopped_ || next_ == files_.size() ||
                   (busy_ < (engine_answered_ ? options_.jobs : 1) &&
                    (held_ == 0 || held_ + files_[next_].size <= kMostHeld));
        });
        if (stopped_ || next_ == files_.size()) {
            return false;
        }
        lane.file = &files_[next_++];
        lane.began = Clock::now();
        lane.scanning = false;
        held_ += lane.file->size;
        ++busy_;
        return true;
    }

    void Scan(Guard& guard, Lane& lane, const FileBytes& bytes) {
        lane.scanning = true;
        const bool suspect = std::exchange(engine_suspect_, false);
        const std::string name = AnsiFromWide(lane.file->path);
        guard.unlock();
        if (suspect && EnsureEngine(installed_) == EngineStart::kEndedAtOnce) {
            const std::string words = EngineEndsText(installed_);
            guard.lock();
            stop_words_ = words;
            if (!lane.given_up) {
                Failed(lane, {"The engine ends at once", kErrorConnect});
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
        if (lane.given_up) {
            return;
        }
        engine_answered_ = scanned && (engine_answered_ || bytes.size != 0);
        if (!scanned) {
            engine_suspect_ = true;
            stopped_ = stopped_ || plugin_.is_fatal_error(code) != 0;
            Failed(lane, {error, code});
            return;
        }
        ++totals_.scanned;
        totals_.bytes += bytes.size;
        progress_.bytes_done += bytes.size;
        if (result.infected) {
            detection[kDetectionSize - 1] = '\0';
            Infected(lane, bytes, Utf8FromAnsi(detection + kDetectionVirusName));
        } else {
            report_.Clean(Utf8FromWide(lane.file->path), bytes.size);
        }
    }

    // The plug-in's own text for 1003 does not help.
    std::string ErrorText(uint32_t code, const std::string& name, uint32_t size) const {
        std::string logged = code == kErrorReply ? LoggedResponse(installed_.log, name, size) : std::string();
        if (!logged.empty()) {
            return logged;
        }
        return PluginErrorText(plugin_, code) +
               (code == kErrorReply ? ": no verdict in the engine's reply, which kestoav.log would tell"
                                    : "");
    }

    void Infected(const Lane& lane, const FileBytes& bytes, const std::string& virus) {
        ++totals_.infected;
        PutAwayResult away;
        if (!options_.quarantine.empty()) {
            away = PutAway(lane.file->exact, bytes.identity, options_.quarantine, options_.move);
        }
        totals_.errors += away.fault ? 1 : 0;
        constexpr const char* kDone[] = {"", "copied", "moved"};
        report_.Infected(Utf8FromWide(lane.file->path), bytes.size, virus,
                         kDone[static_cast<size_t>(away.end)], Utf8FromWide(away.where), away.fault);
    }

    void Failed(const Lane& lane, const Fault& fault) {
        progress_.bytes_total -= std::min(progress_.bytes_total, lane.file->size);
        const std::string path = Utf8FromWide(lane.file->path);
        if (lane.file->skipped) {
            report_.Skipped(path, fault.text);
            return;
        }
        ++totals_.errors;
        report_.Failed(path, fault);
    }

    // The lane is done with its file.
    void LetGo(Lane& lane) {
        held_ -= lane.file->size;
        --busy_;
        ++progress_.files_done;
        lane.file = nullptr;
        changed_.notify_all();
    }

    const PluginLibrary plugin_;
    const InstalledPlugin installed_;
    const std::vector<ListedFile> files_;
    const ScanOptions options_;
    const Clock::time_point start_ = Clock::now();
    std::condition_variable_any changed_;

    // These and all lanes are used under OutputLock.
    Report report_;
    ScanTotals totals_;
    Progress progress_;
    std::vector<std::shared_ptr<Lane>> lanes_;
    std::string stop_words_;  // why the run has become useless; empty otherwise
    size_t threads_ = 0;
    size_t next_ = 0;    // the file to be taken next
    size_t busy_ = 0;    // lanes that have a file
    uint64_t held_ = 0;  // bytes of the files in memory, as listed
    bool engine_answered_ = false;
    bool engine_suspect_ = false;  // a scan has failed since it last answered
    bool stopped_ = false;
};

}  // namespace

ScanOutcome ScanFiles(const PluginLibrary& plugin, const InstalledPlugin& installed, FileListing listing,
                      const ScanOptions& options) {
    return std::make_shared<ScanRun>(plugin, installed, std::move(listing), options)->Run();
}

}  // namespace kesto::host

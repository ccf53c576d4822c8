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

constexpr uint64_t kMostHeld = 128u << 20;  // bytes
constexpr auto kWatchInterval = std::chrono::milliseconds(250);
// Enough for threads that have nothing more to do.
constexpr auto kThreadsLeave = std::chrono::milliseconds(500);
constexpr uint32_t kTimedOut = 1460;  // the system's code for it

// A thread that takes one file after the other.
struct Lane {
    const ListedFile* file = nullptr;  // null between two files
    Clock::time_point began{};         // with it
    bool scanning = false;             // it has been read
    bool given_up = false;             // nobody waits for its call any more
};

// One run. Its rules:
// - Whatever changes in it, its lanes included, is used under OutputLock: a line is printed together with the
//   change that it tells, and whoever interrupts the run finds both whole. Files are read, the plug-in is
//   called and the engine is looked at without the lock.
// - A lane is given up when its file takes too long, and each at the end of the run. It prints nothing more,
//   whenever its call returns; a new lane takes its place. Its thread may outlast the run, so each keeps it.
// - The plug-in is its caller's, and a thread's for the time of a call. Whoever lets go last closes it.
// - Several files are scanned at a time only as long as the engine answers: threads that all find it
//   unreachable would each restart it, and end one another's.
// - Files in memory together have a limit, since several large ones could exhaust the address space though
//   each fits. A larger file is in memory alone.
// - After an error that the plug-in calls fatal no further file is taken. When the run has become useless
//   (`stop_words_`), the scans that run are not waited for, either.
class ScanRun : public std::enable_shared_from_this<ScanRun> {
 public:
    ScanRun(const std::shared_ptr<const PluginLibrary>& plugin, const InstalledPlugin& installed,
            FileListing listing, const ScanOptions& options, const ReportOptions& report)
        : plugin_(plugin),
          installed_(installed),
          files_(std::move(listing.files)),
          options_(options),
          report_(report) {
        totals_.left_out = listing.left_out;
        totals_.files = files_.size();
        for (const ListedFile& file : files_) {
            totals_.bytes_listed += file.size;
        }
    }

    int Run() {
        TieEngines();
        Guard guard(OutputLock());
        SetLastWords([this] {
            report_.Summary(CurrentTotals(), true);
            return totals_.infected != 0 ? kExitInfected : kExitError;
        });
        for (size_t i = 0; i < std::min<size_t>(options_.jobs, files_.size()); ++i) {
            AddLane();
        }
        auto drawn = start_;
        while (!AllDone()) {
            changed_.wait_for(guard, kWatchInterval);
            const auto now = Clock::now();
            const bool late = GiveUpLateLanes(now);
            if (!engine_answered_ && stop_words_.empty()) {
                guard.unlock();
                std::string words = late ? NoServerAccepts(installed_) : "";
                if (words.empty() && StartedEngineIsGone()) {
                    words = WhyUnusable(installed_);
                }
                guard.lock();
                stop_words_ = stop_words_.empty() ? words : stop_words_;
            }
            if (ProgressShown() && !AllDone() && now - drawn >= kWatchInterval) {
                drawn = now;
                DrawProgress(ProgressLine(CurrentTotals()));
            }
        }
        stopped_ = true;
        for (const std::shared_ptr<Lane>& lane : lanes_) {
            lane->given_up = true;
        }
        report_.Summary(CurrentTotals(), false);
        SetLastWords(nullptr);
        if (!stop_words_.empty()) {
            Complain(stop_words_);
        }
        changed_.notify_all();
        changed_.wait_for(guard, kThreadsLeave, [this] { return threads_ == 0; });
        return totals_.infected != 0                                  ? kExitInfected
               : totals_.errors != 0 || totals_.done != totals_.files ? kExitError
                                                                      : kExitClean;
    }

 private:
    bool AllDone() const {
        const auto scans = [](const auto& lane) { return lane->file && lane->scanning; };
        return totals_.done == files_.size() || !stop_words_.empty() || OutputFault() ||
               (stopped_ && std::none_of(lanes_.begin(), lanes_.end(), scans));
    }

    const ScanTotals& CurrentTotals() {
        totals_.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
        return totals_;
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
            stop_words_ = "the system has no thread for a scan";
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

    // False when the lane is to end.
    bool TakeFile(Guard& guard, Lane& lane) {
        changed_.wait(guard, [this] {
            return stopped_ || next_ == files_.size() ||
                   (busy_ < (engine_answered_ ? options_.jobs : 1) &&
                    (held_ == 0 || held_ + files_[next_].size <= kMostHeld));
        });
        if (stopped_ || next_ == files_.size()) {
            return false;
        }
        lane = {.file = &files_[next_++], .began = Clock::now()};
        held_ += lane.file->size;
        ++busy_;
        return true;
    }

    void Scan(Guard& guard, Lane& lane, const FileBytes& bytes) {
        lane.scanning = true;
        const bool suspect = std::exchange(engine_suspect_, false);
        const std::string name = AnsiFromWide(lane.file->path);
        guard.unlock();
        if (suspect && EnsureEngine(installed_) == EngineStart::kUnusable) {
            const std::string words = WhyUnusable(installed_);
            guard.lock();
            stop_words_ = words;
            if (!lane.given_up) {
                Failed(lane, {"No engine can be used", kErrorConnect});
            }
            return;
        }
        const std::shared_ptr<const PluginLibrary> plugin = plugin_.lock();
        if (!plugin) {
            guard.lock();
            return;
        }
        ScanFileInput input = {};
        std::strncpy(input.name, name.c_str(), sizeof input.name - 1);
        input.size = bytes.size;
        input.data = bytes.data.get();
        char detection[kDetectionSize] = "";
        ScanFileResult result = {0, 0, detection};
        uint32_t code = 0;
        CountOwnScan();
        const bool scanned = plugin->scan_file(0, &input, &result, &code, 0, 0) != 0;
        const bool fatal = !scanned && plugin->is_fatal_error(code) != 0;
        const std::string error = scanned ? "" : ErrorText(*plugin, code, name, bytes.size);
        guard.lock();
        if (lane.given_up) {
            return;
        }
        engine_answered_ = scanned && (engine_answered_ || bytes.size != 0);
        if (!scanned) {
            engine_suspect_ = true;
            stopped_ = stopped_ || fatal;
            Failed(lane, {error, code});
            return;
        }
        ++totals_.scanned;
        totals_.bytes += bytes.size;
        if (result.infected) {
            detection[kDetectionSize - 1] = '\0';
            Infected(lane, bytes, Utf8FromAnsi(detection + kDetectionVirusName));
        } else {
            report_.Clean(Utf8FromWide(lane.file->path), bytes.size);
        }
    }

    // The plug-in's own text for 1003 does not help.
    std::string ErrorText(const PluginLibrary& plugin, uint32_t code, const std::string& name,
                          uint32_t size) const {
        std::string logged = code == kErrorReply ? LoggedResponse(installed_.log, name, size) : std::string();
        if (!logged.empty()) {
            return logged;
        }
        char text[256] = "";
        plugin.get_error_text(code, text, sizeof text);
        return Utf8FromAnsi(text) + (code == kErrorReply
                                         ? ": no verdict in the engine's reply, which kestoav.log would tell"
                                         : "");
    }

    void Infected(const Lane& lane, const FileBytes& bytes, const std::string& virus) {
        ++totals_.infected;
        PutAwayResult away;
        if (!options_.quarantine.empty()) {
            away = PutAway(lane.file->exact, bytes.identity, options_.quarantine, options_.move);
        }
        totals_.errors += away.fault ? 1 : 0;
        report_.Infected(Utf8FromWide(lane.file->path), bytes.size, virus, away);
    }

    void Failed(const Lane& lane, const Fault& fault) {
        totals_.bytes_listed -= std::min(totals_.bytes_listed, lane.file->size);
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
        ++totals_.done;
        lane.file = nullptr;
        changed_.notify_all();
    }

    const std::weak_ptr<const PluginLibrary> plugin_;
    const InstalledPlugin installed_;
    const std::vector<ListedFile> files_;
    const ScanOptions options_;
    const Clock::time_point start_ = Clock::now();
    std::condition_variable_any changed_;

    Report report_;
    ScanTotals totals_;
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

int ScanFiles(const std::shared_ptr<const PluginLibrary>& plugin, const InstalledPlugin& installed,
              FileListing listing, const ScanOptions& options, const ReportOptions& report) {
    return std::make_shared<ScanRun>(plugin, installed, std::move(listing), options, report)->Run();
}

}  // namespace kesto::host

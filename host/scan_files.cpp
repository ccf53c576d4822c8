#include "host/scan_files.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>

#include "host/common/exit_status.h"
#include "host/common/file_bytes.h"
#include "host/common/output.h"
#include "host/common/text.h"
#include "host/interrupt.h"
#include "host/progress.h"

namespace kesto {
namespace {

// Files above this are in memory one at a time: several at once could exhaust the address space though
// each fits.
constexpr uint64_t kLargeFile = 64u << 20;

constexpr auto kProgressInterval = std::chrono::milliseconds(250);

class ScanRun {
 public:
    ScanRun(const PluginLibrary& plugin, const std::vector<ListedFile>& files, const ReportOptions& options)
        : plugin_(plugin), files_(files), report_(options) {
        for (const ListedFile& file : files_) {
            progress_.bytes_total += file.size;
        }
        progress_.files_total = files_.size();
    }

    ScanTotals Run(unsigned jobs) {
        {
            const std::lock_guard guard(OutputLock());
            SetLastWords([this] { Finish(true); });
        }
        std::vector<std::thread> threads;
        threads.emplace_back([this] { Work(); });
        const bool show_progress = ProgressShown();
        auto drawn = start_;
        std::unique_lock guard(OutputLock());
        while (!AllDone()) {
            // One at a time until the engine has answered: threads that all find it unreachable would each
            // restart it, and end one another's.
            while (engine_answered_ && threads.size() < std::min<size_t>(jobs, files_.size())) {
                threads.emplace_back([this] { Work(); });
            }
            changed_.wait_for(guard, kProgressInterval);
            const auto now = std::chrono::steady_clock::now();
            if (show_progress && !AllDone() && now - drawn >= kProgressInterval) {
                drawn = now;
                DrawProgress(ProgressLine(CurrentProgress()));
            }
        }
        Finish(false);
        SetLastWords(nullptr);
        guard.unlock();
        for (std::thread& thread : threads) {
            thread.join();
        }
        return totals_;
    }

 private:
    bool AllDone() const { return working_ == 0 && (stopped_ || next_ == files_.size()); }

    Progress CurrentProgress() {
        progress_.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
        return progress_;
    }

    void Finish(bool interrupted) {
        totals_.seconds = CurrentProgress().seconds;
        totals_.interrupted = interrupted;
        totals_.not_scanned = files_.size() - totals_.scanned - totals_.errors;
        report_.Summary(totals_);
    }

    const ListedFile* Next() {
        const std::lock_guard guard(OutputLock());
        if (stopped_ || next_ == files_.size()) {
            return nullptr;
        }
        ++working_;
        return &files_[next_++];
    }

    void Work() {
        while (const ListedFile* file = Next()) {
            try {
                ScanListed(*file);
            } catch (const std::bad_alloc&) {
                AddFailed(*file, "Out of memory", 8);
            }
            const std::lock_guard guard(OutputLock());
            --working_;
            ++progress_.files_done;
            changed_.notify_one();
        }
    }

    void ScanListed(const ListedFile& file) {
        if (!file.error.empty()) {
            AddFailed(file, file.error, file.code);
            return;
        }
        std::unique_lock large(large_file_, std::defer_lock);
        if (file.size > kLargeFile) {
            large.lock();
        }
        const FileBytes bytes = ReadWholeFile(file.path);
        if (!bytes.error.empty()) {
            AddFailed(file, bytes.error, bytes.code);
            return;
        }
        ScanBytes(file, bytes);
    }

    void ScanBytes(const ListedFile& file, const FileBytes& bytes) {
        ScanFileInput input = {};
        std::strncpy(input.name, AnsiFromWide(file.path).c_str(), sizeof input.name - 1);
        input.size = bytes.size;
        input.data = bytes.data.get();
        char detection[kDetectionSize] = "";
        ScanFileResult result = {0, 0, detection};
        uint32_t code = 0;
        if (!plugin_.scan_file(0, &input, &result, &code, 0, 0)) {
            AddFailed(file, PluginErrorText(plugin_, code), code, plugin_.is_fatal_error(code) != 0);
            return;
        }
        detection[kDetectionSize - 1] = '\0';
        const std::lock_guard guard(OutputLock());
        ++totals_.scanned;
        totals_.bytes += bytes.size;
        progress_.bytes_done += bytes.size;
        engine_answered_ = engine_answered_ || bytes.size != 0;
        if (result.infected) {
            ++totals_.infected;
            report_.Infected(Utf8FromWide(file.path), bytes.size,
                             Utf8FromAnsi(detection + kDetectionVirusName));
        } else {
            report_.Clean(Utf8FromWide(file.path), bytes.size);
        }
    }

    void AddFailed(const ListedFile& file, const std::string& error, uint32_t code, bool fatal = false) {
        const std::lock_guard guard(OutputLock());
        ++totals_.errors;
        progress_.bytes_total -= std::min(progress_.bytes_total, file.size);
        stopped_ = stopped_ || fatal;
        report_.Failed(Utf8FromWide(file.path), error, code);
    }

    const PluginLibrary& plugin_;
    const std::vector<ListedFile>& files_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::mutex large_file_;
    std::condition_variable_any changed_;

    // What follows is used under OutputLock.
    Report report_;
    ScanTotals totals_;
    Progress progress_;
    size_t next_ = 0;
    size_t working_ = 0;
    bool engine_answered_ = false;
    bool stopped_ = false;
};

}  // namespace

int ScanFiles(const PluginLibrary& plugin, const std::vector<ListedFile>& files, unsigned jobs,
              const ReportOptions& options) {
    const ScanTotals totals = ScanRun(plugin, files, options).Run(jobs);
    if (totals.infected != 0) {
        return kExitInfected;
    }
    return totals.errors != 0 || totals.not_scanned != 0 || OutputFailed() ? kExitError : kExitClean;
}

}  // namespace kesto

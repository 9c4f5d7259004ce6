// Queue scale: how long queued uploads take to add and save, how long a new
// storage manager takes to restore them from the state file, how much memory
// the queue takes and how long one save holds the session's queue.
//
//   znv_bench_queue_scale [--uploads N[,N...]] [--quick] [--json]
//
// Runs in a private home directory of its own. The account is signed out, so
// the uploads stay queued and only the collection, the activation policy and
// the state file are measured. Each count (default 10,000 and 100,000) runs
// in turn in this process. The restore stands for a relaunch: the first
// manager is ended (its state file kept aside and put back) and the heap
// returned before a new manager reads the file, so peak resident memory is
// the larger of the two phases' peaks, each measured from its own start.
// The restored uploads are then finished one by one, oldest first, as an
// application clears what it is done with.
// Bars: 10,000 uploads peak under 128 MiB, and a save holds the session's
// queue for at most 5 ms of its processor time; 100,000 uploads added and
// saved in under 10 s, restored in under 5 s, finished in under 10 s, peak
// under 300 MiB. --quick
// runs 2,000 and 10,000. Exits 1 when a bar is missed.
#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/test_support.h"
#include "znv/account/account.h"
#include "znv/foundation/log.h"
#include "znv/managers/storage.h"
#include "znv/platform/main_queue.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Processor time of the whole process (every thread), in seconds: on a busy
// machine it tells the work done apart from the time spent waiting for a core.
double cpuSeconds() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

// Waits until the session's queue has run everything handed to it so far
// (refreshes and saves), after the main queue has passed its share on.
void settle(const std::shared_ptr<znv::ZNVStorage>& storage,
            const std::shared_ptr<znv::ZNVNetworkSessionManager>& session) {
    for (int round = 0; round < 2; ++round) {
        znv::ZNVMainQueue::waitUntilDrained(std::chrono::minutes(5));
        std::atomic<bool> done{false};
        session->performBackgroundSessionBlock([&done] { done = true; });
        while (!done)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    storage->waitUntilStateIsWritten(std::chrono::minutes(5));
}

// Counts the elements of "$top" / "tasks" / "$objects" while reading the file,
// without holding its document (that would count in the peak memory).
class TaskCounter : public nlohmann::json_sax<nlohmann::json> {
  public:
    size_t count = 0;
    bool null() override { return value(); }
    bool boolean(bool) override { return value(); }
    bool number_integer(number_integer_t) override { return value(); }
    bool number_unsigned(number_unsigned_t) override { return value(); }
    bool number_float(number_float_t, const string_t&) override { return value(); }
    bool string(string_t&) override { return value(); }
    bool binary(binary_t&) override { return value(); }
    bool start_object(std::size_t) override { return enter(); }
    bool end_object() override { return leave(); }
    bool start_array(std::size_t) override { return enter(); }
    bool end_array() override { return leave(); }
    bool key(string_t& name) override {
        path_.back() = name;
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        count = 0;
        return false;
    }

  private:
    bool inTasks() const {
        return path_.size() == 5 && path_[1] == "$top" && path_[2] == "tasks" &&
               path_[3] == "$objects";
    }
    bool value() { return true; }
    bool enter() {
        if (inTasks()) ++count;
        path_.emplace_back();
        return true;
    }
    bool leave() {
        path_.pop_back();
        return true;
    }
    std::vector<std::string> path_{""};
};

size_t savedTaskCount(const std::string& statePath) {
    std::ifstream in(statePath);
    if (!in) return 0;
    TaskCounter counter;
    return nlohmann::json::sax_parse(in, &counter) ? counter.count : 0;
}

// Processor time of the calling thread, in seconds.
double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

bool resetPeakRSS() {
    std::ofstream out("/proc/self/clear_refs");
    out << "5";
    out.flush();
    return static_cast<bool>(out);
}

constexpr double kMiB = 1024.0 * 1024.0;

struct Figures {
    size_t count = 0;
    double addSeconds = 0, addAndSaveSeconds = 0, addAndSaveCpu = 0;
    double restoreSeconds = 0, restoreCpu = 0;
    double finishSeconds = 0;      // finishing every restored upload, and saving
    size_t finishedLeft = 0;       // tasks still held after that
    double longestSaveHoldMs = 0;  // session-queue processor time of one save
    double peakMiB = 0, addPeakMiB = 0, restorePeakMiB = 0;
    uintmax_t stateBytes = 0;
    size_t saved = 0, restored = 0;
    bool ok = false;
};

// Asks for `rounds` saves of the settled queue and answers the most processor
// time the session's queue spent between the probes around one of them.
double longestSaveHold(const std::shared_ptr<znv::ZNVStorage>& storage, int rounds) {
    auto session = storage->sessionManager();
    double longest = 0;
    for (int i = 0; i < rounds; ++i) {
        std::atomic<double> before{0}, after{-1};
        session->performBackgroundSessionBlock([&] { before = threadCpuSeconds(); });
        storage->writeState();
        session->performBackgroundSessionBlock([&] { after = threadCpuSeconds(); });
        while (after.load() < 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        longest = std::max(longest, (after.load() - before.load()) * 1000);
    }
    storage->waitUntilStateIsWritten(std::chrono::minutes(5));
    return longest;
}

Figures measure(const std::string& root, size_t count) {
    Figures figures;
    figures.count = count;
    const std::string home = root + "/home-" + std::to_string(count);
    const std::string sources = root + "/sources-" + std::to_string(count);
    std::filesystem::create_directories(home);
    std::filesystem::create_directories(sources);
    setenv("HOME", home.c_str(), 1);
    for (size_t i = 0; i < count; ++i) {
        std::ofstream(sources + "/file-" + std::to_string(i) + ".txt")
            << "small file number " << i << "\n";
    }

    auto configuration = std::make_shared<znv::ZNVAccountConfiguration>(
        znv::ZNVURL::fromString("http://127.0.0.1:9/api/").value(), "scale");
    auto account = znv::ZNVTokenAccount::createWithToken(configuration, "token",
                                                         znv::ZNVAccountStatusSignedOut);
    const std::string statePath = home + "/Library/Network/scale.state";
    resetPeakRSS();

    {
        // Adding and saving.
        auto storage = znv::ZNVStorage::storageForAccount(account);
        const auto addStart = Clock::now();
        const double addCpuStart = cpuSeconds();
        for (size_t i = 0; i < count; ++i) {
            auto upload = storage->uploadFromFile(
                znv::ZNVURL::fileURL(sources + "/file-" + std::to_string(i) + ".txt"), false);
            if (!upload) {
                std::fprintf(stderr, "upload %zu could not be made\n", i);
                return figures;
            }
        }
        figures.addSeconds = secondsSince(addStart);
        settle(storage, storage->sessionManager());
        figures.addAndSaveSeconds = secondsSince(addStart);
        figures.addAndSaveCpu = cpuSeconds() - addCpuStart;
        figures.saved = savedTaskCount(statePath);
        figures.stateBytes = std::filesystem::file_size(statePath);
        figures.longestSaveHoldMs = longestSaveHold(storage, 10);

        figures.addPeakMiB = static_cast<double>(znv::test::peakRSS()) / kMiB;

        // A relaunch: the queue's file is kept aside while the first manager
        // ends (ending it saves an empty queue), then put back.
        const std::string keptPath = statePath + ".kept";
        std::filesystem::copy_file(statePath, keptPath,
                                   std::filesystem::copy_options::overwrite_existing);
        const auto session = storage->sessionManager();
        storage->invalidateClientAndCancelTasks();
        settle(storage, session);
        storage.reset();
        std::filesystem::rename(keptPath, statePath);
        malloc_trim(0);
        resetPeakRSS();

        // Restoring in a new manager.
        const auto restoreStart = Clock::now();
        const double restoreCpuStart = cpuSeconds();
        auto restored = znv::ZNVStorage::storageForAccount(account);
        figures.restoreSeconds = secondsSince(restoreStart);
        figures.restoreCpu = cpuSeconds() - restoreCpuStart;
        figures.restored = restored->uploads().size();
        figures.restorePeakMiB = static_cast<double>(znv::test::peakRSS()) / kMiB;
        figures.peakMiB = std::max(figures.addPeakMiB, figures.restorePeakMiB);

        // Finishing every upload, one call each and oldest first, as an
        // application clears its completed transfers; then the saves.
        const auto restoredSession = restored->sessionManager();
        const auto finishStart = Clock::now();
        for (const auto& upload : restored->uploads())
            restored->finishTask(upload);
        settle(restored, restoredSession);
        figures.finishSeconds = secondsSince(finishStart);
        figures.finishedLeft = restored->uploads().size() + restored->tasks().size();

        restored->invalidateClientAndCancelTasks();
        settle(restored, restoredSession);
    }
    std::error_code ignored;
    std::filesystem::remove_all(home, ignored);
    std::filesystem::remove_all(sources, ignored);

    const bool counted =
        figures.saved == count && figures.restored == count && figures.finishedLeft == 0;
    bool bars = true;
    if (count == 10000) bars = figures.peakMiB < 128 && figures.longestSaveHoldMs <= 5;
    if (count == 100000) {
        bars = figures.addAndSaveSeconds < 10 && figures.restoreSeconds < 5 &&
               figures.finishSeconds < 10 && figures.peakMiB < 300;
    }
    figures.ok = counted && bars;
    return figures;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<size_t> counts{10000, 100000};
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--uploads" && i + 1 < argc) {
            counts.clear();
            std::stringstream list(argv[++i]);
            for (std::string item; std::getline(list, item, ',');)
                counts.push_back(std::stoul(item));
        } else if (arg == "--quick") {
            counts = {2000, 10000};
        } else if (arg == "--json") {
            json = true;
        } else {
            std::fprintf(stderr, "usage: %s [--uploads N[,N...]] [--quick] [--json]\n", argv[0]);
            return 2;
        }
    }

    char templ[] = "/tmp/znv-bench-XXXXXX";
    if (!mkdtemp(templ)) {
        std::perror("mkdtemp");
        return 2;
    }
    const std::string root = templ;
    setenv("TMPDIR", root.c_str(), 1);
    // Only the library's errors interrupt the figures.
    znv::ZNVLogSetLevel(spdlog::level::err);

    bool ok = true;
    for (size_t count : counts) {
        const Figures f = measure(root, count);
        ok = ok && f.ok;
        if (json) {
            std::printf(
                "{\"uploads\": %zu, \"add_seconds\": %.3f, \"add_and_save_seconds\": %.3f, "
                "\"add_and_save_cpu_seconds\": %.3f, \"state_file_bytes\": %ju, "
                "\"restore_seconds\": %.3f, \"restore_cpu_seconds\": %.3f, \"restored\": %zu, "
                "\"finish_seconds\": %.3f, "
                "\"longest_save_hold_ms\": %.3f, \"peak_rss_mib\": %.1f, \"add_peak_rss_mib\": "
                "%.1f, "
                "\"restore_peak_rss_mib\": %.1f, \"ok\": %s}\n",
                f.count, f.addSeconds, f.addAndSaveSeconds, f.addAndSaveCpu, f.stateBytes,
                f.restoreSeconds, f.restoreCpu, f.restored, f.finishSeconds, f.longestSaveHoldMs,
                f.peakMiB, f.addPeakMiB, f.restorePeakMiB, f.ok ? "true" : "false");
        } else {
            const bool big = count == 100000;
            std::printf("queue of %zu uploads\n", count);
            std::printf("  added:            %.3f s\n", f.addSeconds);
            std::printf(
                "  added and saved:  %.3f s%s (%.3f s of CPU)  state file %ju bytes, %zu tasks\n",
                f.addAndSaveSeconds, big ? "  (bar: 10 s)" : "", f.addAndSaveCpu, f.stateBytes,
                f.saved);
            std::printf("  restored:         %.3f s%s (%.3f s of CPU)  %zu uploads\n",
                        f.restoreSeconds, big ? "  (bar: 5 s)" : "", f.restoreCpu, f.restored);
            std::printf("  finished one by one and saved: %.3f s%s\n", f.finishSeconds,
                        big ? "  (bar: 10 s)" : "");
            std::printf("  one save holds the session queue: %.3f ms of CPU at most%s\n",
                        f.longestSaveHoldMs, count == 10000 ? " (bar: 5 ms)" : "");
            std::printf("  peak resident memory: %.1f MiB%s (adding %.1f, restoring %.1f)\n",
                        f.peakMiB,
                        big              ? " (bar: 300 MiB)"
                        : count == 10000 ? " (bar: 128 MiB)"
                                         : "",
                        f.addPeakMiB, f.restorePeakMiB);
            std::printf("  %s\n", f.ok ? "ok" : "BAR MISSED");
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    return ok ? 0 : 1;
}

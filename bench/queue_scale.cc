// Queue scale: how long 10,000 queued uploads take to add and save, and how
// long a new storage manager takes to restore them from the state file.
//
//   znv_bench_queue_scale [--uploads N] [--json]
//
// Runs in a private home directory of its own. The account is signed out, so
// the uploads stay queued and only the collection, the activation policy and
// the state file are measured. Exits 1 when a bar is missed (10 s to add and
// save, 2 s to restore, for 10,000 uploads).
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "znv/account/account.h"
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

size_t savedTaskCount(const std::string& statePath) {
    std::ifstream in(statePath);
    if (!in) return 0;
    try {
        auto json = nlohmann::json::parse(in);
        return json.at("$top").at("tasks").at("$objects").size();
    } catch (const std::exception&) {
        return 0;
    }
}

}  // namespace

int main(int argc, char** argv) {
    size_t count = 10000;
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--uploads" && i + 1 < argc) {
            count = std::stoul(argv[++i]);
        } else if (arg == "--json") {
            json = true;
        } else {
            std::fprintf(stderr, "usage: %s [--uploads N] [--json]\n", argv[0]);
            return 2;
        }
    }

    char templ[] = "/tmp/znv-bench-XXXXXX";
    if (!mkdtemp(templ)) {
        std::perror("mkdtemp");
        return 2;
    }
    const std::string root = templ;
    const std::string home = root + "/home";
    const std::string sources = root + "/sources";
    std::filesystem::create_directories(home);
    std::filesystem::create_directories(sources);
    setenv("HOME", home.c_str(), 1);
    setenv("TMPDIR", root.c_str(), 1);

    for (size_t i = 0; i < count; ++i) {
        std::ofstream(sources + "/file-" + std::to_string(i) + ".txt")
            << "small file number " << i << "\n";
    }

    auto configuration = std::make_shared<znv::ZNVAccountConfiguration>(
        znv::ZNVURL::fromString("http://127.0.0.1:9/api/").value(), "scale");
    auto account = znv::ZNVTokenAccount::createWithToken(configuration, "token",
                                                         znv::ZNVAccountStatusSignedOut);
    const std::string statePath = home + "/Library/Network/scale.state";

    // Adding and saving.
    auto storage = znv::ZNVStorage::storageForAccount(account);
    const auto addStart = Clock::now();
    const double addCpuStart = cpuSeconds();
    for (size_t i = 0; i < count; ++i) {
        auto upload = storage->uploadFromFile(
            znv::ZNVURL::fileURL(sources + "/file-" + std::to_string(i) + ".txt"), false);
        if (!upload) {
            std::fprintf(stderr, "upload %zu could not be made\n", i);
            return 1;
        }
    }
    const double addSeconds = secondsSince(addStart);
    settle(storage, storage->sessionManager());
    const double addAndSaveSeconds = secondsSince(addStart);
    const double addAndSaveCpu = cpuSeconds() - addCpuStart;
    const size_t saved = savedTaskCount(statePath);
    const auto stateBytes = std::filesystem::file_size(statePath);

    // Restoring in a new manager.
    const auto restoreStart = Clock::now();
    const double restoreCpuStart = cpuSeconds();
    auto restored = znv::ZNVStorage::storageForAccount(account);
    const double restoreSeconds = secondsSince(restoreStart);
    const double restoreCpu = cpuSeconds() - restoreCpuStart;
    const size_t restoredCount = restored->uploads().size();

    // Invalidation saves the emptied collection on each session's queue; the
    // directory goes only after those saves have run.
    const auto restoredSession = restored->sessionManager();
    const auto session = storage->sessionManager();
    restored->invalidateClientAndCancelTasks();
    storage->invalidateClientAndCancelTasks();
    settle(restored, restoredSession);
    settle(storage, session);

    const bool scaled = count == 10000;
    const bool ok = saved == count && restoredCount == count &&
                    (!scaled || (addAndSaveSeconds < 10.0 && restoreSeconds < 2.0));
    if (json) {
        std::printf(
            "{\"uploads\": %zu, \"add_seconds\": %.3f, \"add_and_save_seconds\": %.3f, "
            "\"add_and_save_cpu_seconds\": %.3f, \"state_file_bytes\": %ju, "
            "\"restore_seconds\": %.3f, \"restore_cpu_seconds\": %.3f, \"restored\": %zu, "
            "\"ok\": %s}\n",
            count, addSeconds, addAndSaveSeconds, addAndSaveCpu, static_cast<uintmax_t>(stateBytes),
            restoreSeconds, restoreCpu, restoredCount, ok ? "true" : "false");
    } else {
        std::printf("queue of %zu uploads\n", count);
        std::printf("  added:            %.3f s\n", addSeconds);
        std::printf(
            "  added and saved:  %.3f s  (bar: 10 s; %.3f s of CPU)  state file %ju bytes, %zu "
            "tasks\n",
            addAndSaveSeconds, addAndSaveCpu, static_cast<uintmax_t>(stateBytes), saved);
        std::printf("  restored:         %.3f s  (bar: 2 s; %.3f s of CPU)   %zu uploads\n",
                    restoreSeconds, restoreCpu, restoredCount);
        std::printf("  %s\n", ok ? "ok" : "BAR MISSED");
    }
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    return ok ? 0 : 1;
}

// Transfer throughput and memory: the library's uploads next to `curl -T`
// against the same emulator, and the peak resident memory of an upload.
//
//   znv_bench_transfer_bench [--size-mib N] [--memory-size-mib N] [--runs N] [--quick] [--json]
//
// The emulator runs as a child process (znv-emulator built beside this
// program), so its threads and memory are not counted as the library's. Each
// way of sending a file of --size-mib (default 1024) is timed --runs times
// (default 2) and the best run counts:
//   curl -T      the curl command PUTs the file to .../fullfile
//   full file    ZNVStorage::uploadFromFile, which picks the full-file path
//   chunks       the same upload forced through chunks (batches of 4 MiB
//                chunks as multipart bodies, then the assembly request)
//   curl -o      the curl command GETs the uploaded file's content
//   download     ZNVStorage::downloadFromRemoteFile of the same content
// Every library upload is checked byte for byte against the source on the
// emulator's side. Then this process's peak resident memory is measured while
// the library uploads a file of --memory-size-mib (default 2048) both ways.
// Bars: full file at least 95% of curl's throughput, chunks at least 85%,
// the download at least 95% of curl -o, peak memory under 64 MiB. --quick
// sends 64 MiB (128 MiB for the memory figure) once, to check the bench on a
// busy machine. Exits 1 when a bar is missed, 2 on bad usage or when the
// measurement itself fails.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "tests/support/emulator_process.h"
#include "tests/support/test_support.h"
#include "znv/account/account.h"
#include "znv/account/reachability_manager.h"
#include "znv/foundation/log.h"
#include "znv/managers/storage.h"
#include "znv/platform/main_queue.h"

namespace {

using Clock = std::chrono::steady_clock;
using znv::test::EmulatorProcess;

constexpr uint64_t kMiB = 1ull << 20;
constexpr double kFullFileBar = 0.95;
constexpr double kChunksBar = 0.85;
constexpr double kDownloadBar = 0.95;
constexpr uint64_t kMemoryBar = 64 * kMiB;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double megabytesPerSecond(uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0;
}

// Talks to the emulator's REST interface directly (creating and removing
// remote files around the measured transfers).
class EmulatorClient {
  public:
    explicit EmulatorClient(int port) : client_("127.0.0.1", port) { client_.set_read_timeout(60); }

    std::string createFile(const std::string& name) {
        auto answer = client_.Post("/api/files", headers(),
                                   nlohmann::json{{"fileName", name}}.dump(), "application/json");
        if (!answer || answer->status != 201) return {};
        auto body = nlohmann::json::parse(answer->body, nullptr, false);
        return body.is_object() ? body.value("fileId", "") : "";
    }

    void deleteFile(const std::string& id) { client_.Delete("/api/files/" + id, headers()); }

    // The content URL of a complete remote file, or empty.
    std::string contentURI(const std::string& id) {
        auto answer = client_.Get("/api/files/" + id, headers());
        if (!answer || answer->status != 200) return {};
        auto body = nlohmann::json::parse(answer->body, nullptr, false);
        return body.is_object() ? body.value("contentUri", "") : "";
    }

    // Whether the emulator received the file's bytes through chunk requests
    // (true) or one full-file request (false); none when it cannot tell.
    std::optional<bool> receivedInChunks(const std::string& id) {
        auto answer = client_.Get("/_admin/requests", headers());
        if (!answer || answer->status != 200) return std::nullopt;
        auto log = nlohmann::json::parse(answer->body, nullptr, false);
        if (!log.is_array()) return std::nullopt;
        bool whole = false, chunks = false;
        for (const auto& entry : log) {
            const std::string path = entry.value("path", "");
            if (entry.value("method", "") != "PUT" || entry.value("status", 0) != 200 ||
                path.find(id) == std::string::npos) {
                continue;
            }
            (path.ends_with("/fullfile") ? whole : chunks) = true;
        }
        if (whole == chunks) return std::nullopt;
        return chunks;
    }

  private:
    static httplib::Headers headers() { return {{"Authorization", "Bearer dev-token"}}; }
    httplib::Client client_;
};

// Writes back what earlier runs left dirty in the page cache, so that no run
// pays for the one before it.
void settleDisk() {
    ::sync();
}

// Runs a command and waits for it; its exit status, or -1.
int runCommand(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    std::vector<std::string> copy = arguments;
    for (auto& argument : copy)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// One `curl -T` of the source into a fresh remote file; seconds, or -1.
double curlUpload(EmulatorClient& client, int port, const std::string& source) {
    const std::string id = client.createFile("curl.bin");
    if (id.empty()) return -1;
    const std::string url =
        "http://127.0.0.1:" + std::to_string(port) + "/api/files/" + id + "/fullfile";
    const auto start = Clock::now();
    int status = runCommand({"curl", "-sS", "--fail", "-o", "/dev/null", "-T", source, "-H",
                             "Authorization: Bearer dev-token", url});
    const double seconds = secondsSince(start);
    client.deleteFile(id);
    return status == 0 ? seconds : -1;
}

// Uploads the source with curl -T into a fresh remote file; its ID, or empty.
std::string curlUploadKeeping(EmulatorClient& client, int port, const std::string& source) {
    const std::string id = client.createFile("download.bin");
    if (id.empty()) return {};
    const std::string url =
        "http://127.0.0.1:" + std::to_string(port) + "/api/files/" + id + "/fullfile";
    int status = runCommand({"curl", "-sS", "--fail", "-o", "/dev/null", "-T", source, "-H",
                             "Authorization: Bearer dev-token", url});
    return status == 0 ? id : std::string();
}

// One `curl -o` of a content URL into a file; seconds, or -1.
double curlDownload(const std::string& contentURL, const std::string& target) {
    settleDisk();
    const auto start = Clock::now();
    int status = runCommand({"curl", "-sS", "--fail", "-o", target, "-H",
                             "Authorization: Bearer dev-token", contentURL});
    const double seconds = secondsSince(start);
    std::filesystem::remove(target);
    return status == 0 ? seconds : -1;
}

// One download through the storage manager, from the call to the completed
// task, checked against the source before the task is finished.
double libraryDownload(const std::shared_ptr<znv::ZNVStorage>& storage,
                       const std::string& contentURL, const std::string& source) {
    settleDisk();
    const auto start = Clock::now();
    auto download = storage->downloadFromRemoteFile(znv::ZNVURL::fromString(contentURL).value());
    if (!download) return -1;
    const auto deadline = start + std::chrono::minutes(10);
    while (download->state() != znv::ZNVNetworkTaskStateCompleted && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    double seconds = secondsSince(start);
    auto local = download->localFileURL();
    if (download->state() != znv::ZNVNetworkTaskStateCompleted || download->error() || !local ||
        !znv::test::filesEqual(local->path(), source)) {
        std::fprintf(stderr, "the download did not arrive intact\n");
        seconds = -1;
    }
    storage->finishTask(download);
    return seconds;
}

struct LibraryRun {
    double seconds = -1;
    std::string remoteFileID;
};

// One upload through the storage manager, from the call to the completed
// task; the remote file is kept for the caller to check and remove.
LibraryRun libraryUpload(const std::shared_ptr<znv::ZNVStorage>& storage, const std::string& source,
                         bool forceChunks) {
    LibraryRun run;
    settleDisk();
    const auto start = Clock::now();
    auto upload = storage->uploadFromFile(znv::ZNVURL::fileURL(source), "library.bin", "", "",
                                          false, forceChunks);
    if (!upload) return run;
    const auto deadline = start + std::chrono::minutes(10);
    while (upload->state() != znv::ZNVNetworkTaskStateCompleted && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const double seconds = secondsSince(start);
    run.remoteFileID = upload->remoteFileID();
    if (upload->state() == znv::ZNVNetworkTaskStateCompleted && !upload->error()) {
        run.seconds = seconds;
    } else if (auto error = upload->error()) {
        std::fprintf(stderr, "upload failed: %s\n", error->localizedDescription().c_str());
    }
    storage->finishTask(upload);
    return run;
}

// Resets this process's peak resident memory to its current size.
bool resetPeakRSS() {
    std::ofstream out("/proc/self/clear_refs");
    out << "5";
    out.flush();
    return static_cast<bool>(out);
}

struct Options {
    uint64_t size = 1024 * kMiB;
    uint64_t memorySize = 2048 * kMiB;
    int runs = 2;
    bool json = false;
};

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto number = [&](uint64_t& out) {
            if (i + 1 >= argc) return false;
            char* end = nullptr;
            unsigned long long value = std::strtoull(argv[++i], &end, 10);
            if (*end != '\0' || value == 0) return false;
            out = value;
            return true;
        };
        uint64_t value = 0;
        if (arg == "--size-mib" && number(value)) {
            options.size = value * kMiB;
        } else if (arg == "--memory-size-mib" && number(value)) {
            options.memorySize = value * kMiB;
        } else if (arg == "--runs" && number(value) && value <= 20) {
            options.runs = static_cast<int>(value);
        } else if (arg == "--quick") {
            options.size = 64 * kMiB;
            options.memorySize = 128 * kMiB;
            options.runs = 1;
        } else if (arg == "--json") {
            options.json = true;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(
            stderr,
            "usage: %s [--size-mib N] [--memory-size-mib N] [--runs N] [--quick] [--json]\n",
            argv[0]);
        return 2;
    }
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/znv-transfer-XXXXXX";
    if (!mkdtemp(templ.data())) {
        std::perror("mkdtemp");
        return 2;
    }
    const std::string root = templ;
    const std::string home = root + "/home";
    std::filesystem::create_directories(home);
    setenv("HOME", home.c_str(), 1);
    setenv("TMPDIR", root.c_str(), 1);
    auto cleanUp = [&] {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    };

    const std::string source = root + "/source.bin";
    const std::string bigSource = root + "/memory.bin";
    znv::test::writePatternFile(source, options.size, 11);

    // Full-file uploads are allowed up to the larger of the two files, so
    // that the library's own choice is the full-file path.
    const uint64_t largest = std::max(options.size, options.memorySize);
    EmulatorProcess emulator(
        {"--data", root + "/emulator", "--max-full-file", std::to_string(largest)});
    if (!emulator.running()) {
        std::fprintf(stderr, "znv-emulator did not start\n");
        cleanUp();
        return 2;
    }
    EmulatorClient client(emulator.port());
    auto remoteContent = [&](const std::string& id) {
        return root + "/emulator/files/" + id + "/content";
    };

    // Only the library's errors interrupt the figures.
    znv::ZNVLogSetLevel(spdlog::level::err);
    // Loopback needs no route: the network is declared reachable.
    znv::ZNVReachabilityManager::setFactory([](const sockaddr*, socklen_t) {
        return std::make_shared<znv::ZNVManualReachabilityManager>(true);
    });
    auto configuration = std::make_shared<znv::ZNVAccountConfiguration>(
        znv::ZNVURL::fromString(emulator.baseURL()).value(), "transfer-bench");
    auto account = znv::ZNVTokenAccount::createWithToken(configuration, "dev-token");
    auto storage = znv::ZNVStorage::storageForAccount(account);

    bool measured = true;
    double curlBest = 0, fullBest = 0, chunksBest = 0;
    auto keepBest = [](double& best, double seconds) {
        if (seconds > 0 && (best == 0 || seconds < best)) best = seconds;
    };
    auto timeLibrary = [&](bool forceChunks, double& best) {
        LibraryRun run = libraryUpload(storage, source, forceChunks);
        if (run.seconds < 0 || client.receivedInChunks(run.remoteFileID) != forceChunks ||
            !znv::test::filesEqual(remoteContent(run.remoteFileID), source)) {
            std::fprintf(stderr, "the %s upload did not arrive intact\n",
                         forceChunks ? "chunked" : "full-file");
            measured = false;
        }
        keepBest(best, run.seconds);
        if (!run.remoteFileID.empty()) client.deleteFile(run.remoteFileID);
    };
    // Alternating the ways spreads any drift of the machine over all three.
    for (int i = 0; i < options.runs; ++i) {
        double seconds = curlUpload(client, emulator.port(), source);
        if (seconds < 0) {
            std::fprintf(stderr, "curl -T failed\n");
            measured = false;
        }
        keepBest(curlBest, seconds);
        timeLibrary(false, fullBest);
        timeLibrary(true, chunksBest);
    }

    // Downloads of one uploaded copy, curl -o and the library alternating.
    double curlGetBest = 0, downloadBest = 0;
    const std::string downloadID = curlUploadKeeping(client, emulator.port(), source);
    const std::string contentURL = downloadID.empty() ? "" : client.contentURI(downloadID);
    if (contentURL.empty()) {
        std::fprintf(stderr, "no content URL to download from\n");
        measured = false;
    } else {
        for (int i = 0; i < options.runs; ++i) {
            const double curlSeconds = curlDownload(contentURL, root + "/curl-download.bin");
            const double librarySeconds = libraryDownload(storage, contentURL, source);
            if (curlSeconds < 0 || librarySeconds < 0) measured = false;
            keepBest(curlGetBest, curlSeconds);
            keepBest(downloadBest, librarySeconds);
        }
        client.deleteFile(downloadID);
    }
    std::filesystem::remove(source);

    // Peak memory of this process while the library sends the larger file,
    // once whole and once in chunks.
    znv::test::writePatternFile(bigSource, options.memorySize, 12);
    const uint64_t rssBefore = znv::test::currentRSS();
    const bool peakWasReset = resetPeakRSS();
    for (bool forceChunks : {false, true}) {
        LibraryRun run = libraryUpload(storage, bigSource, forceChunks);
        if (run.seconds < 0) measured = false;
        if (!run.remoteFileID.empty()) client.deleteFile(run.remoteFileID);
    }
    const uint64_t peak = znv::test::peakRSS();

    storage->invalidateClientAndCancelTasks();
    znv::ZNVMainQueue::waitUntilDrained();
    storage.reset();
    cleanUp();

    const double curlRate = megabytesPerSecond(options.size, curlBest);
    const double fullRate = megabytesPerSecond(options.size, fullBest);
    const double chunksRate = megabytesPerSecond(options.size, chunksBest);
    const double fullRatio = curlRate > 0 ? fullRate / curlRate : 0;
    const double chunksRatio = curlRate > 0 ? chunksRate / curlRate : 0;
    const double curlGetRate = megabytesPerSecond(options.size, curlGetBest);
    const double downloadRate = megabytesPerSecond(options.size, downloadBest);
    const double downloadRatio = curlGetRate > 0 ? downloadRate / curlGetRate : 0;
    const bool barsMet = fullRatio >= kFullFileBar && chunksRatio >= kChunksBar &&
                         downloadRatio >= kDownloadBar && peak < kMemoryBar;

    if (options.json) {
        std::printf(
            "{\"bytes\": %ju, \"curl_mb_s\": %.1f, \"full_file_mb_s\": %.1f, "
            "\"chunks_mb_s\": %.1f, \"full_file_ratio\": %.3f, \"chunks_ratio\": %.3f, "
            "\"curl_get_mb_s\": %.1f, \"download_mb_s\": %.1f, \"download_ratio\": %.3f, "
            "\"memory_bytes\": %ju, \"rss_before\": %ju, \"peak_rss\": %ju, "
            "\"peak_reset\": %s, \"ok\": %s}\n",
            static_cast<uintmax_t>(options.size), curlRate, fullRate, chunksRate, fullRatio,
            chunksRatio, curlGetRate, downloadRate, downloadRatio,
            static_cast<uintmax_t>(options.memorySize), static_cast<uintmax_t>(rssBefore),
            static_cast<uintmax_t>(peak), peakWasReset ? "true" : "false",
            measured && barsMet ? "true" : "false");
    } else {
        std::printf("upload of %ju MiB, best of %d runs\n",
                    static_cast<uintmax_t>(options.size / kMiB), options.runs);
        std::printf("  curl -T:     %8.1f MB/s\n", curlRate);
        std::printf("  full file:   %8.1f MB/s  %5.1f%% of curl (bar: 95%%)\n", fullRate,
                    fullRatio * 100);
        std::printf("  chunks:      %8.1f MB/s  %5.1f%% of curl (bar: 85%%)\n", chunksRate,
                    chunksRatio * 100);
        std::printf("download of %ju MiB, best of %d runs\n",
                    static_cast<uintmax_t>(options.size / kMiB), options.runs);
        std::printf("  curl -o:     %8.1f MB/s\n", curlGetRate);
        std::printf("  library:     %8.1f MB/s  %5.1f%% of curl (bar: 95%%)\n", downloadRate,
                    downloadRatio * 100);
        std::printf("peak resident memory uploading %ju MiB whole and in chunks\n",
                    static_cast<uintmax_t>(options.memorySize / kMiB));
        std::printf("  %.1f MiB (bar: 64 MiB; %.1f MiB before the uploads%s)\n",
                    static_cast<double>(peak) / kMiB, static_cast<double>(rssBefore) / kMiB,
                    peakWasReset ? "" : "; the peak could not be reset");
        std::printf("  %s\n", !measured ? "MEASUREMENT FAILED" : barsMet ? "ok" : "BAR MISSED");
    }
    if (!measured) return 2;
    return barsMet ? 0 : 1;
}

// Transfer throughput and memory: the library's uploads next to `curl -T`
// against the same emulator, and the peak resident memory of an upload.
//
//   znv_bench_transfer_bench [--size-mib N] [--memory-size-mib N] [--runs N] [--quick] [--json]
//
// The emulator runs as a child process (znv-emulator built beside this
// program), so its threads and memory are not counted as the library's. The
// uploads are measured twice: against an emulator that stores on disk and
// against `znv-emulator --sink`, which reads and drops the bodies (the client
// apart from the disk). Each way of sending a file of --size-mib (default
// 1024) is timed --runs times (default 3, each way going first in turn) and
// the best run counts:
//   curl -T      the curl command PUTs the file to .../fullfile
//   full file    ZNVStorage::uploadFromFile, which picks the full-file path
//   chunks       the same upload forced through chunks (batches of 4 MiB
//                chunks as multipart bodies, then the assembly request)
//   curl -o      the curl command GETs the uploaded file's content
//   download     ZNVStorage::downloadFromRemoteFile of the same content
// Every library upload to the disk emulator is checked byte for byte against
// the source on the emulator's side; to the sink, by its size and by the way
// it was sent. The CPU time the uploading process spent (every thread of the
// library; curl's own for curl), and the emulator's during the same run, are
// given per GiB sent: on a machine with few cores their sum bounds the speed. Then this process's
// peak resident memory is measured while the library uploads a file of --memory-size-mib (default
// 2048) both ways. Bars, against each emulator: full file at least 95% of curl's throughput, chunks
// at least 85%; the download at least 95% of curl -o, peak memory under 64 MiB. --quick sends 64
// MiB (128 MiB for the memory figure) once, to check the bench on a busy machine. Exits 1 when a
// bar is missed, 2 on bad usage or when the measurement itself fails.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
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

double cpuSeconds(const rusage& usage) {
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU time of this process (all its threads) so far.
double processCPUSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return cpuSeconds(usage);
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

    // The size the emulator recorded for a remote file, or none.
    std::optional<uint64_t> storedSize(const std::string& id) {
        auto answer = client_.Get("/api/files/" + id, headers());
        if (!answer || answer->status != 200) return std::nullopt;
        auto body = nlohmann::json::parse(answer->body, nullptr, false);
        if (!body.is_object() || !body.contains("sizeInBytes") ||
            !body["sizeInBytes"].is_number_unsigned())
            return std::nullopt;
        return body["sizeInBytes"].get<uint64_t>();
    }

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

// Runs a command and waits for it; its exit status, or -1. `cpu` receives
// the CPU time the command used.
int runCommand(const std::vector<std::string>& arguments, double* cpu = nullptr) {
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
    rusage usage{};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return -1;
    if (cpu) *cpu = cpuSeconds(usage);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// One `curl -T` of the source into a fresh remote file; seconds, or -1.
double curlUpload(EmulatorClient& client, int port, const std::string& source, double* cpu) {
    const std::string id = client.createFile("curl.bin");
    if (id.empty()) return -1;
    const std::string url =
        "http://127.0.0.1:" + std::to_string(port) + "/api/files/" + id + "/fullfile";
    settleDisk();
    const auto start = Clock::now();
    int status = runCommand({"curl", "-sS", "--fail", "-o", "/dev/null", "-T", source, "-H",
                             "Authorization: Bearer dev-token", url},
                            cpu);
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
    double cpuSeconds = 0;  // of this process while it ran
    std::string remoteFileID;
};

// One upload through the storage manager, from the call to the completed
// task; the remote file is kept for the caller to check and remove.
LibraryRun libraryUpload(const std::shared_ptr<znv::ZNVStorage>& storage, const std::string& source,
                         bool forceChunks) {
    LibraryRun run;
    settleDisk();
    const double cpuBefore = processCPUSeconds();
    const auto start = Clock::now();
    auto upload = storage->uploadFromFile(znv::ZNVURL::fileURL(source), "library.bin", "", "",
                                          false, forceChunks);
    if (!upload) return run;
    const auto deadline = start + std::chrono::minutes(10);
    while (upload->state() != znv::ZNVNetworkTaskStateCompleted && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const double seconds = secondsSince(start);
    run.cpuSeconds = processCPUSeconds() - cpuBefore;
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

// The best of the runs of each way of uploading against one emulator.
struct UploadFigures {
    double curl = 0, full = 0, chunks = 0;           // seconds
    double curlCPU = 0, fullCPU = 0, chunksCPU = 0;  // CPU seconds
    // The emulator's CPU seconds during the best run of each way.
    double curlServerCPU = 0, fullServerCPU = 0, chunksServerCPU = 0;
};

void keepBest(double& best, double value) {
    if (value > 0 && (best == 0 || value < best)) best = value;
}

// Keeps the emulator's CPU time of the run that is the best so far.
void keepBest(double& best, double value, double& serverCPU, double server) {
    const double before = best;
    keepBest(best, value);
    if (best != before) serverCPU = server;
}

// Runs each way once, round `round` starting with way `round % n`, so that no
// way always runs right after the others. On this disk a way that came right
// after others had written, read back and removed gigabytes was slowed: one
// gigabyte in chunks took 0.96 s to a quiet emulator and 3.4 s right after
// other uploads, with five times the emulator's processor time; the library's
// download took up to five times as long right after curl's.
void runInTurn(int round, const std::vector<std::function<void()>>& ways) {
    for (size_t way = 0; way < ways.size(); ++way)
        ways[(static_cast<size_t>(round) + way) % ways.size()]();
}

// A storage manager of its own configuration for one emulator.
std::shared_ptr<znv::ZNVStorage> storageFor(const EmulatorProcess& emulator,
                                            const std::string& identifier) {
    auto configuration = std::make_shared<znv::ZNVAccountConfiguration>(
        znv::ZNVURL::fromString(emulator.baseURL()).value(), identifier);
    auto account = znv::ZNVTokenAccount::createWithToken(configuration, "dev-token");
    return znv::ZNVStorage::storageForAccount(account);
}

// curl -T, the library whole and the library in chunks, alternating so that
// any drift of the machine spreads over all three. `storedContent` gives the
// emulator's copy of a remote file (empty for a sink: then its size counts).
UploadFigures measureUploads(const std::shared_ptr<znv::ZNVStorage>& storage,
                             EmulatorClient& client, const EmulatorProcess& emulator,
                             const std::string& source, uint64_t size, int runs,
                             const std::function<std::string(const std::string&)>& storedContent,
                             bool& measured) {
    UploadFigures best;
    auto timeLibrary = [&](bool forceChunks, double& seconds, double& cpu, double& serverCPU) {
        const double serverBefore = emulator.cpuSeconds();
        LibraryRun run = libraryUpload(storage, source, forceChunks);
        const double server = emulator.cpuSeconds() - serverBefore;
        const std::string stored = storedContent(run.remoteFileID);
        const bool intact = stored.empty() ? client.storedSize(run.remoteFileID) == size
                                           : znv::test::filesEqual(stored, source);
        if (run.seconds < 0 || client.receivedInChunks(run.remoteFileID) != forceChunks ||
            !intact) {
            std::fprintf(stderr, "the %s upload did not arrive intact\n",
                         forceChunks ? "chunked" : "full-file");
            measured = false;
        }
        keepBest(seconds, run.seconds, serverCPU, server);
        keepBest(cpu, run.cpuSeconds);
        if (!run.remoteFileID.empty()) client.deleteFile(run.remoteFileID);
    };
    auto timeCurl = [&] {
        double cpu = 0;
        const double serverBefore = emulator.cpuSeconds();
        double seconds = curlUpload(client, emulator.port(), source, &cpu);
        const double server = emulator.cpuSeconds() - serverBefore;
        if (seconds < 0) {
            std::fprintf(stderr, "curl -T failed\n");
            measured = false;
        }
        keepBest(best.curl, seconds, best.curlServerCPU, server);
        keepBest(best.curlCPU, cpu);
    };
    for (int i = 0; i < runs; ++i) {
        runInTurn(i,
                  {
                      timeCurl,
                      [&] { timeLibrary(false, best.full, best.fullCPU, best.fullServerCPU); },
                      [&] { timeLibrary(true, best.chunks, best.chunksCPU, best.chunksServerCPU); },
                  });
    }
    return best;
}

struct Options {
    uint64_t size = 1024 * kMiB;
    uint64_t memorySize = 2048 * kMiB;
    int runs = 3;
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
    EmulatorProcess sinkEmulator({"--sink", "--max-full-file", std::to_string(largest)});
    if (!emulator.running() || !sinkEmulator.running()) {
        std::fprintf(stderr, "znv-emulator did not start\n");
        cleanUp();
        return 2;
    }
    EmulatorClient client(emulator.port());
    EmulatorClient sinkClient(sinkEmulator.port());
    auto remoteContent = [&](const std::string& id) {
        return root + "/emulator/files/" + id + "/content";
    };

    // Only the library's errors interrupt the figures.
    znv::ZNVLogSetLevel(spdlog::level::err);
    // Loopback needs no route: the network is declared reachable.
    znv::ZNVReachabilityManager::setFactory([](const sockaddr*, socklen_t) {
        return std::make_shared<znv::ZNVManualReachabilityManager>(true);
    });
    auto storage = storageFor(emulator, "transfer-bench");
    auto sinkStorage = storageFor(sinkEmulator, "transfer-bench-sink");

    bool measured = true;
    const UploadFigures disk = measureUploads(storage, client, emulator, source, options.size,
                                              options.runs, remoteContent, measured);
    const UploadFigures sink = measureUploads(
        sinkStorage, sinkClient, sinkEmulator, source, options.size, options.runs,
        [](const std::string&) { return std::string(); }, measured);
    sinkStorage->invalidateClientAndCancelTasks();

    // Downloads of one uploaded copy by curl -o and by the library.
    double curlGetBest = 0, downloadBest = 0;
    const std::string downloadID = curlUploadKeeping(client, emulator.port(), source);
    const std::string contentURL = downloadID.empty() ? "" : client.contentURI(downloadID);
    if (contentURL.empty()) {
        std::fprintf(stderr, "no content URL to download from\n");
        measured = false;
    } else {
        for (int i = 0; i < options.runs; ++i) {
            double curlSeconds = -1;
            double librarySeconds = -1;
            runInTurn(
                i, {
                       [&] { curlSeconds = curlDownload(contentURL, root + "/curl-download.bin"); },
                       [&] { librarySeconds = libraryDownload(storage, contentURL, source); },
                   });
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
    sinkStorage.reset();
    cleanUp();

    const double gib = static_cast<double>(options.size) / static_cast<double>(1ull << 30);
    struct Rates {
        double curl, full, chunks, fullRatio, chunksRatio;
    };
    auto ratesOf = [&](const UploadFigures& figures) {
        Rates rates{megabytesPerSecond(options.size, figures.curl),
                    megabytesPerSecond(options.size, figures.full),
                    megabytesPerSecond(options.size, figures.chunks), 0, 0};
        rates.fullRatio = rates.curl > 0 ? rates.full / rates.curl : 0;
        rates.chunksRatio = rates.curl > 0 ? rates.chunks / rates.curl : 0;
        return rates;
    };
    const Rates diskRates = ratesOf(disk);
    const Rates sinkRates = ratesOf(sink);
    const double curlGetRate = megabytesPerSecond(options.size, curlGetBest);
    const double downloadRate = megabytesPerSecond(options.size, downloadBest);
    const double downloadRatio = curlGetRate > 0 ? downloadRate / curlGetRate : 0;
    const auto uploadBarsMet = [](const Rates& rates) {
        return rates.fullRatio >= kFullFileBar && rates.chunksRatio >= kChunksBar;
    };
    const bool barsMet = uploadBarsMet(diskRates) && uploadBarsMet(sinkRates) &&
                         downloadRatio >= kDownloadBar && peak < kMemoryBar;

    if (options.json) {
        auto uploadJSON = [&](const Rates& rates, const UploadFigures& figures) {
            return nlohmann::json{{"curl_mb_s", rates.curl},
                                  {"full_file_mb_s", rates.full},
                                  {"chunks_mb_s", rates.chunks},
                                  {"full_file_ratio", rates.fullRatio},
                                  {"chunks_ratio", rates.chunksRatio},
                                  {"curl_cpu_s_per_gib", figures.curlCPU / gib},
                                  {"full_file_cpu_s_per_gib", figures.fullCPU / gib},
                                  {"chunks_cpu_s_per_gib", figures.chunksCPU / gib},
                                  {"curl_server_cpu_s_per_gib", figures.curlServerCPU / gib},
                                  {"full_file_server_cpu_s_per_gib", figures.fullServerCPU / gib},
                                  {"chunks_server_cpu_s_per_gib", figures.chunksServerCPU / gib}};
        };
        nlohmann::json result = {{"bytes", options.size},
                                 {"disk", uploadJSON(diskRates, disk)},
                                 {"sink", uploadJSON(sinkRates, sink)},
                                 {"curl_get_mb_s", curlGetRate},
                                 {"download_mb_s", downloadRate},
                                 {"download_ratio", downloadRatio},
                                 {"memory_bytes", options.memorySize},
                                 {"rss_before", rssBefore},
                                 {"peak_rss", peak},
                                 {"peak_reset", peakWasReset},
                                 {"ok", measured && barsMet}};
        std::printf("%s\n", result.dump().c_str());
    } else {
        auto printUploads = [&](const char* emulatorKind, const Rates& rates,
                                const UploadFigures& figures) {
            std::printf(
                "upload of %ju MiB to the %s emulator, best of %d runs "
                "(CPU per GiB: client, emulator)\n",
                static_cast<uintmax_t>(options.size / kMiB), emulatorKind, options.runs);
            std::printf("  curl -T:     %8.1f MB/s                        %5.2f s  %5.2f s\n",
                        rates.curl, figures.curlCPU / gib, figures.curlServerCPU / gib);
            std::printf(
                "  full file:   %8.1f MB/s  %5.1f%% of curl (bar: 95%%)  %5.2f s  %5.2f s\n",
                rates.full, rates.fullRatio * 100, figures.fullCPU / gib,
                figures.fullServerCPU / gib);
            std::printf(
                "  chunks:      %8.1f MB/s  %5.1f%% of curl (bar: 85%%)  %5.2f s  %5.2f s\n",
                rates.chunks, rates.chunksRatio * 100, figures.chunksCPU / gib,
                figures.chunksServerCPU / gib);
        };
        printUploads("disk", diskRates, disk);
        printUploads("sink", sinkRates, sink);
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

// Many small files: the library and the command-line client next to a plain
// libcurl client, against the same emulator.
//
//   znv_bench_small_files [--files N[,N...]] [--size-kib K] [--runs R] [--cli-files N]
//                         [--quick] [--json]
//
// For each count of files (default 1000 and 10000 files of 64 KiB) the ways
// below run in alternating rounds (--runs, default 2; the best round counts),
// each against a freshly started emulator (a child process, so its work is
// not counted as the client's). A round of fewer than 10,000 files lasts about
// a second, where one late wake-up of a thread shows: such counts run three
// times as many rounds.
//   baseline   libcurl, two threads with one keep-alive connection each:
//              create the remote file, then PUT it whole, file after file
//   library    ZNVStorage::uploadFromFile for every file, until every upload
//              has completed
//   znv        `znv upload` of the files (only for the count --cli-files,
//              default 1000)
// Client CPU is the processor time of this process (or of the znv child)
// during the round; "server" is the emulator's, read from /proc, so that a
// way that makes the server work harder per file shows as such. Bars: the
// library at least 0.5x the baseline's throughput at every count, with at
// most 2 ms of client CPU per file; znv at least 0.4x.
// --quick runs 100 and 300 files once (the bars are still printed). Exits 1
// when a bar is missed, 2 on bad usage or a failed measurement.
#include <curl/curl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/emulator_process.h"
#include "tests/support/test_support.h"
#include "znv/account/account.h"
#include "znv/account/reachability_manager.h"
#include "znv/foundation/log.h"
#include "znv/managers/storage.h"
#include "znv/platform/main_queue.h"
#include "znv/platform/notification_center.h"

namespace {

using Clock = std::chrono::steady_clock;
using znv::test::EmulatorProcess;

constexpr double kLibraryBar = 0.5;
constexpr double kLibraryCpuBarMs = 2.0;
constexpr double kCliBar = 0.4;
const char* const kToken = "dev-token";

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double seconds(const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Round {
    double seconds = -1;          // wall time; negative when the round failed
    double cpuSeconds = 0;        // client processor time
    double serverCpuSeconds = 0;  // the emulator's processor time during the round
};

// --- Baseline: libcurl, create + whole-file PUT, two keep-alive connections --

size_t collect(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

size_t readFile(char* buffer, size_t size, size_t count, void* file) {
    return std::fread(buffer, size, count, static_cast<FILE*>(file));
}

// Sends files[next...] until none is left; false on the first failure.
bool baselineWorker(const std::string& base, const std::vector<std::string>& files,
                    std::atomic<size_t>& next) {
    CURL* curl = curl_easy_init();
    if (!curl) return false;
    curl_slist* jsonHeaders = nullptr;
    jsonHeaders = curl_slist_append(jsonHeaders, "Authorization: Bearer dev-token");
    jsonHeaders = curl_slist_append(jsonHeaders, "Content-Type: application/json");
    curl_slist* putHeaders = nullptr;
    putHeaders = curl_slist_append(putHeaders, "Authorization: Bearer dev-token");
    putHeaders = curl_slist_append(putHeaders, "Content-Type: application/octet-stream");
    bool ok = true;
    std::string answer;
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    for (size_t i = next++; ok && i < files.size(); i = next++) {
        const std::string& path = files[i];
        const std::string name = std::filesystem::path(path).filename();
        const std::string body = nlohmann::json{{"fileName", name}}.dump();
        answer.clear();
        curl_easy_setopt(curl, CURLOPT_URL, (base + "files").c_str());
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 0L);
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, jsonHeaders);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        long status = 0;
        if (curl_easy_perform(curl) != CURLE_OK) ok = false;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        auto created = nlohmann::json::parse(answer, nullptr, false);
        if (!ok || status != 201 || !created.is_object() || !created.contains("fileId")) {
            ok = false;
            break;
        }
        const std::string id = created["fileId"].get<std::string>();

        FILE* file = std::fopen(path.c_str(), "rb");
        if (!file) {
            ok = false;
            break;
        }
        answer.clear();
        curl_easy_setopt(curl, CURLOPT_URL, (base + "files/" + id + "/fullfile").c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, putHeaders);
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, readFile);
        curl_easy_setopt(curl, CURLOPT_READDATA, file);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE,
                         static_cast<curl_off_t>(std::filesystem::file_size(path)));
        if (curl_easy_perform(curl) != CURLE_OK) ok = false;
        std::fclose(file);
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        if (status != 200) ok = false;
    }
    curl_slist_free_all(jsonHeaders);
    curl_slist_free_all(putHeaders);
    curl_easy_cleanup(curl);
    return ok;
}

Round baselineRound(const std::string& base, const std::vector<std::string>& files) {
    std::atomic<size_t> next{0};
    std::atomic<bool> ok{true};
    const double cpu = processCpuSeconds();
    const auto start = Clock::now();
    std::vector<std::thread> workers;
    for (int i = 0; i < 2; ++i) {
        workers.emplace_back([&] {
            if (!baselineWorker(base, files, next)) ok = false;
        });
    }
    for (auto& worker : workers)
        worker.join();
    Round round;
    round.seconds = secondsSince(start);
    round.cpuSeconds = processCpuSeconds() - cpu;
    if (!ok) {
        std::fprintf(stderr, "the libcurl baseline failed\n");
        round.seconds = -1;
    }
    return round;
}

// --- The library ---------------------------------------------------------

Round libraryRound(const std::string& base, const std::vector<std::string>& files, int number) {
    auto configuration = std::make_shared<znv::ZNVAccountConfiguration>(
        znv::ZNVURL::fromString(base).value(), "small-files-" + std::to_string(number));
    auto account = znv::ZNVTokenAccount::createWithToken(configuration, kToken);
    auto storage = znv::ZNVStorage::storageForAccount(account);

    std::mutex mutex;
    std::condition_variable changed;
    size_t completed = 0;  // guarded by mutex
    auto token = znv::ZNVNotificationCenter::defaultCenter().addObserver(
        znv::ZNVNetwork_TaskDidCompleteNotification, storage.get(),
        [&](const znv::ZNVNotification&) {
            // Only the last completion wakes the waiting thread: a wake-up
            // per file would charge the harness's own switches to the library.
            std::lock_guard<std::mutex> lock(mutex);
            if (++completed >= files.size()) changed.notify_all();
        });

    const double cpu = processCpuSeconds();
    const auto start = Clock::now();
    std::vector<std::shared_ptr<znv::ZNVStorageUpload>> uploads;
    uploads.reserve(files.size());
    for (const auto& path : files)
        uploads.push_back(storage->uploadFromFile(znv::ZNVURL::fileURL(path), false));
    bool finished = false;
    {
        std::unique_lock<std::mutex> lock(mutex);
        finished = changed.wait_for(lock, std::chrono::minutes(20),
                                    [&] { return completed >= files.size(); });
    }
    Round round;
    round.seconds = secondsSince(start);
    round.cpuSeconds = processCpuSeconds() - cpu;

    size_t failed = 0;
    for (const auto& upload : uploads) {
        if (!upload || upload->state() != znv::ZNVNetworkTaskStateCompleted || upload->error())
            ++failed;
    }
    if (!finished || failed != 0) {
        std::fprintf(stderr, "library round: %zu of %zu uploads did not complete\n",
                     finished ? failed : files.size() - completed, files.size());
        round.seconds = -1;
    }
    znv::ZNVNotificationCenter::defaultCenter().removeObserver(token);
    storage->invalidateClientAndCancelTasks();
    storage->waitUntilStateIsWritten(std::chrono::minutes(2));
    znv::ZNVMainQueue::waitUntilDrained(std::chrono::minutes(2));
    return round;
}

// --- znv upload ------------------------------------------------------------

// Copies the last `lines` lines of a text file to standard error.
void printTail(const std::string& path, size_t lines) {
    std::ifstream in(path);
    std::deque<std::string> kept;
    for (std::string line; std::getline(in, line);) {
        kept.push_back(std::move(line));
        if (kept.size() > lines) kept.pop_front();
    }
    for (const auto& line : kept)
        std::fprintf(stderr, "  %s\n", line.c_str());
}

Round cliRound(const std::string& znv, const std::string& base,
               const std::vector<std::string>& files, const std::string& home) {
    std::filesystem::remove_all(home);
    std::filesystem::create_directories(home);
    std::vector<std::string> arguments{znv, "--server", base, "--token", kToken, "upload"};
    arguments.insert(arguments.end(), files.begin(), files.end());
    std::vector<char*> argv;
    for (auto& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    // The child must not inherit (and print again) what is still buffered.
    std::fflush(nullptr);
    const auto start = Clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        setenv("HOME", home.c_str(), 1);
        setenv("XDG_STATE_HOME", (home + "/state").c_str(), 1);
        setenv("XDG_DATA_HOME", (home + "/data").c_str(), 1);
        // Its line per task goes to a file: read when the run fails.
        if (!std::freopen("/dev/null", "w", stdout)) _exit(127);
        if (!std::freopen((home + "/znv.log").c_str(), "w", stderr)) _exit(127);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    Round round;
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return round;
    round.seconds = secondsSince(start);
    round.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "znv upload exited with status %d; the end of what it said:\n",
                     WIFEXITED(status) ? WEXITSTATUS(status) : -1);
        printTail(home + "/znv.log", 20);
        round.seconds = -1;
    }
    return round;
}

// --- Driver ----------------------------------------------------------------

struct Options {
    std::vector<size_t> counts{1000, 10000};
    size_t cliFiles = 1000;
    uint64_t sizeKiB = 64;
    int runs = 2;
    bool json = false;
};

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= argc) return std::nullopt;
            return std::string(argv[++i]);
        };
        auto number = [](const std::string& text) -> size_t {
            char* end = nullptr;
            unsigned long long n = std::strtoull(text.c_str(), &end, 10);
            return (*end == '\0') ? static_cast<size_t>(n) : 0;
        };
        if (arg == "--files") {
            auto text = value();
            if (!text) return false;
            options.counts.clear();
            std::stringstream list(*text);
            for (std::string item; std::getline(list, item, ',');) {
                const size_t n = number(item);
                if (n == 0) return false;
                options.counts.push_back(n);
            }
        } else if (arg == "--cli-files") {
            auto text = value();
            if (!text) return false;
            options.cliFiles = number(*text);
        } else if (arg == "--size-kib") {
            auto text = value();
            if (!text || number(*text) == 0) return false;
            options.sizeKiB = number(*text);
        } else if (arg == "--runs") {
            auto text = value();
            if (!text || number(*text) == 0 || number(*text) > 20) return false;
            options.runs = static_cast<int>(number(*text));
        } else if (arg == "--quick") {
            options.counts = {100, 300};
            options.cliFiles = 300;
            options.runs = 1;
        } else if (arg == "--json") {
            options.json = true;
        } else {
            return false;
        }
    }
    return !options.counts.empty();
}

void keepBest(Round& best, const Round& round) {
    if (round.seconds > 0 && (best.seconds < 0 || round.seconds < best.seconds)) best = round;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: %s [--files N[,N...]] [--size-kib K] [--runs R] [--cli-files N] "
                     "[--quick] [--json]\n",
                     argv[0]);
        return 2;
    }
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/znv-small-XXXXXX";
    if (!mkdtemp(templ.data())) {
        std::perror("mkdtemp");
        return 2;
    }
    const std::string root = templ;
    setenv("HOME", (root + "/home").c_str(), 1);
    setenv("TMPDIR", root.c_str(), 1);
    std::filesystem::create_directories(root + "/home");
    const std::string znvPath = (std::filesystem::path(argv[0]).parent_path() / "znv").string();

    curl_global_init(CURL_GLOBAL_DEFAULT);
    znv::ZNVLogSetLevel(spdlog::level::err);
    znv::ZNVReachabilityManager::setFactory([](const sockaddr*, socklen_t) {
        return std::make_shared<znv::ZNVManualReachabilityManager>(true);
    });

    const size_t largest = *std::max_element(options.counts.begin(), options.counts.end());
    std::vector<std::string> allFiles;
    for (size_t i = 0; i < std::max(largest, options.cliFiles); ++i) {
        allFiles.push_back(root + "/sources/file-" + std::to_string(i) + ".bin");
        std::filesystem::create_directories(root + "/sources");
        znv::test::writePatternFile(allFiles.back(), options.sizeKiB * 1024,
                                    static_cast<uint32_t>(i));
    }

    bool measured = true;
    bool barsMet = true;
    int roundNumber = 0;
    nlohmann::json report = nlohmann::json::array();
    // Each round gets an emulator of its own. Its data stays until the end of
    // the run: removing thousands of files makes the file system slower to
    // create files for a while (ext4 without a journal skips inodes freed in
    // the last half minute), so removing a round's data would slow down
    // whichever way ran next, always the same one.
    auto withEmulator = [&](auto&& body) {
        const std::string data = root + "/emulator-" + std::to_string(++roundNumber);
        Round round;
        {
            EmulatorProcess emulator({"--data", data});
            if (!emulator.running()) {
                std::fprintf(stderr, "znv-emulator did not start\n");
                measured = false;
            } else {
                const double serverCpu = emulator.cpuSeconds();
                round = body(emulator.baseURL());
                round.serverCpuSeconds = emulator.cpuSeconds() - serverCpu;
            }
        }
        if (round.seconds < 0) measured = false;
        return round;
    };

    for (size_t count : options.counts) {
        const std::vector<std::string> files(allFiles.begin(), allFiles.begin() + count);
        const bool withCli = count == options.cliFiles && std::filesystem::exists(znvPath);
        Round baseline, library, cli;
        const int rounds = count < 10000 ? 3 * options.runs : options.runs;
        for (int run = 0; run < rounds; ++run) {
            keepBest(baseline, withEmulator([&](const std::string& base) {
                         return baselineRound(base, files);
                     }));
            keepBest(library, withEmulator([&](const std::string& base) {
                         return libraryRound(base, files, roundNumber);
                     }));
            if (withCli) {
                keepBest(cli, withEmulator([&](const std::string& base) {
                             return cliRound(znvPath, base, files, root + "/cli-home");
                         }));
            }
        }
        auto ratio = [&](const Round& way) {
            return way.seconds > 0 && baseline.seconds > 0 ? baseline.seconds / way.seconds : 0.0;
        };
        const double libraryCpuMs = library.cpuSeconds * 1000 / static_cast<double>(count);
        const bool libraryOk = ratio(library) >= kLibraryBar && libraryCpuMs <= kLibraryCpuBarMs;
        const bool cliOk = !withCli || ratio(cli) >= kCliBar;
        barsMet = barsMet && libraryOk && cliOk;
        auto perFile = [&](const Round& way) { return way.seconds * 1000 / double(count); };
        if (options.json) {
            nlohmann::json entry{{"files", count},
                                 {"rounds", rounds},
                                 {"file_bytes", options.sizeKiB * 1024},
                                 {"baseline_seconds", baseline.seconds},
                                 {"baseline_cpu_seconds", baseline.cpuSeconds},
                                 {"baseline_server_cpu_seconds", baseline.serverCpuSeconds},
                                 {"library_seconds", library.seconds},
                                 {"library_cpu_seconds", library.cpuSeconds},
                                 {"library_server_cpu_seconds", library.serverCpuSeconds},
                                 {"library_ratio", ratio(library)},
                                 {"library_cpu_ms_per_file", libraryCpuMs}};
            if (withCli) {
                entry["znv_seconds"] = cli.seconds;
                entry["znv_cpu_seconds"] = cli.cpuSeconds;
                entry["znv_server_cpu_seconds"] = cli.serverCpuSeconds;
                entry["znv_ratio"] = ratio(cli);
            }
            report.push_back(entry);
        } else {
            std::printf("%zu files of %ju KiB, best of %d rounds\n", count,
                        static_cast<uintmax_t>(options.sizeKiB), rounds);
            // The server's processor time tells whether a way makes the
            // emulator work harder per file than the baseline does.
            auto serverMs = [&](const Round& way) {
                return way.serverCpuSeconds * 1000 / double(count);
            };
            std::printf("  libcurl:  %7.2f s  %6.2f ms/file  CPU %6.2f ms/file  server %5.2f\n",
                        baseline.seconds, perFile(baseline),
                        baseline.cpuSeconds * 1000 / double(count), serverMs(baseline));
            std::printf(
                "  library:  %7.2f s  %6.2f ms/file  CPU %6.2f ms/file  server %5.2f  %.2fx (bar "
                "%.1fx, CPU bar %.0f ms)  %s\n",
                library.seconds, perFile(library), libraryCpuMs, serverMs(library), ratio(library),
                kLibraryBar, kLibraryCpuBarMs, libraryOk ? "ok" : "BAR MISSED");
            if (withCli) {
                std::printf(
                    "  znv:      %7.2f s  %6.2f ms/file  CPU %6.2f ms/file  server %5.2f  %.2fx "
                    "(bar %.1fx)  %s\n",
                    cli.seconds, perFile(cli), cli.cpuSeconds * 1000 / double(count), serverMs(cli),
                    ratio(cli), kCliBar, cliOk ? "ok" : "BAR MISSED");
            }
        }
    }
    if (options.json) {
        std::printf("{\"results\": %s, \"ok\": %s}\n", report.dump().c_str(),
                    measured && barsMet ? "true" : "false");
    } else if (!measured) {
        std::printf("  MEASUREMENT FAILED\n");
    }
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    curl_global_cleanup();
    if (!measured) return 2;
    return barsMet ? 0 : 1;
}

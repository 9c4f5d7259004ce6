#include "apps/znv/queue.h"

#ifdef ZNV_CLI_HAVE_QUEUE

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <nlohmann/json.hpp>

#include "apps/znv/binding.h"
#include "apps/znv/delivery.h"
#include "apps/znv/names.h"
#include "apps/znv/paths.h"
#include "apps/znv/signals.h"
#include "znv/account/reachability_manager.h"
#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/progress.h"
#include "znv/platform/url_session.h"
#include "znv/platform/url_session_resume_data.h"

namespace znv::cli {
namespace {

ZNVAccountConfigurationRef configurationFor(const std::string& baseURL,
                                            const std::string& profile) {
    auto url = ZNVURL::fromString(baseURL);
    return std::make_shared<ZNVAccountConfiguration>(url ? *url : ZNVURL(), profile);
}

std::string errorText(const ZNVErrorRef& error) {
    return error ? error->localizedDescription() : std::string();
}

int64_t fileSize(const std::string& path) {
    std::error_code ec;
    auto size = std::filesystem::file_size(path, ec);
    return ec ? -1 : static_cast<int64_t>(size);
}

// The log's lines, in the log file and on standard error (-v): the inner
// pattern's, each message on one line with the control characters of names
// and server texts escaped, so that neither a terminal nor the file shown on
// one runs escape sequences or holds forged lines.
class EscapingFormatter : public spdlog::formatter {
  public:
    explicit EscapingFormatter(std::unique_ptr<spdlog::formatter> inner)
        : inner_(std::move(inner)) {}
    void format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) override {
        spdlog::memory_buf_t formatted;
        inner_->format(msg, formatted);
        std::string_view text(formatted.data(), formatted.size());
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
            text.remove_suffix(1);
        const std::string line = escapeControls(text) + "\n";
        dest.append(line.data(), line.data() + line.size());
    }
    std::unique_ptr<spdlog::formatter> clone() const override {
        return std::make_unique<EscapingFormatter>(inner_->clone());
    }

  private:
    std::unique_ptr<spdlog::formatter> inner_;
};

std::string parentOf(const std::string& path) {
    auto parent = std::filesystem::path(path).parent_path().string();
    return parent.empty() ? std::string("/") : parent;
}

bool unfinished(const ZNVNetworkTaskRef& task) {
    // A completed task with an error it will still retry is not finished.
    return task->state() != ZNVNetworkTaskStateCompleted || (!task->error() && task->rawError());
}

}  // namespace

std::string shellQuoted(const std::string& text) {
    if (!text.empty() &&
        text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                               "0123456789-_./:@%+=,") == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

constexpr size_t kLogFileBytes = 16 << 20;
constexpr size_t kOldLogFiles = 2;

void routeLibraryLog(int verbosity) {
    std::string path = logFilePath();
    std::vector<spdlog::sink_ptr> sinks;
    // Only a regular file (or none) is logged to: a link would carry the log
    // elsewhere, and a FIFO would block the command.
    struct stat info {};
    const bool regular =
        ::lstat(path.c_str(), &info) == 0 ? S_ISREG(info.st_mode) : errno == ENOENT;
    if (!regular) {
        std::fprintf(stderr, "znv: the log is not written: %s is not a regular file\n",
                     escapeControls(path).c_str());
    } else if (ensureDirectory(stateDirectory()).empty()) {
        try {
            // Every run logs each task it restores, so with a long queue the
            // log grows by megabytes a command: it is kept to the newest
            // 16 MiB and two older files of that size (znv.1.log, znv.2.log).
            auto file = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, kLogFileBytes,
                                                                               kOldLogFiles);
            file->set_formatter(
                std::make_unique<EscapingFormatter>(std::make_unique<spdlog::pattern_formatter>()));
            sinks.push_back(std::move(file));
        } catch (const std::exception&) {
            // No log file: the log is dropped rather than drawn over the output.
        }
    }
    if (verbosity >= 1) {
        auto console = std::make_shared<spdlog::sinks::stderr_sink_mt>();
        console->set_formatter(std::make_unique<EscapingFormatter>(
            std::make_unique<spdlog::pattern_formatter>("znv: [%l] %v")));
        console->set_level(verbosity >= 2 ? spdlog::level::debug : spdlog::level::info);
        sinks.push_back(std::move(console));
    }
    ZNVLogSetSinks(std::move(sinks));
    // A log that cannot be written (a full disk) is said once, in znv's own
    // words, instead of in spdlog's for every message.
    ZNVLog().set_error_handler([](const std::string& message) {
        static std::atomic<bool> said{false};
        if (said.exchange(true)) return;
        std::fprintf(stderr, "znv: the log cannot be written: %s\n",
                     escapeControls(message).c_str());
    });
    ZNVLogSetLevel(verbosity >= 2 ? spdlog::level::debug : spdlog::level::info);
    ZNVLog().flush_on(spdlog::level::warn);
}

TaskIdentity identityOf(const ZNVNetworkTaskRef& task) {
    TaskIdentity identity;
    identity.createdMicros =
        std::chrono::duration_cast<std::chrono::microseconds>(task->startDate().time_since_epoch())
            .count();
    if (auto upload = std::dynamic_pointer_cast<ZNVStorageUpload>(task)) {
        identity.kind = "upload";
        identity.subject = upload->remoteFilename();
    } else {
        identity.kind = std::dynamic_pointer_cast<ZNVNetworkDownload>(task) ? "download" : "task";
        auto url = task->sourceURL();
        identity.subject = url ? url->absoluteString() : std::string();
    }
    return identity;
}

// --- Queue entries -----------------------------------------------------------

std::vector<QueueEntry> queueEntries(const std::vector<ZNVNetworkTaskRef>& tasks) {
    std::vector<std::string> hashes;
    hashes.reserve(tasks.size());
    for (const auto& task : tasks)
        hashes.push_back(fullTaskHash(identityOf(task)));
    auto ids = shortIdsOf(hashes);
    std::vector<QueueEntry> entries;
    entries.reserve(tasks.size());
    for (size_t i = 0; i < tasks.size(); ++i) {
        entries.push_back({tasks[i], std::move(ids[i]), std::move(hashes[i])});
    }
    return entries;
}

std::optional<QueueEntry> findEntry(const std::vector<QueueEntry>& entries,
                                    const std::string& typed, std::string* problem) {
    std::vector<std::string> hashes;
    for (const auto& e : entries)
        hashes.push_back(e.hash);
    size_t index = 0;
    switch (findTaskById(typed, hashes, &index)) {
        case IdMatch::Found:
            return entries[index];
        case IdMatch::TooShort:
            *problem = "task ID too short (at least " + std::to_string(kMinimumIdPrefix) +
                       " characters): " + typed;
            break;
        case IdMatch::Ambiguous:
            *problem = "more than one task matches ID " + typed;
            break;
        case IdMatch::NotFound:
            *problem = "no task with ID " + typed + " (see znv status)";
            break;
    }
    return std::nullopt;
}

TaskView viewOf(const QueueEntry& entry) {
    const auto& task = entry.task;
    TaskView view;
    view.id = entry.id;
    view.state = task->state();
    view.error = errorText(task->error());
    if (view.error.empty()) view.retryError = errorText(task->rawError());
    double fraction = 0;
    if (auto progress = task->progress(); progress && progress->totalUnitCount() > 0) {
        fraction = std::clamp(progress->fractionCompleted(), 0.0, 1.0);
    }
    if (auto upload = std::dynamic_pointer_cast<ZNVStorageUpload>(task)) {
        view.kind = "upload";
        auto source = upload->sourceURL();
        view.subject = source ? source->path() : upload->remoteFilename();
        view.remoteFileID = upload->remoteFileID();
        // An upload that moved to chunks (the file was refused whole) stays there.
        const bool inChunks = upload->forceChunkUploading() || upload->uploadsChunks();
        view.whole = !inChunks && upload->canUploadFullFile();
        // Until the service has answered the create, its whole-file limit is unknown.
        view.modeKnown = inChunks || !view.remoteFileID.empty();
        auto size = static_cast<int64_t>(upload->sourceFileSize());
        view.totalBytes = size;
        view.completedBytes = std::llround(fraction * static_cast<double>(size));
        // A restored upload counts from zero until it runs; the chunks already
        // acknowledged tell how far it really is.
        uint64_t chunks = upload->chunkCount();
        uint64_t left = upload->chunkIndicesToUpload().count();
        if (!view.remoteFileID.empty() && left > 0 && left <= chunks) {
            auto chunkBytes = static_cast<int64_t>((chunks - left) * 4194304ull);
            view.completedBytes = std::max(view.completedBytes, std::min(chunkBytes, size));
        }
    } else {
        view.kind = "download";
        auto source = task->sourceURL();
        view.subject = source ? source->absoluteString() : std::string();
        view.completedBytes = 0;
        view.totalBytes = -1;
        // Data to continue from: the task's own while it waits, or the data
        // its running transfer was made from. A transfer that continues is
        // answered with the rest only, so its whole size and what its file
        // already held come from that data.
        std::optional<ZNVURLSessionResumeData::Info> resumed;
        auto sessionTask = task->task();
        if (auto transfer = std::dynamic_pointer_cast<ZNVURLSessionDownloadTask>(sessionTask)) {
            if (!transfer->resumeDataUsed().empty())
                resumed = ZNVURLSessionResumeData::decode(transfer->resumeDataUsed());
        } else if (auto download = std::dynamic_pointer_cast<ZNVNetworkDownload>(task);
                   download && !sessionTask) {
            if (auto data = download->resumeData())
                resumed = ZNVURLSessionResumeData::decode(*data);
        }
        if (resumed && resumed->expectedTotalBytes > 0) {
            // What the transfer continues from, as the session reckons it; a
            // file that is gone holds nothing.
            int64_t held = 0;
            if (ZNVURLSessionResumeData::isPartialFilePath(resumed->partialFile)) {
                std::error_code error;
                auto size = std::filesystem::file_size(resumed->partialFile, error);
                if (!error) {
                    held = ZNVURLSessionResumeData::continuationOffset(*resumed,
                                                                       static_cast<int64_t>(size));
                }
            }
            const int64_t whole = resumed->expectedTotalBytes;
            view.totalBytes = whole;
            view.completedBytes = std::clamp<int64_t>(
                std::max<int64_t>(held, std::llround(fraction * static_cast<double>(whole))), 0,
                whole);
        } else if (sessionTask) {
            int64_t expected = sessionTask->countOfBytesExpectedToReceive();
            if (expected > 0) {
                view.totalBytes = expected;
                view.completedBytes = std::llround(fraction * static_cast<double>(expected));
            }
        }
    }
    if (view.succeeded() && view.totalBytes >= 0) view.completedBytes = view.totalBytes;
    return view;
}

Delivery deliveryOf(const ZNVNetworkTaskRef& task,
                    const std::function<std::optional<Destination>()>& destination) {
    auto download = std::dynamic_pointer_cast<ZNVNetworkDownload>(task);
    if (!download || download->state() != ZNVNetworkTaskStateCompleted) return Delivery::None;
    // The library names a file only once its transfer succeeded.
    auto local = download->localFileURL();
    if (!local) return Delivery::None;
    const std::optional<Destination> to = destination();
    if (!to || to->delivered) return Delivery::None;
    return fileSize(local->path()) >= 0 ? Delivery::Pending : Delivery::Lost;
}

void applyDelivery(TaskView& view, Delivery delivery) {
    if (delivery == Delivery::Pending && view.succeeded()) {
        view.state = ZNVNetworkTaskStateSuspended;
    } else if (delivery == Delivery::Lost && view.error.empty()) {
        view.error =
            "the downloaded file is gone before it was delivered (znv retry downloads it "
            "again)";
        view.state = ZNVNetworkTaskStateCompleted;
    }
}

// --- QueueFile ---------------------------------------------------------------

QueueFile::QueueFile(const std::string& profile)
    : network_(ZNVNetwork::create(configurationFor("http://127.0.0.1/api/", profile))) {
    network_->readState();
    problem_ = queueProblem(*network_, profile);
}

QueueFile::QueueFile(const GlobalOptions& global) : QueueFile(global.profile) {
    const auto brief = std::chrono::steady_clock::now() + kBriefQueueWait;
    while (queueHeldElsewhere(*network_) &&
           waitForQueue(global.profile, global.wait,
                        global.wait ? std::nullopt : std::optional(brief))) {
        network_ = ZNVNetwork::create(configurationFor("http://127.0.0.1/api/", global.profile));
        network_->readState();
        problem_ = queueProblem(*network_, global.profile);
    }
}

bool queueHeldElsewhere(const ZNVNetwork& network) {
    // A lock that cannot be taken at all is refused with the lock file's
    // error underneath; a holder's refusal has none.
    const ZNVErrorRef error = network.stateRestoreError();
    return error && error->code() == NSFileLockingError && !error->value(NSUnderlyingErrorKey);
}

std::string queueProblem(const ZNVNetwork& network, const std::string& profile) {
    const ZNVErrorRef error = network.stateRestoreError();
    if (!error) return {};
    const std::string name = profileIdentifier(profile);
    if (error->code() == NSFileLockingError && !queueHeldElsewhere(network)) {
        // The lock itself cannot be taken (a link or a directory in its place).
        return "the queue of profile " + name + " cannot be used: " + error->localizedDescription();
    }
    if (error->code() == NSFileLockingError) {
        const auto* pid = error->value(ZNVNetwork_StateLockHolderPIDKey);
        const std::string holder = pid && std::holds_alternative<int64_t>(*pid)
                                       ? "process " + std::to_string(std::get<int64_t>(*pid))
                                       : std::string("another process");
        return "the queue of profile " + name + " is in use by " + holder +
               " (use --wait to wait for it)";
    }
    return "the queue of profile " + name +
           " could not be restored: " + error->localizedDescription() + " It was kept as " +
           error->stringValue(NSFilePathErrorKey).value_or("?") + "; the queue starts empty.";
}

bool waitForQueue(const std::string& profile, bool announce,
                  std::optional<std::chrono::steady_clock::time_point> until) {
    auto configuration = configurationFor("http://127.0.0.1/api/", profile);
    const auto stateURL = ZNVNetworkUtilities_libraryURLWithFileName(
        ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(configuration.get()) + ".state");
    if (!stateURL) return false;
    const std::string lockPath = stateURL->path() + ".lock";
    // Not blocking on a FIFO planted there; flock then says whether it is a lock.
    int fd = ::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return false;
    if (announce) {
        std::fprintf(stderr, "znv: waiting for the queue of profile %s ...\n",
                     profileIdentifier(profile).c_str());
    }
    // Taken and given back at once: the library takes it on its own file.
    // Ctrl-C ends the wait: this process holds nothing that needs saving.
    const bool free =
        waitForLock(fd, LOCK_SH, "the queue of profile " + profileIdentifier(profile), until);
    ::close(fd);
    return free;
}

namespace {

std::string saveProblem(const ZNVNetwork& network) {
    ZNVErrorRef error = network.stateSaveError();
    return error ? "the queue could not be saved: " + error->localizedDescription() : "";
}

}  // namespace

std::string QueueFile::save() {
    // No session manager: the save runs here and now.
    network_->beginBatch();
    network_->commitBatch();
    return saveProblem(*network_);
}

// --- TransferSession ---------------------------------------------------------

// What observers saw between two turns of the run loop: every state a task
// went through, and which tasks have finished.
struct TransferSession::Observed {
    std::mutex mutex;
    struct Step {
        uint64_t state;
        std::string retryError;  // the error the task will retry after; empty: none
    };
    std::map<const ZNVNetworkTask*, std::vector<Step>> states;  // guarded by mutex
    // The tasks of the run, and those of them whose last state was final;
    // guarded by mutex. When the two match, the run loop is woken at once.
    std::unordered_set<const ZNVNetworkTask*> running, finished;

    // Called with mutex held.
    void noteState(const ZNVNetworkTask* task, bool isFinished) {
        if (!running.count(task)) return;
        const bool wasComplete = finished.size() == running.size();
        if (isFinished) {
            finished.insert(task);
        } else {
            finished.erase(task);
        }
        if (!wasComplete && finished.size() == running.size()) wakeTerminationWait();
    }
};

TransferSession::TransferSession(GlobalOptions global)
    : global_(std::move(global)), observed_(std::make_shared<Observed>()) {}

void TransferSession::observe(const ZNVNetworkTaskRef& task) {
    if (observations_.count(task.get())) return;
    std::weak_ptr<ZNVNetworkTask> weakTask = task;
    auto remember = [weakTask, observed = observed_](const ZNVKeyValueChangeRecord&) {
        auto strong = weakTask.lock();
        if (!strong) return;
        uint64_t state = strong->state();
        std::string retryError;
        if (auto raw = strong->rawError(); raw && !strong->error()) {
            retryError = raw->localizedDescription();
        }
        const bool isFinished = !unfinished(strong);
        std::lock_guard lock(observed->mutex);
        observed->states[strong.get()].push_back({state, std::move(retryError)});
        observed->noteState(strong.get(), isFinished);
    };
    observations_.emplace(task.get(), std::pair(task, task->addObserver("state", remember)));
}

void TransferSession::stopObserving(const ZNVNetworkTaskRef& task) {
    auto it = observations_.find(task.get());
    if (it == observations_.end()) return;
    task->removeObserver(it->second.second);
    observations_.erase(it);
    std::lock_guard lock(observed_->mutex);
    observed_->states.erase(task.get());
    observed_->running.erase(task.get());
    observed_->finished.erase(task.get());
}

TransferSession::~TransferSession() = default;

std::vector<int64_t> archivedUnfinishedTasks(const std::string& profile) {
    std::vector<int64_t> starts;
    const std::optional<std::string> text = readRegularFile(stateFilePath(profile));
    if (!text) return starts;
    auto document = nlohmann::json::parse(*text, nullptr, false);
    // Every archived task is an object with a "$class" and a "start date".
    std::vector<const nlohmann::json*> pending = {&document};
    while (!pending.empty()) {
        const nlohmann::json* node = pending.back();
        pending.pop_back();
        if (node->is_object() && node->contains("$class") && node->contains("start date")) {
            const auto& date = (*node)["start date"];
            const auto* state = node->contains("state") ? &(*node)["state"] : nullptr;
            bool finished = state && state->is_string() && *state == "completed";
            if (!finished && date.is_object() && date.contains("$date") &&
                date["$date"].is_number()) {
                starts.push_back(std::llround(date["$date"].get<double>() * 1e6));
            }
            continue;
        }
        if (node->is_structured()) {
            for (const auto& child : *node)
                pending.push_back(&child);
        }
    }
    return starts;
}

TransferSession* TransferSession::open(const GlobalOptions& global, std::string* error,
                                       int* exitStatus, const std::string& emulatorDataDir) {
    *exitStatus = kExitFailed;
    if (std::string refused = bindProfile(
            global.profile, global.server.empty() ? std::string(kBuiltInServer) : global.server);
        !refused.empty()) {
        *error = refused;
        if (refused.rfind("cannot", 0) != 0) *exitStatus = kExitUsage;
        return nullptr;
    }
    std::unique_ptr<TransferSession> session(new TransferSession(global));
    std::string baseURL = global.server;
    if (global.offline) {
        // Nothing may start: the network is "down" for this process.
        ZNVReachabilityManager::setFactory([](const sockaddr*, socklen_t) {
            return std::make_shared<ZNVManualReachabilityManager>(false);
        });
    }
    if (baseURL.empty()) {
        std::string dataDir = emulatorDataDir.empty() ? emulatorDataDirectory() : emulatorDataDir;
        if (global.offline) {
            baseURL = EmbeddedEmulator::rememberedBaseURL(dataDir);
            if (baseURL.empty()) baseURL = "http://127.0.0.1:9/api/";
        } else {
            if (!session->emulator_.start(dataDir, global.token, 0, 1ull << 30, error,
                                          global.wait)) {
                return nullptr;
            }
            baseURL = session->emulator_.baseURL();
        }
    }
    session->baseURL_ = baseURL;
    session->account_ =
        ZNVTokenAccount::createWithToken(configurationFor(baseURL, global.profile), global.token);
    session->storage_ = ZNVStorage::storageForAccount(session->account_);
    if (!session->storage_) {
        *error = "cannot open the task queue";
        return nullptr;
    }
    const auto brief = std::chrono::steady_clock::now() + kBriefQueueWait;
    while (queueHeldElsewhere(*session->storage_)) {
        session->storage_->invalidateClientAndCancelTasks();
        session->storage_.reset();
        const bool free = waitForQueue(global.profile, global.wait,
                                       global.wait ? std::nullopt : std::optional(brief));
        session->storage_ = ZNVStorage::storageForAccount(session->account_);
        if (!session->storage_) {
            *error = "cannot open the task queue";
            return nullptr;
        }
        if (!free) break;
    }
    if (std::string problem = queueProblem(*session->storage_, global.profile); !problem.empty()) {
        // A damaged queue was set aside by the library, which goes on with an
        // empty one: the command runs, after saying so. A queue held by
        // another process is not used at all.
        if (session->storage_->stateRestoreError()->code() == NSFileLockingError) {
            *error = problem;
            return nullptr;
        }
        printError(problem);
    }
    // Read only now that this process holds the queue: another znv may have
    // changed them while this one waited, and only the holder may repair them.
    session->destinations_.emplace(global.profile);
    // Deliberately never destroyed (see the header).
    return session.release();
}

std::shared_ptr<ZNVStorageUpload> TransferSession::addUpload(const std::string& path,
                                                             const std::string& name, bool video,
                                                             bool forceChunks, std::string* error) {
    auto upload = storage_->uploadFromFile(ZNVURL::fileURL(path), name, "", "", video, forceChunks);
    if (!upload) {
        *error = "cannot upload " + path + " (see " + logFilePath() + ")";
        return nullptr;
    }
    added_.insert(upload.get());
    return upload;
}

std::shared_ptr<ZNVNetworkDownload> TransferSession::addDownload(const std::string& url,
                                                                 const Destination& destination,
                                                                 std::string* error) {
    auto remote = ZNVURL::fromString(url);
    auto download = remote ? storage_->downloadFromRemoteFile(*remote) : nullptr;
    if (!download) {
        *error = "cannot download " + url + " (see " + logFilePath() + ")";
        return nullptr;
    }
    // Without its destination on disk, a later run could not deliver the
    // file: the download is dropped instead of queued.
    if (std::string problem = destinations_->set(fullTaskHash(identityOf(download)), destination);
        !problem.empty()) {
        download->cancel();
        storage_->finishTask(download);
        *error = problem;
        return nullptr;
    }
    observe(download);
    added_.insert(download.get());
    return download;
}

std::string TransferSession::resumeCommand() const {
    std::string command = "znv";
    if (!global_.profile.empty()) command += " --profile " + shellQuoted(global_.profile);
    if (!global_.server.empty()) command += " --server " + shellQuoted(global_.server);
    return command + " resume";
}

std::string TransferSession::continueWith() const {
    // A token given on the command line is not printed (it is a secret), but
    // the command that continues needs it as much.
    const char* fromEnvironment = std::getenv("ZNV_TOKEN");
    if (global_.token == kDefaultToken ||
        (fromEnvironment != nullptr && global_.token == fromEnvironment)) {
        return "";
    }
    return " (and the same --token, or ZNV_TOKEN set)";
}

std::string TransferSession::save() {
    storage_->beginBatch();
    storage_->commitBatch();
    // The save is encoded and written on the library's own queues.
    if (!storage_->waitUntilStateIsWritten(std::chrono::seconds(20)))
        return "the queue could not be saved: its file was not written within 20 s";
    return saveProblem(*storage_);
}

namespace {

// What the run knows about one task beyond what the library tells.
struct Tracked {
    QueueEntry entry;
    bool counted = false;       // its outcome decides the exit status
    std::string reportedState;  // last state name reported
    int64_t reportedBytes = -1;
    int64_t startBytes = 0;  // completed bytes when the run began
    std::chrono::steady_clock::time_point lastProgressEvent{};
    int64_t knownTotal = -1;  // largest total seen (downloads learn it late)
    bool finalizing = false;  // finished; waiting for the content URL or delivery
    bool final = false;       // completion reported
    std::chrono::steady_clock::time_point finalizingSince{};
    std::string contentURL;
    std::optional<Destination> destination;  // downloads
    std::string output;                      // where a download is, or goes
    std::string extraError;                  // a failure znv found (HTTP status, delivery)
    bool urlRequested = false;
    bool wholeAnnounced = false;  // a line said the upload goes whole
    // Final and reported: its view changes no more, so turns skip it.
    bool settled = false;
    // The library's view of a task that is not running, with the state and
    // errors it was made from: a queued task keeps it until one of them
    // changes, so a turn does not resolve the source of every queued upload.
    struct {
        std::optional<TaskView> view;
        uint64_t state = 0;
        ZNVErrorRef rawError;  // held, so a new error never reuses its address
        ZNVErrorRef error;
    } idle;
};

// Content URLs arriving on the main queue, read by the run loop.
struct Lookups {
    std::mutex mutex;
    std::map<std::string, std::optional<std::string>> urls;  // guarded by mutex; file ID -> URL
};

}  // namespace

RunResult TransferSession::run(Reporter& reporter, const std::vector<ZNVNetworkTaskRef>& tasks,
                               bool countAll) {
    using Clock = std::chrono::steady_clock;
    auto started = Clock::now();
    RunResult result;

    // The run covers the given tasks and every unfinished task of the queue:
    // the library runs those anyway.
    std::vector<ZNVNetworkTaskRef> runTasks = tasks;
    std::unordered_set<const ZNVNetworkTask*> given;
    for (const auto& task : tasks)
        given.insert(task.get());
    // So does a download that completed without being delivered (the
    // process ended in between): it is delivered now.
    const auto undelivered = [this](const ZNVNetworkTaskRef& task) {
        return !task->rawError() && deliveryOf(task, [&] {
                                        return destinations_->get(fullTaskHash(identityOf(task)));
                                    }) == Delivery::Pending;
    };
    const auto queued = storage_->tasks();
    for (const auto& task : queued) {
        if (!given.count(task.get()) && (unfinished(task) || undelivered(task))) {
            runTasks.push_back(task);
        }
    }

    auto lookups = std::make_shared<Lookups>();
    auto observed = observed_;
    std::vector<Tracked> tracked;
    {
        const auto entries = queueEntries(queued);
        std::unordered_map<const ZNVNetworkTask*, const QueueEntry*> entryOf;
        for (const auto& entry : entries)
            entryOf.emplace(entry.task.get(), &entry);
        std::unordered_set<const ZNVNetworkTask*> seen;
        for (const auto& task : runTasks) {
            auto it = entryOf.find(task.get());
            if (it == entryOf.end() || !seen.insert(task.get()).second) continue;
            Tracked t;
            t.entry = *it->second;
            t.counted = countAll || given.count(task.get());
            bool isDownload = std::dynamic_pointer_cast<ZNVNetworkDownload>(task) != nullptr;
            if (isDownload) {
                t.destination = destinations_->get(t.entry.hash);
                if (t.destination) t.output = t.destination->path;
            }
            observe(task);
            tracked.push_back(std::move(t));
        }
        // Read before the lock: observers take it while their task is locked.
        // Only the tasks the command counts end the run: an old task of the
        // queue that cannot finish (a server that never answers) does not
        // hold up a later command.
        std::vector<std::pair<const ZNVNetworkTask*, bool>> finishedAlready;
        for (const auto& t : tracked) {
            if (t.counted)
                finishedAlready.emplace_back(t.entry.task.get(), !unfinished(t.entry.task));
        }
        std::lock_guard lock(observed->mutex);
        for (const auto& [task, isFinished] : finishedAlready) {
            observed->running.insert(task);
            if (isFinished) observed->finished.insert(task);
        }
    }

    auto viewFor = [&](Tracked& t) {
        const auto& task = t.entry.task;
        const uint64_t state = task->state();
        const ZNVErrorRef rawError = task->rawError();
        const ZNVErrorRef error = task->error();
        auto& idle = t.idle;
        if (!idle.view || state == ZNVNetworkTaskStateRunning || idle.state != state ||
            idle.rawError != rawError || idle.error != error) {
            idle.view = viewOf(t.entry);
            idle.state = state;
            idle.rawError = rawError;
            idle.error = error;
        }
        TaskView view = *idle.view;
        if (view.totalBytes >= 0) t.knownTotal = std::max(t.knownTotal, view.totalBytes);
        if (view.totalBytes < 0) view.totalBytes = t.knownTotal;
        view.output = t.output;
        view.contentURL = t.contentURL;
        if (!t.extraError.empty()) {
            view.error = t.extraError;
            view.retryError.clear();
        }
        if (view.kind == "download" && view.succeeded() && t.final) {
            view.totalBytes = view.completedBytes = fileSize(t.output);
        }
        return view;
    };

    // Puts a finished download where the user asked for it; "" or what failed.
    // The library reports an answer with an error status as a failure, so a
    // completed download's last response (kept by the task) only names it.
    auto deliver = [&](Tracked& t) {
        auto download = std::dynamic_pointer_cast<ZNVNetworkDownload>(t.entry.task);
        auto response = download->response();
        auto local = download->localFileURL();
        if (!local) return std::string("the download finished without a file");
        if (!t.destination) return std::string("no destination recorded for this download");
        if (t.destination->delivered) {
            // Delivered before a crash kept the queue from noting that the
            // download had ended, so it ran again: the user has the file, and
            // this copy is not needed.
            std::error_code ec;
            std::filesystem::remove(local->path(), ec);
            t.output = t.destination->path;
            return std::string();
        }
        std::string directory = t.destination->path, name;
        if (t.destination->directory) {
            auto source = download->sourceURL();
            std::string disposition;
            if (response) {
                disposition = response->valueForHTTPHeaderField("Content-Disposition").value_or("");
            }
            std::string serverName;
            if (safeFileName(contentDispositionFilename(disposition)).empty() && source) {
                auto base = ZNVURL::fromString(baseURL_);
                if (base) {
                    serverName = fetchServiceFileName(*base, global_.token, *source,
                                                      std::chrono::seconds(5));
                }
            }
            name = chooseDownloadName(disposition, serverName, source ? *source : ZNVURL());
        } else {
            directory = parentOf(t.destination->path);
            name = std::filesystem::path(t.destination->path).filename().string();
        }
        // The path is noted before the bytes move: after a crash from there
        // on, the download goes to that path again (replacing what is there)
        // instead of to a new numbered name beside it.
        auto reserve = [&](const std::string& path) {
            Destination pending = *t.destination;
            pending.path = path;
            pending.directory = false;
            pending.force = true;
            return destinations_->set(t.entry.hash, pending);
        };
        Delivered delivered =
            deliverDownload(local->path(), directory, name, t.destination->force, reserve);
        if (!delivered.error.empty()) return delivered.error;
        t.output = delivered.path;
        // `status` names the file and its size after this run.
        Destination done = *t.destination;
        done.path = delivered.path;
        done.directory = false;
        done.delivered = true;
        done.size = fileSize(delivered.path);
        // Unrecorded, the next run would deliver it once more (to the same
        // path, recorded above): the run says so rather than succeed.
        return destinations_->set(t.entry.hash, done);
    };

    // Reports a state; an upload learns whether it goes whole only from the
    // service's answer to its creation, so that is said once it is known.
    auto report = [&](Tracked& t, const TaskView& view) {
        reporter.stateChanged(view);
        if (view.kind == "upload" && view.whole && view.state == 1) t.wholeAnnounced = true;
    };

    // The run's view of every task, kept from turn to turn. A turn looks at
    // the tasks that went through states since the last one, the running and
    // the finishing ones, and, every two seconds, all that have not settled:
    // its cost follows what changed, not the length of the queue.
    std::vector<TaskView> views;
    views.reserve(tracked.size());
    LiveView live;
    live.tasks = tracked.size();
    const auto count = [&live](const TaskView& view, int sign) {
        live.done += sign * std::max<int64_t>(view.completedBytes, 0);
        live.total += sign * std::max<int64_t>(view.totalBytes, view.completedBytes);
        if (view.state == 0) live.queued += static_cast<size_t>(sign);
    };
    for (auto& t : tracked) {
        TaskView view = viewFor(t);
        // A task this process added moved all its bytes here, also those it
        // moved before the loop began (it starts as soon as it is added).
        t.startBytes = added_.count(t.entry.task.get()) ? 0 : view.completedBytes;
        reporter.taskAdded(view);
        t.reportedState = "queued";
        if (stateName(view) == "running") {
            report(t, view);
            t.reportedState = "running";
        }
        count(view, 1);
        views.push_back(std::move(view));
    }

    if (global_.offline) {
        // Queued tasks exist only in the saved queue: a save that failed
        // loses them, and the command says so.
        if (std::string problem = save(); !problem.empty()) {
            printError(problem);
            result.exitStatus = kExitFailed;
            return result;
        }
        reporter.note("offline: " + std::to_string(tracked.size()) +
                      " task(s) queued; start them with" + continueWith() + ": " + resumeCommand());
        result.tasks = std::move(views);
        result.exitStatus = kExitOK;
        return result;
    }
    storage_->refreshAndSave();

    std::unordered_map<const ZNVNetworkTask*, size_t> indexOf;
    for (size_t i = 0; i < tracked.size(); ++i)
        indexOf.emplace(tracked[i].entry.task.get(), i);
    // Counted tasks whose completion is not reported yet.
    size_t openCounted = static_cast<size_t>(
        std::count_if(tracked.begin(), tracked.end(), [](const Tracked& t) { return t.counted; }));
    std::vector<size_t> active;  // running or finishing at the end of the last turn
    auto lastActivity = Clock::now();
    auto nextSweep = lastActivity;  // the first turn looks at every task
    bool anyRunning = false;

    auto visit = [&](size_t index, const std::vector<Observed::Step>& passed,
                     Clock::time_point now) {
        Tracked& t = tracked[index];
        // States passed through since the last turn, reported in order
        // (completion is reported below, once it is final). A task that went
        // through states may have learnt more (its remote file, say) than its
        // state shows.
        if (!passed.empty()) t.idle.view.reset();
        for (const auto& passedStep : passed) {
            // A task that stops with an error it will retry waits to
            // retry; its final completion is reported below.
            bool retrying = !passedStep.retryError.empty();
            if (t.final || (passedStep.state == ZNVNetworkTaskStateCompleted && !retrying)) {
                continue;
            }
            TaskView step = viewFor(t);
            step.state = passedStep.state;
            step.error.clear();
            step.retryError = passedStep.retryError;
            if (stateName(step) != t.reportedState) {
                report(t, step);
                t.reportedState = stateName(step);
                lastActivity = now;
            }
        }
        TaskView view = viewFor(t);
        std::string name = stateName(view);
        if (name == "running") anyRunning = true;

        if (!t.final && (view.succeeded() || view.failed()) && !t.finalizing) {
            t.finalizing = true;
            t.finalizingSince = now;
            if (view.kind == "download" && view.succeeded()) {
                t.extraError = deliver(t);
                if (!t.extraError.empty()) {
                    // The library saw a finished transfer; the queue must
                    // say it failed, or `status` and later runs would
                    // call it completed.
                    t.entry.task->setRawError(ZNVNetworkErrorHandler_createURLError(
                        NSURLErrorCannotCreateFile, t.extraError));
                }
            }
            auto upload = std::dynamic_pointer_cast<ZNVStorageUpload>(t.entry.task);
            std::optional<ZNVURL> answered =
                upload ? upload->remoteContentURL() : std::optional<ZNVURL>();
            if (view.kind == "upload" && view.succeeded() && answered) {
                // The completing answer named the content: no lookup.
                t.contentURL = answered->absoluteString();
            } else if (view.kind == "upload" && view.succeeded() && !view.remoteFileID.empty()) {
                t.urlRequested = true;
                std::string fileID = view.remoteFileID;
                storage_->URLForRemoteFile(fileID, [lookups,
                                                    fileID](const std::optional<ZNVURL>& url) {
                    std::lock_guard lock(lookups->mutex);
                    lookups->urls[fileID] = url ? std::optional<std::string>(url->absoluteString())
                                                : std::optional<std::string>();
                });
            }
        }
        if (t.finalizing && !t.final) {
            bool ready = true;
            if (t.urlRequested) {
                std::lock_guard lock(lookups->mutex);
                auto it = lookups->urls.find(view.remoteFileID);
                if (it != lookups->urls.end()) {
                    t.contentURL = it->second.value_or("");
                } else if (now - t.finalizingSince < std::chrono::seconds(10)) {
                    ready = false;
                }
            }
            if (ready) {
                t.final = true;
                if (t.counted) --openCounted;
                view = viewFor(t);
                name = stateName(view);
            }
        }

        if (view.completedBytes != t.reportedBytes &&
            (t.final || now - t.lastProgressEvent >= std::chrono::milliseconds(100))) {
            reporter.progressed(view);
            t.reportedBytes = view.completedBytes;
            t.lastProgressEvent = now;
            lastActivity = now;
        }
        bool reportable = !(view.succeeded() || view.failed()) || t.final;
        if (reportable && name != t.reportedState) {
            report(t, view);
            t.reportedState = name;
            lastActivity = now;
        } else if (name == "running" && view.kind == "upload" && view.whole && !t.wholeAnnounced) {
            report(t, view);
        }
        if (t.final && t.reportedState == name && t.reportedBytes == view.completedBytes)
            t.settled = true;
        count(views[index], -1);
        count(view, 1);
        views[index] = std::move(view);
        return !t.settled && (name == "running" || t.finalizing);
    };

    for (;;) {
        // Observers wake the wait when the last task of the run finishes.
        int signal = waitForTerminationSignal(std::chrono::milliseconds(100));
        if (signal != 0) {
            reporter.close();
            const std::string problem = save();
            reporter.interrupted(std::string(signal == SIGINT ? "interrupted" : "terminated") +
                                     (problem.empty() ? "; the queue is saved" : "; " + problem) +
                                     ". Continue with" + continueWith() + ":",
                                 resumeCommand());
            result.exitStatus = exitStatusForSignal(signal);
            for (auto& t : tracked)
                result.tasks.push_back(viewFor(t));
            break;
        }
        auto now = Clock::now();
        std::map<const ZNVNetworkTask*, std::vector<Observed::Step>> passed;
        {
            std::lock_guard lock(observed->mutex);
            passed.swap(observed->states);
        }
        // Tasks in the order of the run, so that reports keep that order.
        std::vector<size_t> due = std::move(active);
        active.clear();
        if (now >= nextSweep) {
            nextSweep = now + std::chrono::seconds(2);
            for (size_t i = 0; i < tracked.size(); ++i) {
                if (!tracked[i].settled) due.push_back(i);
            }
        }
        for (const auto& [task, steps] : passed) {
            if (auto it = indexOf.find(task); it != indexOf.end()) due.push_back(it->second);
        }
        std::sort(due.begin(), due.end());
        due.erase(std::unique(due.begin(), due.end()), due.end());
        anyRunning = false;
        static const std::vector<Observed::Step> kNoSteps;
        for (size_t index : due) {
            if (tracked[index].settled) continue;
            auto it = passed.find(tracked[index].entry.task.get());
            if (visit(index, it == passed.end() ? kNoSteps : it->second, now)) {
                active.push_back(index);
            }
        }
        live.running.clear();
        for (size_t index : active) {
            if (views[index].state == 1) live.running.push_back(&views[index]);
        }
        reporter.tick(live);
        if (openCounted == 0) {
            result.tasks = std::move(views);
            break;
        }
        // A queued task waits for a refresh of the library's activation; one
        // is due after every change, and this one covers a missed change.
        if (!anyRunning && now - lastActivity > std::chrono::seconds(2)) {
            storage_->refreshAndSave();
            lastActivity = now;
        }
    }
    for (auto& t : tracked)
        stopObserving(t.entry.task);

    result.seconds = std::chrono::duration<double>(Clock::now() - started).count();
    if (result.exitStatus == kExitOK) {
        if (std::string problem = save(); !problem.empty()) {
            printError(problem);
            result.exitStatus = kExitFailed;
        }
        RunTotals totals;
        totals.seconds = result.seconds;
        // The summary is about the tasks the command counts; the others of
        // the queue reported their steps as they went.
        std::vector<TaskView> counted;
        size_t left = 0;
        for (size_t i = 0; i < tracked.size() && i < result.tasks.size(); ++i) {
            if (!tracked[i].counted) {
                if (!tracked[i].final) ++left;
                continue;
            }
            totals.bytes +=
                std::max<int64_t>(0, result.tasks[i].completedBytes - tracked[i].startBytes);
            if (!result.tasks[i].succeeded()) result.exitStatus = kExitFailed;
            counted.push_back(result.tasks[i]);
        }
        result.tasks = std::move(counted);
        if (left > 0) {
            reporter.note(std::to_string(left) +
                          " other task(s) of the queue did not finish; continue them with" +
                          continueWith() + ": " + resumeCommand());
        }
        reporter.summary(result.tasks, totals);
    }
    return result;
}

}  // namespace znv::cli

#endif

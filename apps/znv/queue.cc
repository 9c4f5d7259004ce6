#include "apps/znv/queue.h"

#ifdef ZNV_CLI_HAVE_QUEUE

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>

#include <spdlog/sinks/basic_file_sink.h>
#include <nlohmann/json.hpp>

#include "apps/znv/paths.h"
#include "apps/znv/signals.h"
#include "znv/account/reachability_manager.h"
#include "znv/foundation/log.h"
#include "znv/platform/progress.h"
#include "znv/platform/url_session.h"

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

// Moves a finished download to where the user asked for it (copying across
// file systems). "" on success, else what went wrong.
std::string deliverFile(const std::string& from, const std::string& to) {
    std::error_code ec;
    std::filesystem::rename(from, to, ec);
    if (!ec) return {};
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing, ec);
    if (ec) return "cannot write " + to + ": " + ec.message();
    return {};
}

}  // namespace

void routeLibraryLog() {
    std::string path = logFilePath();
    std::vector<spdlog::sink_ptr> sinks;
    if (ensureDirectory(stateDirectory()).empty()) {
        try {
            sinks.push_back(std::make_shared<spdlog::sinks::basic_file_sink_mt>(path));
        } catch (const std::exception&) {
            // No log file: the log is dropped rather than drawn over the output.
        }
    }
    ZNVLogSetSinks(std::move(sinks));
    ZNVLogSetLevel(spdlog::level::info);
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

// --- Download destinations -------------------------------------------------

DownloadDestinations::DownloadDestinations(const std::string& profile)
    : path_(stateDirectory() + "/" + (profile.empty() ? std::string("default") : profile) +
            ".downloads.json") {
    std::ifstream in(path_);
    if (!in) return;
    auto j = nlohmann::json::parse(in, nullptr, false);
    if (!j.is_object()) return;
    for (auto& [hash, value] : j.items()) {
        if (value.is_string()) entries_[hash] = value.get<std::string>();
    }
}

std::string DownloadDestinations::get(const std::string& hash) const {
    auto it = entries_.find(hash);
    return it == entries_.end() ? std::string() : it->second;
}

void DownloadDestinations::set(const std::string& hash, const std::string& path) {
    entries_[hash] = path;
    save();
}

void DownloadDestinations::erase(const std::string& hash) {
    if (entries_.erase(hash) != 0) save();
}

void DownloadDestinations::save() const {
    if (!ensureDirectory(stateDirectory()).empty()) return;
    nlohmann::json j = nlohmann::json::object();
    for (const auto& [hash, path] : entries_)
        j[hash] = path;
    std::string temporary = path_ + ".tmp";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << j.dump(2) << "\n";
        if (!out) return;
    }
    std::error_code ec;
    std::filesystem::rename(temporary, path_, ec);
}

// --- Queue entries -----------------------------------------------------------

std::vector<QueueEntry> queueEntries(const std::vector<ZNVNetworkTaskRef>& tasks) {
    std::vector<TaskIdentity> identities;
    identities.reserve(tasks.size());
    for (const auto& task : tasks)
        identities.push_back(identityOf(task));
    auto ids = shortTaskIds(identities);
    std::vector<QueueEntry> entries;
    for (size_t i = 0; i < tasks.size(); ++i) {
        entries.push_back({tasks[i], ids[i], fullTaskHash(identities[i])});
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
    double fraction = 0;
    if (auto progress = task->progress(); progress && progress->totalUnitCount() > 0) {
        fraction = std::clamp(progress->fractionCompleted(), 0.0, 1.0);
    }
    if (auto upload = std::dynamic_pointer_cast<ZNVStorageUpload>(task)) {
        view.kind = "upload";
        auto source = upload->sourceURL();
        view.subject = source ? source->path() : upload->remoteFilename();
        view.remoteFileID = upload->remoteFileID();
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
        if (auto sessionTask = task->task()) {
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

// --- QueueFile ---------------------------------------------------------------

QueueFile::QueueFile(const std::string& profile)
    : network_(ZNVNetwork::create(configurationFor("http://127.0.0.1/api/", profile))) {
    network_->readState();
}

void QueueFile::save() {
    // No session manager: the save runs here and now.
    network_->beginBatch();
    network_->commitBatch();
}

// --- TransferSession ---------------------------------------------------------

TransferSession::TransferSession(GlobalOptions global)
    : global_(std::move(global)), destinations_(global_.profile) {}

TransferSession::~TransferSession() = default;

TransferSession* TransferSession::open(const GlobalOptions& global, std::string* error,
                                       const std::string& emulatorDataDir) {
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
            if (!session->emulator_.start(dataDir, global.token, 0, 1ull << 30, error)) {
                return nullptr;
            }
            baseURL = session->emulator_.baseURL();
        }
    }
    session->account_ =
        ZNVTokenAccount::createWithToken(configurationFor(baseURL, global.profile), global.token);
    session->storage_ = ZNVStorage::storageForAccount(session->account_);
    if (!session->storage_) {
        *error = "cannot open the task queue";
        return nullptr;
    }
    // Deliberately never destroyed (see the header).
    return session.release();
}

std::shared_ptr<ZNVStorageUpload> TransferSession::addUpload(const std::string& path,
                                                             const std::string& name, bool video,
                                                             bool forceChunks, std::string* error) {
    auto upload = storage_->uploadFromFile(ZNVURL::fileURL(path), name, "", "", video, forceChunks);
    if (!upload) *error = "cannot upload " + path + " (see " + logFilePath() + ")";
    return upload;
}

std::shared_ptr<ZNVNetworkDownload> TransferSession::addDownload(const std::string& url,
                                                                 const std::string& output,
                                                                 std::string* error) {
    auto remote = ZNVURL::fromString(url);
    auto download = remote ? storage_->downloadFromRemoteFile(*remote) : nullptr;
    if (!download) {
        *error = "cannot download " + url + " (see " + logFilePath() + ")";
        return nullptr;
    }
    destinations_.set(fullTaskHash(identityOf(download)), output);
    return download;
}

void TransferSession::save() {
    storage_->beginBatch();
    storage_->commitBatch();
    // The save is encoded and written on the library's own queues.
    storage_->waitUntilStateIsWritten(std::chrono::seconds(20));
}

namespace {

// What the run knows about one task beyond what the library tells.
struct Tracked {
    QueueEntry entry;
    std::string reportedState;  // last state name reported
    int64_t reportedBytes = -1;
    std::chrono::steady_clock::time_point lastProgressEvent{};
    int64_t knownTotal = -1;  // largest total seen (downloads learn it late)
    bool finalizing = false;  // completed; waiting for the content URL or delivery
    bool final = false;       // completion reported
    std::chrono::steady_clock::time_point finalizingSince{};
    std::string contentURL;
    std::string output;
    std::string extraError;  // a failure znv found (HTTP status, delivery)
    bool urlRequested = false;
    // The view once the task is final and reported: it changes no more, so
    // later turns reuse it instead of asking the task again.
    std::optional<TaskView> settledView;
};

// Content URLs arriving on the main queue, read by the run loop.
struct Lookups {
    std::mutex mutex;
    std::map<std::string, std::optional<std::string>> urls;  // guarded by mutex; file ID -> URL
};

// What observers saw between two turns of the loop: every state a task went
// through (a short transfer may start and end between turns), and the URL
// session task of each download as it starts, so that the HTTP status can be
// checked once the download has detached from it.
struct Observed {
    std::mutex mutex;
    std::map<const ZNVNetworkTask*, std::vector<uint64_t>> states;  // guarded by mutex
    std::map<const ZNVNetworkTask*, std::shared_ptr<ZNVURLSessionTask>> sessionTask;  // guarded
};

}  // namespace

RunResult TransferSession::run(Reporter& reporter, const std::vector<ZNVNetworkTaskRef>& tasks) {
    using Clock = std::chrono::steady_clock;
    auto started = Clock::now();
    RunResult result;

    // The run covers the given tasks and every unfinished task of the queue:
    // the library runs those anyway.
    std::vector<ZNVNetworkTaskRef> runTasks = tasks;
    for (const auto& task : storage_->tasks()) {
        bool listed = std::find(runTasks.begin(), runTasks.end(), task) != runTasks.end();
        if (!listed && task->state() != ZNVNetworkTaskStateCompleted) runTasks.push_back(task);
    }

    auto lookups = std::make_shared<Lookups>();
    auto observed = std::make_shared<Observed>();
    std::vector<std::pair<ZNVNetworkTaskRef, ZNVObserverToken>> observations;
    std::vector<Tracked> tracked;
    {
        auto entries = queueEntries(storage_->tasks());
        for (const auto& task : runTasks) {
            auto it = std::find_if(entries.begin(), entries.end(),
                                   [&](const QueueEntry& e) { return e.task == task; });
            if (it == entries.end()) continue;
            Tracked t;
            t.entry = *it;
            bool isDownload = std::dynamic_pointer_cast<ZNVNetworkDownload>(task) != nullptr;
            if (isDownload) t.output = destinations_.get(it->hash);
            std::weak_ptr<ZNVNetworkTask> weakTask = task;
            auto remember = [weakTask, observed, isDownload](const ZNVKeyValueChangeRecord&) {
                auto strong = weakTask.lock();
                if (!strong) return;
                uint64_t state = strong->state();
                auto sessionTask = isDownload ? strong->task() : nullptr;
                std::lock_guard lock(observed->mutex);
                observed->states[strong.get()].push_back(state);
                if (sessionTask) observed->sessionTask[strong.get()] = std::move(sessionTask);
            };
            observations.emplace_back(task, task->addObserver("state", remember));
            tracked.push_back(std::move(t));
        }
    }

    auto viewFor = [&](Tracked& t) {
        TaskView view = viewOf(t.entry);
        if (view.totalBytes >= 0) t.knownTotal = std::max(t.knownTotal, view.totalBytes);
        if (view.totalBytes < 0) view.totalBytes = t.knownTotal;
        view.output = t.output;
        view.contentURL = t.contentURL;
        if (!t.extraError.empty()) view.error = t.extraError;
        if (view.kind == "download" && view.succeeded() && t.final) {
            view.totalBytes = view.completedBytes = fileSize(t.output);
        }
        return view;
    };

    for (auto& t : tracked) {
        TaskView view = viewFor(t);
        reporter.taskAdded(view);
        t.reportedState = "queued";
        if (stateName(view) == "running") {
            reporter.stateChanged(view);
            t.reportedState = "running";
        }
    }

    if (global_.offline) {
        save();
        std::vector<TaskView> views;
        for (auto& t : tracked)
            views.push_back(viewFor(t));
        reporter.note("offline: " + std::to_string(tracked.size()) +
                      " task(s) queued; start them with: znv resume");
        result.tasks = views;
        result.exitStatus = kExitOK;
        return result;
    }
    storage_->refreshAndSave();

    auto lastActivity = Clock::now();
    for (;;) {
        int signal = waitForTerminationSignal(std::chrono::milliseconds(100));
        if (signal != 0) {
            reporter.close();
            save();
            reporter.note(std::string(signal == SIGINT ? "interrupted" : "terminated") +
                          "; the queue is saved. Continue with: znv resume");
            result.exitStatus = exitStatusForSignal(signal);
            for (auto& t : tracked)
                result.tasks.push_back(viewFor(t));
            break;
        }
        auto now = Clock::now();
        std::vector<TaskView> views;
        bool allFinal = true, anyRunning = false;
        for (auto& t : tracked) {
            if (t.settledView) {
                views.push_back(*t.settledView);
                continue;
            }
            // States passed through since the last turn, reported in order
            // (completion is reported below, once it is final).
            std::vector<uint64_t> passed;
            {
                std::lock_guard lock(observed->mutex);
                passed.swap(observed->states[t.entry.task.get()]);
            }
            for (uint64_t state : passed) {
                if (state == ZNVNetworkTaskStateCompleted) continue;
                TaskView step = viewFor(t);
                step.state = state;
                step.error.clear();
                if (stateName(step) != t.reportedState) {
                    reporter.stateChanged(step);
                    t.reportedState = stateName(step);
                    lastActivity = now;
                }
            }
            TaskView view = viewFor(t);
            std::string name = stateName(view);
            if (name == "running") anyRunning = true;

            if (!t.final && view.state == ZNVNetworkTaskStateCompleted && !t.finalizing) {
                t.finalizing = true;
                t.finalizingSince = now;
                if (view.kind == "download" && view.succeeded()) {
                    std::shared_ptr<ZNVURLSessionTask> sessionTask;
                    {
                        std::lock_guard lock(observed->mutex);
                        auto it = observed->sessionTask.find(t.entry.task.get());
                        if (it != observed->sessionTask.end()) sessionTask = it->second;
                    }
                    auto response = sessionTask ? sessionTask->response() : nullptr;
                    auto download = std::dynamic_pointer_cast<ZNVNetworkDownload>(t.entry.task);
                    auto local = download->localFileURL();
                    if (response && response->statusCode() >= 400) {
                        t.extraError =
                            "the server answered HTTP " + std::to_string(response->statusCode());
                    } else if (!local) {
                        t.extraError = "the download finished without a file";
                    } else if (t.output.empty()) {
                        t.extraError = "no destination recorded for this download";
                    } else {
                        t.extraError = deliverFile(local->path(), t.output);
                    }
                    if (t.extraError.empty()) destinations_.erase(t.entry.hash);
                }
                if (view.kind == "upload" && view.succeeded() && !view.remoteFileID.empty()) {
                    t.urlRequested = true;
                    std::string fileID = view.remoteFileID;
                    storage_->URLForRemoteFile(
                        fileID, [lookups, fileID](const std::optional<ZNVURL>& url) {
                            std::lock_guard lock(lookups->mutex);
                            lookups->urls[fileID] =
                                url ? std::optional<std::string>(url->absoluteString())
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
            bool reportable = view.state != ZNVNetworkTaskStateCompleted || t.final;
            if (reportable && name != t.reportedState) {
                reporter.stateChanged(view);
                t.reportedState = name;
                lastActivity = now;
            }
            if (!t.final) allFinal = false;
            if (t.final && t.reportedState == name && t.reportedBytes == view.completedBytes)
                t.settledView = view;
            views.push_back(std::move(view));
        }
        reporter.tick(views);
        if (allFinal) {
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
    for (auto& [task, token] : observations)
        task->removeObserver(token);

    if (result.exitStatus == kExitOK) {
        save();
        reporter.summary(result.tasks);
        for (const auto& view : result.tasks) {
            if (!view.succeeded()) result.exitStatus = kExitFailed;
        }
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - started).count();
    return result;
}

}  // namespace znv::cli

#endif

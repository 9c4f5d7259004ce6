#include "znv/managers/network.h"

#include <fmt/format.h>
#include <netinet/in.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "znv/foundation/device.h"
#include "znv/foundation/log.h"
#include "znv/managers/task_activity.h"
#include "znv/platform/main_queue.h"
#include "znv/platform/url_session.h"

namespace znv {

const char* const ZNVNetwork_TaskDidResumeNotification = "ZNVNetwork: task did resume";
const char* const ZNVNetwork_TaskDidSuspendNotification = "ZNVNetwork: task did suspend";
const char* const ZNVNetwork_TaskDidCompleteNotification = "ZNVNetwork: task did complete";
const char* const ZNVNetwork_TaskKey = "ZNVNetwork: task";
const char* const ZNVNetwork_PreviousTaskStateKey = "ZNVNetwork: previous task state";
const char* const ZNVNetwork_NewTaskStateKey = "ZNVNetwork: new task state";
const char* const ZNVNetwork_TaskDidResumeBackgroundNotification =
    "ZNVNetwork background: task did resume";
const char* const ZNVNetwork_TaskDidSuspendBackgroundNotification =
    "ZNVNetwork background: task did suspend";
const char* const ZNVNetwork_TaskDidCompleteBackgroundNotification =
    "ZNVNetwork background: task did complete";

namespace {

constexpr uint64_t kDownloadCapacity = 2;

// A one-element index set for a position, or an empty set for "absent".
ZNVIndexSet positionSet(size_t position, size_t count) {
    if (position >= count) return {};
    return ZNVIndexSet{static_cast<uint64_t>(position)};
}

// The description of a list of tasks as the log shows it: "(\n    a,\n    b\n)".
std::string describeTasks(const std::vector<ZNVNetworkTaskRef>& tasks) {
    std::string text = "(";
    for (size_t i = 0; i < tasks.size(); ++i) {
        text += "\n    " + tasks[i]->description();
        if (i + 1 < tasks.size()) text += ",";
    }
    text += "\n)";
    return text;
}

}  // namespace

struct ZNVNetwork::RecoveryTimer {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<ZNVDate> deadline;  // guarded by mutex
    bool stopped = false;             // guarded by mutex
    bool running = false;             // guarded by mutex
};

// ---------------------------------------------------------------------------
// ZNVNetworkBackground

std::shared_ptr<ZNVNetworkBackground> ZNVNetworkBackground::backgroundForNetwork(ZNVNetwork*) {
    return nullptr;
}

std::shared_ptr<ZNVNetworkBackground> ZNVNetworkBackground::backgroundForStorage(ZNVStorage*) {
    return nullptr;
}

std::function<void()> ZNVNetworkBackground::networkSessionCompletion() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return networkSessionCompletion_;
}

void ZNVNetworkBackground::setNetworkSessionCompletion(std::function<void()> completion) {
    std::lock_guard<std::mutex> lock(mutex_);
    networkSessionCompletion_ = std::move(completion);
}

// ---------------------------------------------------------------------------
// Creation

std::shared_ptr<ZNVNetwork> ZNVNetwork::create(ZNVAccountConfigurationRef configuration) {
    return std::shared_ptr<ZNVNetwork>(new ZNVNetwork(std::move(configuration)));
}

ZNVNetwork::ZNVNetwork(ZNVAccountConfigurationRef configuration)
    : accountConfiguration_(std::move(configuration)),
      downloadActivity_(ZNVTaskActivityIndex::create()),
      recoveryTimer_(std::make_shared<RecoveryTimer>()) {
    // Class set-up, once per process.
    static std::once_flag classSetUp;
    std::call_once(classSetUp, [] { ZNVNetworkDevice_enableBatteryMonitoring(); });
    // Watch the IPv6 wildcard address, that is "the network" as a whole.
    sockaddr_in6 wildcard{};
    wildcard.sin6_family = AF_INET6;
    reachabilityManager_ = ZNVReachabilityManager::createWithAddress(
        reinterpret_cast<const sockaddr*>(&wildcard), sizeof(wildcard));
}

spdlog::logger& ZNVNetwork::log() {
    return ZNVLog();
}

ZNVNetwork::~ZNVNetwork() {
    {
        std::lock_guard<std::mutex> lock(recoveryTimer_->mutex);
        recoveryTimer_->stopped = true;
        recoveryTimer_->changed.notify_all();
    }
    for (auto token : notificationTokens_) {
        ZNVNotificationCenter::defaultCenter().removeObserver(token);
    }
    if (reachabilityManager_) reachabilityManager_->stopMonitoring();
    std::lock_guard<std::mutex> lock(collectionsMutex_);
    mutableDownloads_.clear();
    mutableTasks_.clear();
    taskSet_.clear();
}

std::string ZNVNetwork::description() const {
    auto session = sessionManager();
    return fmt::format("<{}: {}>: {}", className(), static_cast<const void*>(this),
                       session ? session->description() : std::string("(null)"));
}

std::shared_ptr<ZNVNetworkSessionManager> ZNVNetwork::sessionManager() const {
    std::lock_guard<std::mutex> lock(sessionMutex_);
    return sessionManager_;
}

std::vector<ZNVNetworkTaskRef> ZNVNetwork::tasks() const {
    return taskSnapshot().toVector();
}

std::vector<ZNVNetworkDownloadRef> ZNVNetwork::downloads() const {
    assertValidDownloadCount();
    return downloadSnapshot().toVector();
}

ZNVTaskList<ZNVNetworkTask>::Snapshot ZNVNetwork::taskSnapshot() const {
    std::lock_guard<std::mutex> lock(collectionsMutex_);
    return mutableTasks_.snapshot();
}

ZNVTaskList<ZNVNetworkDownload>::Snapshot ZNVNetwork::downloadSnapshot() const {
    std::lock_guard<std::mutex> lock(collectionsMutex_);
    return mutableDownloads_.snapshot();
}

void ZNVNetwork::incrementBackgroundActivity() const {
    if (auto background = backgroundManager_) background->incrementBackgroundActivity();
}

void ZNVNetwork::decrementBackgroundActivity() const {
    if (auto background = backgroundManager_) background->decrementBackgroundActivity();
}

std::shared_ptr<ZNVNetworkBackground> ZNVNetwork::createBackgroundManager() {
    return ZNVNetworkBackground::backgroundForNetwork(this);
}

// ---------------------------------------------------------------------------
// Launch

void ZNVNetwork::launch() {
    readState();

    auto session = ZNVNetworkSessionManager::create(accountConfiguration_, shared_from_this());
    {
        std::lock_guard<std::mutex> lock(sessionMutex_);
        sessionManager_ = session;
    }

    std::weak_ptr<ZNVNetwork> weak = weakSelf();
    if (session) {
        // Only this manager's tasks: their notifications name its session manager.
        auto& center = ZNVNotificationCenter::defaultCenter();
        notificationTokens_.push_back(
            center.addObserver(ZNVNetworkTask_DidChangeStateNotification, session.get(),
                               [weak](const ZNVNotification& notification) {
                                   if (auto self = weak.lock())
                                       self->forwardTaskNotification(notification);
                               }));
        notificationTokens_.push_back(
            center.addObserver(ZNVNetworkTask_DidChangeStateBackgroundNotification, session.get(),
                               [weak](const ZNVNotification& notification) {
                                   if (auto self = weak.lock())
                                       self->handleBackgroundNetworkTaskNotification(notification);
                               }));
    }

    backgroundManager_ = createBackgroundManager();

    if (session) session->launch();

    reachabilityManager_->startMonitoring([weak](bool /*reachable*/, ZNVReachabilityFlags) {
        ZNVMainQueue::async([weak] {
            if (auto self = weak.lock()) self->refreshAndSave();
        });
    });

    connectSessionToDownloads();
    networkIsLaunched_ = true;
    scheduleRefreshAndSave();
}

void ZNVNetwork::scheduleRefreshAndSave() {
    std::weak_ptr<ZNVNetwork> weak = weakSelf();
    ZNVMainQueue::async([weak] {
        if (auto self = weak.lock()) self->refreshAndSave();
    });
}

// ---------------------------------------------------------------------------
// Tasks

bool ZNVNetwork::hasTask(const ZNVNetworkTaskRef& task) const {
    if (!task) return false;
    std::lock_guard<std::mutex> lock(collectionsMutex_);
    return taskSet_.count(task.get()) != 0;
}

ZNVNetwork::MutationScope::MutationScope(ZNVNetwork& network) : network_(network) {
    network_.mutationMutex_.lock();
    ++network_.mutationDepth_;
}

ZNVNetwork::MutationScope::~MutationScope() {
    size_t refreshes = 0;
    if (--network_.mutationDepth_ == 0)
        refreshes = std::exchange(network_.refreshesAfterChange_, 0);
    network_.mutationMutex_.unlock();
    for (size_t i = 0; i < refreshes; ++i)
        network_.scheduleRefreshAndSave();
}

void ZNVNetwork::scheduleRefreshAfterChange() {
    MutationScope scope(*this);
    ++refreshesAfterChange_;
}

void ZNVNetwork::addTask(const ZNVNetworkTaskRef& task) {
    MutationScope mutation(*this);
    if (!task || hasTask(task)) return;
    incrementBackgroundActivity();
    assertValidDownloadCount();

    auto download = std::dynamic_pointer_cast<ZNVNetworkDownload>(task);
    ZNVIndexSet downloadPosition;
    ZNVIndexSet taskPosition;
    {
        std::lock_guard<std::mutex> lock(collectionsMutex_);
        downloadPosition = ZNVIndexSet{static_cast<uint64_t>(mutableDownloads_.size())};
        taskPosition = ZNVIndexSet{static_cast<uint64_t>(mutableTasks_.size())};
    }
    task->setQueueConfiguration(accountConfiguration_);
    if (download) willChange("downloads", ZNVKeyValueChange::Insertion, downloadPosition);
    willChange("tasks", ZNVKeyValueChange::Insertion, taskPosition);
    {
        std::lock_guard<std::mutex> lock(collectionsMutex_);
        mutableTasks_.append(task);
        taskSet_.insert(task.get());
    }
    // The state file holds only the task list, so saving before the download
    // joins its sub-collection loses nothing.
    writeState();
    didChange("tasks", ZNVKeyValueChange::Insertion, taskPosition);
    if (download) {
        {
            std::lock_guard<std::mutex> lock(collectionsMutex_);
            mutableDownloads_.append(download);
        }
        downloadActivity_->add(download);
        didChange("downloads", ZNVKeyValueChange::Insertion, downloadPosition);
    }
    assertValidDownloadCount();
    if (!isReadingState()) scheduleRefreshAfterChange();
    decrementBackgroundActivity();
}

void ZNVNetwork::finishTask(const ZNVNetworkTaskRef& task) {
    MutationScope mutation(*this);
    if (!task) return;
    ZNVIndexSet taskPosition;
    bool inDownloads = false;
    {
        std::lock_guard<std::mutex> lock(collectionsMutex_);
        taskPosition =
            positionSet(mutableTasks_.indexOfIdentical(task.get()), mutableTasks_.size());
        inDownloads = mutableDownloads_.indexOfIdentical(task.get()) < mutableDownloads_.size();
    }
    if (taskPosition.empty()) return;
    assertValidDownloadCount();

    // Both "downloads" announcements carry the position in "tasks", and the
    // completing one is made for every finished task; observers of "downloads"
    // rely on exactly this pairing.
    if (inDownloads) willChange("downloads", ZNVKeyValueChange::Removal, taskPosition);
    willChange("tasks", ZNVKeyValueChange::Removal, taskPosition);
    {
        std::lock_guard<std::mutex> lock(collectionsMutex_);
        mutableTasks_.removeIdentical(task.get());
        taskSet_.erase(task.get());
        mutableDownloads_.removeIdentical(task.get());
    }
    if (inDownloads) downloadActivity_->remove(task.get());
    const uint64_t savesBefore = saveGeneration_->load();
    writeState();
    const uint64_t save = saveGeneration_->load();
    didChange("tasks", ZNVKeyValueChange::Removal, taskPosition);
    didChange("downloads", ZNVKeyValueChange::Removal, taskPosition);
    assertValidDownloadCount();
    // The task's files go once a save without it is on disk (at once when no
    // save was asked for): a crash before that restores it with its files.
    std::function<void()> removeFiles = task->takeFilesToRemoveOnFinish();
    task->taskDidFinish();
    if (!removeFiles) return;
    if (isBatchingSave()) {
        // The batch's save is the one without the task.
        std::lock_guard<std::mutex> lock(batchMutex_);
        batchRemovals_.push_back(std::move(removeFiles));
    } else {
        removeOnceSaved(savesBefore, save, std::move(removeFiles));
    }
}

ZNVNetworkDownloadRef ZNVNetwork::downloadFromRemoteFile(const ZNVURL& remoteURL) {
    auto download = ZNVNetworkDownload::create(remoteURL, sessionManager());
    if (download && download->error()) {
        ZNVLogError("failed to initiate download: {}", download->error()->description());
        download = nullptr;
    }
    addTask(download);
    return download;
}

void ZNVNetwork::beginBatch() {
    batchingSave_ = true;
}

void ZNVNetwork::commitBatch() {
    batchingSave_ = false;
    std::vector<std::function<void()>> removals;
    {
        std::lock_guard<std::mutex> lock(batchMutex_);
        removals.swap(batchRemovals_);
    }
    const uint64_t savesBefore = saveGeneration_->load();
    writeState();
    const uint64_t save = saveGeneration_->load();
    for (auto& removeFiles : removals)
        removeOnceSaved(savesBefore, save, std::move(removeFiles));
}

// Runs `removeFiles` once the save numbered `save` is on disk; at once when
// none was asked for since `savesBefore`.
void ZNVNetwork::removeOnceSaved(uint64_t savesBefore, uint64_t save,
                                 std::function<void()> removeFiles) {
    if (save == savesBefore) {
        removeFiles();
    } else {
        stateWriter_->afterWritten(save, std::move(removeFiles));
    }
}

// ---------------------------------------------------------------------------
// Activity

bool ZNVNetwork::refreshTaskActivity() {
    if (!networkIsLaunched()) return false;
    return refreshDownloadActivity();
}

void ZNVNetwork::refreshAndSave() {
    auto session = sessionManager();
    if (!session) {
        ZNVLogDefault("No session manager available to serialize refresh.");
        return;
    }
    // Every request runs its own refresh: each one re-reads the collection and
    // the conditions when it runs, and observers see one round of activation
    // lines per request.
    std::weak_ptr<ZNVNetwork> weak = weakSelf();
    session->performBackgroundSessionBlock([weak] {
        auto self = weak.lock();
        if (!self) return;
        if (self->refreshTaskActivity()) self->writeState();
    });
}

void ZNVNetwork::planRecoveryRefresh(const std::vector<ZNVNetworkTaskRef>& tasks) {
    std::optional<ZNVDate> earliest;
    for (const auto& task : tasks) {
        if (!task || !task->settledHasRawError()) continue;
        if (std::optional<ZNVDate> date = task->nextRecoveryDate()) {
            if (!earliest || *date < *earliest) earliest = date;
        }
    }
    if (!earliest) return;
    std::shared_ptr<RecoveryTimer> timer = recoveryTimer_;
    if (!timer) return;
    std::lock_guard<std::mutex> lock(timer->mutex);
    if (timer->stopped || (timer->deadline && *timer->deadline <= *earliest)) return;
    timer->deadline = earliest;
    timer->changed.notify_all();
    if (timer->running) return;
    timer->running = true;
    std::weak_ptr<ZNVNetwork> weak = weakSelf();
    std::thread([timer, weak] {
        std::unique_lock<std::mutex> lock(timer->mutex);
        while (!timer->stopped) {
            if (!timer->deadline) {
                timer->changed.wait(lock);
                continue;
            }
            const auto remaining = *timer->deadline - ZNVNetworkTask::now();
            if (remaining > ZNVDate::duration::zero()) {
                // Bounded waits follow a clock that tests move by hand.
                timer->changed.wait_for(
                    lock, std::min<ZNVDate::duration>(remaining, std::chrono::seconds(1)));
                continue;
            }
            timer->deadline.reset();
            lock.unlock();
            if (auto self = weak.lock()) self->refreshAndSave();
            lock.lock();
        }
        timer->running = false;
    }).detach();
}

bool ZNVNetwork::isReachableEvenInBackground() const {
    const bool pluggedIn = ZNVNetworkDevice_deviceIsPluggedIn();
    const bool batteryIsGood = ZNVNetworkDevice_batteryLevelIsGood();
    const bool inBackground = ZNVNetworkDevice_appIsInBackground();
    return reachabilityManager_->isReachable() && (pluggedIn || batteryIsGood || !inBackground);
}

void ZNVNetwork::prepareTasksForActivation(const std::vector<ZNVNetworkTaskRef>& tasks,
                                           bool reachableNetwork) {
    // Both calls begin by checking what the settled values tell without a
    // lock: only a running task can have stalled, and only a task with a raw
    // error can recover.
    for (const auto& task : tasks) {
        if (!task) continue;
        if (reachableNetwork && task->settledState() == ZNVNetworkTaskStateRunning)
            task->automaticallyResumeFromStall();
        if (task->settledHasRawError()) task->automaticallyRecoverFromError();
    }
}

bool ZNVNetwork::activateTasks(uint64_t count, const std::vector<ZNVNetworkTaskRef>& collection,
                               const std::string& taskDescription) {
    std::vector<ZNVNetworkTaskRef> selected;
    uint64_t room = count;
    for (const auto& task : collection) {
        if (!task || task->settledState() != ZNVNetworkTaskStateSuspended) continue;
        if (room > 0) {
            selected.push_back(task);
            --room;
        } else if (task->needsEarlyActivation()) {
            selected.push_back(task);
        }
    }
    return activateSelected(count, selected, taskDescription);
}

bool ZNVNetwork::activateSelected(uint64_t count, const std::vector<ZNVNetworkTaskRef>& selected,
                                  const std::string& taskDescription) {
    ZNVLogInfo("Have capacity to activate {} more {}(s) ...", count, taskDescription);
    if (selected.empty()) {
        ZNVLogInfo("   No suspended {}(s) left to activate.", taskDescription);
    } else {
        ZNVLogInfo("   Activating {}(s): {}", taskDescription, describeTasks(selected));
    }
    bool resumed = false;
    for (const auto& task : selected) {
        if (task->resumeForManager()) resumed = true;
    }
    return resumed;
}

uint64_t ZNVNetwork::logActiveCount(uint64_t active, const char* taskDescription) {
    ZNVLogInfo("{} {}(s) are currently active.", active, taskDescription);
    return active;
}

bool ZNVNetwork::runActivationRound(ZNVTaskActivityIndex& index, const ActivationRound& round) {
    // The index names the few tasks a round acts on (running, recovering,
    // the first suspended ones), so a round costs the same whether a hundred
    // or a hundred thousand tasks wait behind them.
    prepareTasksForActivation(index.tasksToPrepare(), round.reachable);
    planRecoveryRefresh(index.tasksWithRawError());
    const uint64_t active = logActiveCount(index.runningCount(), round.taskDescription);
    if (active >= round.capacity) return false;
    if (round.blocked) {
        ZNVLogInfo("{}", round.blocked);
        return false;
    }
    const uint64_t room = round.capacity - active;
    return activateSelected(room, index.tasksToActivate(room), round.taskDescription);
}

uint64_t ZNVNetwork::activeDownloadCount() const {
    return logActiveCount(downloadActivity_->runningCount(), "download");
}

bool ZNVNetwork::refreshDownloadActivity() {
    const bool reachable = isReachableEvenInBackground();
    const bool pluggedIn = ZNVNetworkDevice_deviceIsPluggedIn();
    assertValidDownloadCount();
    const char* blocked = nullptr;
    if (!reachable) {
        blocked = pluggedIn ? "Network must be reachable before downloads can be activated."
                            : "Device must be plugged in before downloads can be activated.";
    }
    return runActivationRound(*downloadActivity_,
                              {"download", kDownloadCapacity, reachable, blocked});
}

void ZNVNetwork::recycleDiscretionaryTasksIfNeeded() {
    if (ZNVNetworkDevice_appIsInBackground()) return;
    if (ZNVNetworkDevice_deviceIsPluggedIn()) {
        ZNVLogInfo("Not recycling discretionary tasks because {}.", "device is plugged in");
        return;
    }
    if (ZNVNetworkDevice_batteryLevelIsGood()) {
        ZNVLogInfo("Not recycling discretionary tasks because {}.", "battery level is good");
        return;
    }
    ZNVLogInfo("recycling discretionary tasks:");
    for (const auto& task : tasks()) {
        if (!task || !task->isDiscretionary()) continue;
        ZNVLogInfo("   {} automatically cancelling task", task->description());
        task->cancelTaskWithRecoverableErrorMessage(
            "Discretionary URL session task intentionally cancelled to restart in the "
            "foreground.");
    }
}

void ZNVNetwork::connectSessionToDownloads() {
    auto session = sessionManager();
    for (const auto& download : downloads())
        download->connectToSession(session, nullptr);
    if (!session) return;
    std::weak_ptr<ZNVNetwork> weak = weakSelf();
    std::weak_ptr<ZNVNetworkSessionManager> weakSession = session;
    session->getTasksWithCompletionHandler(
        [weak, weakSession](
            const std::vector<std::shared_ptr<ZNVURLSessionDataTask>>& /*data*/,
            const std::vector<std::shared_ptr<ZNVURLSessionUploadTask>>& /*upload*/,
            const std::vector<std::shared_ptr<ZNVURLSessionDownloadTask>>& download) {
            auto self = weak.lock();
            if (!self) return;
            auto session = weakSession.lock();
            ZNVLogInfo("reconciling {} downloads against {} session download tasks",
                       self->downloads().size(), download.size());
            for (const auto& task : download) {
                if (auto found = self->downloadForTask(task))
                    found->connectToSession(session, task);
            }
        });
}

// ---------------------------------------------------------------------------
// Session manager delegate

ZNVNetworkDownloadRef ZNVNetwork::downloadForTask(
    const std::shared_ptr<ZNVURLSessionTask>& task) const {
    if (!task || !ZNVNetworkSessionManager::taskIsForDownload(task)) return nullptr;
    const uint64_t identifier = task->taskIdentifier();
    // A callback normally comes from a download that is running: those are
    // few, so they are asked first (progress arrives many times a second),
    // and the whole collection only when none of them has the task. Session
    // task identifiers are unique among the downloads, so the order of the
    // search does not change the answer.
    for (const auto& busy : downloadActivity_->tasksToPrepare()) {
        if (busy->taskIdentifier() == identifier) {
            return std::static_pointer_cast<ZNVNetworkDownload>(busy);
        }
    }
    for (const auto& download : downloadSnapshot()) {
        if (download->taskIdentifier() == identifier) return download;
    }
    return nullptr;
}

void ZNVNetwork::didFinishDownloadingToURL(
    const std::shared_ptr<ZNVNetworkSessionManager>& /*manager*/,
    const std::shared_ptr<ZNVURLSessionDownloadTask>& task, const ZNVURL& location) {
    incrementBackgroundActivity();
    auto download = downloadForTask(task);
    if (!download) {
        ZNVLogInfo("no download found for {}", task ? task->taskDescription() : std::string());
    } else {
        download->handleDownloadedFile(location);
        // Until a save names the file, the journal does: killed before that
        // save, the relaunch removes it (the download runs again).
        if (const std::optional<ZNVURL> local = download->localFileURL()) {
            ZNVRemoteFileJournal::Entry entry;
            entry.downloadedFile = std::filesystem::path(local->path()).filename().string();
            entry.downloadedFrom = location.path();
            if (const uint64_t recorded = recordRemoteFileID(entry)) {
                forgetRemoteFileIDsAfterNextSave(recorded);
            }
        }
    }
    decrementBackgroundActivity();
}

void ZNVNetwork::didCompleteWithData(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                                     const std::shared_ptr<ZNVURLSessionTask>& task,
                                     const std::optional<ZNVBytes>& /*data*/,
                                     const ZNVErrorRef& error) {
    incrementBackgroundActivity();
    if (auto download = downloadForTask(task)) {
        download->connectToSession(manager, task);
        download->handleCompletionWithError(error);
    }
    decrementBackgroundActivity();
}

void ZNVNetwork::didUpdateProgress(const std::shared_ptr<ZNVNetworkSessionManager>& /*manager*/,
                                   const std::shared_ptr<ZNVURLSessionTask>& task, float progress) {
    auto download = downloadForTask(task);
    // A download whose archive just gained the resume data of its running
    // transfer is saved, so that a kill from here on loses none of its bytes.
    if (download && download->handleProgress(progress)) writeState();
}

void ZNVNetwork::sessionManagerDidFinishBackgroundSessionEvents(
    const std::shared_ptr<ZNVNetworkSessionManager>& manager) {
    invokeNetworkSessionCompletionWithDescription(
        manager ? manager->sessionIdentifier().value_or("(null)") : std::string("(null)"));
}

// ---------------------------------------------------------------------------
// Background session completion

void ZNVNetwork::setCompletionHandler(std::function<void()> handler,
                                      const std::string& forBackgroundURLSession) {
    auto background = backgroundManager();
    if (background && background->networkSessionCompletion()) {
        ZNVLogDefault("A previous network session completion handler already existed.");
    }
    auto session = sessionManager();
    std::optional<std::string> ownIdentifier;
    if (session) ownIdentifier = session->sessionIdentifier();
    if (ownIdentifier && *ownIdentifier == forBackgroundURLSession) {
        ZNVLogInfo("storing background URL session completion handler ...");
        if (background) background->setNetworkSessionCompletion(std::move(handler));
        return;
    }
    ZNVLogDefault(
        "Failed to process tasks for {} with network session {}\nCanceling previous tasks.",
        forBackgroundURLSession, ownIdentifier.value_or("(null)"));
    if (handler) handler();
}

void ZNVNetwork::invokeNetworkSessionCompletionWithDescription(const std::string& description) {
    auto background = backgroundManager();
    if (background && background->networkSessionCompletion()) {
        ZNVLogInfo("   dispatching background URL session completion handler: {}", description);
    } else {
        ZNVLogInfo("   no completion available for background: {}", description);
    }
    // The stored completion is released without being called: the session's
    // events are over and nothing waits for it on this platform.
    if (background) background->setNetworkSessionCompletion(nullptr);
}

// ---------------------------------------------------------------------------
// Notifications

namespace {

// What a task's state-change notification tells (absent values read as 0).
struct TaskStateChange {
    ZNVNetworkTaskRef task;
    uint64_t previousState = 0;
    uint64_t newState = 0;
};

TaskStateChange taskStateChangeOf(const ZNVNotification& notification) {
    TaskStateChange change;
    if (const auto* task =
            ZNVNotificationValue<ZNVNetworkTaskRef>(notification, ZNVNetworkTask_TaskKey)) {
        change.task = *task;
    }
    if (const auto* previous =
            ZNVNotificationValue<uint64_t>(notification, ZNVNetworkTask_PreviousStateKey)) {
        change.previousState = *previous;
    }
    if (const auto* current =
            ZNVNotificationValue<uint64_t>(notification, ZNVNetworkTask_NewStateKey)) {
        change.newState = *current;
    }
    return change;
}

}  // namespace

void ZNVNetwork::forwardTaskNotification(const ZNVNotification& notification) {
    const TaskStateChange change = taskStateChangeOf(notification);
    ZNVNotificationUserInfo userInfo;
    userInfo[ZNVNetwork_TaskKey] = change.task;
    userInfo[ZNVNetwork_PreviousTaskStateKey] = change.previousState;
    userInfo[ZNVNetwork_NewTaskStateKey] = change.newState;

    const char* name = nullptr;
    switch (change.newState) {
        case ZNVNetworkTaskStateSuspended:
            name = ZNVNetwork_TaskDidSuspendNotification;
            break;
        case ZNVNetworkTaskStateRunning:
            name = ZNVNetwork_TaskDidResumeNotification;
            break;
        case ZNVNetworkTaskStateCompleted:
            name = ZNVNetwork_TaskDidCompleteNotification;
            break;
        default:
            return;
    }
    ZNVNotificationCenter::defaultCenter().post(name, this, std::move(userInfo));
}

void ZNVNetwork::handleBackgroundNetworkTaskNotification(const ZNVNotification& notification) {
    const TaskStateChange change = taskStateChangeOf(notification);
    if (change.newState == ZNVNetworkTaskStateRunning) {
        if (change.previousState != ZNVNetworkTaskStateRunning && change.task &&
            change.task->needsEarlyActivation()) {
            writeState();
        }
        return;
    }
    refreshTaskActivity();
    writeState();
}

void ZNVNetwork::handleDidEnterBackgroundNotification(const ZNVNotification&) {
    commitBatch();
}

void ZNVNetwork::handleDidBecomeActiveNotification(const ZNVNotification&) {
    recycleDiscretionaryTasksIfNeeded();
    refreshAndSave();
}

// ---------------------------------------------------------------------------
// Invalidation

void ZNVNetwork::invalidateClientAndCancelTasks() {
    MutationScope mutation(*this);
    if (auto session = sessionManager()) session->invalidate();

    size_t taskCount = 0;
    size_t downloadCount = 0;
    {
        std::lock_guard<std::mutex> lock(collectionsMutex_);
        taskCount = mutableTasks_.size();
        downloadCount = mutableDownloads_.size();
    }
    const auto taskRange = ZNVIndexSet::withRange(0, taskCount);
    const auto downloadRange = ZNVIndexSet::withRange(0, downloadCount);
    if (taskCount > 0) {
        assertValidDownloadCount();
        if (downloadCount > 0) willChange("downloads", ZNVKeyValueChange::Removal, downloadRange);
        willChange("tasks", ZNVKeyValueChange::Removal, taskRange);
        {
            std::lock_guard<std::mutex> lock(collectionsMutex_);
            mutableTasks_.clear();
            taskSet_.clear();
            mutableDownloads_.clear();
        }
        downloadActivity_->clear();
        commitBatch();
        didChange("tasks", ZNVKeyValueChange::Removal, taskRange);
        if (downloadCount > 0) didChange("downloads", ZNVKeyValueChange::Removal, downloadRange);
        assertValidDownloadCount();
    }
    invalidated_ = true;

    std::lock_guard<std::mutex> lock(sessionMutex_);
    sessionManager_ = nullptr;
}

}  // namespace znv

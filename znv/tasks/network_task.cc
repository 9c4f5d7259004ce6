#include "znv/tasks/network_task.h"

#include <fmt/format.h>

#include <algorithm>
#include <any>
#include <atomic>
#include <random>
#include <type_traits>
#include <utility>
#include <variant>

#include "znv/foundation/device.h"
#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/platform/keyed_archive.h"
#include "znv/platform/main_queue.h"
#include "znv/platform/notification_center.h"
#include "znv/platform/progress.h"
#include "znv/platform/url_session.h"
#include "znv/platform/url_session_resume_data.h"
#include "znv/session/network_session_manager.h"

namespace znv {

const char* const ZNVNetworkTask_DidChangeStateNotification = "ZNVNetworkTask: did change state";
const char* const ZNVNetworkTask_DidChangeStateBackgroundNotification =
    "ZNVNetworkTask background: did change state";
const char* const ZNVNetworkTask_TaskKey = "ZNVNetworkTask: task";
const char* const ZNVNetworkTask_PreviousStateKey = "ZNVNetworkTask: previous state";
const char* const ZNVNetworkTask_NewStateKey = "ZNVNetworkTask: new state";

namespace {

constexpr uint64_t kNoTaskIdentifier = static_cast<uint64_t>(ZNVNotFound);

// The installed time source; guarded by clockMutex.
std::mutex clockMutex;
ZNVNetworkTask::Clock& installedClock() {
    static ZNVNetworkTask::Clock clock;
    return clock;
}

// The scale of recovery waits; guarded by clockMutex.
double recoveryDelayScale = 1.0;

// The wait before the `n`-th recovery in a row from `error`, in seconds.
double recoveryDelayFor(uint64_t n, const ZNVErrorRef& error) {
    double ceiling = ZNVNetworkTaskRecoveryDelayBase;
    for (uint64_t i = 1; i < n && ceiling < ZNVNetworkTaskRecoveryDelayLongest; ++i)
        ceiling *= 2;
    ceiling = std::min(ceiling, ZNVNetworkTaskRecoveryDelayLongest);
    static thread_local std::mt19937_64 random{std::random_device{}()};
    double wait = std::uniform_real_distribution<double>(0.0, ceiling)(random);
    if (error) {
        if (const ZNVUserInfoValue* value = error->value(ZNVURLErrorRetryAfterKey)) {
            if (const double* asked = std::get_if<double>(value)) wait = std::max(wait, *asked);
        }
    }
    return wait;
}

// Whether a user-info map is present (an error without entries counts as none).
const ZNVUserInfo* userInfoOf(const ZNVErrorRef& error) {
    if (!error || error->userInfo().empty()) return nullptr;
    return &error->userInfo();
}

// Observes a URL session task's "state" with the initial-value option. A URL
// session task type without observable properties gets the initial call only.
template <class SessionTask>
ZNVObserverToken observeTaskState(SessionTask& task, std::function<void()> onChange) {
    if constexpr (std::is_base_of_v<ZNVObservable, SessionTask>) {
        return task.addObserver(
            "state", [onChange](const ZNVKeyValueChangeRecord&) { onChange(); },
            ZNVKeyValueObservingOptionInitial);
    } else {
        onChange();
        return 0;
    }
}

template <class SessionTask>
void stopObservingTaskState(SessionTask& task, ZNVObserverToken token) {
    if constexpr (std::is_base_of_v<ZNVObservable, SessionTask>) {
        if (token != 0) task.removeObserver(token);
    } else {
        (void)task;
        (void)token;
    }
}

}  // namespace

std::string ZNVNetworkTaskStateName(uint64_t state) {
    switch (state) {
        case ZNVNetworkTaskStateRunning:
            return "running";
        case ZNVNetworkTaskStateCompleted:
            return "completed";
        default:
            return "suspended";
    }
}

// ---------------------------------------------------------------------------
// Clock

void ZNVNetworkTask::setClock(Clock clock) {
    std::lock_guard<std::mutex> lock(clockMutex);
    installedClock() = std::move(clock);
}

void ZNVNetworkTask::setRecoveryDelayScale(double scale) {
    std::lock_guard<std::mutex> lock(clockMutex);
    recoveryDelayScale = scale;
}

ZNVDate ZNVNetworkTask::now() {
    Clock clock;
    {
        std::lock_guard<std::mutex> lock(clockMutex);
        clock = installedClock();
    }
    return clock ? clock() : std::chrono::system_clock::now();
}

// ---------------------------------------------------------------------------
// Locking

ZNVNetworkTask::Lock::Lock(const ZNVNetworkTask& task) : task_(task) {
    task_.mutex_.lock();
    ++task_.lockDepth_;
}

ZNVNetworkTask::Lock::Lock(ZNVNetworkTask& task) : Lock(std::as_const(task)) {
    task.archiveRevision_.store(nextArchiveRevision(), std::memory_order_release);
}

uint64_t ZNVNetworkTask::nextArchiveRevision() {
    static std::atomic<uint64_t> counter{0};
    return counter.fetch_add(1, std::memory_order_relaxed) + 1;
}

ZNVNetworkTask::Lock::~Lock() {
    std::vector<std::function<void()>> work;
    if (--task_.lockDepth_ == 0) {
        work.swap(task_.afterUnlock_);
        const bool hasRawError = static_cast<bool>(task_.rawError_);
        // Each value is stored whatever the others did (no short circuit).
        const bool stateChanged =
            task_.settledState_.exchange(task_.state_, std::memory_order_acq_rel) != task_.state_;
        const bool errorChanged = task_.settledHasRawError_.exchange(
                                      hasRawError, std::memory_order_acq_rel) != hasRawError;
        const bool earlyChanged = task_.settledNeedsEarlyActivation_.exchange(
                                      task_.needsEarlyActivation_, std::memory_order_acq_rel) !=
                                  task_.needsEarlyActivation_;
        const bool changed = stateChanged || errorChanged || earlyChanged;
        // Told under the lock, so the observer sees one task's changes in order.
        if (changed) {
            if (auto observer = task_.settledObserver_.lock())
                observer->taskSettledValuesChanged(task_);
        }
    }
    task_.mutex_.unlock();
    for (auto& item : work)
        item();
}

void ZNVNetworkTask::afterUnlock(std::function<void()> work) const {
    if (!work) return;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        if (lockDepth_ > 0) {
            afterUnlock_.push_back(std::move(work));
            return;
        }
    }
    work();
}

// ---------------------------------------------------------------------------
// Construction

std::shared_ptr<ZNVNetworkTask> ZNVNetworkTask::create(
    std::optional<ZNVURL> source, std::shared_ptr<ZNVNetworkSessionManager> session) {
    std::shared_ptr<ZNVNetworkTask> task(new ZNVNetworkTask());
    task->initWithSource(std::move(source), std::move(session));
    return task;
}

void ZNVNetworkTask::initWithSource(std::optional<ZNVURL> source,
                                    std::shared_ptr<ZNVNetworkSessionManager> session) {
    Lock lock(*this);
    sourceURL_ = std::move(source);
    taskIdentifier_ = kNoTaskIdentifier;
    session_ = std::move(session);
    startDate_ = now();
    finishTaskInit();
}

void ZNVNetworkTask::finishTaskInit() {
    Lock lock(*this);
    remainingAttemptsForAutomaticErrorRecovery_ = ZNVNetworkTaskAutomaticRecoveryAttempts;
}

ZNVNetworkTask::~ZNVNetworkTask() {
    if (task_) stopObservingTaskState(*task_, taskObservation_);
}

// ---------------------------------------------------------------------------
// Plain accessors

std::optional<ZNVURL> ZNVNetworkTask::sourceURL() const {
    return storedSourceURL();
}

std::optional<ZNVURL> ZNVNetworkTask::storedSourceURL() const {
    Lock lock(*this);
    return sourceURL_;
}

void ZNVNetworkTask::setStoredSourceURL(std::optional<ZNVURL> url) {
    Lock lock(*this);
    sourceURL_ = std::move(url);
}

std::shared_ptr<ZNVProgress> ZNVNetworkTask::progress() const {
    Lock lock(*this);
    return progress_;
}

void ZNVNetworkTask::setProgress(std::shared_ptr<ZNVProgress> progress) {
    Lock lock(*this);
    progress_ = std::move(progress);
}

ZNVErrorRef ZNVNetworkTask::rawError() const {
    Lock lock(*this);
    return rawError_;
}

bool ZNVNetworkTask::freezeProgress() const {
    Lock lock(*this);
    return freezeProgress_;
}

void ZNVNetworkTask::setFreezeProgress(bool freeze) {
    Lock lock(*this);
    freezeProgress_ = freeze;
}

bool ZNVNetworkTask::isDiscretionary() const {
    Lock lock(*this);
    return discretionary_;
}

void ZNVNetworkTask::setDiscretionary(bool discretionary) {
    Lock lock(*this);
    discretionary_ = discretionary;
}

void ZNVNetworkTask::setSettledObserver(std::weak_ptr<ZNVNetworkTaskSettledObserver> observer) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    settledObserver_ = std::move(observer);
}

void ZNVNetworkTask::clearSettledObserver(const ZNVNetworkTaskSettledObserver* observer) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (settledObserver_.lock().get() == observer) settledObserver_.reset();
}

bool ZNVNetworkTask::needsEarlyActivation() const {
    Lock lock(*this);
    return needsEarlyActivation_;
}

void ZNVNetworkTask::setNeedsEarlyActivation(bool needs) {
    Lock lock(*this);
    needsEarlyActivation_ = needs;
}

ZNVNetworkTaskState ZNVNetworkTask::state() const {
    Lock lock(*this);
    return state_;
}

ZNVDate ZNVNetworkTask::startDate() const {
    Lock lock(*this);
    return startDate_;
}

uint64_t ZNVNetworkTask::retryCount() const {
    Lock lock(*this);
    return retryCount_;
}

void ZNVNetworkTask::setRetryCount(uint64_t count) {
    Lock lock(*this);
    retryCount_ = count;
}

uint64_t ZNVNetworkTask::taskIdentifier() const {
    Lock lock(*this);
    return taskIdentifier_;
}

void ZNVNetworkTask::setTaskIdentifier(uint64_t identifier) {
    Lock lock(*this);
    taskIdentifier_ = identifier;
}

uint64_t ZNVNetworkTask::remainingAttemptsForAutomaticErrorRecovery() const {
    Lock lock(*this);
    return remainingAttemptsForAutomaticErrorRecovery_;
}

void ZNVNetworkTask::setRemainingAttemptsForAutomaticErrorRecovery(uint64_t attempts) {
    Lock lock(*this);
    remainingAttemptsForAutomaticErrorRecovery_ = attempts;
}

std::optional<ZNVDate> ZNVNetworkTask::taskStartDate() const {
    Lock lock(*this);
    return taskStartDate_;
}

void ZNVNetworkTask::setTaskStartDate(std::optional<ZNVDate> date) {
    Lock lock(*this);
    taskStartDate_ = date;
}

std::shared_ptr<ZNVURLSessionTask> ZNVNetworkTask::task() const {
    Lock lock(*this);
    return task_;
}

std::shared_ptr<ZNVNetworkSessionManager> ZNVNetworkTask::session() const {
    Lock lock(*this);
    return session_;
}

void ZNVNetworkTask::setSession(const std::shared_ptr<ZNVNetworkSessionManager>& session) {
    Lock lock(*this);
    session_ = session;
}

// ---------------------------------------------------------------------------
// Errors

bool ZNVNetworkTask::errorsAreEqual(const ZNVErrorRef& a, const ZNVErrorRef& b) {
    const ZNVUserInfo* left = userInfoOf(a);
    const ZNVUserInfo* right = userInfoOf(b);
    if (!left && !right) return true;
    if (!left || !right) return false;
    if (left == right) return true;
    if (left->size() != right->size()) return false;
    for (auto l = left->begin(), r = right->begin(); l != left->end(); ++l, ++r) {
        if (l->first != r->first || !ZNVUserInfoValueEqual(l->second, r->second)) return false;
    }
    return true;
}

int64_t ZNVNetworkTask::serverStatusCodeForError(const ZNVErrorRef& error) {
    return ZNVNetworkErrorHandler_serverStatusForError(error);
}

bool ZNVNetworkTask::errorIndicatesManuallyCancelledTask(const ZNVErrorRef& error) {
    return error && !ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(error) &&
           error->domain() == NSURLErrorDomain && error->code() == NSURLErrorCancelled;
}

ZNVErrorRef ZNVNetworkTask::publicErrorFor(const ZNVErrorRef& raw, uint64_t attempts) const {
    if (!raw) return nullptr;
    if (attempts != 0 && ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(raw)) {
        return nullptr;
    }
    return raw;
}

ZNVErrorRef ZNVNetworkTask::error() const {
    Lock lock(*this);
    return publicErrorFor(rawError_, remainingAttemptsForAutomaticErrorRecovery_);
}

void ZNVNetworkTask::setRawError(const ZNVErrorRef& newError) {
    Lock lock(*this);
    if (errorsAreEqual(newError, rawError_)) return;

    ZNVErrorRef oldPublic = publicErrorFor(rawError_, remainingAttemptsForAutomaticErrorRecovery_);
    ZNVErrorRef newPublic = publicErrorFor(newError, remainingAttemptsForAutomaticErrorRecovery_);
    const bool announce = !errorsAreEqual(oldPublic, newPublic) ||
                          static_cast<bool>(oldPublic) != static_cast<bool>(newPublic);
    if (announce) willChangeValueForKey("error");
    rawError_ = newError;
    if (rawError_) {
        ZNVLogInfo("{} {} error: {}", description(),
                   newPublic ? "encountered" : "hiding recoverable",
                   rawError_->localizedDescription());
    }
    setTask(nullptr);
    if (announce) didChangeValueForKey("error");
}

// ---------------------------------------------------------------------------
// The URL session task

void ZNVNetworkTask::setPrimitiveTask(const std::shared_ptr<ZNVURLSessionTask>& task) {
    Lock lock(*this);
    if (task == task_) return;
    disconnectFromTask();
    task_ = task;
    taskStartDate_ = task_ ? std::optional<ZNVDate>(now()) : std::nullopt;
    taskIdentifier_ = task_ ? task_->taskIdentifier() : kNoTaskIdentifier;
    connectToTask();
}

void ZNVNetworkTask::connectToTask() {
    Lock lock(*this);
    if (!task_ || taskObservation_ != 0) return;
    std::weak_ptr<ZNVNetworkTask> weakSelf = weak_from_this();
    taskObservation_ = observeTaskState(*task_, [weakSelf]() {
        if (auto self = weakSelf.lock()) self->applyTaskToState();
    });
}

void ZNVNetworkTask::disconnectFromTask() {
    Lock lock(*this);
    if (task_) stopObservingTaskState(*task_, taskObservation_);
    taskObservation_ = 0;
}

void ZNVNetworkTask::setTask(const std::shared_ptr<ZNVURLSessionTask>& task) {
    Lock lock(*this);
    setPrimitiveTask(task);
    if (!task_) {
        const ZNVErrorRef publicError = error();
        if (publicError) {
            setState(ZNVNetworkTaskStateCompleted);
        } else if (rawError_) {
            setState(ZNVNetworkTaskStateSuspended);
        } else {
            setState(ZNVNetworkTaskStateCompleted);
        }
        discretionary_ = false;
    } else {
        discretionary_ = ZNVNetworkDevice_appIsInBackground();
    }
}

void ZNVNetworkTask::applyTaskToState() {
    Lock lock(*this);
    if (task_ && !rawError_) {
        setState(ZNVNetworkTaskStateRunning);
        return;
    }
    ZNVNetworkTaskState target = ZNVNetworkTaskStateCompleted;
    if (!error() && rawError_) target = ZNVNetworkTaskStateSuspended;
    setState(target);
}

// ---------------------------------------------------------------------------
// State

void ZNVNetworkTask::setState(ZNVNetworkTaskState newState) {
    Lock lock(*this);
    if (newState == state_) return;
    const ZNVNetworkTaskState previous = state_;
    ZNVLogInfo("{} changed from {} to {}.", description(), ZNVNetworkTaskStateName(previous),
               ZNVNetworkTaskStateName(newState));
    willChangeValueForKey("state");
    state_ = newState;
    didChangeValueForKey("state");
    if (newState == ZNVNetworkTaskStateCompleted) applyErrorToProgress();
    postStateChange(previous, newState);
}

void ZNVNetworkTask::postStateChange(ZNVNetworkTaskState previous, ZNVNetworkTaskState current) {
    // Tasks are always owned by a shared pointer once their initialisation
    // steps run; without one there is nobody to tell.
    std::shared_ptr<ZNVNetworkTask> self = weak_from_this().lock();
    if (!self) return;
    ZNVNotificationUserInfo userInfo{
        {ZNVNetworkTask_TaskKey, std::any(self)},
        {ZNVNetworkTask_PreviousStateKey, std::any(static_cast<uint64_t>(previous))},
        {ZNVNetworkTask_NewStateKey, std::any(static_cast<uint64_t>(current))},
    };
    if (std::shared_ptr<ZNVNetworkSessionManager> session = session_) {
        // The session manager may run the job synchronously (while its queue is
        // suspended), so it is handed over once this task's lock is released.
        afterUnlock([self, session, userInfo]() {
            session->performBackgroundSessionBlock([self, userInfo]() {
                const void* sender = self->session().get();
                ZNVNotificationCenter::defaultCenter().post(
                    ZNVNetworkTask_DidChangeStateBackgroundNotification, sender, userInfo);
            });
        });
    }
    ZNVMainQueue::async([self, userInfo]() {
        const void* sender = self->session().get();
        ZNVNotificationCenter::defaultCenter().post(ZNVNetworkTask_DidChangeStateNotification,
                                                    sender, userInfo);
    });
}

void ZNVNetworkTask::applyErrorToProgress() {
    Lock lock(*this);
    if (freezeProgress_ || !progress_) return;
    if (rawError_) {
        if (!error()) return;
        progress_->setCompletedUnitCount(0);
    } else {
        progress_->setCompletedUnitCount(progress_->totalUnitCount());
    }
}

// ---------------------------------------------------------------------------
// Operations

namespace {
// Set while a manager starts a task of its queue on this thread.
thread_local bool tResumingForManager = false;
}  // namespace

bool ZNVNetworkTask::resumeForManager() {
    const bool outer = tResumingForManager;
    tResumingForManager = true;
    const bool resumed = resume();
    tResumingForManager = outer;
    return resumed;
}

bool ZNVNetworkTask::resume() {
    Lock lock(*this);
    if (finished_) return false;
    if (!tResumingForManager && state_ == ZNVNetworkTaskStateSuspended && settledObserver_.lock()) {
        return false;
    }
    freezeProgress_ = false;
    return true;
}

bool ZNVNetworkTask::validateParameters() {
    Lock lock(*this);
    if (!rawError_ && !session_) {
        setRawError(ZNVNetworkErrorHandler_createURLError(NSURLErrorCannotFindHost,
                                                          "a network session is required"));
    }
    return !rawError_;
}

uint64_t ZNVNetworkTask::beginDispatchedWork() {
    Lock lock(*this);
    return ++workGeneration_;
}

bool ZNVNetworkTask::isCurrentWork(uint64_t ticket) const {
    Lock lock(*this);
    return ticket == workGeneration_ && !rawError_;
}

void ZNVNetworkTask::resetForResume() {
    Lock lock(*this);
    ++workGeneration_;
    recoveryDate_.reset();
    freezeProgress_ = true;
    setRawError(nullptr);
    setPrimitiveTask(nullptr);
    setState(ZNVNetworkTaskStateSuspended);
}

void ZNVNetworkTask::taskDidFinish() {
    Lock lock(*this);
    finished_ = true;
    // A task dropped while it runs or waits would otherwise go on outside
    // every count: a request on the wire beside the ones its manager allows,
    // an answer nobody routes, a step still waiting for the account.
    if (state_ != ZNVNetworkTaskStateCompleted) cancel();
}

std::function<void()> ZNVNetworkTask::takeFilesToRemoveOnFinish() {
    return nullptr;
}

std::vector<std::string> ZNVNetworkTask::takePathsToFlushBeforeSave() {
    return {};
}

void ZNVNetworkTask::cancel() {
    Lock lock(*this);
    if (state_ == ZNVNetworkTaskStateCompleted && !rawError_) return;
    ++workGeneration_;
    std::shared_ptr<ZNVURLSessionTask> sessionTask = task_;
    ZNVErrorRef cancelled =
        ZNVNetworkErrorHandler_createURLError(NSURLErrorCancelled, "network task cancelled");
    if (!sessionTask) {
        setRawError(cancellationKeepingReceivedData(cancelled));
        return;
    }
    setRawError(cancelled);

    auto download = std::dynamic_pointer_cast<ZNVURLSessionDownloadTask>(sessionTask);
    if (!download) {
        afterUnlock([sessionTask]() { sessionTask->cancel(); });
        return;
    }
    ZNVLogInfo("Cancelling download. Attempting to retrieve resume data ...");
    std::weak_ptr<ZNVNetworkTask> weakSelf = weak_from_this();
    const uint64_t ticket = workGeneration_;
    afterUnlock([download, weakSelf, ticket]() {
        download->cancelByProducingResumeData([weakSelf, ticket](const ZNVBytes& resumeData) {
            auto self = weakSelf.lock();
            if (!self) {
                ZNVURLSessionResumeData::removePartialFile(resumeData);
                return;
            }
            Lock lock(*self);
            // Resume data that arrives after a retry (or once the task has
            // moved on, or was finished) belongs to nobody: its partial file
            // is deleted.
            if (self->workGeneration_ != ticket || !self->rawError_ || self->finished_) {
                ZNVURLSessionResumeData::removePartialFile(resumeData);
                return;
            }
            ZNVLogInfo("   Storing resume data that was retrieved.");
            self->setRawError(
                ZNVNetworkErrorHandler_addResumeDataToError(resumeData, self->rawError_));
        });
    });
}

ZNVErrorRef ZNVNetworkTask::cancellationKeepingReceivedData(const ZNVErrorRef& cancelled) const {
    return cancelled;
}

void ZNVNetworkTask::setQueueConfiguration(const ZNVAccountConfigurationRef&) {
    // Counted by a manager again. Not archived: held as on a const task, so
    // the next save does not encode the task again for it.
    Lock lock(std::as_const(*this));
    finished_ = false;
}

void ZNVNetworkTask::retry() {
    Lock lock(*this);
    if (!error()) return;
    resetForResume();
    remainingAttemptsForAutomaticErrorRecovery_ = ZNVNetworkTaskAutomaticRecoveryAttempts;
    ++retryCount_;
    // A task in a manager's queue (its index observes it) waits for the
    // manager's next round, which its change to suspended asks for: a retry
    // of many failed tasks at once stays within the manager's capacity.
    if (settledObserver_.lock()) return;
    if (!resume()) ZNVLogError("Failed to restart {}", description());
}

std::optional<ZNVDate> ZNVNetworkTask::nextRecoveryDate() const {
    Lock lock(*this);
    return recoveryDate_;
}

void ZNVNetworkTask::restoreRecoveryAttempts() {
    Lock lock(*this);
    remainingAttemptsForAutomaticErrorRecovery_ = ZNVNetworkTaskAutomaticRecoveryAttempts;
}

void ZNVNetworkTask::automaticallyRecoverFromError() {
    Lock lock(*this);
    if (!rawError_ || remainingAttemptsForAutomaticErrorRecovery_ == 0) return;
    if (!ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(rawError_)) {
        --remainingAttemptsForAutomaticErrorRecovery_;
        return;
    }
    const ZNVDate current = now();
    if (!recoveryDate_) {
        const uint64_t n = ZNVNetworkTaskAutomaticRecoveryAttempts -
                           remainingAttemptsForAutomaticErrorRecovery_ + 1;
        double scale = 1.0;
        {
            std::lock_guard<std::mutex> clockLock(clockMutex);
            scale = recoveryDelayScale;
        }
        const double wait = recoveryDelayFor(n, rawError_) * scale;
        recoveryDate_ = current + std::chrono::duration_cast<ZNVDate::duration>(
                                      std::chrono::duration<double>(wait));
        ZNVLogInfo("{} will recover in {:.3f} s from error: {}", description(), wait,
                   rawError_->localizedDescription());
        if (wait > 0) return;
    }
    if (current < *recoveryDate_) return;
    recoveryDate_.reset();
    --remainingAttemptsForAutomaticErrorRecovery_;
    ZNVLogInfo("{} automatically recovering from error: {}", description(),
               rawError_->localizedDescription());
    resetForResume();
}

void ZNVNetworkTask::automaticallyResumeFromStall() {
    Lock lock(*this);
    if (state_ != ZNVNetworkTaskStateRunning || !task_) return;
    if (task_->state() != ZNVURLSessionTaskStateSuspended) return;
    if (!taskStartDate_) return;
    const std::chrono::duration<double> sinceNow = *taskStartDate_ - now();
    if (!(sinceNow.count() < -ZNVNetworkTaskStallInterval)) return;
    ZNVLogDefault("{} automatically cancelling task: {}", description(), task_->taskDescription());
    cancelTaskWithRecoverableErrorMessage("URL session task appears to have stalled.");
}

void ZNVNetworkTask::cancelTaskWithRecoverableErrorMessage(const std::string& message) {
    Lock lock(*this);
    if (state_ == ZNVNetworkTaskStateCompleted || rawError_) return;
    std::shared_ptr<ZNVURLSessionTask> sessionTask = task_;
    setRawError(ZNVNetworkErrorHandler_createArtificialRecoverableError(message));
    if (sessionTask) afterUnlock([sessionTask]() { sessionTask->cancel(); });
}

void ZNVNetworkTask::startNewSessionTask(const std::shared_ptr<ZNVURLSessionTask>& task,
                                         const ZNVErrorRef& factoryError) {
    Lock lock(*this);
    if (factoryError) {
        setRawError(factoryError);
    } else if (task) {
        setTask(task);
        if (std::shared_ptr<ZNVURLSessionTask> attached = task_) {
            afterUnlock([attached]() { attached->resume(); });
        }
    } else {
        setRawError(ZNVNetworkErrorHandler_createArtificialRecoverableError(
            "No error reported for nil URL session task."));
    }
}

void ZNVNetworkTask::connectToSession(const std::shared_ptr<ZNVNetworkSessionManager>& session,
                                      const std::shared_ptr<ZNVURLSessionTask>& task) {
    Lock lock(*this);
    if (!wasDecoded_) return;
    session_ = session;
    // A restored task keeps the identifier of a session task of an earlier
    // session; until it is reconnected it has none in this one, so that an
    // answer to a new task that happens to bear the same number never reaches it.
    if (!task && !task_) taskIdentifier_ = kNoTaskIdentifier;
    if (!task_ && !rawError_ && task) {
        ZNVLogInfo("Reconnecting {} to task {}: {}", description(), task->taskIdentifier(),
                   task->taskDescription());
        setTask(task);
        applyTaskToState();
    }
}

// ---------------------------------------------------------------------------
// Archive

namespace {
const bool registeredNetworkTask = [] {
    ZNVArchiveClassRegistry::shared().registerClass(
        "ZNVNetworkTask", "", [](ZNVKeyedUnarchiver& coder) -> std::shared_ptr<ZNVCoding> {
            return ZNVNetworkTask::decode(coder);
        });
    return true;
}();
}  // namespace

std::shared_ptr<ZNVNetworkTask> ZNVNetworkTask::decode(ZNVCoder& coder) {
    (void)registeredNetworkTask;
    std::shared_ptr<ZNVNetworkTask> task(new ZNVNetworkTask());
    task->initWithCoder(coder);
    return task;
}

void ZNVNetworkTask::encodeWithCoder(ZNVCoder& coder) const {
    ZNVKeyedArchiver* archiver = coder.asKeyedArchiver();
    if (!coder.allowsKeyedCoding() || !archiver) ZNVRaiseKeyedCodingOnly(className());
    Lock lock(*this);
    // A running task is archived as suspended: after a relaunch it starts again.
    const bool completed =
        state_ == ZNVNetworkTaskStateCompleted ||
        (rawError_ && !ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(rawError_));
    archiver->encodeString(completed ? "completed" : "suspended", "state");
    if (rawError_) archiver->encodeError(rawError_, "rawError");
    if (sourceURL_) archiver->encodeURL(*sourceURL_, "source URL");
    if (taskIdentifier_ != kNoTaskIdentifier) {
        archiver->encodeUInt64(taskIdentifier_, "task identifier");
    }
    archiver->encodeInt64(progress_ ? progress_->completedUnitCount() : 0, "completed progress");
    archiver->encodeDate(startDate_, "start date");
    archiver->encodeUInt64(retryCount_, "retry count");
    archiver->encodeBool(discretionary_, "discretionary");
    archiver->encodeBool(needsEarlyActivation_, "needs early activation");
    // A task that used up its attempts on a recoverable error shows that
    // error after a relaunch instead of looking like a success.
    if (rawError_ && remainingAttemptsForAutomaticErrorRecovery_ == 0 &&
        ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(rawError_)) {
        archiver->encodeBool(true, "recovery attempts exhausted");
    }
}

void ZNVNetworkTask::initWithCoder(ZNVCoder& coder) {
    Lock lock(*this);
    wasDecoded_ = true;
    ZNVKeyedUnarchiver* unarchiver = coder.asKeyedUnarchiver();
    if (coder.allowsKeyedCoding() && unarchiver) {
        std::optional<std::string> stateName;
        if (unarchiver->isStringForKey("state"))
            stateName = unarchiver->decodeStringForKey("state");
        state_ = ZNVNetworkTaskStateSuspended;
        if (stateName == "completed") state_ = ZNVNetworkTaskStateCompleted;
        if (stateName == "running") state_ = ZNVNetworkTaskStateRunning;
        rawError_ = unarchiver->decodeErrorForKey("rawError");
        sourceURL_ = unarchiver->decodeURLForKey("source URL");
        taskIdentifier_ =
            unarchiver->decodeUInt64ForKey("task identifier").value_or(kNoTaskIdentifier);
        if (std::optional<ZNVDate> date = unarchiver->decodeDateForKey("start date")) {
            startDate_ = *date;
        }
        retryCount_ = unarchiver->isNumberForKey("retry count")
                          ? unarchiver->decodeUInt64ForKey("retry count").value_or(0)
                          : 0;
        discretionary_ = unarchiver->decodeBoolForKey("discretionary").value_or(false);
        needsEarlyActivation_ =
            unarchiver->decodeBoolForKey("needs early activation").value_or(false);
        // Archives of earlier versions kept the error under "error".
        if (!rawError_) rawError_ = unarchiver->decodeErrorForKey("error");
    }
    finishTaskInit();
    if (coder.allowsKeyedCoding() && unarchiver) {
        if (rawError_ &&
            unarchiver->decodeBoolForKey("recovery attempts exhausted").value_or(false)) {
            remainingAttemptsForAutomaticErrorRecovery_ = 0;
            state_ = ZNVNetworkTaskStateCompleted;
        }
        decodedCompletedProgress_ = unarchiver->decodeInt64ForKey("completed progress").value_or(0);
        if (progress_) progress_->setCompletedUnitCount(decodedCompletedProgress_);
    }
}

std::string ZNVNetworkTask::description() const {
    Lock lock(*this);
    std::string text = fmt::format("<{}: {}>", className(), static_cast<const void*>(this));
    if (task_) {
        const std::string tag = task_->taskDescription();
        if (!tag.empty()) text += fmt::format(" with task \"{}\"", tag);
    }
    return text;
}

}  // namespace znv

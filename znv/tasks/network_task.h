// ZNVNetworkTask: the base of every long-lived transfer (downloads, uploads).
//
// Contract
// - A network task outlives any single URL session task: it is attached to one
//   URL session task after another, archived between launches and reconnected
//   to a surviving URL session task after a relaunch.
// - State: 0 suspended, 1 running, 2 completed. `state` and `error` are
//   observable (ZNVObservable keys "state" and "error"). Every change of state
//   logs, announces the observable change, posts
//   `ZNVNetworkTask_DidChangeStateBackgroundNotification` through the session
//   manager's background queue and `ZNVNetworkTask_DidChangeStateNotification`
//   asynchronously on the main queue; both carry the session manager as sender.
// - Errors: `rawError` is the last failure; `error()` (the public error) stays
//   null while the failure is automatically recoverable and recovery attempts
//   remain. Failures are stored, never thrown. Recovery is paced: the n-th
//   recovery in a row waits a random time up to 2^(n-1) s (at most 5 minutes),
//   or what a 429/503 answer's Retry-After asked for; meanwhile the task stays
//   suspended with its hidden error. A step that succeeds restores the attempts.
// - Threads: any thread may call any operation. The task's fields are guarded
//   by one recursive mutex held for the whole of each operation; work that
//   leaves the task (resuming or cancelling the URL session task, handing the
//   background notification to the session manager) runs after the outermost
//   operation has released the lock, in the order it was queued. Observers of
//   "state" and "error" run synchronously on the changing thread, with the lock
//   held; they may read the task but must not wait for another thread that
//   uses it.
// - Ownership: the task holds its URL session task and its session manager
//   strongly; it observes the URL session task's "state" and stops observing
//   it when detached or destroyed.
// - Archiving: `encodeWithCoder` writes the keys "state", "rawError", "source URL",
//   "task identifier", "completed progress", "start date", "retry count",
//   "discretionary", "needs early activation" in that order, then, for a task
//   whose recoverable error used up every attempt, "recovery attempts
//   exhausted". Decoding makes a task with `wasDecoded()` true; with that
//   last key it decodes completed with its error public (else, as before,
//   with a fresh set of attempts).
//   A restored task carries the task identifier of an earlier session only
//   until it is connected: connecting it without a URL session task clears it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "znv/account/account_configuration.h"
#include "znv/platform/error.h"
#include "znv/platform/keyed_archive.h"
#include "znv/platform/observable.h"
#include "znv/platform/url.h"

namespace znv {

class ZNVNetworkSessionManager;
class ZNVURLSessionTask;
class ZNVProgress;
class ZNVNetworkTask;

// Told when a task's settled values (state, "has a raw error", "needs early
// activation") changed, so a manager keeps an index of its tasks without
// walking them. Called on the changing thread with the task's lock held: it
// may read the task's settled values, must not call any other operation of
// the task, and may take only locks under which nothing waits for a task.
class ZNVNetworkTaskSettledObserver {
  public:
    virtual ~ZNVNetworkTaskSettledObserver() = default;
    virtual void taskSettledValuesChanged(const ZNVNetworkTask& task) = 0;
};

using ZNVNetworkTaskState = uint64_t;
inline constexpr ZNVNetworkTaskState ZNVNetworkTaskStateSuspended = 0;
inline constexpr ZNVNetworkTaskState ZNVNetworkTaskStateRunning = 1;
inline constexpr ZNVNetworkTaskState ZNVNetworkTaskStateCompleted = 2;

// "running" for 1, "completed" for 2, "suspended" for anything else.
std::string ZNVNetworkTaskStateName(uint64_t state);

extern const char* const ZNVNetworkTask_DidChangeStateNotification;
extern const char* const ZNVNetworkTask_DidChangeStateBackgroundNotification;
extern const char* const ZNVNetworkTask_TaskKey;
extern const char* const ZNVNetworkTask_PreviousStateKey;
extern const char* const ZNVNetworkTask_NewStateKey;

// Recoveries a task makes on its own before a recoverable error is shown.
inline constexpr uint64_t ZNVNetworkTaskAutomaticRecoveryAttempts = 5;
// The wait before the n-th consecutive recovery is drawn at random between
// zero and this base doubled n-1 times, at most the longest wait.
inline constexpr double ZNVNetworkTaskRecoveryDelayBase = 1.0;
inline constexpr double ZNVNetworkTaskRecoveryDelayLongest = 300.0;
// A running task whose URL session task is still suspended this long after it
// was attached is considered stalled.
inline constexpr double ZNVNetworkTaskStallInterval = 90.0;

class ZNVNetworkTask : public ZNVObservable,
                       public ZNVCoding,
                       public std::enable_shared_from_this<ZNVNetworkTask> {
  public:
    using Clock = std::function<ZNVDate()>;

    // The time source for start dates and the stall watchdog (system clock by
    // default). Tests install their own; an empty function restores the default.
    static void setClock(Clock clock);
    static ZNVDate now();
    // Multiplies every recovery wait (1 by default); tests shorten them.
    static void setRecoveryDelayScale(double scale);

    // When the task's next automatic recovery may run (none while none is
    // planned). `automaticallyRecoverFromError` plans it on its first call for
    // a recoverable error and recovers on the first call after it.
    std::optional<ZNVDate> nextRecoveryDate() const;
    // A step succeeded: the recovery attempts count failures in a row again.
    void restoreRecoveryAttempts();

    static std::shared_ptr<ZNVNetworkTask> create(
        std::optional<ZNVURL> source = std::nullopt,
        std::shared_ptr<ZNVNetworkSessionManager> session = nullptr);
    // A task from an archive (a coder that is not keyed yields a task with
    // default fields). The class is registered for keyed unarchiving.
    static std::shared_ptr<ZNVNetworkTask> decode(ZNVCoder& coder);

    ~ZNVNetworkTask() override;

    // --- Fields -----------------------------------------------------------
    virtual std::optional<ZNVURL> sourceURL() const;
    std::shared_ptr<ZNVProgress> progress() const;
    ZNVErrorRef rawError() const;
    void setRawError(const ZNVErrorRef& error);
    // The error the client is shown (null while a recovery is still possible).
    ZNVErrorRef error() const;
    bool freezeProgress() const;
    void setFreezeProgress(bool freeze);
    bool isDiscretionary() const;
    void setDiscretionary(bool discretionary);
    bool needsEarlyActivation() const;
    void setNeedsEarlyActivation(bool needs);
    bool wasDecoded() const { return wasDecoded_; }
    ZNVNetworkTaskState state() const;
    void setState(ZNVNetworkTaskState state);
    // The state, and whether a raw error is set, as they were when the last
    // operation of this task released it. Read without taking the task's
    // lock, so a manager can pass over thousands of idle tasks cheaply; an
    // operation in progress on another thread is not waited for (its outcome
    // shows once it is done). Code inside an operation of this task reads
    // `state()` / `rawError()` instead.
    ZNVNetworkTaskState settledState() const {
        return settledState_.load(std::memory_order_acquire);
    }
    bool settledHasRawError() const { return settledHasRawError_.load(std::memory_order_acquire); }
    bool settledNeedsEarlyActivation() const {
        return settledNeedsEarlyActivation_.load(std::memory_order_acquire);
    }
    // The one observer of the settled values (a task belongs to one manager's
    // index at a time; the newest registration wins). `clearSettledObserver`
    // removes it only when it is still `observer`.
    void setSettledObserver(std::weak_ptr<ZNVNetworkTaskSettledObserver> observer);
    void clearSettledObserver(const ZNVNetworkTaskSettledObserver* observer);
    // Moves to a new value, never used before in the process, whenever an
    // operation that may change the task (any non-const member, which takes
    // the lock for writing) runs. A saver that keeps an archived form of the
    // task together with this value and the progress's completed count (also
    // archived, changed by the progress itself) re-encodes the task only when
    // one of the two moved. Read without the task's lock.
    uint64_t archiveRevision() const { return archiveRevision_.load(std::memory_order_acquire); }
    ZNVDate startDate() const;
    uint64_t retryCount() const;
    void setRetryCount(uint64_t count);
    uint64_t taskIdentifier() const;
    void setTaskIdentifier(uint64_t identifier);
    uint64_t remainingAttemptsForAutomaticErrorRecovery() const;
    void setRemainingAttemptsForAutomaticErrorRecovery(uint64_t attempts);
    std::optional<ZNVDate> taskStartDate() const;
    void setTaskStartDate(std::optional<ZNVDate> date);
    std::shared_ptr<ZNVURLSessionTask> task() const;
    virtual void setTask(const std::shared_ptr<ZNVURLSessionTask>& task);
    std::shared_ptr<ZNVNetworkSessionManager> session() const;
    void setSession(const std::shared_ptr<ZNVNetworkSessionManager>& session);

    // --- Operations for the client and the network manager -----------------
    // Asks the task to (re)start; true when it started. A suspended task in a
    // manager's queue starts only when the manager starts it
    // (`resumeForManager`): the application's resume of one answers false and
    // leaves the start to the manager's rounds, which keep its capacity.
    virtual bool resume();
    // `resume` on behalf of the manager whose queue holds the task, which has
    // counted the task against its capacity.
    bool resumeForManager();
    void cancel();
    // Starts a task that failed for good again with a fresh set of recovery
    // attempts. A task in a manager's queue is left suspended for the
    // manager's next round (its change of state asks for one), so it starts
    // within the manager's capacity; any other task resumes at once.
    void retry();
    void automaticallyResumeFromStall();
    void automaticallyRecoverFromError();
    void cancelTaskWithRecoverableErrorMessage(const std::string& message);
    void connectToSession(const std::shared_ptr<ZNVNetworkSessionManager>& session,
                          const std::shared_ptr<ZNVURLSessionTask>& task);
    void startNewSessionTask(const std::shared_ptr<ZNVURLSessionTask>& task,
                             const ZNVErrorRef& factoryError);
    // Told by the manager that drops the task from its collection. No manager
    // counts the task any more, so from here on it never resumes (`resume`
    // and `retry` do nothing) until a manager takes it in again
    // (`setQueueConfiguration`), and one dropped before it completed is
    // cancelled: its request stops and work dispatched for it never runs.
    // Subclasses that override it call it first.
    virtual void taskDidFinish();
    // Told by the manager that takes the task in: the account configuration
    // of its queue. Files the task keeps under that configuration's names
    // are found by it while no session is connected (a manager that was
    // never launched). The base lets a finished task run again; subclasses
    // that override it call it first.
    virtual void setQueueConfiguration(const ZNVAccountConfigurationRef& configuration);
    // The files a finished task leaves behind, detached from the task: the
    // returned work removes them (none when there are none). The network
    // manager runs it once its state file no longer lists the task, so a
    // crash in between never restores a finished task without its file;
    // `taskDidFinish` then finds nothing more to remove.
    virtual std::function<void()> takeFilesToRemoveOnFinish();
    // Paths (a file, then its directory) whose data must be on disk before a
    // state file that archives the task as it is now replaces the last one:
    // a download moves its finished file without waiting for the disk, and
    // the state writer flushes it, off the session's queue, before any save
    // that calls the download completed. Taking them empties the list.
    virtual std::vector<std::string> takePathsToFlushBeforeSave();
    virtual std::string description() const;

    static int64_t serverStatusCodeForError(const ZNVErrorRef& error);
    static bool errorIndicatesManuallyCancelledTask(const ZNVErrorRef& error);
    // Error equality by user info alone (null counts as "no user info").
    static bool errorsAreEqual(const ZNVErrorRef& a, const ZNVErrorRef& b);

    // --- Dispatched work ----------------------------------------------------
    // Work that a task hands to another thread (an authentication callback)
    // takes a ticket when it is dispatched and runs only while the ticket is
    // still current: every later dispatch, reset, cancel or retry advances the
    // generation, so work queued before it can never start a second request
    // for the same step.
    uint64_t beginDispatchedWork();
    bool isCurrentWork(uint64_t ticket) const;

    // --- Subclass hooks and the lower-level operations ---------------------
    virtual bool validateParameters();
    virtual void resetForResume();
    // The error of a cancel that finds no transfer running, given the plain
    // cancellation error: a subclass adds what the task had received so far
    // (a download's resume data), so that a retry continues from it.
    virtual ZNVErrorRef cancellationKeepingReceivedData(const ZNVErrorRef& cancelled) const;
    void finishTaskInit();
    void setPrimitiveTask(const std::shared_ptr<ZNVURLSessionTask>& task);
    void applyTaskToState();
    void applyErrorToProgress();
    void connectToTask();
    void disconnectFromTask();

    // --- Archive -----------------------------------------------------------
    // The archive's class name ("ZNVNetworkTask", "ZNVNetworkDownload", ...).
    std::string className() const override { return "ZNVNetworkTask"; }
    // Throws ZNVInvalidArchiveOperationException for a coder that is not keyed.
    void encodeWithCoder(ZNVCoder& coder) const override;

  protected:
    // Objects are made in two steps, as `create` and `decode` do: construct an
    // empty task, then (with the shared pointer in place, so that state
    // notifications can name the task) run the initialisation steps.
    ZNVNetworkTask() = default;
    void initWithSource(std::optional<ZNVURL> source,
                        std::shared_ptr<ZNVNetworkSessionManager> session);
    // Marks the task decoded, reads the base fields (a coder that is not keyed
    // gives none) and runs `finishTaskInit`.
    void initWithCoder(ZNVCoder& coder);

    // Replaces the progress object (subclasses' initialisation steps).
    void setProgress(std::shared_ptr<ZNVProgress> progress);
    // Sets the source without observable effects (decoding).
    void setStoredSourceURL(std::optional<ZNVURL> url);
    std::optional<ZNVURL> storedSourceURL() const;

    // Holds the task's lock; when the outermost hold ends, runs the work queued
    // with `afterUnlock` without the lock. Taken on a non-const task (every
    // operation that may change a field), it also moves `archiveRevision`.
    class Lock {
      public:
        explicit Lock(const ZNVNetworkTask& task);
        explicit Lock(ZNVNetworkTask& task);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

      private:
        const ZNVNetworkTask& task_;
    };
    // Queues work to run once no operation of this task holds the lock any
    // more (immediately, when none does).
    void afterUnlock(std::function<void()> work) const;

    // The "completed progress" value read from an archive (applied to the
    // progress only if one exists when the base decoding ends).
    int64_t decodedCompletedProgress() const { return decodedCompletedProgress_; }

  private:
    ZNVErrorRef publicErrorFor(const ZNVErrorRef& raw, uint64_t attempts) const;
    void postStateChange(ZNVNetworkTaskState previous, ZNVNetworkTaskState current);

    mutable std::recursive_mutex mutex_;
    // Guarded by mutex_: hold depth and the work waiting for the last release.
    mutable int lockDepth_ = 0;
    mutable std::vector<std::function<void()>> afterUnlock_;
    // Copies of state_ and of "rawError_ is set", stored under mutex_ when the
    // outermost Lock is released (so they never show a state in the middle
    // of an operation) and read without it.
    mutable std::atomic<ZNVNetworkTaskState> settledState_{ZNVNetworkTaskStateSuspended};
    mutable std::atomic<bool> settledHasRawError_{false};
    mutable std::atomic<bool> settledNeedsEarlyActivation_{false};
    // Guarded by mutex_; told when the settled values above change.
    std::weak_ptr<ZNVNetworkTaskSettledObserver> settledObserver_;
    // Stored under mutex_ by every Lock taken for writing; read without it.
    static uint64_t nextArchiveRevision();
    std::atomic<uint64_t> archiveRevision_{nextArchiveRevision()};

    // Every field below is guarded by mutex_.
    std::optional<ZNVURL> sourceURL_;
    std::shared_ptr<ZNVProgress> progress_;
    ZNVErrorRef rawError_;
    bool freezeProgress_ = false;
    bool discretionary_ = false;
    bool needsEarlyActivation_ = false;
    bool wasDecoded_ = false;
    bool finished_ = false;  // dropped by its manager: never resumes again
    ZNVNetworkTaskState state_ = ZNVNetworkTaskStateSuspended;
    ZNVDate startDate_{};
    uint64_t retryCount_ = 0;
    uint64_t taskIdentifier_ = static_cast<uint64_t>(ZNVNotFound);
    uint64_t remainingAttemptsForAutomaticErrorRecovery_ = 0;
    uint64_t workGeneration_ = 0;
    std::optional<ZNVDate> recoveryDate_;
    std::optional<ZNVDate> taskStartDate_;
    std::shared_ptr<ZNVURLSessionTask> task_;
    std::shared_ptr<ZNVNetworkSessionManager> session_;
    ZNVObserverToken taskObservation_ = 0;
    int64_t decodedCompletedProgress_ = 0;
};

}  // namespace znv

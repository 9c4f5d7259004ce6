// ZNVNetwork: the task manager of one network configuration.
//
// Contract
// - Owns one session manager (created by `launch`, dropped by
//   `invalidateClientAndCancelTasks`), a reachability watcher and the ordered
//   collections `tasks` and `downloads`. Create it with `create`, then call
//   `launch` once; until then refreshes activate nothing.
// - Collection changes (`addTask`, `finishTask`, invalidation) may be made from
//   any thread; they are announced to observers of the keys "tasks" and
//   "downloads" as indexed insertions and removals, synchronously on the thread
//   that makes the change, will-change before the mutation and did-change after.
//   Changes are serialised by a recursive lock that is held while their
//   announcements run, so that two changes never interleave: an observer may
//   itself add or finish tasks on its own thread, but must not wait for
//   another thread that does. The collections themselves are guarded by a
//   mutex that is never held while calling out; every walk works on a copy.
// - `refreshAndSave` hands the activation policy (`refreshTaskActivity`) and the
//   save to the session manager's background queue, so refreshes, saves and
//   session callbacks never overlap; changes schedule it through the main
//   queue. Every request runs its own refresh, in the order requested.
// - At most two downloads run at a time; activation waits for a reachable
//   network. A task that waits out its recovery delay gets a refresh when
//   the delay ends (a timer thread of the manager). Every task state change is re-posted on the
//   default notification center under "ZNVNetwork: task did resume/suspend/complete" with this
//   manager as sender, on the main queue.
// - The state file (see network_state.cc) is rewritten after every change of
//   the collection. Each save writes the collection as it was when the save
//   was asked for; a save superseded by a newer queued one is skipped. Saves
//   are encoded and written by the manager's state writer on its own queue;
//   `waitUntilStateIsWritten` waits for the saves asked for so far.
//   The snapshot and its place in the order of saves are taken together, so
//   the file never goes back to an older collection. Reading the file
//   (`launch`) first waits, up to 10 s, for the saves that managers of this
//   process asked for before it, so a manager made right after another one
//   was released restores what that one saved last.
// - Remote file IDs that the service handed out after the last save are kept
//   in a journal beside the state file ("<name>.state.journal") until a save
//   holds them; reading the state gives them back to the restored uploads
//   that lack them (`applyRecordedRemoteFileIDs`), so a process killed in
//   between does not create those remote files again.
// - One process per queue: the first read or write of the state file (normally
//   `launch`) takes an exclusive `flock` on "<name>.state.lock" beside it and
//   holds it until the manager is destroyed (managers of one process share
//   it); the holder writes its PID, in decimal and a newline, into that file.
//   When another process holds it, the manager neither reads nor writes the
//   state file and `stateRestoreError` is NSCocoaErrorDomain /
//   NSFileLockingError "The task queue is in use by process N." with the
//   holder's PID (int64) under `ZNVNetwork_StateLockHolderPIDKey` when it
//   could be read. A lock file that cannot be opened as a regular file of
//   its own (a symbolic link, directory or FIFO at its name, no permission)
//   or locked is refused the same way, with NSFileLockingError "The task
//   queue cannot be locked (<lock path>: <reason>)." and the cause under
//   NSUnderlyingErrorKey (a holder's refusal has none). Only a file system
//   without flock (ENOLCK, EOPNOTSUPP, ENOSYS) lets the manager use the
//   state file unlocked, with an error in the log.
// - Files of the state area (state file, journal, lock) are opened without
//   blocking: a FIFO or device planted at a name is refused at once, never
//   waited on. A state file that is not a regular file is damaged (below).
// - A state file that exists but cannot be restored (unreadable, not a regular
//   file, empty, over 256 MiB, not an archive, no configuration type,
//   undecodable tasks; a file of another configuration identifier excepted)
//   is renamed to "<name>.state.damaged-<UTC yyyymmddThhmmssZ>" (mode 0600)
//   before anything can save over it, that path is logged at error level, and
//   `stateRestoreError` is NSCocoaErrorDomain / NSFileReadCorruptFileError
//   with NSFilePathErrorKey naming the kept copy. It is set before `launch`
//   returns and stays null when the state was restored or there was no file;
//   it may be read from any thread.
// - Posted work and observer callbacks hold only weak references to the manager.
//   The session manager keeps the manager alive as its delegate until the
//   session is invalidated; call `invalidateClientAndCancelTasks` to end it.
// - Failures are logged to the library's log channel, never thrown.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "znv/account/account_configuration.h"
#include "znv/account/reachability_manager.h"
#include "znv/managers/remote_file_journal.h"
#include "znv/managers/state_writer.h"
#include "znv/managers/task_list.h"
#include "znv/platform/notification_center.h"
#include "znv/platform/observable.h"
#include "znv/session/network_session_manager.h"
#include "znv/tasks/network_download.h"
#include "znv/tasks/network_task.h"

namespace spdlog {
class logger;
}

namespace znv {

// Notification names and user-info keys posted by the manager.
extern const char* const ZNVNetwork_TaskDidResumeNotification;
extern const char* const ZNVNetwork_TaskDidSuspendNotification;
extern const char* const ZNVNetwork_TaskDidCompleteNotification;
extern const char* const ZNVNetwork_TaskKey;
extern const char* const ZNVNetwork_PreviousTaskStateKey;
extern const char* const ZNVNetwork_NewTaskStateKey;
// User-info key of `stateRestoreError`: the PID of the process holding the queue.
extern const char* const ZNVNetwork_StateLockHolderPIDKey;
// Published for hosts that distinguish background delivery; never posted here.
extern const char* const ZNVNetwork_TaskDidResumeBackgroundNotification;
extern const char* const ZNVNetwork_TaskDidSuspendBackgroundNotification;
extern const char* const ZNVNetwork_TaskDidCompleteBackgroundNotification;

class ZNVNetwork;
class ZNVNetworkStateLock;
class ZNVStorage;
class ZNVTaskActivityIndex;

using ZNVNetworkTaskRef = std::shared_ptr<ZNVNetworkTask>;
using ZNVNetworkDownloadRef = std::shared_ptr<ZNVNetworkDownload>;

// Holder of background activity and of the background-session completion.
// A desktop application is never suspended, so both factories answer none and
// a manager's `backgroundManager` is always empty; the calls that bracket work
// stay in place so that a port to a suspending platform only fills this in.
class ZNVNetworkBackground {
  public:
    static std::shared_ptr<ZNVNetworkBackground> backgroundForNetwork(ZNVNetwork* network);
    static std::shared_ptr<ZNVNetworkBackground> backgroundForStorage(ZNVStorage* storage);

    void incrementBackgroundActivity() {}
    void decrementBackgroundActivity() {}

    std::function<void()> networkSessionCompletion() const;
    void setNetworkSessionCompletion(std::function<void()> completion);

  private:
    mutable std::mutex mutex_;
    std::function<void()> networkSessionCompletion_;  // guarded by mutex_
};

class ZNVNetwork : public ZNVObservable,
                   public ZNVNetworkSessionBackgroundDelegate,
                   public std::enable_shared_from_this<ZNVNetwork> {
  public:
    // A manager for a configuration (or none). Starts nothing; call `launch`.
    static std::shared_ptr<ZNVNetwork> create(ZNVAccountConfigurationRef configuration = nullptr);
    ~ZNVNetwork() override;

    // The library's log channel "com.znv.storage:cloud" (the same logger as
    // `ZNVLog()` in znv/foundation/log.h; `ZNVStorage::log()` too). Any thread.
    static spdlog::logger& log();

    // Restores the saved tasks, creates and launches the session manager,
    // starts watching reachability and notifications, reconnects downloads and
    // schedules a first refresh. Call once, after `create`.
    virtual void launch();

    // Properties.
    bool isReadingState() const { return readingState_.load(); }
    bool isBatchingSave() const { return batchingSave_.load(); }
    bool networkIsLaunched() const { return networkIsLaunched_.load(); }
    std::shared_ptr<ZNVNetworkSessionManager> sessionManager() const;
    const ZNVAccountConfigurationRef& accountConfiguration() const { return accountConfiguration_; }
    const std::shared_ptr<ZNVReachabilityManager>& reachabilityManager() const {
        return reachabilityManager_;
    }
    std::shared_ptr<ZNVNetworkBackground> backgroundManager() const { return backgroundManager_; }
    std::vector<ZNVNetworkTaskRef> tasks() const;
    std::vector<ZNVNetworkDownloadRef> downloads() const;
    // "<ZNVNetwork: 0x...>: <session manager description>"
    std::string description() const;
    virtual const char* className() const { return "ZNVNetwork"; }

    // Tasks.
    bool hasTask(const ZNVNetworkTaskRef& task) const;
    virtual void addTask(const ZNVNetworkTaskRef& task);
    virtual void finishTask(const ZNVNetworkTaskRef& task);
    // A new download of a remote URL, added to the collection; none when the
    // download cannot be made (logged).
    ZNVNetworkDownloadRef downloadFromRemoteFile(const ZNVURL& remoteURL);

    void beginBatch();
    void commitBatch();

    // Activity.
    virtual bool refreshTaskActivity();
    void refreshAndSave();
    bool refreshDownloadActivity();
    uint64_t activeDownloadCount() const;
    bool isReachableEvenInBackground() const;
    void recycleDiscretionaryTasksIfNeeded();
    static void prepareTasksForActivation(const std::vector<ZNVNetworkTaskRef>& tasks,
                                          bool reachableNetwork);
    static bool activateTasks(uint64_t count, const std::vector<ZNVNetworkTaskRef>& collection,
                              const std::string& taskDescription);

    // Persistence (network_state.cc).
    void writeState();
    void readState();
    // Why the saved tasks were not restored (damaged file, queue held by
    // another process), or null. See the contract above.
    ZNVErrorRef stateRestoreError() const;
    // Blocks until the newest save asked for so far has been written (or has
    // failed, or was dropped for a newer one that has). Not on the session's
    // queue while it holds a save back. False when the timeout passed first.
    bool waitUntilStateIsWritten(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // Why the newest save that ran did not reach the disk (a full disk, say),
    // or null when it did: after `waitUntilStateIsWritten`, whether the queue
    // on disk is the one the manager holds.
    ZNVErrorRef stateSaveError() const;

    // Session manager delegate (runs on the session's callback queue).
    void didFinishDownloadingToURL(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                                   const std::shared_ptr<ZNVURLSessionDownloadTask>& task,
                                   const ZNVURL& location) override;
    void didCompleteWithData(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                             const std::shared_ptr<ZNVURLSessionTask>& task,
                             const std::optional<ZNVBytes>& data,
                             const ZNVErrorRef& error) override;
    void didUpdateProgress(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                           const std::shared_ptr<ZNVURLSessionTask>& task, float progress) override;
    void sessionManagerDidFinishBackgroundSessionEvents(
        const std::shared_ptr<ZNVNetworkSessionManager>& manager) override;
    ZNVNetworkDownloadRef downloadForTask(const std::shared_ptr<ZNVURLSessionTask>& task) const;

    // Background session completion.
    void setCompletionHandler(std::function<void()> handler,
                              const std::string& forBackgroundURLSession);
    void invokeNetworkSessionCompletionWithDescription(const std::string& description);

    // Entry points for the host's application-state notifications.
    void handleDidEnterBackgroundNotification(const ZNVNotification& notification);
    void handleDidBecomeActiveNotification(const ZNVNotification& notification);

    // Invalidates the session (cancelling its transfers), empties the
    // collections, saves the empty list and drops the session manager. The
    // manager never writes the state file after that: a manager made for the
    // same configuration afterwards owns it, whatever the application still
    // does with this one.
    virtual void invalidateClientAndCancelTasks();

  protected:
    explicit ZNVNetwork(ZNVAccountConfigurationRef configuration);

    virtual std::shared_ptr<ZNVNetworkBackground> createBackgroundManager();
    void connectSessionToDownloads();
    void forwardTaskNotification(const ZNVNotification& notification);
    void handleBackgroundNetworkTaskNotification(const ZNVNotification& notification);

    // Consistency hooks, deliberately empty.
    void assertValidDownloadCount() const {}

    // The collections as they are now, without copying their elements; the
    // snapshots may be walked on any thread.
    ZNVTaskList<ZNVNetworkTask>::Snapshot taskSnapshot() const;
    ZNVTaskList<ZNVNetworkDownload>::Snapshot downloadSnapshot() const;

    // One round of the activation policy for a collection, over its index:
    // prepares the running tasks and those with a raw error, plans the next
    // recovery, counts the running tasks and, with room left of `capacity`
    // and nothing `blocked`, resumes what `tasksToActivate` picks (the first
    // suspended tasks in collection order, then those needing early
    // activation). Logs as the round always has; `blocked` is logged instead
    // of activating. True when a task was resumed.
    struct ActivationRound {
        const char* taskDescription;  // "upload", "download"
        uint64_t capacity;
        bool reachable;       // stalled tasks are resumed only then
        const char* blocked;  // why nothing may be activated now, or null
    };
    bool runActivationRound(ZNVTaskActivityIndex& index, const ActivationRound& round);
    // Logs "N <description>(s) are currently active." and answers N.
    static uint64_t logActiveCount(uint64_t active, const char* taskDescription);
    // Logs the selection of a round and resumes it; true when one resumed.
    static bool activateSelected(uint64_t count, const std::vector<ZNVNetworkTaskRef>& selected,
                                 const std::string& taskDescription);

    void incrementBackgroundActivity() const;
    void decrementBackgroundActivity() const;

    // Schedules `refreshAndSave` on the main queue through a weak reference.
    void scheduleRefreshAndSave();

    // Remote file IDs between the service's answer and the save that holds
    // them (remote_file_journal.h): `recordRemoteFileID` before the task acts
    // on the answer (0 when nothing was recorded: no state file of this
    // process's, or the line could not be written), then
    // `forgetRemoteFileIDsAfterNextSave` with what it returned once the task
    // holds it (records up to that one go once a later save is on disk).
    // Any thread.
    uint64_t recordRemoteFileID(const ZNVRemoteFileJournal::Entry& entry);
    void forgetRemoteFileIDsAfterNextSave(uint64_t count);
    // Removes the files of finished downloads that the journal names and no
    // restored download does. `partials` are the partial files the restored
    // downloads' resume data names: a finished file moved from one of them,
    // with nothing at that name now, goes back to it instead.
    void removeUnsavedDownloadedFiles(const std::vector<ZNVNetworkTaskRef>& restored,
                                      const std::vector<ZNVRemoteFileJournal::Entry>& entries,
                                      const std::set<std::string>& partials);
    // Removes the partial files of this queue's sessions (named after its
    // identifier, `tag`) that are not in `named` (the restored downloads'
    // resume data) and that no transfer of this process wrote: a process that
    // ended before saving the resume data of a transfer left them, and
    // nothing would ever resume them.
    void removeUnnamedPartialFiles(const std::string& tag, const std::set<std::string>& named);
    // While the state is read: gives the restored tasks the IDs recorded for
    // them that the file does not hold yet. Nothing here; uploads are the
    // storage manager's.
    virtual void applyRecordedRemoteFileIDs(
        const std::vector<ZNVNetworkTaskRef>& restored,
        const std::vector<ZNVRemoteFileJournal::Entry>& entries);
    // Asks for a refresh when the earliest planned recovery of `tasks` is due,
    // so that a task waiting out its recovery delay restarts without any
    // other event.
    void planRecoveryRefresh(const std::vector<ZNVNetworkTaskRef>& tasks);
    std::weak_ptr<ZNVNetwork> weakSelf() { return weak_from_this(); }

    // Serialises collection changes (adding, finishing, invalidating) so that
    // the announcements of one change never interleave with another's. Held
    // while announcing; nests because subclasses extend these operations.
    // Refreshes a change asks for (`scheduleRefreshAfterChange`) are scheduled
    // when the outermost scope ends: a subclass finishes its part of the
    // change (an upload joins `uploads` after the base added it to `tasks`)
    // before any refresh can look at the collections, whatever thread the
    // change runs on.
    class MutationScope {
      public:
        explicit MutationScope(ZNVNetwork& network);
        ~MutationScope();
        MutationScope(const MutationScope&) = delete;
        MutationScope& operator=(const MutationScope&) = delete;

      private:
        ZNVNetwork& network_;
    };
    void scheduleRefreshAfterChange();

  private:
    std::atomic<bool> readingState_{false};
    void removeOnceSaved(uint64_t savesBefore, uint64_t save, std::function<void()> removeFiles);
    std::atomic<bool> batchingSave_{false};
    // Files of tasks finished during a batch: they go once the batch's save
    // is on disk. Guarded by batchMutex_.
    std::mutex batchMutex_;
    std::vector<std::function<void()>> batchRemovals_;
    std::atomic<bool> networkIsLaunched_{false};
    // Set once the invalidation has asked for its last save: the queue on
    // disk may belong to a successor by now, so nothing writes it again.
    std::atomic<bool> invalidated_{false};
    const ZNVAccountConfigurationRef accountConfiguration_;
    std::shared_ptr<ZNVReachabilityManager> reachabilityManager_;
    std::shared_ptr<ZNVNetworkBackground> backgroundManager_;  // set once by launch

    mutable std::mutex sessionMutex_;
    std::shared_ptr<ZNVNetworkSessionManager> sessionManager_;  // guarded by sessionMutex_

    std::recursive_mutex mutationMutex_;
    int mutationDepth_ = 0;            // guarded by mutationMutex_
    size_t refreshesAfterChange_ = 0;  // guarded by mutationMutex_
    mutable std::mutex collectionsMutex_;
    ZNVTaskList<ZNVNetworkTask> mutableTasks_;           // guarded by collectionsMutex_
    ZNVTaskList<ZNVNetworkDownload> mutableDownloads_;   // guarded by collectionsMutex_
    std::unordered_set<const ZNVNetworkTask*> taskSet_;  // guarded by collectionsMutex_
    // The downloads a refresh looks at; changed with mutableDownloads_ (under
    // the mutation scope), guarded by its own mutex.
    const std::shared_ptr<ZNVTaskActivityIndex> downloadActivity_;

    // Tokens of the notification-center registrations made by launch.
    std::vector<ZNVNotificationToken> notificationTokens_;

    // The thread that runs a refresh when a planned recovery is due; shared
    // with that thread, which outlives the manager only until it notices.
    struct RecoveryTimer;
    std::shared_ptr<RecoveryTimer> recoveryTimer_;

    // Bumped by every queued save under collectionsMutex_, together with the
    // snapshot it saves; a save that finds a newer number skips itself.
    std::shared_ptr<std::atomic<uint64_t>> saveGeneration_ =
        std::make_shared<std::atomic<uint64_t>>(0);

    // Whether this manager may use the state file (network_state.cc).
    enum class StateLockStatus { Untried, Held, Refused, Unavailable };
    // Takes the queue's lock on first use; false when another process holds
    // it or the lock file cannot be used.
    bool acquireStateLock();
    mutable std::mutex stateMutex_;
    StateLockStatus stateLockStatus_ = StateLockStatus::Untried;  // guarded by stateMutex_
    std::shared_ptr<ZNVNetworkStateLock> stateLock_;              // guarded by stateMutex_
    ZNVErrorRef stateRestoreError_;                               // guarded by stateMutex_
    // Where the saves go, made on the first save (the configuration is fixed).
    struct StateFilePaths {
        std::string identifier;          // the "configuration type" value
        std::optional<ZNVURL> stateURL;  // none without an identifier
        std::optional<ZNVURL> tempURL;   // none unless the state URL is a file URL
    };
    const StateFilePaths& stateFilePaths() const;
    mutable std::once_flag stateFilePathsOnce_;
    mutable StateFilePaths stateFilePaths_;  // written once under stateFilePathsOnce_
    // Encodes and writes the saves; shared with the saves queued for it.
    const std::shared_ptr<ZNVStateWriter> stateWriter_ = ZNVStateWriter::create();
    // Beside the state file; made with the state file paths, none without a
    // file URL. Shared with the work that empties it after saves.
    std::shared_ptr<ZNVRemoteFileJournal> remoteFileJournal() const;
    mutable std::once_flag remoteFileJournalOnce_;
    mutable std::shared_ptr<ZNVRemoteFileJournal> remoteFileJournal_;  // written once
};

}  // namespace znv

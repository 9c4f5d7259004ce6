// ZNVStateWriter: encodes and writes a task manager's state file on a queue
// of its own, so that a save costs the session manager's queue no more than
// handing it over.
//
// Contract
// - One writer per manager (ZNVNetwork). `write` queues a save on the
//   writer's serial queue and returns at once; `writeNow` runs one on the
//   calling thread. Any thread may call either.
// - Saves carry a generation shared with the manager: a save whose generation
//   is no longer the newest when its turn comes is skipped, so the newest
//   snapshot wins and the file never goes back to an older one. Every save in
//   the process writes under one lock, so managers that share a state file
//   never interleave their writes.
// - The file is one keyed archive with the root keys "configuration type" and
//   "tasks" (an array of the tasks in collection order). Each save writes
//   "<state file>.tmp" (mode 0600), flushes it to disk and moves it over the
//   state file durably, so a crash leaves either the old or the new file.
//   Before that, the paths a re-encoded task asks for
//   (`takePathsToFlushBeforeSave`: a finished download's file and directory)
//   are flushed, so the file never calls a download completed whose bytes
//   could still be lost.
// - Cost: a task's archived text is re-encoded only when its
//   `archiveRevision` or its progress's completed count moved; the texts of
//   unchanged tasks are copied, by the kernel where it can, from the last
//   file this writer wrote (kept open for that), so the writer holds no text
//   between saves and the file is never assembled in memory. Saves queued
//   by `write` start no sooner than nine times the previous write's
//   duration (at most a second) after it ended, so a long queue that changes
//   fast keeps the writer busy a tenth of the time at most; saves asked
//   for meanwhile give way to the newest. While any thread of the process
//   waits for saves (`waitUntilWritten`, `waitForEarlierSaves`), writers do
//   not rest: a shutdown or a launch does not wait for the pacing.
// - Relaunch: from the moment a manager asks for a save until that save has
//   been written, skipped for a newer one or dropped, it holds a ticket
//   registered process-wide under its state file. A manager about to read
//   the file first waits for the tickets drawn before it
//   (`waitForEarlierSaves`), so a manager made right after another one was
//   released restores what that one saved last, and no late save of the old
//   one lands on the file after the new one has read it.
// - Log: after a save, "saving task state:" and its summary (one line per
//   running task, then counts of completed and suspended tasks); on failure
//   "failed to save task state: <error>" instead.
// - Lifetime: queued saves keep the writer alive until they have run;
//   `waitUntilWritten` lets a caller (orderly shutdown, tests) wait for them.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "znv/managers/task_list.h"
#include "znv/platform/url.h"
#include "znv/tasks/network_task.h"

namespace znv {

class ZNVOperationQueue;

class ZNVStateWriter : public std::enable_shared_from_this<ZNVStateWriter> {
  public:
    // Root keys of the state file.
    static const char* const kConfigurationTypeKey;  // "configuration type"
    static const char* const kTasksKey;              // "tasks"

    // A save on its way to a state file; see ticketForSave.
    class Ticket;

    struct Save {
        std::string identifier;                       // the "configuration type" value
        ZNVTaskList<ZNVNetworkTask>::Snapshot tasks;  // what the save writes
        ZNVURL stateURL;
        ZNVURL tempURL;
        // The manager's save counter and this save's number in it.
        std::shared_ptr<std::atomic<uint64_t>> generation;
        uint64_t mine = 0;
        // Registered until the last copy of the save is gone (written,
        // skipped or dropped with the queue that held it).
        std::shared_ptr<Ticket> ticket;
    };

    // Any thread. A ticket for a save of the state file at `statePath`.
    static std::shared_ptr<Ticket> ticketForSave(const std::string& statePath);
    // Any thread but a queue that carries saves. Blocks until every ticket
    // for `statePath` drawn before the call is gone; false when `timeout`
    // passed first.
    static bool waitForEarlierSaves(const std::string& statePath,
                                    std::chrono::milliseconds timeout);

    static std::shared_ptr<ZNVStateWriter> create();
    ~ZNVStateWriter();
    ZNVStateWriter(const ZNVStateWriter&) = delete;
    ZNVStateWriter& operator=(const ZNVStateWriter&) = delete;

    void write(Save save);
    void writeNow(const Save& save);

    // The newest generation whose save reached the disk (failed saves do not
    // count). Any thread.
    uint64_t savedGeneration() const { return saved_.load(); }

    // Why the newest save that ran did not reach the disk, or null when it
    // did (or none ran yet). Any thread.
    ZNVErrorRef lastFailure() const;

    // Blocks until a save of `generation` or a newer one has been written (or
    // has failed). False when the timeout passed first.
    bool waitUntilWritten(uint64_t generation, std::chrono::milliseconds timeout);

    // Runs `work` once a save of `generation` or a newer one has been written
    // (or has failed): at once on the calling thread when that has happened,
    // else on the writer's thread before anyone waiting for that save is
    // released, or when the writer is destroyed. The manager removes a
    // finished task's files this way, only once the file no longer lists it.
    void afterWritten(uint64_t generation, std::function<void()> work);

    // For tests: every reused archived text is compared with a fresh encoding
    // of its task, and a difference aborts the process (a change of the task
    // that did not move its revision).
    static void setVerifiesReusedText(bool verify);

  private:
    ZNVStateWriter() = default;
    // Runs a save queued by `write`, no sooner than `nextWrite_` unless
    // someone waits for saves.
    void runPaced(const Save& save);
    // False when the save was skipped for a newer one.
    bool run(const Save& save);
    // Writes the file for `save` to `fd`: each task's archived text, encoded
    // again where needed and else copied from the last file written; false
    // (and the error) when a task cannot be archived or the file written.
    bool assemble(const Save& save, int fd, const std::string& head, const std::string& tail,
                  ZNVErrorRef* error);
    void markWritten(uint64_t generation);

    // Where a task's archived text lies in the last file written, and what
    // the task was when it was encoded.
    struct Cached {
        uint64_t revision = 0;
        int64_t completedProgress = 0;
        uint64_t lastSave = 0;  // number of the last save that used it
        uint64_t offset = 0;
        uint64_t length = 0;
    };

    std::mutex queueMutex_;
    std::unique_ptr<ZNVOperationQueue> queue_;  // made on first use; guarded by queueMutex_

    // Used only by the save that holds the process-wide state file lock.
    std::unordered_map<const ZNVNetworkTask*, Cached> cache_;
    // The last file written (now the state file, or replaced since), kept
    // open so unchanged texts are copied from it; -1 when there is none.
    int lastFile_ = -1;
    // Where the save being written puts each task's text.
    std::vector<std::pair<uint64_t, uint64_t>> locations_;
    // When the writer's queue may write next; used only on that queue.
    std::chrono::steady_clock::time_point nextWrite_{};
    uint64_t saves_ = 0;

    mutable std::mutex writtenMutex_;
    std::condition_variable writtenChanged_;
    uint64_t written_ = 0;  // newest generation written or failed; guarded by writtenMutex_
    std::atomic<uint64_t> saved_{0};  // newest generation written
    uint64_t failed_ = 0;             // newest generation that failed; guarded by writtenMutex_
    ZNVErrorRef failure_;             // its error; guarded by writtenMutex_
    // Work waiting for a save, by the save's generation; guarded by writtenMutex_.
    std::multimap<uint64_t, std::function<void()>> afterWritten_;
};

}  // namespace znv

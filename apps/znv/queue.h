// znv's view of the library: the profile's task queue, opened either to run
// transfers (`TransferSession`) or only to read and edit it (`QueueFile`).
//
// Both are used from the main thread only. A TransferSession owns the
// embedded emulator (when no --server is given), the account and the storage
// manager. Commands keep it alive until the process ends (main leaves with
// _exit): stopping the emulator under running transfers would make the
// library record errors and save them over the queue it just saved.
#pragma once

#if __has_include("znv/managers/storage.h")
#define ZNV_CLI_HAVE_QUEUE 1

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "apps/znv/commands.h"
#include "apps/znv/destinations.h"
#include "apps/znv/embedded.h"
#include "apps/znv/output.h"
#include "apps/znv/task_ids.h"
#include "znv/account/account.h"
#include "znv/managers/network.h"
#include "znv/managers/storage.h"
#include "znv/tasks/network_download.h"
#include "znv/upload/storage_upload.h"

namespace znv::cli {

// Sends the library's log to znv's log file, and with -v (info) or -vv
// (debug) to standard error as well, with control characters escaped.
void routeLibraryLog(int verbosity);

TaskIdentity identityOf(const ZNVNetworkTaskRef& task);
// `text` as one word for a POSIX shell: as it is when only safe characters
// make it up, else in single quotes.
std::string shellQuoted(const std::string& text);

struct QueueEntry {
    ZNVNetworkTaskRef task;
    std::string id;    // short
    std::string hash;  // full
};

std::vector<QueueEntry> queueEntries(const std::vector<ZNVNetworkTaskRef>& tasks);
// The entry named by `typed`, or none with a message (exit status 2).
std::optional<QueueEntry> findEntry(const std::vector<QueueEntry>& entries,
                                    const std::string& typed, std::string* problem);

// The task as the reporters show it (no content URL or output: the caller
// adds what it knows).
TaskView viewOf(const QueueEntry& entry);

// Where a download the library completed stands for the user, who has it
// only once its file is where they asked. `Pending`: its file waits in the
// library's area for a run to put it in place (also after a delivery that
// failed: `retry` tries again). `Lost`: that file is gone, and only a new
// transfer brings the bytes back. `None` for every other task, a delivered
// download included.
// `destination` is looked up only for a completed download.
enum class Delivery { None, Pending, Lost };
Delivery deliveryOf(const ZNVNetworkTaskRef& task,
                    const std::function<std::optional<Destination>()>& destination);
// `view` as the user sees it: a download pending delivery is queued (or
// failed, when its delivery failed), a lost one failed.
void applyDelivery(TaskView& view, Delivery delivery);

// Why the library could not open a profile's queue ("" when it did): held by
// another process, or damaged (then kept aside). With --wait, `open` waits
// for the other process instead.
std::string queueProblem(const ZNVNetwork& network, const std::string& profile);
// Whether the library refused the queue because another process holds it.
bool queueHeldElsewhere(const ZNVNetwork& network);
// Blocks until no other process holds the profile's queue, saying so when
// `announce`, or until `until` has passed (then false); SIGINT or SIGTERM
// ends the process meanwhile (status 130 or 143).
bool waitForQueue(const std::string& profile, bool announce = true,
                  std::optional<std::chrono::steady_clock::time_point> until = std::nullopt);
// How long a command waits, without --wait, for a holder of the queue that
// may be about to let go (a `status` run by a script, say).
inline constexpr std::chrono::seconds kBriefQueueWait{2};

// The profile's queue read from its state file, with nothing started: for
// status, cancel and finish. Changes are saved with `save`.
class QueueFile {
  public:
    explicit QueueFile(const std::string& profile);
    // Waits for the queue when --wait asks for it; see `problem`.
    explicit QueueFile(const GlobalOptions& global);
    // Why the queue could not be used ("" when it could).
    const std::string& problem() const { return problem_; }
    std::vector<QueueEntry> entries() const { return queueEntries(network_->tasks()); }
    ZNVNetwork& network() { return *network_; }
    // Saves the queue; "" once it is on disk, else why it is not.
    std::string save();

  private:
    std::shared_ptr<ZNVNetwork> network_;
    std::string problem_;
};

// One finished (or interrupted) run of the queue.
struct RunResult {
    int exitStatus = kExitOK;
    std::vector<TaskView> tasks;
    double seconds = 0;
};

// The start times (microseconds, as TaskIdentity keeps them) of the tasks the
// profile's state file holds as unfinished, read without the library; empty
// when there is no readable state file.
std::vector<int64_t> archivedUnfinishedTasks(const std::string& profile);

class TransferSession {
  public:
    // Starts the embedded emulator unless --server was given (with `dataDir`
    // overriding its data directory), then the account and the storage
    // manager of the profile. The profile must be bound to this server (or
    // unbound: it is bound now). None with a message and the exit status on
    // failure (2 for a server the profile is not bound to).
    // The session lives until the process ends.
    static TransferSession* open(const GlobalOptions& global, std::string* error, int* exitStatus,
                                 const std::string& emulatorDataDir = {});
    ~TransferSession();

    ZNVStorage& storage() { return *storage_; }
    // The download destinations of the profile (read once the queue is held).
    DownloadDestinations& destinations() { return *destinations_; }
    EmbeddedEmulator& emulator() { return emulator_; }
    const GlobalOptions& options() const { return global_; }

    std::shared_ptr<ZNVStorageUpload> addUpload(const std::string& path, const std::string& name,
                                                bool video, bool forceChunks, std::string* error);
    std::shared_ptr<ZNVNetworkDownload> addDownload(const std::string& url,
                                                    const Destination& destination,
                                                    std::string* error);

    // Runs `tasks`, and alongside them every other unfinished task of the
    // queue, until none of the counted tasks is queued or running, reporting
    // as it goes; on SIGINT/SIGTERM saves the queue, prints the command that
    // continues and returns 130/143. With --offline it only saves and
    // reports. Counted are `tasks` only, or every task of the run with
    // `countAll` (resume): an unrelated task of the queue neither changes the
    // outcome of a command nor keeps it running (what it has not finished
    // stays queued, and a note says so).
    RunResult run(Reporter& reporter, const std::vector<ZNVNetworkTaskRef>& tasks,
                  bool countAll = false);

    // "znv [--profile P] [--server URL] resume", quoted for a shell.
    std::string resumeCommand() const;
    // What the continuing command needs beyond what it shows (the access
    // token given on the command line): "" or a parenthesised remark.
    std::string continueWith() const;

    // Saves the queue and waits until the state file is written; "" once it
    // is on disk, else why it is not (a full disk, say).
    std::string save();

  private:
    explicit TransferSession(GlobalOptions global);
    // Starts recording the states `task` passes through (and the URL session
    // task of a download) from now on; a short download may start and end
    // before the run loop looks at it.
    void observe(const ZNVNetworkTaskRef& task);
    void stopObserving(const ZNVNetworkTaskRef& task);

    GlobalOptions global_;
    std::string baseURL_;  // the service the session talks to
    EmbeddedEmulator emulator_;
    std::shared_ptr<ZNVTokenAccount> account_;
    std::shared_ptr<ZNVStorage> storage_;
    std::optional<DownloadDestinations> destinations_;  // read once the queue is held
    struct Observed;
    std::shared_ptr<Observed> observed_;
    // The tasks this session added (main thread only): the run counts all
    // of their bytes as its own.
    std::unordered_set<const ZNVNetworkTask*> added_;
    // The observed tasks and their tokens (main thread only).
    std::unordered_map<const ZNVNetworkTask*, std::pair<ZNVNetworkTaskRef, ZNVObserverToken>>
        observations_;
};

}  // namespace znv::cli

#endif

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
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "apps/znv/commands.h"
#include "apps/znv/embedded.h"
#include "apps/znv/output.h"
#include "apps/znv/task_ids.h"
#include "znv/account/account.h"
#include "znv/managers/network.h"
#include "znv/managers/storage.h"
#include "znv/tasks/network_download.h"
#include "znv/upload/storage_upload.h"

namespace znv::cli {

// Sends the library's log to znv's log file (never to the terminal).
void routeLibraryLog();

TaskIdentity identityOf(const ZNVNetworkTaskRef& task);

// Where pending downloads of a profile are delivered (task hash -> path),
// kept beside the log because the library's download task has no such field.
class DownloadDestinations {
  public:
    explicit DownloadDestinations(const std::string& profile);
    std::string get(const std::string& hash) const;
    void set(const std::string& hash, const std::string& path);
    void erase(const std::string& hash);

  private:
    void save() const;
    std::string path_;
    std::map<std::string, std::string> entries_;
};

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

// Why the library could not open a profile's queue ("" when it did): held by
// another process, or damaged (then kept aside). With --wait, `open` waits
// for the other process instead.
std::string queueProblem(const ZNVNetwork& network, const std::string& profile);
// Blocks until no other process holds the profile's queue.
void waitForQueue(const std::string& profile);

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
    void save();

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

class TransferSession {
  public:
    // Starts the embedded emulator unless --server was given (with `dataDir`
    // overriding its data directory), then the account and the storage
    // manager of the profile. None with a message on failure.
    // The session lives until the process ends.
    static TransferSession* open(const GlobalOptions& global, std::string* error,
                                 const std::string& emulatorDataDir = {});
    ~TransferSession();

    ZNVStorage& storage() { return *storage_; }
    EmbeddedEmulator& emulator() { return emulator_; }
    const GlobalOptions& options() const { return global_; }

    std::shared_ptr<ZNVStorageUpload> addUpload(const std::string& path, const std::string& name,
                                                bool video, bool forceChunks, std::string* error);
    std::shared_ptr<ZNVNetworkDownload> addDownload(const std::string& url,
                                                    const std::string& output, std::string* error);

    // Runs until none of `tasks` (and no other unfinished task of the queue)
    // is queued or running, reporting as it goes; on SIGINT/SIGTERM saves the
    // queue and returns 130/143. With --offline it only saves and reports.
    RunResult run(Reporter& reporter, const std::vector<ZNVNetworkTaskRef>& tasks);

    // Saves the queue and waits until the state file is written.
    void save();

  private:
    explicit TransferSession(GlobalOptions global);

    GlobalOptions global_;
    EmbeddedEmulator emulator_;
    std::shared_ptr<ZNVTokenAccount> account_;
    std::shared_ptr<ZNVStorage> storage_;
    DownloadDestinations destinations_;
};

}  // namespace znv::cli

#endif

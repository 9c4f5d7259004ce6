// Task state persistence of ZNVNetwork: the state file
// ~/Library/Network/<configuration identifier>.state holds the whole task
// collection as one keyed archive with the root keys "configuration type" and
// "tasks".
//
// Each save takes its snapshot of the collection when it is asked for and
// keeps its place on the session manager's background queue, one after
// another; there it only hands the snapshot to the manager's state writer
// (state_writer.h), which encodes and writes it on its own queue. A save that
// finds a newer save queued behind it skips itself, so adding thousands of
// tasks does not write thousands of full archives; the newest snapshot always
// wins. Snapshots share the collection's storage (ZNVTaskList), so taking one
// per change copies nothing.
//
// The snapshot and the save's number are taken under the collection's mutex,
// the same mutex every change of the collection holds: numbers follow the
// order of the snapshots, so the save that wins is always of the newest one.
//
// Restoring reads the file once, front to back, and decodes each task as soon
// as its text has been read: a long queue costs its tasks, not also its bytes
// and its whole document.
//
// One process per queue: "<state file>.lock" carries an exclusive flock for
// as long as a manager of this process uses the file (all managers of the
// process share the one lock). Another process's queue is never read or
// written: a refused manager works on an empty collection and saves nothing.
// A lock file that cannot be used (a link, directory or FIFO at its name)
// refuses the queue too: it cannot tell whether another process holds it.
//
// A state file that exists and cannot be restored is kept under a new name
// before anything can save over it, and the application is told through
// `stateRestoreError`; a file of another configuration identifier is not
// damage and stays as it is.
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <variant>

#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/foundation/network_utilities.h"
#include "znv/managers/network.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/keyed_archive.h"
#include "znv/platform/url_session_resume_data.h"
#include "znv/session/storage_path_manager.h"
#include "znv/tasks/network_download.h"

namespace znv {

const char* const ZNVNetwork_StateLockHolderPIDKey = "ZNVNetwork: state lock holder PID";

// An open lock file whose flock this process holds; closing it releases it.
class ZNVNetworkStateLock {
  public:
    explicit ZNVNetworkStateLock(int fd) : fd_(fd) {}
    ~ZNVNetworkStateLock() { ::close(fd_); }
    ZNVNetworkStateLock(const ZNVNetworkStateLock&) = delete;
    ZNVNetworkStateLock& operator=(const ZNVNetworkStateLock&) = delete;

  private:
    int fd_;
};

namespace {

const char* const kConfigurationTypeKey = ZNVStateWriter::kConfigurationTypeKey;
const char* const kTasksKey = ZNVStateWriter::kTasksKey;

// The state file of a configuration, or none when the name is empty.
std::optional<ZNVURL> _fileURLForNetworkStateWithConfiguration(
    const ZNVAccountConfigurationRef& configuration) {
    const std::string identifier =
        ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(configuration.get());
    if (identifier.empty()) return std::nullopt;
    return ZNVNetworkUtilities_libraryURLWithFileName(identifier + ".state");
}

// How long a launch waits for the saves of a manager released before it.
// Saves of a long queue are paced up to a second apart; a save that takes
// longer than this has stalled on the disk.
constexpr auto kEarlierSavesTimeout = std::chrono::seconds(10);

// Larger state files are not loaded: no queue of ours comes near it.
constexpr uint64_t kMaximumStateFileSize = uint64_t{256} << 20;

// The locks this process holds, by lock file path. A flock belongs to one
// open file description, so managers of one process share one.
struct StateLockRegistry {
    std::mutex mutex;
    std::map<std::string, std::weak_ptr<ZNVNetworkStateLock>> locks;  // guarded by mutex
};
StateLockRegistry& stateLockRegistry() {
    static auto* registry = new StateLockRegistry;  // outlives every manager
    return *registry;
}

// The PID written in a lock file by its holder, if it is there yet.
std::optional<int64_t> readLockHolder(int fd) {
    char text[32];
    const ssize_t n = ::pread(fd, text, sizeof text - 1, 0);
    if (n <= 0) return std::nullopt;
    int64_t pid = 0;
    auto [end, ec] = std::from_chars(text, text + n, pid);
    if (ec != std::errc() || end == text || end == text + n || *end != '\n' || pid <= 0) {
        return std::nullopt;
    }
    return pid;
}

struct StateLockAttempt {
    std::shared_ptr<ZNVNetworkStateLock> lock;  // held (possibly shared)
    bool heldElsewhere = false;
    std::optional<int64_t> holder;  // when held elsewhere and readable
    std::string problem;            // when the lock file cannot be used at all
    ZNVErrorRef problemError;       // the same, as an error naming the lock file
    bool unsupported = false;       // the file opened but cannot carry a flock
};

// flock errors of a file system that has no locks at all (some network and
// FUSE file systems), as opposed to a lock file that is not as it should be.
bool lockingUnsupported(int error) {
    return error == ENOLCK || error == EOPNOTSUPP || error == ENOTSUP || error == ENOSYS;
}

StateLockAttempt lockStateFile(const std::string& path) {
    auto& registry = stateLockRegistry();
    std::lock_guard<std::mutex> guard(registry.mutex);
    StateLockAttempt attempt;
    if (auto held = registry.locks[path].lock()) {
        attempt.lock = std::move(held);
        return attempt;
    }
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    // Only a regular file of its own name: a link planted there (even a
    // dangling one), a directory or a FIFO makes the lock unusable.
    const ZNVRegularFile file = ZNVOpenRegularFile(path, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
    if (file.fd < 0) {
        attempt.problem = file.reason();
        attempt.problemError = file.failure("cannot lock", path, true);
        return attempt;
    }
    const int fd = file.fd;
    int result;
    do {
        result = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const int lockErrno = errno;
        if (lockErrno == EWOULDBLOCK) {
            attempt.heldElsewhere = true;
            attempt.holder = readLockHolder(fd);
        } else {
            attempt.problem = std::strerror(lockErrno);
            attempt.problemError = ZNVFileErrorFromErrno(lockErrno, "cannot lock", path, true);
            attempt.unsupported = lockingUnsupported(lockErrno);
        }
        ::close(fd);
        return attempt;
    }
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd, 0) != 0 ||
        ::pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        ZNVLogError("cannot record the holder of {}: {}", path, std::strerror(errno));
    }
    attempt.lock = std::make_shared<ZNVNetworkStateLock>(fd);
    registry.locks[path] = attempt.lock;
    return attempt;
}

// "yyyymmddThhmmssZ" for now, in UTC.
std::string utcStamp() {
    const time_t now = ::time(nullptr);
    struct tm utc {};
    ::gmtime_r(&now, &utc);
    char text[32];
    const size_t length = ::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
    return std::string(text, length);
}

// Moves a damaged state file out of the way of every later save, keeps it
// readable only by its owner and tells why.
ZNVErrorRef keepDamagedStateFile(const ZNVURL& stateURL, const std::string& reason) {
    const std::string path = stateURL.path();
    std::string kept = path + ".damaged-" + utcStamp();
    // Two damaged files within one second keep both.
    for (int n = 2; ::access(kept.c_str(), F_OK) == 0 || errno != ENOENT; ++n) {
        kept = path + ".damaged-" + utcStamp() + "-" + std::to_string(n);
        if (n > 1000) break;
    }
    if (::rename(path.c_str(), kept.c_str()) != 0) {
        ZNVLogError("cannot keep damaged network task state {}: {}", path, std::strerror(errno));
        kept = path;
    } else {
        ::chmod(kept.c_str(), 0600);
        ZNVLogError("kept damaged network task state as {}", kept);
    }
    return ZNVError::make(
        NSCocoaErrorDomain, NSFileReadCorruptFileError,
        {{NSLocalizedDescriptionKey, "The saved task state is damaged (" + reason + ")."},
         {NSFilePathErrorKey, kept}});
}

// The longest reader's reason a damaged state file is reported with.
constexpr size_t kMaximumDamageReason = 160;

std::string describe(const ZNVErrorRef& error) {
    return error ? error->description() : std::string("(null)");
}

}  // namespace

ZNVErrorRef ZNVNetwork::stateRestoreError() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return stateRestoreError_;
}

bool ZNVNetwork::acquireStateLock() {
    std::lock_guard<std::mutex> lock(stateMutex_);
    if (stateLockStatus_ != StateLockStatus::Untried) {
        return stateLockStatus_ != StateLockStatus::Refused;
    }
    const auto stateURL = _fileURLForNetworkStateWithConfiguration(accountConfiguration_);
    if (!stateURL || !stateURL->isFileURL()) {
        stateLockStatus_ = StateLockStatus::Unavailable;
        return true;
    }
    const std::string lockPath = stateURL->path() + ".lock";
    StateLockAttempt attempt = lockStateFile(lockPath);
    if (attempt.lock) {
        stateLock_ = std::move(attempt.lock);
        stateLockStatus_ = StateLockStatus::Held;
        return true;
    }
    if (attempt.unsupported) {
        // A file system without flock cannot tell two processes apart; the
        // queue works as it would alone rather than not at all.
        ZNVLogError("cannot lock network task state {}: {}", lockPath, attempt.problem);
        stateLockStatus_ = StateLockStatus::Unavailable;
        return true;
    }
    stateLockStatus_ = StateLockStatus::Refused;
    if (!attempt.heldElsewhere) {
        // A lock file that cannot be opened or locked (a link, directory or
        // FIFO planted at its name, no permission) could be hiding another
        // process's hold on the queue: the queue is refused as if it were held.
        // The underlying error tells this refusal from a holder's.
        ZNVLogError("cannot lock network task state {}: {}", lockPath, attempt.problem);
        stateRestoreError_ = ZNVError::make(
            NSCocoaErrorDomain, NSFileLockingError,
            {{NSLocalizedDescriptionKey,
              "The task queue cannot be locked (" + lockPath + ": " + attempt.problem + ")."},
             {NSFilePathErrorKey, stateURL->path()},
             {NSUnderlyingErrorKey, std::move(attempt.problemError)}});
        return false;
    }
    const std::string holder =
        attempt.holder ? "process " + std::to_string(*attempt.holder) : "another process";
    ZNVUserInfo info{{NSLocalizedDescriptionKey, "The task queue is in use by " + holder + "."},
                     {NSFilePathErrorKey, stateURL->path()}};
    if (attempt.holder) info[ZNVNetwork_StateLockHolderPIDKey] = *attempt.holder;
    stateRestoreError_ = ZNVError::make(NSCocoaErrorDomain, NSFileLockingError, std::move(info));
    ZNVLogError("network task state {} is in use by {}; not using it", stateURL->path(), holder);
    return false;
}

const ZNVNetwork::StateFilePaths& ZNVNetwork::stateFilePaths() const {
    // Made once: every change asks for a save, and building the URLs costs
    // more than the rest of asking.
    std::call_once(stateFilePathsOnce_, [this] {
        stateFilePaths_.identifier =
            ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(accountConfiguration_.get());
        stateFilePaths_.stateURL = _fileURLForNetworkStateWithConfiguration(accountConfiguration_);
        const auto& stateURL = stateFilePaths_.stateURL;
        if (stateURL && stateURL->isFileURL())
            stateFilePaths_.tempURL = ZNVURL::fileURL(stateURL->path() + ".tmp");
    });
    return stateFilePaths_;
}

std::shared_ptr<ZNVRemoteFileJournal> ZNVNetwork::remoteFileJournal() const {
    std::call_once(remoteFileJournalOnce_, [this] {
        const auto& stateURL = stateFilePaths().stateURL;
        if (stateURL && stateURL->isFileURL()) {
            remoteFileJournal_ =
                std::make_shared<ZNVRemoteFileJournal>(stateURL->path() + ".journal");
        }
    });
    return remoteFileJournal_;
}

uint64_t ZNVNetwork::recordRemoteFileID(const ZNVRemoteFileJournal::Entry& entry) {
    auto journal = remoteFileJournal();
    // Another process's queue: its files are not ours to write.
    if (!journal || !acquireStateLock()) return 0;
    return journal->record(entry);
}

void ZNVNetwork::forgetRemoteFileIDsAfterNextSave(uint64_t count) {
    auto journal = remoteFileJournal();
    if (!journal) return;
    // A save asked for from now on encodes the tasks as they are now, IDs
    // included. The writer also runs this work when it is destroyed, with
    // nothing saved: the journal is emptied only if that save is on disk.
    const uint64_t target = saveGeneration_->load() + 1;
    std::weak_ptr<ZNVStateWriter> weakWriter = stateWriter_;
    stateWriter_->afterWritten(target, [journal, count, target, weakWriter] {
        auto writer = weakWriter.lock();
        if (writer && writer->savedGeneration() >= target) journal->forgetUpTo(count);
    });
}

void ZNVNetwork::applyRecordedRemoteFileIDs(const std::vector<ZNVNetworkTaskRef>&,
                                            const std::vector<ZNVRemoteFileJournal::Entry>&) {}

namespace {

// The partial files that restored downloads' resume data (in the task or in
// its error) names.
std::set<std::string> partialFilesNamedBy(const std::vector<ZNVNetworkTaskRef>& restored) {
    std::set<std::string> named;
    const auto name = [&named](const ZNVBytes& data) {
        if (auto info = ZNVURLSessionResumeData::decode(data)) named.insert(info->partialFile);
    };
    for (const auto& task : restored) {
        auto download = std::dynamic_pointer_cast<ZNVNetworkDownload>(task);
        if (!download) continue;
        if (const std::optional<ZNVBytes> data = download->resumeData()) name(*data);
        if (const ZNVErrorRef raw = download->rawError()) {
            if (const ZNVUserInfoValue* value = raw->value(NSURLSessionDownloadTaskResumeData)) {
                if (const ZNVBytes* bytes = std::get_if<ZNVBytes>(value)) name(*bytes);
            }
        }
    }
    return named;
}

}  // namespace

void ZNVNetwork::removeUnsavedDownloadedFiles(
    const std::vector<ZNVNetworkTaskRef>& restored,
    const std::vector<ZNVRemoteFileJournal::Entry>& entries,
    const std::set<std::string>& partials) {
    std::set<std::string> named;
    for (const auto& task : restored) {
        auto download = std::dynamic_pointer_cast<ZNVNetworkDownload>(task);
        if (!download) continue;
        if (const std::optional<ZNVURL> local = download->localFileURL()) {
            named.insert(local->path());
        }
    }
    for (const auto& entry : entries) {
        if (entry.downloadedFile.empty()) continue;
        const std::optional<ZNVURL> file =
            ZNVNetworkUtilities_libraryURLWithFileName(entry.downloadedFile);
        struct stat info {};
        if (!file || named.count(file->path()) || ::lstat(file->path().c_str(), &info) != 0) {
            continue;
        }
        // A restored download whose resume data still names the partial file
        // this one was moved from gets it back, whole: its next transfer asks
        // for nothing more than the server's word that it is complete.
        struct stat from {};
        const std::string& partial = entry.downloadedFrom;
        if (partials.count(partial) && ZNVURLSessionResumeData::isPartialFilePath(partial) &&
            ::lstat(partial.c_str(), &from) != 0 && errno == ENOENT &&
            ::rename(file->path().c_str(), partial.c_str()) == 0) {
            ZNVLogInfo("   moved {}, downloaded after the last save, back to {}", file->path(),
                       partial);
            continue;
        }
        ZNVNetworkUtilities_removeFileAtURL(*file);
        ZNVLogInfo("   removed {}, downloaded after the last save", file->path());
    }
}

void ZNVNetwork::writeState() {
    if (isReadingState() || isBatchingSave() || invalidated_.load()) return;
    const StateFilePaths& paths = stateFilePaths();
    if (!paths.stateURL || !paths.tempURL) return;
    const ZNVURL& stateURL = *paths.stateURL;
    const ZNVURL& tempURL = *paths.tempURL;
    if (!acquireStateLock()) return;

    incrementBackgroundActivity();
    // The snapshot is taken now, on the calling thread: the save writes the
    // collection as it was when the save was asked for, whatever happens to
    // the manager or its collection meanwhile. Its number is drawn under the
    // same lock, so a later number always belongs to a later snapshot.
    const std::string& identifier = paths.identifier;
    auto generation = saveGeneration_;
    ZNVTaskList<ZNVNetworkTask>::Snapshot snapshot;
    uint64_t mine = 0;
    {
        std::lock_guard<std::mutex> lock(collectionsMutex_);
        snapshot = mutableTasks_.snapshot();
        mine = ++*generation;
    }
    ZNVStateWriter::Save save{identifier,
                              std::move(snapshot),
                              stateURL,
                              tempURL,
                              generation,
                              mine,
                              ZNVStateWriter::ticketForSave(stateURL.path())};
    auto writer = stateWriter_;

    if (auto session = sessionManager()) {
        // The work item keeps the session manager (and so its queue) alive
        // until the save has been handed over, also after the manager has
        // dropped it. A save superseded meanwhile is not even handed over.
        session->performBackgroundSessionBlock([writer, save = std::move(save), session]() mutable {
            if (save.generation->load() == save.mine) writer->write(std::move(save));
        });
    } else {
        ZNVLogDefault("No session manager available to serialize save.");
        writer->writeNow(save);
    }
    decrementBackgroundActivity();
}

bool ZNVNetwork::waitUntilStateIsWritten(std::chrono::milliseconds timeout) {
    return stateWriter_->waitUntilWritten(saveGeneration_->load(), timeout);
}

ZNVErrorRef ZNVNetwork::stateSaveError() const {
    return stateWriter_->lastFailure();
}

void ZNVNetwork::readState() {
    readingState_ = true;
    struct ClearFlag {
        std::atomic<bool>& flag;
        ~ClearFlag() { flag = false; }
    } clearFlag{readingState_};

    const auto stateURL = _fileURLForNetworkStateWithConfiguration(accountConfiguration_);
    if (!stateURL) return;
    if (!acquireStateLock()) return;  // another process's queue
    // A manager of this queue released just before this one may still have
    // saves on their way: the file is read once they are on it.
    if (!ZNVStateWriter::waitForEarlierSaves(stateURL->path(), kEarlierSavesTimeout)) {
        ZNVLogError(
            "network task state {} is still being saved by an earlier manager; reading it as it is",
            stateURL->path());
    }
    // Opened without waiting on whatever is at the name: a FIFO there would
    // otherwise hold the launch (and the process) until a writer came.
    const ZNVRegularFile file = ZNVOpenRegularFile(stateURL->path(), O_RDONLY);
    if (file.fd < 0 && (file.error == ENOENT || file.error == ENOTDIR)) return;  // first launch

    // From here on a file exists: whatever keeps it from being restored
    // (other than belonging to another configuration) keeps it aside.
    const auto damaged = [&](const std::string& reason) {
        ZNVErrorRef error = keepDamagedStateFile(*stateURL, reason);
        std::lock_guard<std::mutex> lock(stateMutex_);
        stateRestoreError_ = std::move(error);
    };
    if (file.fd < 0 || file.size == 0) {
        const std::string why = file.fd < 0 ? file.reason() : "the file is empty";
        if (file.fd >= 0) ::close(file.fd);
        ZNVLogError("failed to read network task state: {}", why);
        damaged(file.fd < 0 ? "unreadable: " + why : "empty");
        return;
    }
    if (file.size > kMaximumStateFileSize) {
        ::close(file.fd);
        ZNVLogError("failed to read network task state: {}",
                    "the file is larger than 256 MiB (" + std::to_string(file.size) + " bytes)");
        damaged("larger than 256 MiB");
        return;
    }

    // The tasks are decoded while the file is read and parsed, so a long
    // queue is held neither as its bytes nor as one document besides its
    // tasks.
    const std::set<std::string> taskClasses{ZNVArchiveMutableArrayClassName, "ZNVNetworkTask"};
    ZNVErrorRef setupError;
    ::posix_fadvise(file.fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    std::unique_ptr<ZNVKeyedUnarchiver> unarchiver =
        ZNVKeyedUnarchiver::createDecodingArray(file.fd, kTasksKey, taskClasses, &setupError);
    ::close(file.fd);
    if (!unarchiver) {
        ZNVLogError("failed to set up reader for network task state: {}", describe(setupError));
        // The reader's reason (a newer archive version, a parse error) tells
        // the user more than the bare verdict. A parse error quotes what it
        // read, which can be megabytes: the reason is cut to a line.
        std::string reason = setupError ? setupError->localizedDescription() : std::string();
        if (reason.size() > kMaximumDamageReason) {
            size_t cut = kMaximumDamageReason;
            while (cut > 0 && (static_cast<unsigned char>(reason[cut]) & 0xC0) == 0x80)
                --cut;  // not inside a UTF-8 sequence
            reason = reason.substr(0, cut) + "...";
        }
        damaged(reason.empty() ? "not a task archive" : "not a task archive: " + reason);
        return;
    }

    const std::string identifier =
        ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(accountConfiguration_.get());
    std::optional<std::string> stored;
    if (unarchiver->isStringForKey(kConfigurationTypeKey)) {
        stored = unarchiver->decodeStringForKey(kConfigurationTypeKey);
    }
    if (!stored || *stored != identifier) {
        ZNVLogDefault("Failed to load {} task state for {} network session.",
                      stored.value_or("(null)"), identifier);
        unarchiver->finishDecoding();
        // A file saved for another identifier is intact; one without any is not ours.
        if (!stored) damaged("no configuration type");
        return;
    }

    ZNVErrorRef decodeError;
    auto decoded = unarchiver->decodeArrayOfClassesForKey(taskClasses, kTasksKey);
    if (unarchiver->error()) {
        // Damaged or foreign content anywhere in the list: restore nothing.
        decoded.reset();
        decodeError = ZNVNetworkErrorHandler_createCocoaError(NSFileReadCorruptFileError,
                                                              "Unable to decode 32-bit task data.");
    }

    if (!decoded) {
        ZNVLogError("failed to parse network task state: {}", describe(decodeError));
        unarchiver->finishDecoding();
        damaged("the tasks cannot be decoded");
        return;
    }
    ZNVLogInfo("restoring task state:");
    const bool logEach = ZNVLog().should_log(spdlog::level::info);
    std::vector<ZNVNetworkTaskRef> restored;
    restored.reserve(decoded->size());
    for (auto& object : *decoded) {
        auto task = std::dynamic_pointer_cast<ZNVNetworkTask>(object);
        object.reset();
        if (!task) continue;
        restored.push_back(task);
    }
    decoded.reset();
    unarchiver->finishDecoding();
    const std::set<std::string> partials = partialFilesNamedBy(restored);
    // IDs the service gave after the last save, before a kill: without them
    // the uploads would create their remote files again.
    if (auto journal = remoteFileJournal()) {
        const auto entries = journal->read();
        if (!entries.empty()) {
            applyRecordedRemoteFileIDs(restored, entries);
            removeUnsavedDownloadedFiles(restored, entries, partials);
            forgetRemoteFileIDsAfterNextSave(0);
        }
    }
    for (const auto& task : restored) {
        addTask(task);
        if (logEach) ZNVLogInfo("   restored state for {}", task->description());
    }
    removeUnnamedPartialFiles(identifier, partials);
}

void ZNVNetwork::removeUnnamedPartialFiles(const std::string& tag,
                                           const std::set<std::string>& named) {
    for (const auto& file : ZNVURLSessionResumeData::removeUnnamedPartialFiles(
             tag, named, ZNVStoragePathManager::processStartTime())) {
        ZNVLogInfo("   removed partial download file that no task refers to: {}", file);
    }
}

}  // namespace znv

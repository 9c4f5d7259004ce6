#include "znv/managers/state_writer.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "znv/foundation/log.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/keyed_archive.h"
#include "znv/platform/operation_queue.h"
#include "znv/platform/progress.h"

namespace znv {

const char* const ZNVStateWriter::kConfigurationTypeKey = "configuration type";
const char* const ZNVStateWriter::kTasksKey = "tasks";

namespace {

std::atomic<bool> verifiesReusedText{false};

// Serialises the file work of every save in the process: managers of one
// configuration identifier share the state file and its temporary file.
std::mutex& stateFileMutex() {
    static std::mutex mutex;
    return mutex;
}

ZNVErrorRef posixError(int code, const std::string& what, const ZNVURL& url) {
    return ZNVError::make(NSCocoaErrorDomain, NSFileWriteUnknownError,
                          {{NSLocalizedDescriptionKey, what + ": " + std::strerror(code)},
                           {NSFilePathErrorKey, url.path()}});
}

// Writes a file front to back from text and from byte ranges of another
// file (copied by the kernel where it can), keeping little in memory.
class FileAssembler {
  public:
    explicit FileAssembler(int fd) : fd_(fd) {}

    uint64_t position() const { return position_ + buffer_.size(); }

    void append(std::string_view text) {
        if (!ok_) return;
        buffer_.append(text);
        if (buffer_.size() >= kBufferSize) flushBuffer();
    }

    // Copies `length` bytes at `offset` of `source`.
    void appendRange(int source, uint64_t offset, uint64_t length) {
        flushBuffer();
        while (ok_ && length > 0) {
            auto from = static_cast<off_t>(offset);
            ssize_t n = ::copy_file_range(source, &from, fd_, nullptr, length, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 &&
                (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
                n = copyThroughBuffer(source, offset, length);
            }
            if (n <= 0) {
                // A short source is a file that changed under us.
                fail(n == 0 ? EIO : errno);
                return;
            }
            offset += static_cast<uint64_t>(n);
            length -= static_cast<uint64_t>(n);
            position_ += static_cast<uint64_t>(n);
        }
    }

    // Writes what is buffered and flushes the file to disk.
    bool finish(int* savedErrno) {
        flushBuffer();
        if (ok_ && ::fsync(fd_) != 0) fail(errno);
        *savedErrno = errno_;
        return ok_;
    }

  private:
    static constexpr size_t kBufferSize = size_t{1} << 20;

    void fail(int code) {
        if (ok_) errno_ = code;
        ok_ = false;
    }

    bool writeAll(const char* data, size_t size) {
        if (ok_ && !ZNVWriteAll(fd_, data, size)) fail(errno);
        return ok_;
    }

    void flushBuffer() {
        if (buffer_.empty()) return;
        if (writeAll(buffer_.data(), buffer_.size())) position_ += buffer_.size();
        buffer_.clear();
    }

    // One piece of a range without copy_file_range: read, then write.
    ssize_t copyThroughBuffer(int source, uint64_t offset, uint64_t length) {
        std::string chunk(std::min<uint64_t>(length, kBufferSize), '\0');
        ssize_t n;
        do {
            n = ::pread(source, chunk.data(), chunk.size(), static_cast<off_t>(offset));
        } while (n < 0 && errno == EINTR);
        if (n <= 0) return n;
        return writeAll(chunk.data(), static_cast<size_t>(n)) ? n : -1;
    }

    int fd_;
    bool ok_ = true;
    int errno_ = 0;
    uint64_t position_ = 0;  // bytes already in the file
    std::string buffer_;
};

// The bytes of `length` at `offset` of a file, or none.
std::optional<std::string> readRange(int fd, uint64_t offset, uint64_t length) {
    std::string text(length, '\0');
    size_t done = 0;
    while (done < length) {
        ssize_t n =
            ::pread(fd, text.data() + done, length - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        done += static_cast<size_t>(n);
    }
    return text;
}

// Flushes the paths the task asks to be on disk before it is archived.
void flushBeforeSave(ZNVNetworkTask& task) {
    for (const std::string& path : task.takePathsToFlushBeforeSave()) {
        ZNVErrorRef error;
        // A file removed meanwhile (the task was finished) needs nothing.
        if (!ZNVFlushToDisk(path, &error) && ::access(path.c_str(), F_OK) == 0) {
            ZNVLogError("failed to flush {} to disk: {}", path,
                        error ? error->description() : std::string("(null)"));
        }
    }
}

int64_t completedProgressOf(const ZNVNetworkTask& task) {
    auto progress = task.progress();
    return progress ? progress->completedUnitCount() : 0;
}

void logSummary(const ZNVTaskList<ZNVNetworkTask>::Snapshot& tasks) {
    // The summary counts every task: not worth a walk when nobody reads it.
    if (!ZNVLog().should_log(spdlog::level::info)) return;
    ZNVLogInfo("saving task state:");
    uint64_t suspended = 0;
    uint64_t completed = 0;
    for (const auto& task : tasks) {
        switch (task->state()) {
            case ZNVNetworkTaskStateRunning:
                ZNVLogInfo("   stored state for {}", task->description());
                break;
            case ZNVNetworkTaskStateCompleted:
                ++completed;
                break;
            default:
                ++suspended;
                break;
        }
    }
    if (completed != 0) ZNVLogInfo("   stored state for {} completed tasks", completed);
    if (suspended != 0) ZNVLogInfo("   stored state for {} suspended tasks", suspended);
}

// The saves of this process not yet written, skipped or dropped, by state
// file: numbers drawn from one counter, so "drawn before" is a comparison.
// Also whether anyone waits for saves: resting writers then write at once.
struct PendingSaves {
    std::mutex mutex;
    std::condition_variable changed;
    std::condition_variable hurried;                        // `waiting` became non-zero
    uint64_t next = 1;                                      // guarded by mutex
    std::map<std::string, std::set<uint64_t>> outstanding;  // guarded by mutex
    int waiting = 0;  // threads in waitUntilWritten or waitForEarlierSaves; guarded by mutex
};
PendingSaves& pendingSaves() {
    static PendingSaves& pending = *[] {
        // A child made by fork has none of the threads that would finish the
        // parent's saves: it starts with none pending, and with the lock free.
        pthread_atfork([] { pendingSaves().mutex.lock(); }, [] { pendingSaves().mutex.unlock(); },
                       [] {
                           pendingSaves().outstanding.clear();
                           pendingSaves().waiting = 0;
                           pendingSaves().mutex.unlock();
                       });
        return new PendingSaves;  // outlives every writer
    }();
    return pending;
}

// Counts the calling thread as waiting for saves while it lives; the caller
// holds the registry's lock when it makes and when it ends one.
class WaitingForSaves {
  public:
    explicit WaitingForSaves(PendingSaves& pending) : pending_(pending) {
        if (pending_.waiting++ == 0) pending_.hurried.notify_all();
    }
    ~WaitingForSaves() { --pending_.waiting; }
    WaitingForSaves(const WaitingForSaves&) = delete;
    WaitingForSaves& operator=(const WaitingForSaves&) = delete;

  private:
    PendingSaves& pending_;
};

}  // namespace

class ZNVStateWriter::Ticket {
  public:
    Ticket(std::string path, uint64_t number) : path_(std::move(path)), number_(number) {}
    ~Ticket() {
        auto& pending = pendingSaves();
        {
            std::lock_guard<std::mutex> lock(pending.mutex);
            auto found = pending.outstanding.find(path_);
            if (found != pending.outstanding.end()) {
                found->second.erase(number_);
                if (found->second.empty()) pending.outstanding.erase(found);
            }
        }
        pending.changed.notify_all();
    }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

  private:
    const std::string path_;
    const uint64_t number_;
};

std::shared_ptr<ZNVStateWriter::Ticket> ZNVStateWriter::ticketForSave(
    const std::string& statePath) {
    auto& pending = pendingSaves();
    std::lock_guard<std::mutex> lock(pending.mutex);
    const uint64_t number = pending.next++;
    pending.outstanding[statePath].insert(number);
    return std::make_shared<Ticket>(statePath, number);
}

bool ZNVStateWriter::waitForEarlierSaves(const std::string& statePath,
                                         std::chrono::milliseconds timeout) {
    auto& pending = pendingSaves();
    std::unique_lock<std::mutex> lock(pending.mutex);
    const uint64_t before = pending.next;
    WaitingForSaves waiting(pending);
    return pending.changed.wait_for(lock, timeout, [&] {
        auto found = pending.outstanding.find(statePath);
        return found == pending.outstanding.end() || *found->second.begin() >= before;
    });
}

std::shared_ptr<ZNVStateWriter> ZNVStateWriter::create() {
    return std::shared_ptr<ZNVStateWriter>(new ZNVStateWriter());
}

ZNVStateWriter::~ZNVStateWriter() {
    if (lastFile_ >= 0) ::close(lastFile_);
    // Nothing will be written any more: what waited for a save runs now.
    for (auto& [generation, work] : afterWritten_)
        work();
}

void ZNVStateWriter::afterWritten(uint64_t generation, std::function<void()> work) {
    if (!work) return;
    {
        std::lock_guard<std::mutex> lock(writtenMutex_);
        if (written_ < generation) {
            afterWritten_.emplace(generation, std::move(work));
            return;
        }
    }
    work();
}

void ZNVStateWriter::setVerifiesReusedText(bool verify) {
    verifiesReusedText = verify;
}

void ZNVStateWriter::write(Save save) {
    std::lock_guard<std::mutex> lock(queueMutex_);
    if (!queue_) queue_ = std::make_unique<ZNVOperationQueue>("ZNVStateWriter");
    // The item keeps the writer (and so its queue) alive until it has run.
    queue_->addOperation(
        [self = shared_from_this(), save = std::move(save)] { self->runPaced(save); });
}

ZNVErrorRef ZNVStateWriter::lastFailure() const {
    std::lock_guard<std::mutex> lock(writtenMutex_);
    return failed_ > saved_.load() ? failure_ : nullptr;
}

void ZNVStateWriter::writeNow(const Save& save) {
    run(save);
}

bool ZNVStateWriter::waitUntilWritten(uint64_t generation, std::chrono::milliseconds timeout) {
    auto& pending = pendingSaves();
    std::optional<WaitingForSaves> waiting;
    {
        std::lock_guard<std::mutex> lock(pending.mutex);
        waiting.emplace(pending);
    }
    bool written;
    {
        std::unique_lock<std::mutex> lock(writtenMutex_);
        written = writtenChanged_.wait_for(lock, timeout, [&] { return written_ >= generation; });
    }
    std::lock_guard<std::mutex> lock(pending.mutex);
    waiting.reset();
    return written;
}

void ZNVStateWriter::markWritten(uint64_t generation) {
    std::vector<std::function<void()>> due;
    {
        std::lock_guard<std::mutex> lock(writtenMutex_);
        if (generation > written_) written_ = generation;
        const auto end = afterWritten_.upper_bound(written_);
        for (auto it = afterWritten_.begin(); it != end; ++it)
            due.push_back(std::move(it->second));
        afterWritten_.erase(afterWritten_.begin(), end);
    }
    // Before the waiters: a save waited for includes what had to follow it.
    for (auto& work : due)
        work();
    writtenChanged_.notify_all();
}

bool ZNVStateWriter::assemble(const Save& save, int fd, const std::string& head,
                              const std::string& tail, ZNVErrorRef* error) {
    const uint64_t number = ++saves_;
    FileAssembler file(fd);
    file.append(head);
    // A run of unchanged tasks that lay side by side in the last file (with
    // their commas) is copied in one piece.
    bool inRun = false;
    uint64_t runOffset = 0;  // in the last file
    uint64_t runEnd = 0;     // in the last file
    uint64_t runStart = 0;   // in the new file
    const auto endRun = [&] {
        if (inRun) file.appendRange(lastFile_, runOffset, runEnd - runOffset);
        inRun = false;
    };
    locations_.clear();
    locations_.reserve(save.tasks.size());
    size_t i = 0;
    for (auto walk = save.tasks.begin(); walk != save.tasks.end(); ++walk, ++i) {
        ZNVNetworkTask& task = **walk;
        // Read before encoding: a change made meanwhile leaves a newer
        // revision behind, and the next save encodes the task again.
        const uint64_t revision = task.archiveRevision();
        const int64_t completed = completedProgressOf(task);
        auto [entry, added] = cache_.try_emplace(&task);
        Cached& cached = entry->second;
        const bool current = !added && lastFile_ >= 0 && cached.revision == revision &&
                             cached.completedProgress == completed;
        if (current && verifiesReusedText) {
            std::string fresh = ZNVKeyedArchiver::encodedTopLevelArrayElement(task);
            auto kept = readRange(lastFile_, cached.offset, cached.length);
            if ((!kept || fresh != *kept) && task.archiveRevision() == revision &&
                completedProgressOf(task) == completed) {
                std::fprintf(stderr,
                             "stale archived text reused for %s:\n  kept:  %s\n  fresh: %s\n",
                             task.description().c_str(), kept ? kept->c_str() : "(unreadable)",
                             fresh.c_str());
                std::abort();
            }
        }
        if (current) {
            if (!inRun || runEnd + 1 != cached.offset) {
                endRun();
                if (i != 0) file.append(",");
                inRun = true;
                runOffset = cached.offset;
                runStart = file.position();
            }
            // Extending the run takes the comma between the two texts along.
            runEnd = cached.offset + cached.length;
            locations_.push_back({runStart + (cached.offset - runOffset), cached.length});
        } else {
            endRun();
            if (i != 0) file.append(",");
            std::string text = ZNVKeyedArchiver::encodedTopLevelArrayElement(task, error);
            if (*error) {
                cache_.erase(entry);
                return false;
            }
            // Taken after encoding: a text that calls a download completed
            // was encoded after its file was moved, so the file is flushed
            // before this save can replace the last one.
            flushBeforeSave(task);
            cached.revision = revision;
            cached.completedProgress = completed;
            locations_.push_back({file.position(), text.size()});
            file.append(text);
        }
        cached.lastSave = number;
    }
    endRun();
    file.append(tail);
    int savedErrno = 0;
    if (!file.finish(&savedErrno)) {
        *error = posixError(savedErrno, "cannot write the task state file", save.tempURL);
        return false;
    }
    // Forget tasks that have left the collection once they make up half of
    // what is kept.
    if (cache_.size() > 2 * save.tasks.size() + 64) {
        std::erase_if(cache_,
                      [number](const auto& item) { return item.second.lastSave != number; });
    }
    return true;
}

void ZNVStateWriter::runPaced(const Save& save) {
    if (save.generation && save.generation->load() != save.mine) return;
    // Every save rewrites the whole file: queued saves wait until the writer
    // has rested nine times as long as the last write took (at most a
    // second), so that a long queue changing fast costs a tenth of a core and
    // of the disk at most; the saves asked for meanwhile give way to the
    // newest. (At 10,000 queued tasks a save is about 9 MB: resting three
    // times as long wrote nearly as many bytes of state as the uploads sent.)
    // Someone waiting for saves (a shutdown, a launch) ends the rest.
    {
        auto& pending = pendingSaves();
        std::unique_lock<std::mutex> lock(pending.mutex);
        pending.hurried.wait_until(lock, nextWrite_, [&] { return pending.waiting > 0; });
    }
    const auto start = std::chrono::steady_clock::now();
    if (!run(save)) return;
    const auto end = std::chrono::steady_clock::now();
    nextWrite_ = end + std::min<std::chrono::steady_clock::duration>(9 * (end - start),
                                                                     std::chrono::seconds(1));
}

bool ZNVStateWriter::run(const Save& save) {
    const auto superseded = [&] {
        // A newer snapshot is queued behind this one (or already written).
        return save.generation && save.generation->load() != save.mine;
    };
    if (superseded()) return false;
    // Files of finished downloads are flushed before the process-wide lock is
    // taken, so a long flush does not hold up the saves of other managers.
    // Whatever finishes after this pass is flushed under the lock, once its
    // task has been encoded (see assemble).
    for (const auto& task : save.tasks)
        flushBeforeSave(*task);
    std::lock_guard<std::mutex> lock(stateFileMutex());
    if (superseded()) return false;

    ZNVErrorRef error;
    std::string head;
    std::string tail;
    ZNVKeyedArchiver archiver;
    archiver.encodeString(save.identifier, kConfigurationTypeKey);
    if (!archiver.encodedStringAroundObjectArray(kTasksKey, &head, &tail)) {
        error = archiver.error();
        if (!error) {
            error = ZNVError::withMessage(NSCocoaErrorDomain, NSFileWriteUnknownError,
                                          "cannot lay out the task state archive");
        }
    }

    bool replaced = false;
    int fd = -1;
    if (!error) {
        ZNVNetworkUtilities_removeFileAtURL(save.tempURL);
        ZNVNetworkUtilities_ensureFileAtURL(save.tempURL);
        const std::string path = save.tempURL.path();
        // O_CREAT only for the reason of a failure: when the file could not be
        // made above (a directory that cannot be written), this open fails
        // with that cause instead of "no such file".
        do {
            fd = ::open(path.c_str(), O_RDWR | O_TRUNC | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
        } while (fd < 0 && errno == EINTR);
        if (fd < 0) {
            error = posixError(errno, "cannot open the task state file for writing", save.tempURL);
        } else if (::fchmod(fd, 0600) != 0) {
            error = posixError(errno, "cannot write the task state file", save.tempURL);
        }
    }
    if (!error && assemble(save, fd, head, tail, &error)) {
        // The file is on disk already (assemble flushed it): the rename and
        // its directory are what remain to make it durable.
        const std::string statePath = save.stateURL.path();
        replaced = ZNVMoveFile(save.tempURL.path(), statePath, &error) &&
                   ZNVFlushToDisk(std::filesystem::path(statePath).parent_path().string(), &error);
        ZNVNetworkUtilities_removeFileAtURL(save.tempURL);
    }
    if (replaced) {
        // The new file is where the next save copies unchanged tasks from.
        size_t i = 0;
        for (auto walk = save.tasks.begin(); walk != save.tasks.end(); ++walk, ++i) {
            Cached& cached = cache_[walk->get()];
            cached.offset = locations_[i].first;
            cached.length = locations_[i].second;
        }
        if (lastFile_ >= 0) ::close(lastFile_);
        lastFile_ = std::exchange(fd, -1);
    } else {
        // Nothing known about the file any more: the next save encodes all.
        cache_.clear();
        if (lastFile_ >= 0) ::close(lastFile_);
        lastFile_ = -1;
    }
    if (fd >= 0) ::close(fd);
    // A file that did not replace the state is of no use; on a full disk it
    // would hold the room the next save needs.
    if (!replaced) ZNVNetworkUtilities_removeFileAtURL(save.tempURL);
    locations_.clear();
    locations_.shrink_to_fit();
    if (!replaced) {
        ZNVLogError("failed to save task state: {}",
                    error ? error->description() : std::string("(null)"));
        std::lock_guard<std::mutex> written(writtenMutex_);
        if (save.mine > failed_) {
            failed_ = save.mine;
            failure_ = error ? error
                             : ZNVError::withMessage(NSCocoaErrorDomain, NSFileWriteUnknownError,
                                                     "the task state file was not written");
        }
    } else {
        logSummary(save.tasks);
        uint64_t saved = saved_.load();
        while (saved < save.mine && !saved_.compare_exchange_weak(saved, save.mine)) {
        }
    }
    markWritten(save.mine);
    return true;
}

}  // namespace znv

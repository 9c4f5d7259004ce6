#include "znv/managers/state_writer.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "znv/foundation/log.h"
#include "znv/foundation/network_utilities.h"
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

// Writes the pieces, one after another, to an existing file, restricts it to
// its owner and flushes it to disk before returning.
bool writeDurably(const ZNVURL& url, const std::vector<iovec>& pieces, ZNVErrorRef* error) {
    const std::string path = url.path();
    int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) {
        *error = posixError(errno, "cannot open the task state file for writing", url);
        return false;
    }
    bool ok = ::fchmod(fd, 0600) == 0;
    size_t next = 0;    // first piece not completely written
    size_t offset = 0;  // bytes of that piece already written
    std::vector<iovec> batch;
    while (ok && next < pieces.size()) {
        batch.clear();
        for (size_t i = next; i < pieces.size() && batch.size() < IOV_MAX; ++i) {
            iovec piece = pieces[i];
            if (i == next) {
                piece.iov_base = static_cast<char*>(piece.iov_base) + offset;
                piece.iov_len -= offset;
            }
            batch.push_back(piece);
        }
        ssize_t n = ::writev(fd, batch.data(), static_cast<int>(batch.size()));
        if (n < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        size_t done = static_cast<size_t>(n);
        while (next < pieces.size() && done >= pieces[next].iov_len - offset) {
            done -= pieces[next].iov_len - offset;
            offset = 0;
            ++next;
        }
        offset += done;
    }
    if (ok && ::fsync(fd) != 0) ok = false;
    const int savedErrno = errno;
    ::close(fd);
    if (!ok) *error = posixError(savedErrno, "cannot write the task state file", url);
    return ok;
}

int64_t completedProgressOf(const ZNVNetworkTask& task) {
    auto progress = task.progress();
    return progress ? progress->completedUnitCount() : 0;
}

void logSummary(const ZNVTaskList<ZNVNetworkTask>::Snapshot& tasks) {
    ZNVLogInfo("saving task state:");
    uint64_t suspended = 0;
    uint64_t completed = 0;
    for (size_t i = 0; i < tasks.size(); ++i) {
        const auto& task = tasks[i];
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

}  // namespace

std::shared_ptr<ZNVStateWriter> ZNVStateWriter::create() {
    return std::shared_ptr<ZNVStateWriter>(new ZNVStateWriter());
}

ZNVStateWriter::~ZNVStateWriter() = default;

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

void ZNVStateWriter::writeNow(const Save& save) {
    run(save);
}

bool ZNVStateWriter::waitUntilWritten(uint64_t generation, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(writtenMutex_);
    return writtenChanged_.wait_for(lock, timeout, [&] { return written_ >= generation; });
}

void ZNVStateWriter::markWritten(uint64_t generation) {
    {
        std::lock_guard<std::mutex> lock(writtenMutex_);
        if (generation > written_) written_ = generation;
    }
    writtenChanged_.notify_all();
}

bool ZNVStateWriter::textsFor(const Save& save, std::vector<const std::string*>* texts,
                              ZNVErrorRef* error) {
    const uint64_t number = ++saves_;
    texts->reserve(save.tasks.size());
    for (size_t i = 0; i < save.tasks.size(); ++i) {
        const ZNVNetworkTask& task = *save.tasks[i];
        // Read before encoding: a change made meanwhile leaves a newer
        // revision behind, and the next save encodes the task again.
        const uint64_t revision = task.archiveRevision();
        const int64_t completed = completedProgressOf(task);
        auto [entry, added] = cache_.try_emplace(&task);
        Cached& cached = entry->second;
        const bool current =
            !added && cached.revision == revision && cached.completedProgress == completed;
        if (current && verifiesReusedText) {
            std::string fresh = ZNVKeyedArchiver::encodedTopLevelArrayElement(task);
            if (fresh != cached.text && task.archiveRevision() == revision &&
                completedProgressOf(task) == completed) {
                std::fprintf(stderr,
                             "stale archived text reused for %s:\n  kept:  %s\n  fresh: %s\n",
                             task.description().c_str(), cached.text.c_str(), fresh.c_str());
                std::abort();
            }
        }
        if (!current) {
            cached.text = ZNVKeyedArchiver::encodedTopLevelArrayElement(task, error);
            if (*error) {
                cache_.erase(entry);
                return false;
            }
            cached.revision = revision;
            cached.completedProgress = completed;
        }
        cached.lastSave = number;
        texts->push_back(&cached.text);
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
    // has rested three times as long as the last write took (at most a
    // second), so that a long queue changing fast costs a bounded share of
    // a core and of the disk; the saves asked for meanwhile give way to the
    // newest.
    std::this_thread::sleep_until(nextWrite_);
    const auto start = std::chrono::steady_clock::now();
    if (!run(save)) return;
    const auto end = std::chrono::steady_clock::now();
    nextWrite_ = end + std::min<std::chrono::steady_clock::duration>(3 * (end - start),
                                                                     std::chrono::seconds(1));
}

bool ZNVStateWriter::run(const Save& save) {
    std::lock_guard<std::mutex> lock(stateFileMutex());
    // A newer snapshot is queued behind this one (or already written).
    if (save.generation && save.generation->load() != save.mine) return false;

    ZNVErrorRef error;
    std::vector<const std::string*> texts;
    std::string head;
    std::string tail;
    if (textsFor(save, &texts, &error)) {
        ZNVKeyedArchiver archiver;
        archiver.encodeString(save.identifier, kConfigurationTypeKey);
        if (!archiver.encodedStringAroundObjectArray(kTasksKey, &head, &tail)) {
            error = archiver.error();
            if (!error) {
                error = ZNVError::withMessage(NSCocoaErrorDomain, NSFileWriteUnknownError,
                                              "cannot lay out the task state archive");
            }
        }
    }

    bool replaced = false;
    if (!error) {
        static const char kComma = ',';
        std::vector<iovec> pieces;
        pieces.reserve(2 * texts.size() + 2);
        pieces.push_back({head.data(), head.size()});
        for (size_t i = 0; i < texts.size(); ++i) {
            if (i != 0) pieces.push_back({const_cast<char*>(&kComma), 1});
            pieces.push_back({const_cast<char*>(texts[i]->data()), texts[i]->size()});
        }
        pieces.push_back({tail.data(), tail.size()});
        ZNVNetworkUtilities_removeFileAtURL(save.tempURL);
        ZNVNetworkUtilities_ensureFileAtURL(save.tempURL);
        if (writeDurably(save.tempURL, pieces, &error)) {
            replaced = ZNVNetworkUtilities_copyFileAtURLToProtectedTarget(save.tempURL,
                                                                          save.stateURL, &error);
            ZNVNetworkUtilities_removeFileAtURL(save.tempURL);
        }
    }
    if (!replaced) {
        ZNVLogError("failed to save task state: {}",
                    error ? error->description() : std::string("(null)"));
    } else {
        logSummary(save.tasks);
    }
    markWritten(save.mine);
    return true;
}

}  // namespace znv

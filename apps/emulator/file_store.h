// The emulator's on-disk store of remote files.
//
// Layout of the data directory:
//   files/<id>/meta.json      name, shared storage ID, completion, validators,
//                             the chunks stored so far (index and size)
//   files/<id>/chunks/data    chunks received and not yet assembled, in one
//                             sparse file: chunk i at byte i * kChunkStride
//                             (chunks/ is made with the first chunk)
//   files/<id>/chunks/<i>.chunk   chunks whose index is past kMaxStrideIndex
//   files/<id>/content        the finished file
//   files/<id>/incoming-<uuid>  a whole file being received, renamed to
//                             content when it is complete; in the file's own
//                             directory, so that requests for different files
//                             lock different directories
//   tmp/                      other bodies being received, and what is
//                             discarded (same file system, so that a finished
//                             one is moved into place by rename)
// Chunks 0, 1, 2 ... of a full stride each (the library's layout) thus already
// lie in the data file as the finished content, and completing the file is a
// truncation and a rename instead of a copy of every byte. A chunk counts as
// stored only once meta.json lists it, so a crash or a failed request never
// leaves half a chunk or half a file visible; content and metadata are
// written aside and renamed. Opening a directory again restores every file
// and chunk it held.
//
// Thread safety: every method may be called from any thread. The map of files
// is guarded by `mutex_`; each file has its own mutex that serialises changes
// to it (chunk commits, assembly, deletion), so a long assembly blocks only
// requests for the same file.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace znv::emulator {

struct FileInfo {
    std::string id;
    std::string name;
    std::string sharedStorageId;
    bool complete = false;
    uint64_t size = 0;                    // content size, when complete
    int64_t completedAt = 0;              // seconds since the epoch, when complete
    std::string etag;                     // strong validator of the content, when complete
    std::map<uint64_t, uint64_t> chunks;  // index -> size, stored so far
    nlohmann::json processing;            // last post-processing request, or null
};

enum class StoreStatus { Ok, NotFound, AlreadyCompleted, NotComplete, Missing, IOError };

struct StoreResult {
    StoreStatus status = StoreStatus::Ok;
    std::string message;            // for IOError
    std::vector<uint64_t> missing;  // for Missing
    FileInfo info;                  // the file after the operation
};

// Chunks may hold at most this many bytes; it is also the distance between
// chunks in the data file.
inline constexpr uint64_t kChunkStride = 4194304;
// The largest index kept in the data file (offsets up to 4 TiB).
inline constexpr uint64_t kMaxStrideIndex = (1ull << 20) - 1;

struct ReceivedChunk {
    uint64_t index = 0;
    std::string tempPath;  // the part's bytes; empty when written in place
    uint64_t size = 0;
};

// A request that writes new chunks straight into a file's data file.
struct ChunkWrites {
    int dataFd = -1;                      // the data file, open for writing
    std::map<uint64_t, uint64_t> stored;  // chunks stored when it began
};

class FileStore {
  public:
    // Creates the directory layout (the directory itself when missing, mode
    // 0700), clears leftovers of interrupted requests and loads every stored
    // file.
    bool open(const std::string& dataDir, std::string* error);
    // Instead of `open`: a store that keeps its records in memory and writes
    // nothing. Received bodies are not kept: chunks are committed with an
    // empty temporary path, full files and completions with an empty one, and
    // `contentPath` names nothing.
    void openSink();
    bool isSink() const { return sink_; }
    // Waits until everything discarded has been removed.
    ~FileStore();
    const std::string& dataDir() const { return dataDir_; }

    // A fresh path under tmp/ for a body being received.
    std::string tempPath() const;
    // A fresh path for the whole content of file `id` being received.
    std::string incomingPath(const std::string& id) const;

    StoreResult create(const std::string& name, const std::string& sharedStorageId);
    std::optional<FileInfo> info(const std::string& id) const;
    // Opens the data file of an unfinished file for a request that writes
    // chunks not stored yet in place (at index * kChunkStride); false when
    // the file is unknown or complete. Completion copies instead of renaming
    // while such a request runs. Every successful call is matched by one
    // endChunkWrites, after the request's commitChunks if it has one.
    bool beginChunkWrites(const std::string& id, ChunkWrites& writes);
    void endChunkWrites(const std::string& id, ChunkWrites& writes);
    // Records received chunks as stored (replacing chunks of the same index):
    // those written in place as they are, the others copied into the data
    // file (or, past kMaxStrideIndex, moved to a chunk file of their own).
    // The temporary files are removed whatever the outcome.
    StoreResult commitChunks(const std::string& id, const std::vector<ReceivedChunk>& chunks);
    // Moves a received whole file into place and marks the file complete.
    StoreResult commitFullFile(const std::string& id, const std::string& tempPath, uint64_t size);
    // Checks the expected chunks (index, size) and assembles them in index
    // order. `reportMissing` are indices to report missing whatever is stored.
    StoreResult complete(const std::string& id,
                         const std::vector<std::pair<uint64_t, uint64_t>>& expected,
                         const std::vector<uint64_t>& reportMissing);
    StoreResult requestProcessing(const std::string& id, const nlohmann::json& request);
    StoreResult remove(const std::string& id);

    // Path of a complete file's content.
    std::string contentPath(const std::string& id) const;

  private:
    struct Entry {
        std::mutex mutex;        // serialises changes to this file
        FileInfo info;           // guarded by mutex
        bool removed = false;    // guarded by mutex
        int inPlaceWriters = 0;  // guarded by mutex: requests between begin/endChunkWrites
    };

    std::shared_ptr<Entry> find(const std::string& id) const;
    std::string fileDir(const std::string& id) const;
    bool saveMeta(const FileInfo& info, std::string* error) const;
    void installContent(Entry& entry, const std::string& id, const std::string& tempPath,
                        uint64_t size, const char* failure, StoreResult& result);
    bool loadFile(const std::string& id);
    std::string chunkDataPath(const std::string& id) const;
    std::string chunkFilePath(const std::string& id, uint64_t index) const;
    // Moves `path` aside under tmp/ and has the cleaner thread remove it, so
    // that no request waits while gigabytes of chunk files are unlinked.
    void discard(const std::string& path);
    void cleanLoop();

    std::string dataDir_;
    bool sink_ = false;  // set before the store is shared
    mutable std::mutex mutex_;
    std::map<std::string, std::shared_ptr<Entry>> files_;  // guarded by mutex_

    std::mutex cleanMutex_;
    std::condition_variable cleanWake_;
    std::deque<std::string> toClean_;  // guarded by cleanMutex_
    bool cleanStop_ = false;           // guarded by cleanMutex_
    std::thread cleaner_;              // started by the first open()
};

// Whether text can be a file ID of this store (letters, digits, '-', '_').
bool isValidFileId(const std::string& id);

// RFC 7231 date ("Sun, 06 Nov 1994 08:49:37 GMT").
std::string httpDate(int64_t secondsSinceEpoch);

}  // namespace znv::emulator

// ZNVRemoteFileJournal: the remote file IDs the service handed out, and the
// chunks it acknowledged, since the state file last recorded them, so that a
// process killed in between neither creates the same remote file again nor
// sends acknowledged chunks again when it is relaunched.
//
// Contract
// - One journal per state file, at "<name>.state.journal" beside it (mode
//   0600, never followed through a symbolic link; anything at the name that
//   is not a regular file, a FIFO included, is neither waited on nor used).
//   Each `record` appends one line of JSON with a plain write: it survives
//   the process being killed the moment the call returns (not a crash of the
//   machine; the state file's own saves, flushed to disk, cover that).
// - A line names the upload by its source URL text and start date (in
//   microseconds since the epoch) and carries the remote file ID and the
//   largest file the service accepts in one request, as the creation answered;
//   a line recorded when a batch of chunks was acknowledged also lists the
//   batch's chunk indices ("acked"), so that a relaunch does not send them
//   again; one recorded when the service refused the whole file says so
//   ("chunks": true), so that a relaunch goes on in chunks.
// - A line can also name a finished download's file, moved into the
//   library's file area ("downloaded": its file name, "download-" and the
//   rest of one plain component). Restoring removes such a file when no
//   restored download names it: the process was killed after the move and
//   before a save recorded it, and the relaunched download fetches the file
//   again under a new name.
// - `forgetUpTo(count)` drops the records up to the one `record` numbered
//   `count` (and what the file held before this object's first record): the
//   caller does it once a save taken after that record is on disk. The file
//   is emptied when no later record remains; otherwise, once it has grown
//   past 256 KiB, it is replaced whole by one holding the later records. Lines
//   that outlive their save (a kill in between) are used again at the next
//   launch: an ID only fills in one that a restored upload lacks, a refused
//   whole file only moves an upload of that remote file to chunks, and
//   acknowledged chunks only leave the chunks to send (should the service
//   later miss them, the assembly names them and they are sent again).
// - `read` returns the well-formed lines of the file in order and skips any
//   other line; a file larger than 16 MiB is not read. `parse` does the same
//   for text in memory.
// - Any thread; one mutex guards the file.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace znv {

class ZNVRemoteFileJournal {
  public:
    struct Entry {
        std::string sourceURL;  // the upload's source URL text
        int64_t startMicroseconds = 0;
        std::string remoteFileID;
        uint64_t maximumFullFileUploadSize = 0;
        // Chunks the service acknowledged for that remote file; empty for
        // the record of a creation.
        std::vector<uint64_t> acknowledgedChunks;
        // The service refused the whole file: the upload goes on in chunks.
        bool chunks = false;
        // Chunks the service reported missing at assembly: they are sent
        // again (a record after earlier acknowledgements of the same chunks).
        std::vector<uint64_t> missingChunks;
        // A finished download's file in the library's area (its name), and
        // the partial file it was moved from (empty when none); the other
        // fields are empty in such a line.
        std::string downloadedFile{};
        std::string downloadedFrom{};
        bool operator==(const Entry&) const = default;
    };

    explicit ZNVRemoteFileJournal(std::string path);
    ~ZNVRemoteFileJournal();
    ZNVRemoteFileJournal(const ZNVRemoteFileJournal&) = delete;
    ZNVRemoteFileJournal& operator=(const ZNVRemoteFileJournal&) = delete;

    const std::string& path() const { return path_; }

    // The number of records made so far by this object; 0 when the line
    // could not be written (logged).
    uint64_t record(const Entry& entry);
    void forgetUpTo(uint64_t count);

    std::vector<Entry> read();
    static std::vector<Entry> parse(std::string_view text);
    // The line `record` appends for `entry`, newline included.
    static std::string line(const Entry& entry);
    // Whether `name` can be the file name of a finished download: one plain
    // component starting with "download-".
    static bool isDownloadedFileName(std::string_view name);

  private:
    const std::string path_;
    std::mutex mutex_;
    int fd_ = -1;           // opened on the first record; guarded by mutex_
    uint64_t records_ = 0;  // guarded by mutex_
    // The lines recorded by this object that no save holds yet, by number;
    // guarded by mutex_.
    std::deque<std::pair<uint64_t, std::string>> uncovered_;
    uint64_t size_ = 0;   // bytes this object wrote to the file as it is now; guarded by mutex_
    bool dirty_ = false;  // something was written since the last truncation; guarded by mutex_
};

}  // namespace znv

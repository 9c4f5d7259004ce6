// ZNVStorageUpload: one resumable upload of one local file into the storage
// service.
//
// Contract
// - A network task (see ZNVNetworkTask) that runs a pipeline of service
//   requests, one URL session task at a time: create the remote file, send the
//   file whole or in batches of at most 8 chunks, assemble the chunks, re-send
//   what the service reports missing (at most 3 cycles), optionally ask for
//   video post-processing, finish.
// - The upload does not observe its URL session tasks: the storage manager
//   parses every finished task into a ZNVStorageResponse and calls
//   `handleStorageResponse`, and forwards progress to `handleChunkProgress` /
//   `handleFullFileProgress`.
// - Every request is made inside `dispatchNetworkBlock`: the account hands out
//   an authentication, possibly later and on its own thread. The upload is
//   running from the moment the work is dispatched (so `resume` answers false
//   and it holds its slot while it waits), and the work runs only if no later
//   dispatch, reset, cancel or retry came in between and no raw error is set.
// - Only the first error is kept; a response that arrives while a raw error
//   is set is ignored.
// - Threads: as the base task (one recursive lock per task; any thread);
//   `forceChunkUploading` is an atomic.
// - Archive: the base keys, then "remote file ID", "shared storage ID",
//   "multiplexing hint", "source URL bookmark", "chunk indices to upload",
//   "chunk count", "size of last chunk", "pending batch chunk count",
//   "remote file name", "maximum full-file upload size",
//   "requires video post processing", "force chunk uploading" and
//   "uploads chunks" (the last two written only when set; an archive without
//   them decodes as an upload that has not moved to chunks), and the source's
//   identity when the
//   upload started: "source device", "source inode", "source size",
//   "source modification time" (nanoseconds since 1970).
// - Source changes: the source's identity (device, inode), size and
//   modification time are recorded when the upload is made (or decoded from
//   an archive without them) and checked before each chunk batch, before the
//   full-file request, before the assembly request and when the full file was
//   accepted; a change fails the upload with URL error -1100 "The source of
//   the upload has changed or moved.". A decoded upload whose source changed
//   size fails the same way. An upload archived as completed without error is
//   decoded without looking at its source.
// - Staged bodies: while a chunk batch is on the wire, the body of the batch
//   after it is staged on a worker thread of the upload's own (at most one
//   body ahead). The next batch sends it only when it holds exactly that
//   batch's chunks and no reset, cancel, retry or other dispatch came in
//   between; otherwise it is removed and the batch staged anew. Every step
//   that needs the staged body waits for the worker. All bodies are removed
//   when the upload is cancelled by the application and when it is finished
//   (`taskDidFinish`); a body staged ahead also goes when the upload fails,
//   is reset or is destroyed.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "znv/platform/file_reference.h"
#include "znv/platform/index_set.h"
#include "znv/tasks/network_task.h"

namespace znv {

// The description of an upload's failure when its source changed (URL -1100).
inline constexpr const char* ZNVStorageUploadSourceChangedMessage =
    "The source of the upload has changed or moved.";
// Whether `error` is that failure: retrying would only meet the change again.
bool ZNVStorageUpload_errorIsSourceChange(const ZNVErrorRef& error);

class ZNVAccount;
class ZNVAuthentication;
class ZNVStorageResponse;

// Re-upload cycles after failed assemblies.
inline constexpr uint64_t ZNVStorageUploadFileCompletionAttempts = 3;
// Chunks sent in one request, whatever the chunk size.
inline constexpr uint64_t ZNVStorageUploadBatchChunkLimit = 8;
// Free space that must remain beyond the file for a full-file upload.
inline constexpr uint64_t ZNVStorageUploadFreeSpaceMargin = 0x20000000;

class ZNVStorageUpload : public ZNVNetworkTask {
  public:
    using NetworkBlock = std::function<void(const std::shared_ptr<const ZNVAuthentication>&)>;

    static std::shared_ptr<ZNVStorageUpload> create(
        std::optional<ZNVURL> source, const std::string& remoteFilename,
        std::shared_ptr<ZNVAccount> account, const std::string& sharedStorageID,
        const std::string& multiplexingHint, bool applyVideoPostProcessing,
        std::shared_ptr<ZNVNetworkSessionManager> session);
    static std::shared_ptr<ZNVStorageUpload> create();
    static std::shared_ptr<ZNVStorageUpload> decode(ZNVCoder& coder);
    // Waits for a body still being staged ahead.
    ~ZNVStorageUpload() override;

    // --- Fields ----------------------------------------------------------
    std::shared_ptr<ZNVAccount> account() const;
    void setAccount(std::shared_ptr<ZNVAccount> account);
    std::string remoteFileID() const;
    void setRemoteFileID(const std::string& remoteFileID);
    // For a restored upload whose saved state predates its remote file (the
    // ID came from the journal of the storage manager): takes the ID and the
    // full-file limit the creation answered. Nothing was acknowledged before
    // that, so an upload already in chunks has every chunk still to send.
    void adoptRemoteFileID(const std::string& remoteFileID, uint64_t maximumFullFileUploadSize);
    // For a restored upload: chunks that the service acknowledged for
    // `remoteFileID` after the last save are no longer to be sent. Nothing
    // for another remote file; false when nothing changed.
    bool forgetAcknowledgedChunks(const std::string& remoteFileID, const ZNVIndexSet& indices);
    // For a restored upload in chunks of `remoteFileID`: chunks the service
    // reported missing at an assembly after the last save are to be sent
    // again. False when nothing changed.
    bool resendMissingChunks(const std::string& remoteFileID, const ZNVIndexSet& indices);
    // For a restored upload of `remoteFileID` whose whole file the service
    // refused after the last save: it goes on in chunks, all still to send.
    // False when it already was in chunks (or names another remote file).
    bool moveToChunks(const std::string& remoteFileID);
    // Where the service serves the file's content, as its completing answer
    // (whole file or assembly) gave it; none before that, and after a
    // relaunch (it is not archived: ask the storage manager's
    // `URLForRemoteFile` then).
    std::optional<ZNVURL> remoteContentURL() const;
    std::string remoteFilename() const;
    std::string sharedStorageID() const;
    void setSharedStorageID(const std::string& identifier);
    std::string multiplexingHint() const;
    void setMultiplexingHint(const std::string& hint);
    std::optional<ZNVBytes> sourceURLBookmark() const;
    void setSourceURLBookmark(std::optional<ZNVBytes> bookmark);
    // The file-reference URL of the source (its identity on its volume).
    std::optional<ZNVURL> sourceFileReferenceURL() const;
    // A copy of the chunk indices still to be sent.
    ZNVIndexSet chunkIndicesToUpload() const;
    uint64_t chunkCount() const;
    uint64_t sizeOfLastChunk() const;
    uint64_t pendingBatchChunkCount() const;
    void setPendingBatchChunkCount(uint64_t count);
    uint64_t sourceFileSize() const;
    uint64_t maximumFullFileUploadSize() const;
    void setMaximumFullFileUploadSize(uint64_t size);
    bool requiresVideoPostProcessing() const;
    uint64_t remainingAttemptsForFileCompletion() const;
    void setRemainingAttemptsForFileCompletion(uint64_t attempts);
    bool forceChunkUploading() const { return forceChunkUploading_.load(); }
    // Whether the upload has moved to chunks (a batch was started or the file
    // was refused whole): from then on it never sends the file whole again,
    // and with no chunk left to send it asks for the assembly.
    bool uploadsChunks() const;
    void setForceChunkUploading(bool force) { forceChunkUploading_.store(force); }

    // The source file, followed through renames and moves on its volume.
    std::optional<ZNVURL> sourceURL() const override;

    // --- Pipeline --------------------------------------------------------
    bool resume() override;
    void createRemoteFile();
    void uploadFullFile();
    void uploadNextBatchOfChunks();
    void beginUploadingChunksAtIndices(const ZNVIndexSet& indices);
    void assembleRemoteFile();
    void postProcessRemoteFile();
    bool canUploadFullFile() const;
    void dispatchNetworkBlock(NetworkBlock block);
    void resolveRemoteFileID();

    // --- Callbacks from the storage manager -------------------------------
    void handleStorageResponse(const ZNVStorageResponse& response, bool reachableNetwork);
    void handleMissingRemoteChunkIndices(const std::optional<ZNVIndexSet>& indices,
                                         const ZNVErrorRef& error);
    void handleChunkProgress(float fraction);
    void handleFullFileProgress(float fraction);

    void connectToAccount(std::shared_ptr<ZNVAccount> account,
                          const std::shared_ptr<ZNVNetworkSessionManager>& session,
                          const std::shared_ptr<ZNVURLSessionTask>& task);

    bool validateParameters() override;
    void resetForResume() override;
    // Dropping the session task of a cancelled upload removes its staged bodies.
    void setTask(const std::shared_ptr<ZNVURLSessionTask>& task) override;
    void setQueueConfiguration(const ZNVAccountConfigurationRef& configuration) override;
    // Removed from its manager: the bodies staged for it go too.
    void taskDidFinish() override;
    std::string description() const override;

    void finishUploadInit();
    void validateChunkCount(uint64_t chunkCount, uint64_t sizeOfLastChunk);

    std::string className() const override { return "ZNVStorageUpload"; }
    void encodeWithCoder(ZNVCoder& coder) const override;

  protected:
    ZNVStorageUpload() = default;

  private:
    // What identifies the source's content without reading it.
    struct SourceIdentity {
        uint64_t device = 0;
        uint64_t inode = 0;
        uint64_t size = 0;
        int64_t modificationTime = 0;  // nanoseconds since 1970
        bool operator==(const SourceIdentity&) const = default;
    };
    // The identity of the source file as it is now, if it can be examined.
    std::optional<SourceIdentity> currentSourceIdentity() const;
    // Removes every body staged for this upload's remote file.
    void removeStagedBodies();

    // The body of a batch staged ahead, and the staging of one.
    struct StagedBatch;
    struct PreStaging;
    // Starts staging, off the calling thread, the batch that follows `sending`
    // in the chunks still to send. Caller holds the lock and runs the
    // dispatched work that just started `sending`.
    void preStageBatchAfter(const ZNVIndexSet& sending);
    // The body staged ahead when it is exactly `indices` of the current
    // source and was staged by the dispatch just before this one; otherwise
    // it is removed. Waits for the worker. Caller holds the lock.
    std::shared_ptr<StagedBatch> takePreStagedBatch(const ZNVIndexSet& indices);
    // Waits for a body being staged ahead and removes it.
    void discardPreStagedBatch();
    // The "changed or moved" error when the source no longer matches what
    // was recorded, else null. Caller holds the task's lock.
    ZNVErrorRef sourceChangeError() const;

    void setChunkIndicesToUpload(const ZNVIndexSet& indices);
    ZNVIndexSet allChunkIndices() const;
    // The file-reference URL resolved to the file's current path, symbolic
    // links resolved; none when the file cannot be found.
    std::optional<ZNVURL> resolvedSourceFileReference() const;
    // Whether `source` (as sourceURL() gave it) lies in the application's bundle.
    bool sourceIsInAppBundle(const ZNVURL& source) const;

    // Guarded by the base task's lock.
    std::shared_ptr<ZNVAccount> account_;
    // The queue's configuration, which names the staged bodies when no
    // session is connected. Not archived (set without moving the archive
    // revision, hence mutable).
    mutable ZNVAccountConfigurationRef queueConfiguration_;
    std::string remoteFileID_;
    // Set once the file is complete; a pointer keeps the uploads still queued small.
    std::unique_ptr<const ZNVURL> remoteContentURL_;
    std::string remoteFilename_;
    std::string sharedStorageID_;
    std::string multiplexingHint_;
    mutable std::optional<ZNVBytes> sourceURLBookmark_;  // made on first archiving
    // The file-reference URL of the source (identity across renames).
    std::optional<ZNVURL> sourceFileReferenceURL_;
    // The last path the reference resolved to, its real path and the file's
    // identity there: resolving runs several times a step, and while the real
    // path still names that file the walk through its directories is skipped.
    // Whether that real path lies in the application's bundle is worked out
    // with it, for the same reason. (The reference itself never changes once
    // the upload is made.) While the file is still at the reference's own
    // path, and that path was already real, one statx confirms the memo.
    // It is kept small: every queued upload has one.
    struct RealPathMemo {
        std::string path;
        std::string real;
        uint64_t device = 0;
        uint64_t inode = 0;
        int64_t birthNanoseconds = 0;      // the reference's
        bool realAtReferencePath = false;  // `path` is real, the reference's and its file's
        bool inAppBundle = false;
    };
    mutable std::optional<RealPathMemo> realPathMemo_;
    ZNVIndexSet chunkIndicesToUpload_;
    uint64_t chunkCount_ = 0;
    uint64_t sizeOfLastChunk_ = 0;
    uint64_t pendingBatchChunkCount_ = 0;
    uint64_t sourceFileSize_ = 0;
    uint64_t maximumFullFileUploadSize_ = 0;
    bool requiresVideoPostProcessing_ = false;
    std::optional<SourceIdentity> sourceIdentity_;  // recorded at the start
    uint64_t remainingAttemptsForFileCompletion_ = ZNVStorageUploadFileCompletionAttempts;
    bool uploadsChunks_ = false;
    // The ticket of the dispatched work that is running (set before it runs).
    uint64_t runningWorkTicket_ = 0;
    // The batch body being staged ahead or staged; the worker touches only
    // its own result (handed back through a future), never the upload.
    std::unique_ptr<PreStaging> preStaging_;
    // Set by the storage manager from any thread.
    std::atomic<bool> forceChunkUploading_{false};
};

}  // namespace znv

#include "znv/upload/storage_upload.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <future>
#include <limits>
#include <system_error>
#include <utility>
#include <vector>

#include "znv/account/account.h"
#include "znv/account/authentication.h"
#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/file_reference.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/progress.h"
#include "znv/platform/url_session.h"
#include "znv/protocol/storage_chunk.h"
#include "znv/protocol/storage_chunk_writer.h"
#include "znv/protocol/storage_response.h"
#include "znv/session/network_session_manager.h"
#include "znv/session/storage_path_manager.h"

namespace znv {

namespace {

const bool registeredStorageUpload = [] {
    ZNVArchiveClassRegistry::shared().registerClass(
        "ZNVStorageUpload", "ZNVNetworkTask",
        [](ZNVKeyedUnarchiver& coder) -> std::shared_ptr<ZNVCoding> {
            return ZNVStorageUpload::decode(coder);
        });
    return true;
}();

constexpr uint64_t kNoIndex = static_cast<uint64_t>(ZNVNotFound);

// Removes a staged body; its blocks are freed off the calling thread.
void removeStagedBody(const ZNVURL& body) {
    if (!ZNVRemoveFileInBackground(body.path())) ZNVNetworkUtilities_removeFileAtURL(body);
}

}  // namespace

// A batch body staged ahead: the writer that made it (its boundary goes into
// the request) and the file, or the error that kept it from being staged.
struct ZNVStorageUpload::StagedBatch {
    ZNVStorageChunkWriterRef writer;
    std::optional<ZNVURL> body;
    ZNVErrorRef error;
};

// What a body staged ahead was made from, and the worker's result.
struct ZNVStorageUpload::PreStaging {
    ZNVIndexSet indices;
    std::string remoteFileID;
    std::string sourcePath;
    uint64_t ticket = 0;  // the dispatched work that started the staging
    std::future<std::shared_ptr<StagedBatch>> result;
};

ZNVStorageUpload::~ZNVStorageUpload() {
    // Nobody sends it any more; a relaunch stages the batch again.
    if (!preStaging_) return;
    std::shared_ptr<StagedBatch> staged = preStaging_->result.get();
    if (staged && staged->body) removeStagedBody(*staged->body);
}

// ---------------------------------------------------------------------------
// Construction

std::shared_ptr<ZNVStorageUpload> ZNVStorageUpload::create(
    std::optional<ZNVURL> source, const std::string& remoteFilename,
    std::shared_ptr<ZNVAccount> account, const std::string& sharedStorageID,
    const std::string& multiplexingHint, bool applyVideoPostProcessing,
    std::shared_ptr<ZNVNetworkSessionManager> session) {
    (void)registeredStorageUpload;
    std::shared_ptr<ZNVStorageUpload> upload(new ZNVStorageUpload());
    upload->initWithSource(source, std::move(session));
    {
        Lock lock(*upload);
        if (!remoteFilename.empty()) {
            upload->remoteFilename_ = remoteFilename;
        } else if (source) {
            upload->remoteFilename_ =
                ZNVNetworkUtilities_sanitizeFilename(source->lastPathComponent()).value_or("");
        }
        upload->account_ = std::move(account);
        upload->sharedStorageID_ = sharedStorageID;
        upload->multiplexingHint_ = multiplexingHint;
        if (source) upload->sourceFileReferenceURL_ = ZNVFileReferenceURL(*source);
        upload->chunkIndicesToUpload_.clear();
        upload->requiresVideoPostProcessing_ = applyVideoPostProcessing;
    }
    upload->finishUploadInit();
    {
        Lock lock(*upload);
        if (!upload->rawError()) upload->sourceIdentity_ = upload->currentSourceIdentity();
    }
    return upload;
}

std::shared_ptr<ZNVStorageUpload> ZNVStorageUpload::create() {
    return create(std::nullopt, "", nullptr, "", "", false, nullptr);
}

void ZNVStorageUpload::finishUploadInit() {
    Lock lock(*this);
    remainingAttemptsForFileCompletion_ = ZNVStorageUploadFileCompletionAttempts;

    std::optional<ZNVURL> file = resolvedSourceFileReference();
    if (!file || !file->isFileURL()) file = storedSourceURL();

    ZNVErrorRef pendingError;
    const uint64_t size =
        file ? ZNVNetworkUtilities_sizeOfFileAtURL(*file) : static_cast<uint64_t>(0);
    chunkCount_ = 0;
    sizeOfLastChunk_ = 0;
    sourceFileSize_ = 0;
    const uint64_t chunkSize = ZNVNetworkSessionManager::maximumChunkSize();
    if (size == 0) {
        pendingError = ZNVNetworkErrorHandler_createURLError(NSURLErrorCannotOpenFile,
                                                             "empty file for upload");
    } else if (chunkSize != 0) {
        const uint64_t whole = size / chunkSize;
        const uint64_t rest = size % chunkSize;
        if (whole == std::numeric_limits<uint64_t>::max()) {
            pendingError = ZNVNetworkErrorHandler_createURLError(
                NSURLErrorCannotOpenFile, "file too large for chunk tracking");
        } else {
            chunkCount_ = whole + (rest != 0 ? 1 : 0);
            sizeOfLastChunk_ = rest != 0 ? rest : chunkSize;
        }
    }
    if (chunkCount_ != 0) {
        ZNVErrorRef measureError;
        sourceFileSize_ = ZNVNetworkUtilities_sizeOfFileAtURL(*file, &measureError);
        if (measureError) pendingError = measureError;
    }
    if (!rawError() && pendingError) setRawError(pendingError);
    setProgress(ZNVProgress::make(static_cast<int64_t>(10 * chunkCount_ + 2), 0));
}

void ZNVStorageUpload::validateChunkCount(uint64_t chunkCount, uint64_t sizeOfLastChunk) {
    Lock lock(*this);
    if (rawError()) return;
    if (chunkCount != chunkCount_ || sizeOfLastChunk != sizeOfLastChunk_) {
        setRawError(ZNVNetworkErrorHandler_createURLError(NSURLErrorFileDoesNotExist,
                                                          ZNVStorageUploadSourceChangedMessage));
    }
}

std::optional<ZNVStorageUpload::SourceIdentity> ZNVStorageUpload::currentSourceIdentity() const {
    const std::optional<ZNVURL> source = sourceURL();
    if (!source || !source->isFileURL()) return std::nullopt;
    struct stat info {};
    if (::stat(source->path().c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    SourceIdentity identity;
    identity.device = static_cast<uint64_t>(info.st_dev);
    identity.inode = static_cast<uint64_t>(info.st_ino);
    identity.size = static_cast<uint64_t>(info.st_size);
    identity.modificationTime =
        static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    return identity;
}

ZNVErrorRef ZNVStorageUpload::sourceChangeError() const {
    if (!sourceIdentity_) return nullptr;
    const std::optional<SourceIdentity> now = currentSourceIdentity();
    if (now && *now == *sourceIdentity_) return nullptr;
    ZNVLogDefault("{}: the source file changed since the upload started.", description());
    return ZNVNetworkErrorHandler_createURLError(NSURLErrorFileDoesNotExist,
                                                 ZNVStorageUploadSourceChangedMessage);
}

bool ZNVStorageUpload_errorIsSourceChange(const ZNVErrorRef& error) {
    return error && error->domain() == NSURLErrorDomain &&
           error->code() == NSURLErrorFileDoesNotExist &&
           error->localizedDescription() == ZNVStorageUploadSourceChangedMessage;
}

// ---------------------------------------------------------------------------
// Fields

std::shared_ptr<ZNVAccount> ZNVStorageUpload::account() const {
    Lock lock(*this);
    return account_;
}

void ZNVStorageUpload::setAccount(std::shared_ptr<ZNVAccount> account) {
    Lock lock(*this);
    account_ = std::move(account);
}

std::string ZNVStorageUpload::remoteFileID() const {
    Lock lock(*this);
    return remoteFileID_;
}

std::optional<ZNVURL> ZNVStorageUpload::remoteContentURL() const {
    Lock lock(*this);
    return remoteContentURL_ ? std::optional<ZNVURL>(*remoteContentURL_) : std::nullopt;
}

void ZNVStorageUpload::setRemoteFileID(const std::string& remoteFileID) {
    Lock lock(*this);
    remoteFileID_ = remoteFileID;
}

void ZNVStorageUpload::adoptRemoteFileID(const std::string& remoteFileID,
                                         uint64_t maximumFullFileUploadSize) {
    Lock lock(*this);
    if (!remoteFileID_.empty()) return;
    remoteFileID_ = remoteFileID;
    maximumFullFileUploadSize_ = maximumFullFileUploadSize;
    if ((uploadsChunks_ || forceChunkUploading()) && chunkIndicesToUpload_.empty() &&
        state() != ZNVNetworkTaskStateCompleted) {
        chunkIndicesToUpload_ = allChunkIndices();
    }
}

bool ZNVStorageUpload::forgetAcknowledgedChunks(const std::string& remoteFileID,
                                                const ZNVIndexSet& indices) {
    Lock lock(*this);
    if (remoteFileID.empty() || remoteFileID != remoteFileID_ || chunkIndicesToUpload_.empty())
        return false;
    const uint64_t before = chunkIndicesToUpload_.count();
    chunkIndicesToUpload_.remove(indices);
    return chunkIndicesToUpload_.count() != before;
}

bool ZNVStorageUpload::resendMissingChunks(const std::string& remoteFileID,
                                           const ZNVIndexSet& indices) {
    Lock lock(*this);
    if (remoteFileID.empty() || remoteFileID != remoteFileID_ ||
        !(uploadsChunks_ || forceChunkUploading()) || state() == ZNVNetworkTaskStateCompleted) {
        return false;
    }
    const uint64_t before = chunkIndicesToUpload_.count();
    chunkIndicesToUpload_.add(indices);
    return chunkIndicesToUpload_.count() != before;
}

bool ZNVStorageUpload::moveToChunks(const std::string& remoteFileID) {
    Lock lock(*this);
    if (remoteFileID.empty() || remoteFileID != remoteFileID_ || uploadsChunks_ ||
        state() == ZNVNetworkTaskStateCompleted) {
        return false;
    }
    uploadsChunks_ = true;
    if (chunkIndicesToUpload_.empty()) chunkIndicesToUpload_ = allChunkIndices();
    return true;
}

std::string ZNVStorageUpload::remoteFilename() const {
    Lock lock(*this);
    return remoteFilename_;
}

std::string ZNVStorageUpload::sharedStorageID() const {
    Lock lock(*this);
    return sharedStorageID_;
}

void ZNVStorageUpload::setSharedStorageID(const std::string& identifier) {
    Lock lock(*this);
    sharedStorageID_ = identifier;
}

std::string ZNVStorageUpload::multiplexingHint() const {
    Lock lock(*this);
    return multiplexingHint_;
}

void ZNVStorageUpload::setMultiplexingHint(const std::string& hint) {
    Lock lock(*this);
    multiplexingHint_ = hint;
}

std::optional<ZNVBytes> ZNVStorageUpload::sourceURLBookmark() const {
    Lock lock(*this);
    return sourceURLBookmark_;
}

void ZNVStorageUpload::setSourceURLBookmark(std::optional<ZNVBytes> bookmark) {
    Lock lock(*this);
    sourceURLBookmark_ = std::move(bookmark);
}

ZNVIndexSet ZNVStorageUpload::chunkIndicesToUpload() const {
    Lock lock(*this);
    return chunkIndicesToUpload_;
}

void ZNVStorageUpload::setChunkIndicesToUpload(const ZNVIndexSet& indices) {
    Lock lock(*this);
    chunkIndicesToUpload_ = indices;
}

uint64_t ZNVStorageUpload::chunkCount() const {
    Lock lock(*this);
    return chunkCount_;
}

uint64_t ZNVStorageUpload::sizeOfLastChunk() const {
    Lock lock(*this);
    return sizeOfLastChunk_;
}

uint64_t ZNVStorageUpload::pendingBatchChunkCount() const {
    Lock lock(*this);
    return pendingBatchChunkCount_;
}

void ZNVStorageUpload::setPendingBatchChunkCount(uint64_t count) {
    Lock lock(*this);
    pendingBatchChunkCount_ = count;
}

uint64_t ZNVStorageUpload::sourceFileSize() const {
    Lock lock(*this);
    return sourceFileSize_;
}

uint64_t ZNVStorageUpload::maximumFullFileUploadSize() const {
    Lock lock(*this);
    return maximumFullFileUploadSize_;
}

void ZNVStorageUpload::setMaximumFullFileUploadSize(uint64_t size) {
    Lock lock(*this);
    maximumFullFileUploadSize_ = size;
}

bool ZNVStorageUpload::requiresVideoPostProcessing() const {
    Lock lock(*this);
    return requiresVideoPostProcessing_;
}

uint64_t ZNVStorageUpload::remainingAttemptsForFileCompletion() const {
    Lock lock(*this);
    return remainingAttemptsForFileCompletion_;
}

void ZNVStorageUpload::setRemainingAttemptsForFileCompletion(uint64_t attempts) {
    Lock lock(*this);
    remainingAttemptsForFileCompletion_ = attempts;
}

ZNVIndexSet ZNVStorageUpload::allChunkIndices() const {
    Lock lock(*this);
    return chunkCount_ == 0 ? ZNVIndexSet() : ZNVIndexSet::withRange(0, chunkCount_);
}

std::optional<ZNVURL> ZNVStorageUpload::resolvedSourceFileReference() const {
    Lock lock(*this);
    if (!sourceFileReferenceURL_) return std::nullopt;
    if (realPathMemo_ && realPathMemo_->realAtReferencePath &&
        ZNVFileReference::isFileAt(realPathMemo_->path, realPathMemo_->device, realPathMemo_->inode,
                                   realPathMemo_->birthNanoseconds)) {
        return ZNVURL::fileURL(realPathMemo_->real);
    }
    std::optional<ZNVURL> resolved = ZNVFilePathURL(*sourceFileReferenceURL_);
    if (!resolved || !resolved->isFileURL()) return resolved;
    const std::string path = resolved->path();
    struct stat info {};
    // A path that resolved to itself needs no second look: the reference has
    // just found the file there.
    if (realPathMemo_ && realPathMemo_->path == path &&
        (realPathMemo_->real == path ||
         (::stat(realPathMemo_->real.c_str(), &info) == 0 && info.st_dev == realPathMemo_->device &&
          info.st_ino == realPathMemo_->inode))) {
        return ZNVURL::fileURL(realPathMemo_->real);
    }
    const std::string real = ZNVRealPath(path);
    if (real.empty()) return resolved;
    if (::stat(real.c_str(), &info) == 0) {
        const std::optional<ZNVFileReference> reference =
            ZNVFileReference::fromReferenceURL(*sourceFileReferenceURL_);
        realPathMemo_ = RealPathMemo{path,
                                     real,
                                     static_cast<uint64_t>(info.st_dev),
                                     static_cast<uint64_t>(info.st_ino),
                                     reference ? reference->birthNanoseconds() : 0,
                                     reference && reference->lastKnownPath() == path &&
                                         real == path && reference->device() == info.st_dev &&
                                         reference->inode() == info.st_ino,
                                     ZNVNetworkUtilities_realPathIsInAppBundle(real)};
    }
    return ZNVURL::fileURL(real);
}

bool ZNVStorageUpload::sourceIsInAppBundle(const ZNVURL& source) const {
    Lock lock(*this);
    // A path that sourceURL() has just checked against the memo is already
    // free of links: its answer was worked out when the memo was made.
    if (realPathMemo_ && source.isFileURL() && source.path() == realPathMemo_->real) {
        return realPathMemo_->inAppBundle;
    }
    return ZNVNetworkUtilities_fileAtURLIsInAppBundle(source);
}

std::optional<ZNVURL> ZNVStorageUpload::sourceFileReferenceURL() const {
    Lock lock(*this);
    return sourceFileReferenceURL_;
}

std::optional<ZNVURL> ZNVStorageUpload::sourceURL() const {
    std::optional<ZNVURL> resolved = resolvedSourceFileReference();
    if (resolved && resolved->isFileURL()) return resolved;
    return storedSourceURL();
}

// ---------------------------------------------------------------------------
// Validation

bool ZNVStorageUpload::validateParameters() {
    Lock lock(*this);
    if (!ZNVNetworkTask::validateParameters()) return false;
    if (!rawError()) {
        const std::optional<ZNVURL> source = sourceURL();
        ZNVErrorRef failure;
        if (!source || !source->isFileURL()) {
            failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorFileDoesNotExist,
                                                            "a file URL is required");
        } else if (sourceIsInAppBundle(*source)) {
            failure = ZNVNetworkErrorHandler_createURLError(
                NSURLErrorBadURL, "file must be in the data container (not the bundle)");
        } else if (!account_) {
            failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorUserAuthenticationRequired,
                                                            "an account is required");
        } else if (chunkCount_ == 0 || sourceFileSize_ == 0) {
            failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorFileDoesNotExist,
                                                            "empty file for upload");
        } else if (sizeOfLastChunk_ == 0) {
            failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorUnknown,
                                                            "internal error: invalid chunk size");
        }
        if (failure) setRawError(failure);
    }
    return !rawError();
}

// ---------------------------------------------------------------------------
// Pipeline

bool ZNVStorageUpload::resume() {
    Lock lock(*this);
    if (!ZNVNetworkTask::resume()) return false;
    if (state() != ZNVNetworkTaskStateSuspended || rawError()) return false;
    if (remoteFileID_.empty()) {
        createRemoteFile();
        return true;
    }
    setState(ZNVNetworkTaskStateRunning);
    if (!uploadsChunks_ && chunkIndicesToUpload_.empty() && canUploadFullFile()) {
        uploadFullFile();
    } else {
        uploadNextBatchOfChunks();
    }
    return true;
}

void ZNVStorageUpload::dispatchNetworkBlock(NetworkBlock block) {
    Lock lock(*this);
    std::shared_ptr<ZNVAccount> currentAccount = account_;
    if (!currentAccount) return;
    // The step counts as started from here: a refresh that runs before the
    // account answers must neither resume this upload again nor give its
    // slot to another one.
    setState(ZNVNetworkTaskStateRunning);
    const uint64_t ticket = beginDispatchedWork();
    std::weak_ptr<ZNVNetworkTask> weakSelf = weak_from_this();
    // Without an authentication (the account's error is its own business) the
    // work still runs: the service operation then fails for the missing token.
    afterUnlock([currentAccount, weakSelf, ticket, block = std::move(block)]() mutable {
        currentAccount->dispatchAuthenticatedBlock(
            [weakSelf, ticket, block = std::move(block)](ZNVAuthenticationRef authentication,
                                                         ZNVErrorRef) {
                auto self = std::static_pointer_cast<ZNVStorageUpload>(weakSelf.lock());
                if (!self || !block) return;
                Lock lock(*self);
                if (!self->isCurrentWork(ticket)) return;
                self->runningWorkTicket_ = ticket;
                block(authentication);
            });
    });
}

void ZNVStorageUpload::createRemoteFile() {
    Lock lock(*this);
    if (!validateParameters()) return;
    if (remoteFilename_.empty()) {
        setRawError(ZNVNetworkErrorHandler_createURLError(NSURLErrorCannotOpenFile,
                                                          "failed to formulate a file name"));
    }
    if (rawError()) return;
    std::weak_ptr<ZNVNetworkTask> weakSelf = weak_from_this();
    dispatchNetworkBlock([weakSelf](const ZNVAuthenticationRef& authentication) {
        auto self = std::static_pointer_cast<ZNVStorageUpload>(weakSelf.lock());
        if (!self) return;
        Lock lock(*self);
        ZNVErrorRef error;
        const auto optionalText = [](const std::string& text) {
            return text.empty() ? std::nullopt : std::optional<std::string>(text);
        };
        auto sessionTask = self->session()->createRemoteFileWithName(
            self->remoteFilename_, optionalText(self->sharedStorageID_), authentication,
            optionalText(self->multiplexingHint_), &error);
        self->startNewSessionTask(sessionTask, error);
    });
}

bool ZNVStorageUpload::canUploadFullFile() const {
    if (forceChunkUploading()) return false;
    Lock lock(*this);
    if (sourceFileSize_ == 0) return false;
    if (sourceFileSize_ > maximumFullFileUploadSize_) return false;
    const uint64_t freeSpace = ZNVNetworkUtilities_freeSizeAvailableOnFileSystem();
    if (sourceFileSize_ > std::numeric_limits<uint64_t>::max() - ZNVStorageUploadFreeSpaceMargin) {
        return false;
    }
    return freeSpace >= sourceFileSize_ + ZNVStorageUploadFreeSpaceMargin;
}

void ZNVStorageUpload::uploadFullFile() {
    Lock lock(*this);
    if (!validateParameters()) return;
    std::weak_ptr<ZNVNetworkTask> weakSelf = weak_from_this();
    dispatchNetworkBlock([weakSelf](const ZNVAuthenticationRef& authentication) {
        auto self = std::static_pointer_cast<ZNVStorageUpload>(weakSelf.lock());
        if (!self) return;
        Lock lock(*self);
        if (ZNVErrorRef changed = self->sourceChangeError()) {
            self->startNewSessionTask(nullptr, changed);
            return;
        }
        ZNVErrorRef error;
        const std::optional<ZNVURL> source = self->sourceURL();
        auto sessionTask = self->session()->uploadLocalFile(
            source.value_or(ZNVURL()), self->remoteFileID_, authentication, &error);
        self->startNewSessionTask(sessionTask, error);
    });
}

void ZNVStorageUpload::uploadNextBatchOfChunks() {
    Lock lock(*this);
    pendingBatchChunkCount_ = 0;
    if (!validateParameters()) return;

    std::vector<ZNVStorageChunkRef> batch;
    uint64_t index = chunkIndicesToUpload_.firstIndex();
    while (index != kNoIndex && batch.size() < ZNVStorageUploadBatchChunkLimit) {
        ZNVStorageChunkRef chunk = _chunkWithIndexForFileSize(index, sourceFileSize_);
        if (!chunk) break;
        batch.push_back(std::move(chunk));
        index = chunkIndicesToUpload_.indexGreaterThan(index);
    }
    if (batch.empty()) {
        assembleRemoteFile();
        return;
    }
    uploadsChunks_ = true;

    ZNVIndexSet indices;
    for (const ZNVStorageChunkRef& chunk : batch)
        indices.add(chunk->index());

    std::weak_ptr<ZNVNetworkTask> weakSelf = weak_from_this();
    dispatchNetworkBlock([weakSelf, batch, indices](const ZNVAuthenticationRef& authentication) {
        auto self = std::static_pointer_cast<ZNVStorageUpload>(weakSelf.lock());
        if (!self) return;
        Lock lock(*self);
        // Taken before the source is checked, so that a body read ahead from
        // a file that changed since is never sent.
        std::shared_ptr<StagedBatch> staged = self->takePreStagedBatch(indices);
        if (ZNVErrorRef changed = self->sourceChangeError()) {
            if (staged) removeStagedBody(*staged->body);
            self->startNewSessionTask(nullptr, changed);
            return;
        }
        ZNVErrorRef error;
        std::shared_ptr<ZNVURLSessionUploadTask> sessionTask;
        if (staged) {
            ZNVLog().debug("{}: sending chunks {} from the body staged ahead", self->description(),
                           ZNVNetworkUtilities_stringFromIndices(indices).value_or(""));
            sessionTask = self->session()->uploadStagedChunks(
                *staged->writer, *staged->body, self->remoteFileID_, authentication, &error);
        } else {
            const std::optional<ZNVURL> source = self->sourceURL();
            sessionTask = self->session()->uploadChunks(
                batch, source.value_or(ZNVURL()), self->remoteFileID_, authentication, &error);
        }
        self->startNewSessionTask(sessionTask, error);
        if (self->task()) {
            self->pendingBatchChunkCount_ = batch.size();
            self->preStageBatchAfter(indices);
        }
    });
}

void ZNVStorageUpload::preStageBatchAfter(const ZNVIndexSet& sending) {
    Lock lock(*this);
    discardPreStagedBatch();
    std::vector<ZNVStorageChunkRef> next;
    ZNVIndexSet indices;
    for (uint64_t index = chunkIndicesToUpload_.firstIndex();
         index != kNoIndex && next.size() < ZNVStorageUploadBatchChunkLimit;
         index = chunkIndicesToUpload_.indexGreaterThan(index)) {
        if (sending.contains(index)) continue;
        ZNVStorageChunkRef chunk = _chunkWithIndexForFileSize(index, sourceFileSize_);
        if (!chunk) break;
        next.push_back(std::move(chunk));
        indices.add(index);
    }
    const std::shared_ptr<ZNVNetworkSessionManager> owner = session();
    const std::optional<ZNVURL> source = sourceURL();
    if (next.empty() || !owner || !owner->pathManager() || !source || !source->isFileURL()) return;

    auto staging = std::make_unique<PreStaging>();
    staging->indices = indices;
    staging->remoteFileID = remoteFileID_;
    staging->sourcePath = source->path();
    staging->ticket = runningWorkTicket_;
    // The worker gets only what it writes with: it never touches the upload,
    // so it can neither outlive nor keep alive anything but its result.
    ZNVStoragePathManagerRef paths = owner->pathManager();
    ZNVStorageChunkWriterRef writer =
        ZNVStorageChunkWriter::writerForChunks(std::move(next), *source);
    std::string remoteFileID = remoteFileID_;
    try {
        staging->result = std::async(std::launch::async, [paths, writer, remoteFileID] {
            auto staged = std::make_shared<StagedBatch>();
            staged->writer = writer;
            // A body that could not be finished is removed by the staging
            // itself; the batch is staged again when it is sent.
            staged->body =
                paths->createUploadFileForChunkWriter(*writer, remoteFileID, &staged->error);
            return staged;
        });
    } catch (const std::system_error& failure) {
        // No thread to spare: the batch is staged when it is sent.
        ZNVLogInfo("{}: cannot stage the next batch ahead: {}", description(), failure.what());
        return;
    }
    preStaging_ = std::move(staging);
}

std::shared_ptr<ZNVStorageUpload::StagedBatch> ZNVStorageUpload::takePreStagedBatch(
    const ZNVIndexSet& indices) {
    Lock lock(*this);
    if (!preStaging_) return nullptr;
    std::unique_ptr<PreStaging> staging = std::move(preStaging_);
    std::shared_ptr<StagedBatch> staged = staging->result.get();
    if (!staged || !staged->body) return nullptr;
    // Work dispatched before a reset, cancel, retry or another step never
    // takes effect after it: only the dispatch right after the one that
    // started the staging may send it.
    const std::optional<ZNVURL> source = sourceURL();
    if (!staged->error && staging->ticket + 1 == runningWorkTicket_ &&
        staging->indices == indices && staging->remoteFileID == remoteFileID_ && source &&
        source->path() == staging->sourcePath) {
        return staged;
    }
    removeStagedBody(*staged->body);
    return nullptr;
}

void ZNVStorageUpload::discardPreStagedBatch() {
    Lock lock(*this);
    if (!preStaging_) return;
    std::unique_ptr<PreStaging> staging = std::move(preStaging_);
    std::shared_ptr<StagedBatch> staged = staging->result.get();
    if (staged && staged->body) removeStagedBody(*staged->body);
}

bool ZNVStorageUpload::uploadsChunks() const {
    Lock lock(*this);
    return uploadsChunks_ || forceChunkUploading();
}

void ZNVStorageUpload::beginUploadingChunksAtIndices(const ZNVIndexSet& indices) {
    Lock lock(*this);
    uploadsChunks_ = true;
    chunkIndicesToUpload_ = indices;
    pendingBatchChunkCount_ = 0;
    if (chunkIndicesToUpload_.empty()) {
        setTask(nullptr);
    } else {
        uploadNextBatchOfChunks();
    }
}

void ZNVStorageUpload::assembleRemoteFile() {
    Lock lock(*this);
    if (!validateParameters()) return;
    std::weak_ptr<ZNVNetworkTask> weakSelf = weak_from_this();
    dispatchNetworkBlock([weakSelf](const ZNVAuthenticationRef& authentication) {
        auto self = std::static_pointer_cast<ZNVStorageUpload>(weakSelf.lock());
        if (!self) return;
        Lock lock(*self);
        if (ZNVErrorRef changed = self->sourceChangeError()) {
            self->startNewSessionTask(nullptr, changed);
            return;
        }
        const uint64_t chunkSize = ZNVNetworkSessionManager::maximumChunkSize();
        const ZNVIndexSet indices = self->allChunkIndices();
        nlohmann::json sizes = nlohmann::json::array();
        for (uint64_t index = 0; index < self->chunkCount_; ++index) {
            sizes.push_back(index + 1 == self->chunkCount_ ? self->sizeOfLastChunk_ : chunkSize);
        }
        ZNVErrorRef error;
        auto sessionTask = self->session()->assembleRemoteFile(self->remoteFileID_, indices, sizes,
                                                               authentication, &error);
        self->startNewSessionTask(sessionTask, error);
    });
}

void ZNVStorageUpload::postProcessRemoteFile() {
    Lock lock(*this);
    if (!validateParameters()) return;
    std::weak_ptr<ZNVNetworkTask> weakSelf = weak_from_this();
    dispatchNetworkBlock([weakSelf](const ZNVAuthenticationRef& authentication) {
        auto self = std::static_pointer_cast<ZNVStorageUpload>(weakSelf.lock());
        if (!self) return;
        Lock lock(*self);
        ZNVErrorRef error;
        auto sessionTask = self->session()->postProcessRemoteVideoFile(self->remoteFileID_,
                                                                       authentication, &error);
        self->startNewSessionTask(sessionTask, error);
    });
}

void ZNVStorageUpload::resolveRemoteFileID() {
    Lock lock(*this);
    if (needsEarlyActivation() || !remoteFileID_.empty() ||
        state() != ZNVNetworkTaskStateSuspended) {
        return;
    }
    setNeedsEarlyActivation(true);
    // Early retrieval runs outside the manager's capacity: it sends only the
    // create.
    resumeForManager();
}

// ---------------------------------------------------------------------------
// Responses

void ZNVStorageUpload::handleStorageResponse(const ZNVStorageResponse& response,
                                             bool reachableNetwork) {
    Lock lock(*this);
    if (rawError()) return;

    const ZNVStorageResponseType type = response.type();
    if (response.error()) {
        const ZNVErrorRef& error = response.error();
        bool handled = false;
        if (reachableNetwork) {
            if (type == ZNVStorageResponseTypeUploadedFullFile &&
                error->value(ZNVURLErrorRetryAfterKey)) {
                // The service asked to come back later: the upload goes on in
                // chunks, but only once the recovery has waited as asked.
                uploadsChunks_ = true;
                chunkIndicesToUpload_ = allChunkIndices();
                pendingBatchChunkCount_ = 0;
            } else if (type == ZNVStorageResponseTypeUploadedFullFile) {
                // The service refused the whole file: send it in chunks instead.
                beginUploadingChunksAtIndices(allChunkIndices());
                handled = true;
            } else if (type == ZNVStorageResponseTypeAssembledRemoteFile &&
                       ZNVStorageErrorHandler_canAutomaticallyRecoverFromFileCompletionConflict(
                           error)) {
                handleMissingRemoteChunkIndices(response.missingRemoteChunkIndices(), error);
                handled = true;
            } else if ((type == ZNVStorageResponseTypeAssembledRemoteFile ||
                        type == ZNVStorageResponseTypeUploadedChunk) &&
                       ZNVStorageErrorHandler_errorMessageIndicatesFileAlreadyCompleted(
                           error, response.message())) {
                ZNVLogDefault("{}: The remote file is already assembled.", description());
                if (requiresVideoPostProcessing_) {
                    postProcessRemoteFile();
                } else {
                    setTask(nullptr);
                }
                handled = true;
            }
        }
        if (!handled) setRawError(error);
    } else {
        // A step went through: the recovery attempts count failures in a row.
        restoreRecoveryAttempts();
        remoteFileID_ = response.remoteFileID();

        enum class Suspension { None, Network, Early };
        Suspension suspension = Suspension::None;
        if (needsEarlyActivation() && !remoteFileID_.empty()) {
            setNeedsEarlyActivation(false);
            chunkIndicesToUpload_ = allChunkIndices();
            suspension = Suspension::Early;
        } else if (!reachableNetwork) {
            suspension = Suspension::Network;
        }

        bool completing = false;
        switch (type) {
            case ZNVStorageResponseTypeNewRemoteFile:
                maximumFullFileUploadSize_ = response.maximumFullFileUploadSize();
                if (reachableNetwork && suspension != Suspension::Early) {
                    if (canUploadFullFile()) {
                        uploadFullFile();
                    } else {
                        beginUploadingChunksAtIndices(allChunkIndices());
                    }
                }
                break;
            case ZNVStorageResponseTypeUploadedFullFile:
            case ZNVStorageResponseTypeAssembledRemoteFile:
                // The whole file was read while the request ran.
                if (type == ZNVStorageResponseTypeUploadedFullFile) {
                    if (ZNVErrorRef changed = sourceChangeError()) {
                        setRawError(changed);
                        return;
                    }
                }
                if (const std::optional<ZNVURL>& content = response.remoteContentURL())
                    remoteContentURL_ = std::make_unique<const ZNVURL>(*content);
                if (!requiresVideoPostProcessing_) {
                    setTask(nullptr);
                    completing = true;
                } else if (reachableNetwork) {
                    postProcessRemoteFile();
                }
                break;
            case ZNVStorageResponseTypeUploadedChunk:
                if (const std::optional<ZNVIndexSet>& sent = response.localChunkIndicesToUpload()) {
                    chunkIndicesToUpload_.remove(*sent);
                }
                pendingBatchChunkCount_ = 0;
                if (reachableNetwork) uploadNextBatchOfChunks();
                break;
            case ZNVStorageResponseTypePostProcessedRemoteVideoFile:
                setTask(nullptr);
                completing = true;
                break;
            default:
                break;
        }

        if (!completing && suspension != Suspension::None) {
            if (suspension == Suspension::Network) {
                ZNVLogInfo("{}: Automatically suspending until the network is reachable.",
                           description());
            } else {
                ZNVLogInfo(
                    "{}: Remote file ID retrieved early. Suspending until the slot for this "
                    "upload becomes available.",
                    description());
            }
            resetForResume();
        }
    }
    handleChunkProgress(0);
}

void ZNVStorageUpload::handleMissingRemoteChunkIndices(const std::optional<ZNVIndexSet>& indices,
                                                       const ZNVErrorRef& error) {
    Lock lock(*this);
    if (indices && !indices->empty() && remainingAttemptsForFileCompletion_ > 0) {
        --remainingAttemptsForFileCompletion_;
        ZNVLogDefault("Attempting to re-upload chunks for the following indices: {}",
                      ZNVNetworkUtilities_stringFromIndices(*indices).value_or(""));
        beginUploadingChunksAtIndices(*indices);
    } else {
        setRawError(error);
    }
}

// ---------------------------------------------------------------------------
// Progress

void ZNVStorageUpload::handleChunkProgress(float fraction) {
    Lock lock(*this);
    if (rawError()) return;
    if (!task()) {
        applyErrorToProgress();
        return;
    }
    const uint64_t remaining = chunkIndicesToUpload_.count();
    if (remaining > chunkCount_) return;
    std::shared_ptr<ZNVProgress> current = progress();
    if (!current) return;
    const float batch = static_cast<float>(pendingBatchChunkCount_) * fraction * 10.0f;
    const int64_t completed = static_cast<int64_t>(10 * (chunkCount_ - remaining)) +
                              (remoteFileID_.empty() ? 0 : 1) + static_cast<int64_t>(batch);
    current->setCompletedUnitCount(completed);
}

void ZNVStorageUpload::handleFullFileProgress(float fraction) {
    Lock lock(*this);
    if (rawError()) return;
    if (!task()) {
        applyErrorToProgress();
        return;
    }
    if (chunkIndicesToUpload_.count() > chunkCount_) return;
    std::shared_ptr<ZNVProgress> current = progress();
    if (!current) return;
    const float sent = static_cast<float>(chunkCount_) * fraction * 10.0f;
    current->setCompletedUnitCount(static_cast<int64_t>(sent) + (remoteFileID_.empty() ? 0 : 1));
}

// ---------------------------------------------------------------------------
// Lifecycle

void ZNVStorageUpload::resetForResume() {
    Lock lock(*this);
    ZNVNetworkTask::resetForResume();
    remainingAttemptsForFileCompletion_ = ZNVStorageUploadFileCompletionAttempts;
    pendingBatchChunkCount_ = 0;
    discardPreStagedBatch();
}

void ZNVStorageUpload::removeStagedBodies() {
    Lock lock(*this);
    // A body still being written would otherwise appear after the sweep.
    discardPreStagedBatch();
    if (remoteFileID_.empty()) return;
    // Without a session (a manager that only keeps the queue) the queue's
    // configuration names the bodies.
    const std::shared_ptr<ZNVNetworkSessionManager> owner = session();
    ZNVStoragePathManagerRef paths = owner ? owner->pathManager() : nullptr;
    if (!paths) paths = ZNVStoragePathManager::managerForConfiguration(queueConfiguration_);
    if (paths) paths->removeUploadFilesForRemoteFile(remoteFileID_);
}

void ZNVStorageUpload::setQueueConfiguration(const ZNVAccountConfigurationRef& configuration) {
    ZNVNetworkTask::setQueueConfiguration(configuration);
    // Held as on a const task: the configuration is not archived, so taking
    // the upload into a queue does not make the next save encode it again.
    Lock lock(std::as_const(*this));
    queueConfiguration_ = configuration;
}

void ZNVStorageUpload::setTask(const std::shared_ptr<ZNVURLSessionTask>& task) {
    Lock lock(*this);
    ZNVNetworkTask::setTask(task);
    // Cancelled by the application: nothing sends these bodies again (a
    // retry stages anew). A request still reading one keeps its open file.
    // A failed step leaves the batch staged ahead unsent: it goes too.
    if (!task && errorIndicatesManuallyCancelledTask(rawError())) {
        removeStagedBodies();
    } else if (!task && rawError()) {
        discardPreStagedBatch();
    }
}

void ZNVStorageUpload::taskDidFinish() {
    ZNVNetworkTask::taskDidFinish();
    removeStagedBodies();
}

void ZNVStorageUpload::connectToAccount(std::shared_ptr<ZNVAccount> account,
                                        const std::shared_ptr<ZNVNetworkSessionManager>& session,
                                        const std::shared_ptr<ZNVURLSessionTask>& task) {
    Lock lock(*this);
    if (!wasDecoded()) return;
    account_ = std::move(account);
    connectToSession(session, task);
}

std::string ZNVStorageUpload::description() const {
    Lock lock(*this);
    std::string text = ZNVNetworkTask::description();
    if (!remoteFileID_.empty()) text += fmt::format(" for remote file {}", remoteFileID_);
    return text;
}

// ---------------------------------------------------------------------------
// Archive

void ZNVStorageUpload::encodeWithCoder(ZNVCoder& coder) const {
    ZNVNetworkTask::encodeWithCoder(coder);
    ZNVKeyedArchiver* archiver = coder.asKeyedArchiver();
    Lock lock(*this);
    if (!sourceURLBookmark_) {
        const std::optional<ZNVURL> source = sourceURL();
        if (source && source->isFileURL()) {
            ZNVErrorRef error;
            std::optional<ZNVBytes> bookmark = ZNVBookmark::createData(*source, &error);
            if (!bookmark) {
                ZNVLogDefault("Failed to create persistent bookmark for file at {}: {}",
                              source->absoluteString(),
                              error ? error->localizedDescription() : std::string());
            }
            sourceURLBookmark_ = std::move(bookmark);
        }
    }
    if (!remoteFileID_.empty()) archiver->encodeString(remoteFileID_, "remote file ID");
    if (!sharedStorageID_.empty()) archiver->encodeString(sharedStorageID_, "shared storage ID");
    if (!multiplexingHint_.empty()) archiver->encodeString(multiplexingHint_, "multiplexing hint");
    if (sourceURLBookmark_) archiver->encodeData(*sourceURLBookmark_, "source URL bookmark");
    archiver->encodeIndexSet(chunkIndicesToUpload_, "chunk indices to upload");
    archiver->encodeUInt64(chunkCount_, "chunk count");
    archiver->encodeUInt64(sizeOfLastChunk_, "size of last chunk");
    archiver->encodeUInt64(pendingBatchChunkCount_, "pending batch chunk count");
    if (!remoteFilename_.empty()) archiver->encodeString(remoteFilename_, "remote file name");
    archiver->encodeUInt64(maximumFullFileUploadSize_, "maximum full-file upload size");
    archiver->encodeBool(requiresVideoPostProcessing_, "requires video post processing");
    if (sourceIdentity_) {
        archiver->encodeUInt64(sourceIdentity_->device, "source device");
        archiver->encodeUInt64(sourceIdentity_->inode, "source inode");
        archiver->encodeUInt64(sourceIdentity_->size, "source size");
        archiver->encodeInt64(sourceIdentity_->modificationTime, "source modification time");
    }
    if (forceChunkUploading()) archiver->encodeBool(true, "force chunk uploading");
    if (uploadsChunks_) archiver->encodeBool(true, "uploads chunks");
}

std::shared_ptr<ZNVStorageUpload> ZNVStorageUpload::decode(ZNVCoder& coder) {
    (void)registeredStorageUpload;
    std::shared_ptr<ZNVStorageUpload> upload(new ZNVStorageUpload());
    upload->initWithCoder(coder);
    uint64_t decodedChunkCount = kNoIndex;
    uint64_t decodedSizeOfLastChunk = kNoIndex;
    std::optional<SourceIdentity> decodedIdentity;
    {
        Lock lock(*upload);
        ZNVKeyedUnarchiver* unarchiver = coder.asKeyedUnarchiver();
        if (unarchiver && coder.allowsKeyedCoding()) {
            upload->remoteFileID_ = unarchiver->decodeStringForKey("remote file ID").value_or("");
            upload->sharedStorageID_ =
                unarchiver->decodeStringForKey("shared storage ID").value_or("");
            upload->multiplexingHint_ =
                unarchiver->decodeStringForKey("multiplexing hint").value_or("");
            upload->sourceURLBookmark_ = unarchiver->decodeDataForKey("source URL bookmark");
            if (upload->sourceURLBookmark_ && !upload->sourceURLBookmark_->empty()) {
                // The bookmark's staleness does not matter: the file is
                // followed by identity, and its size is checked below.
                ZNVErrorRef error;
                bool moved = false;
                const std::optional<ZNVBookmark> bookmark =
                    ZNVBookmark::fromData(*upload->sourceURLBookmark_, &error);
                std::optional<ZNVURL> resolved =
                    bookmark ? bookmark->resolve(&moved, &error) : std::nullopt;
                if (!resolved) {
                    ZNVLogDefault("Failed to retrieve file location from persistent bookmark: {}",
                                  error ? error->localizedDescription() : std::string());
                    upload->sourceFileReferenceURL_.reset();
                } else if (!moved) {
                    // Found where the bookmark saw it, under the identity it
                    // recorded: the bookmark's reference is the file's.
                    upload->sourceFileReferenceURL_ = bookmark->reference().referenceURL();
                } else {
                    const std::string real = ZNVRealPath(resolved->path());
                    upload->sourceFileReferenceURL_ =
                        ZNVFileReferenceURL(real.empty() ? *resolved : ZNVURL::fileURL(real));
                }
            }
            upload->chunkIndicesToUpload_ =
                unarchiver->decodeIndexSetForKey("chunk indices to upload").value_or(ZNVIndexSet());
            decodedChunkCount = unarchiver->decodeUInt64ForKey("chunk count").value_or(0);
            decodedSizeOfLastChunk =
                unarchiver->decodeUInt64ForKey("size of last chunk").value_or(0);
            upload->pendingBatchChunkCount_ =
                unarchiver->decodeUInt64ForKey("pending batch chunk count").value_or(0);
            upload->remoteFilename_ =
                unarchiver->decodeStringForKey("remote file name").value_or("");
            upload->maximumFullFileUploadSize_ =
                unarchiver->decodeUInt64ForKey("maximum full-file upload size").value_or(0);
            upload->requiresVideoPostProcessing_ =
                unarchiver->decodeBoolForKey("requires video post processing").value_or(false);
            auto device = unarchiver->decodeUInt64ForKey("source device");
            auto inode = unarchiver->decodeUInt64ForKey("source inode");
            auto size = unarchiver->decodeUInt64ForKey("source size");
            auto modified = unarchiver->decodeInt64ForKey("source modification time");
            if (device && inode && size && modified) {
                decodedIdentity = SourceIdentity{*device, *inode, *size, *modified};
            }
            upload->setForceChunkUploading(
                unarchiver->decodeBoolForKey("force chunk uploading").value_or(false));
            upload->uploadsChunks_ = unarchiver->decodeBoolForKey("uploads chunks").value_or(false);
        }
        if (upload->remoteFilename_.empty()) {
            if (std::optional<ZNVURL> source = upload->sourceURL()) {
                upload->remoteFilename_ =
                    ZNVNetworkUtilities_sanitizeFilename(source->lastPathComponent()).value_or("");
            }
        }
    }
    if (upload->state() == ZNVNetworkTaskStateCompleted && !upload->rawError()) {
        // Done: its source may be gone or changed since, and that is no failure.
        Lock lock(*upload);
        const uint64_t chunkSize = ZNVNetworkSessionManager::maximumChunkSize();
        upload->remainingAttemptsForFileCompletion_ = ZNVStorageUploadFileCompletionAttempts;
        upload->chunkCount_ = decodedChunkCount;
        upload->sizeOfLastChunk_ = decodedSizeOfLastChunk;
        upload->sourceFileSize_ =
            decodedIdentity          ? decodedIdentity->size
            : decodedChunkCount == 0 ? 0
                                     : (decodedChunkCount - 1) * chunkSize + decodedSizeOfLastChunk;
        upload->sourceIdentity_ = decodedIdentity;
        upload->setProgress(
            ZNVProgress::make(static_cast<int64_t>(10 * upload->chunkCount_ + 2), 0));
        return upload;
    }
    upload->finishUploadInit();
    upload->validateChunkCount(decodedChunkCount, decodedSizeOfLastChunk);
    {
        // Archives made before the identity was kept start from the file as it is.
        Lock lock(*upload);
        upload->sourceIdentity_ = decodedIdentity;
        if (!upload->sourceIdentity_ && !upload->rawError()) {
            upload->sourceIdentity_ = upload->currentSourceIdentity();
        }
    }
    return upload;
}

}  // namespace znv

#include "znv/managers/storage.h"

#include <chrono>
#include <cstdlib>
#include <utility>

#include "znv/foundation/device.h"
#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/foundation/network_utilities.h"
#include "znv/managers/task_activity.h"
#include "znv/platform/main_queue.h"
#include "znv/platform/url_session.h"
#include "znv/protocol/storage_response.h"
#include "znv/session/storage_path_manager.h"

namespace znv {
namespace {

int64_t microsecondsSinceEpoch(const ZNVDate& date) {
    return std::chrono::duration_cast<std::chrono::microseconds>(date.time_since_epoch()).count();
}

// What the journal must hold before `upload` acts on `response`, if anything:
// a new remote file, a batch of chunks acknowledged, or the whole file refused
// while the network is up (the upload then goes on in chunks). The source is
// resolved only then: most answers need no record.
std::optional<ZNVRemoteFileJournal::Entry> journalEntryFor(const ZNVStorageUpload& upload,
                                                           const ZNVStorageResponse& response,
                                                           bool reachable) {
    const std::string current = upload.remoteFileID();
    ZNVRemoteFileJournal::Entry entry;
    entry.remoteFileID = current;
    entry.maximumFullFileUploadSize = upload.maximumFullFileUploadSize();
    const auto& sent = response.localChunkIndicesToUpload();
    const auto& missing = response.missingRemoteChunkIndices();
    if (response.error() && response.type() == ZNVStorageResponseTypeAssembledRemoteFile) {
        // Chunks to send again: recorded after the acknowledgements that an
        // earlier line may hold for them, so a replay ends with them to send.
        if (!reachable || current.empty() || current != response.remoteFileID() || !missing ||
            missing->empty() ||
            !ZNVStorageErrorHandler_canAutomaticallyRecoverFromFileCompletionConflict(
                response.error()))
            return std::nullopt;
        entry.missingChunks = missing->indices();
    } else if (response.error()) {
        if (response.type() != ZNVStorageResponseTypeUploadedFullFile || !reachable ||
            upload.uploadsChunks() || current.empty())
            return std::nullopt;
        entry.chunks = true;
    } else if (response.type() == ZNVStorageResponseTypeNewRemoteFile && current.empty() &&
               !response.remoteFileID().empty()) {
        entry.remoteFileID = response.remoteFileID();
        entry.maximumFullFileUploadSize = response.maximumFullFileUploadSize();
    } else if (response.type() == ZNVStorageResponseTypeUploadedChunk && !current.empty() &&
               current == response.remoteFileID() && sent && !sent->empty()) {
        entry.acknowledgedChunks = sent->indices();
    } else {
        return std::nullopt;
    }
    const std::optional<ZNVURL> source = upload.sourceURL();
    if (!source) return std::nullopt;
    entry.sourceURL = source->absoluteString();
    entry.startMicroseconds = microsecondsSinceEpoch(upload.startDate());
    return entry;
}

constexpr uint64_t kUploadCapacity = 2;

std::string describe(const ZNVErrorRef& error) {
    return error ? error->description() : std::string("(null)");
}

}  // namespace

// ---------------------------------------------------------------------------
// Creation

std::shared_ptr<ZNVStorage> ZNVStorage::storageForAccount(
    const std::shared_ptr<ZNVAccount>& account) {
    if (!account || !account->configuration()) return nullptr;
    auto storage = std::shared_ptr<ZNVStorage>(new ZNVStorage(account));
    storage->launch();
    return storage;
}

ZNVStorage::ZNVStorage(std::shared_ptr<ZNVAccount> account)
    : ZNVNetwork(account ? account->configuration() : nullptr),
      account_(std::move(account)),
      uploadActivity_(ZNVTaskActivityIndex::create()) {}

ZNVStorage::~ZNVStorage() {
    disconnectFromAccount();
    std::lock_guard<std::mutex> lock(storageMutex_);
    mutableUploads_.clear();
    uploadForRemoteFile_.clear();
}

std::shared_ptr<ZNVNetworkBackground> ZNVStorage::createBackgroundManager() {
    return ZNVNetworkBackground::backgroundForStorage(this);
}

std::weak_ptr<ZNVStorage> ZNVStorage::weakStorage() {
    return std::static_pointer_cast<ZNVStorage>(shared_from_this());
}

void ZNVStorage::launch() {
    ZNVNetwork::launch();
    removeOrphanStagedBodies();
    connectSessionToUploads();
    connectToAccount();
    storageIsLaunched_ = true;
    scheduleRefreshAndSave();
}

void ZNVStorage::removeOrphanStagedBodies() {
    // Only with the queue in hand: without it (held elsewhere, or kept aside
    // as damaged) the bodies may belong to tasks this manager cannot see.
    if (stateRestoreError()) return;
    auto session = sessionManager();
    if (!session || !session->pathManager()) return;
    std::vector<std::string> live;
    for (const auto& upload : uploads()) {
        if (!upload->remoteFileID().empty()) live.push_back(upload->remoteFileID());
    }
    session->pathManager()->removeOrphanUploadFiles(live,
                                                    ZNVStoragePathManager::processStartTime());
}

std::vector<ZNVStorageUploadRef> ZNVStorage::uploads() const {
    assertValidUploadsCount();
    return uploadSnapshot().toVector();
}

ZNVTaskList<ZNVStorageUpload>::Snapshot ZNVStorage::uploadSnapshot() const {
    std::lock_guard<std::mutex> lock(storageMutex_);
    return mutableUploads_.snapshot();
}

// ---------------------------------------------------------------------------
// Uploads

ZNVStorageUploadRef ZNVStorage::uploadFromFile(const ZNVURL& fileURL,
                                               bool applyVideoPostProcessing) {
    return uploadFromFile(fileURL, "", "", "", applyVideoPostProcessing, false);
}

ZNVStorageUploadRef ZNVStorage::uploadFromFile(
    const ZNVURL& fileURL, const std::string& remoteFilename, const std::string& sharedStorageID,
    const std::string& multiplexingHint, bool applyVideoPostProcessing, bool forceChunkUploading) {
    auto upload =
        ZNVStorageUpload::create(fileURL, remoteFilename, account_, sharedStorageID,
                                 multiplexingHint, applyVideoPostProcessing, sessionManager());
    if (upload) {
        upload->setForceChunkUploading(forceChunkUploading);
        if (auto error = upload->error()) {
            ZNVLogError("failed to initiate upload: {}", describe(error));
            upload = nullptr;
        }
    }
    addTask(upload);
    return upload;
}

void ZNVStorage::addTask(const ZNVNetworkTaskRef& task) {
    MutationScope mutation(*this);
    auto upload = std::dynamic_pointer_cast<ZNVStorageUpload>(task);
    if (!upload || hasTask(task)) {
        ZNVNetwork::addTask(task);
        return;
    }
    assertValidUploadsCount();
    ZNVIndexSet position;
    {
        std::lock_guard<std::mutex> lock(storageMutex_);
        position = ZNVIndexSet{static_cast<uint64_t>(mutableUploads_.size())};
    }
    willChange("uploads", ZNVKeyValueChange::Insertion, position);
    ZNVNetwork::addTask(task);
    const std::string fileID = upload->remoteFileID();
    {
        std::lock_guard<std::mutex> lock(storageMutex_);
        mutableUploads_.append(upload);
        if (!fileID.empty()) uploadForRemoteFile_[fileID] = upload;
    }
    uploadActivity_->add(upload);
    didChange("uploads", ZNVKeyValueChange::Insertion, position);
    assertValidUploadsCount();
}

void ZNVStorage::finishTask(const ZNVNetworkTaskRef& task) {
    MutationScope mutation(*this);
    ZNVIndexSet position;
    ZNVStorageUploadRef upload;
    {
        std::lock_guard<std::mutex> lock(storageMutex_);
        const size_t index =
            task ? mutableUploads_.indexOfIdentical(task.get()) : mutableUploads_.size();
        if (index < mutableUploads_.size()) {
            position = ZNVIndexSet{static_cast<uint64_t>(index)};
            upload = std::static_pointer_cast<ZNVStorageUpload>(task);
        }
    }
    if (!upload) {
        ZNVNetwork::finishTask(task);
        return;
    }
    assertValidUploadsCount();
    willChange("uploads", ZNVKeyValueChange::Removal, position);
    const std::string fileID = upload->remoteFileID();
    {
        std::lock_guard<std::mutex> lock(storageMutex_);
        if (!fileID.empty()) uploadForRemoteFile_.erase(fileID);
        mutableUploads_.removeIdentical(upload.get());
    }
    uploadActivity_->remove(upload.get());
    ZNVNetwork::finishTask(task);
    didChange("uploads", ZNVKeyValueChange::Removal, position);
    assertValidUploadsCount();
}

// ---------------------------------------------------------------------------
// Activity

bool ZNVStorage::refreshTaskActivity() {
    if (!storageIsLaunched()) return false;
    const bool uploadsActivated = refreshUploadActivity();
    const bool downloadsActivated = ZNVNetwork::refreshTaskActivity();
    return uploadsActivated || downloadsActivated;
}

uint64_t ZNVStorage::activeUploadCount() const {
    return logActiveCount(uploadActivity_->runningCount(), "upload");
}

bool ZNVStorage::refreshUploadActivity() {
    const bool signedIn = account_ && account_->status() == ZNVAccountStatusSignedIn;
    const bool reachable = signedIn && isReachableEvenInBackground();
    const bool pluggedIn = ZNVNetworkDevice_deviceIsPluggedIn();
    assertValidUploadsCount();
    const char* blocked = nullptr;
    if (!signedIn) {
        blocked = "Account must be signed in before uploads can be activated.";
    } else if (!reachable) {
        blocked = pluggedIn ? "Network must be reachable before uploads can be activated."
                            : "Device must be plugged in before uploads can be activated.";
    }
    return runActivationRound(*uploadActivity_, {"upload", kUploadCapacity, reachable, blocked});
}

// ---------------------------------------------------------------------------
// Routing

ZNVStorageUploadRef ZNVStorage::uploadForTask(const std::shared_ptr<ZNVURLSessionTask>& task,
                                              bool* ignored) {
    if (ignored) *ignored = false;
    if (!task) return nullptr;
    const std::string fileID =
        ZNVStorageResponse::remoteFileForRequestedURL(task->originalRequest().URL()).value_or("");
    const uint64_t identifier = task->taskIdentifier();

    ZNVStorageUploadRef candidate;
    if (!fileID.empty()) {
        std::lock_guard<std::mutex> lock(storageMutex_);
        auto it = uploadForRemoteFile_.find(fileID);
        if (it != uploadForRemoteFile_.end()) candidate = it->second;
    }
    if (!candidate) {
        // An answer normally belongs to an upload with a request in flight:
        // those are few, so they are asked first, and the whole collection
        // only when none of them sent it. Session task identifiers are unique
        // among the uploads (restored ones that were not reconnected carry
        // none), so the order of the search does not change the answer.
        for (const auto& busy : uploadActivity_->tasksToPrepare()) {
            if (busy->taskIdentifier() == identifier) {
                candidate = std::static_pointer_cast<ZNVStorageUpload>(busy);
                break;
            }
        }
        if (!candidate) {
            for (const auto& upload : uploadSnapshot()) {
                if (upload->taskIdentifier() == identifier) {
                    candidate = upload;
                    break;
                }
            }
        }
        if (candidate && !fileID.empty()) {
            std::lock_guard<std::mutex> lock(storageMutex_);
            uploadForRemoteFile_[fileID] = candidate;
        }
    }

    const bool stale = candidate && candidate->taskIdentifier() != identifier;
    if (ignored) *ignored = stale;
    if (stale) {
        ZNVLogInfo("ignoring response for old session task {}: {}", identifier,
                   task->taskDescription());
        return nullptr;
    }
    return candidate;
}

void ZNVStorage::connectTaskToUpload(const std::shared_ptr<ZNVURLSessionTask>& task) {
    if (auto upload = uploadForTask(task)) {
        upload->connectToAccount(account_, sessionManager(), task);
    }
}

void ZNVStorage::connectSessionToUploads() {
    auto session = sessionManager();
    auto uploadList = uploads();
    const size_t uploadCount = uploadList.size();
    for (const auto& upload : uploadList)
        upload->connectToAccount(account_, session, nullptr);
    if (!session) return;
    auto weak = weakStorage();
    session->getTasksWithCompletionHandler(
        [weak, uploadCount](
            const std::vector<std::shared_ptr<ZNVURLSessionDataTask>>& dataTasks,
            const std::vector<std::shared_ptr<ZNVURLSessionUploadTask>>& uploadTasks,
            const std::vector<std::shared_ptr<ZNVURLSessionDownloadTask>>& downloadTasks) {
            auto self = weak.lock();
            if (!self) return;
            ZNVLogInfo("reconciling {} uploads against {} session tasks", uploadCount,
                       dataTasks.size() + uploadTasks.size() + downloadTasks.size());
            for (const auto& task : dataTasks)
                self->connectTaskToUpload(task);
            for (const auto& task : uploadTasks)
                self->connectTaskToUpload(task);
            for (const auto& task : downloadTasks)
                self->connectTaskToUpload(task);
        });
}

void ZNVStorage::didCompleteWithData(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                                     const std::shared_ptr<ZNVURLSessionTask>& task,
                                     const std::optional<ZNVBytes>& data,
                                     const ZNVErrorRef& error) {
    ZNVNetwork::didCompleteWithData(manager, task, data, error);
    if (!task || !ZNVNetworkSessionManager::taskHasAuthentication(task)) return;

    auto response = ZNVStorageResponse::responseForTask(task, data, error);
    if (!response) {
        ZNVLogError("failed to parse storage response: {}", task->description());
        return;
    }

    const uint64_t key = task->taskIdentifier();
    URLCompletion urlCompletion;
    DeleteCompletion deleteCompletion;
    {
        std::lock_guard<std::mutex> lock(storageMutex_);
        auto urlEntry = remoteURLBlockForTask_.find(key);
        if (urlEntry != remoteURLBlockForTask_.end()) {
            urlCompletion = std::move(urlEntry->second);
            remoteURLBlockForTask_.erase(urlEntry);
        }
        auto deleteEntry = deleteBlockForTask_.find(key);
        if (deleteEntry != deleteBlockForTask_.end()) {
            deleteCompletion = std::move(deleteEntry->second);
            deleteBlockForTask_.erase(deleteEntry);
        }
    }

    if (urlCompletion) {
        if (response->error()) {
            ZNVLogError("failed to get information for remote file: {}",
                        describe(response->error()));
        }
        callBlock([urlCompletion = std::move(urlCompletion), url = response->remoteContentURL()] {
            urlCompletion(url);
        });
        return;
    }
    if (deleteCompletion) {
        const bool deleted = !response->error();
        if (!deleted) {
            ZNVLogError("failed to delete remote file: {}", describe(response->error()));
        }
        callBlock([deleteCompletion = std::move(deleteCompletion), deleted] {
            deleteCompletion(deleted);
        });
        return;
    }

    bool ignored = false;
    auto upload = uploadForTask(task, &ignored);
    if (!upload) {
        if (!ignored) {
            ZNVLogDefault("no upload found for storage response:\n{}", response->description());
        }
        return;
    }
    upload->connectToAccount(account_, manager, task);
    // What the answer tells is recorded before the upload acts on it (sends
    // the next request): killed before the next save, a relaunch neither
    // creates the remote file again, nor sends an acknowledged batch again,
    // nor sends a refused file whole again.
    const bool reachable = isReachableEvenInBackground();
    uint64_t recorded = 0;
    if (auto entry = journalEntryFor(*upload, *response, reachable)) {
        recorded = recordRemoteFileID(*entry);
    }
    upload->handleStorageResponse(*response, reachable);
    if (recorded != 0) forgetRemoteFileIDsAfterNextSave(recorded);
    const auto type = response->type();
    if (type >= ZNVStorageResponseTypeNewRemoteFile &&
        type <= ZNVStorageResponseTypePostProcessedRemoteVideoFile) {
        // The upload has moved on: keep its new position across a relaunch.
        auto weak = weakStorage();
        account_->dispatchAuthenticatedBlock([weak](ZNVAuthenticationRef, ZNVErrorRef) {
            if (auto self = weak.lock()) self->writeState();
        });
    }
}

void ZNVStorage::applyRecordedRemoteFileIDs(
    const std::vector<ZNVNetworkTaskRef>& restored,
    const std::vector<ZNVRemoteFileJournal::Entry>& entries) {
    for (const auto& task : restored) {
        auto upload = std::dynamic_pointer_cast<ZNVStorageUpload>(task);
        if (!upload) continue;
        const std::optional<ZNVURL> source = upload->sourceURL();
        if (!source) continue;
        const std::string text = source->absoluteString();
        const int64_t start = microsecondsSinceEpoch(upload->startDate());
        const auto isFor = [&](const ZNVRemoteFileJournal::Entry& entry) {
            return entry.sourceURL == text && std::llabs(entry.startMicroseconds - start) <= 2;
        };
        // The last creation recorded for the upload is the remote file it went on with.
        if (upload->remoteFileID().empty()) {
            for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
                if (!isFor(*entry) || !entry->acknowledgedChunks.empty() || entry->chunks ||
                    !entry->missingChunks.empty())
                    continue;
                upload->adoptRemoteFileID(entry->remoteFileID, entry->maximumFullFileUploadSize);
                ZNVLogInfo("   remote file {} recorded for {} after the last save",
                           entry->remoteFileID, upload->description());
                break;
            }
        }
        // Then, in order, whether it went on in chunks, the batches
        // acknowledged and the chunks reported missing.
        for (const auto& entry : entries) {
            if (!isFor(entry)) continue;
            if (entry.chunks) {
                if (upload->moveToChunks(entry.remoteFileID))
                    ZNVLogInfo("   {} went on in chunks after the last save",
                               upload->description());
                continue;
            }
            const bool missing = !entry.missingChunks.empty();
            if (!missing && entry.acknowledgedChunks.empty()) continue;
            ZNVIndexSet indices;
            for (uint64_t index : missing ? entry.missingChunks : entry.acknowledgedChunks)
                indices.add(index);
            const bool changed =
                missing ? upload->resendMissingChunks(entry.remoteFileID, indices)
                        : upload->forgetAcknowledgedChunks(entry.remoteFileID, indices);
            if (changed) {
                ZNVLogInfo("   chunks {} {} for {} after the last save",
                           ZNVNetworkUtilities_stringFromIndices(indices).value_or(""),
                           missing ? "reported missing" : "acknowledged", upload->description());
            }
        }
    }
}

void ZNVStorage::didUpdateProgress(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                                   const std::shared_ptr<ZNVURLSessionTask>& task, float progress) {
    ZNVNetwork::didUpdateProgress(manager, task, progress);
    auto response = ZNVStorageResponse::responseForTask(task, std::nullopt, nullptr);
    if (!response) return;
    const auto type = response->type();
    if (type != ZNVStorageResponseTypeUploadedFullFile &&
        type != ZNVStorageResponseTypeUploadedChunk) {
        return;
    }
    auto upload = uploadForTask(task);
    if (!upload) {
        ZNVLogError("failed to update progress for chunk: {}", task->description());
        return;
    }
    if (type == ZNVStorageResponseTypeUploadedChunk) {
        upload->handleChunkProgress(progress);
    } else {
        upload->handleFullFileProgress(progress);
    }
}

// ---------------------------------------------------------------------------
// Remote-file operations

void ZNVStorage::callBlock(std::function<void()> block) {
    if (block) ZNVMainQueue::async(std::move(block));
}

bool ZNVStorage::validateParametersWithFailure(const std::function<void()>& failure) {
    if (!sessionManager()) {
        ZNVLogError("a cloud session manager is required");
    } else if (!account_) {
        ZNVLogError("an account is required");
    } else {
        return true;
    }
    callBlock(failure);
    return false;
}

// Asks the session manager, with the account's authentication, for a request
// on a remote file (`makeTask`), and keeps `completion` under the request's
// task identifier in `pending` until its answer is routed. A request that the
// session manager refuses is logged as `failureLog` followed by the error
// and fails at once.
template <class Completion, class MakeTask>
void ZNVStorage::startRemoteFileRequest(Completion completion, std::function<void()> failure,
                                        std::map<uint64_t, Completion> ZNVStorage::*pending,
                                        const char* failureLog, MakeTask makeTask) {
    if (!validateParametersWithFailure(failure)) return;
    auto weak = weakStorage();
    account_->dispatchAuthenticatedBlock([weak, completion, failure, pending, failureLog, makeTask](
                                             ZNVAuthenticationRef authentication, ZNVErrorRef) {
        // A manager invalidated (or gone) while the request waited for its
        // token fails it, as one without a session fails at once: a caller
        // waiting for its completion is never left waiting for good.
        auto self = weak.lock();
        auto session = self ? self->sessionManager() : nullptr;
        if (!session) {
            callBlock(failure);
            return;
        }
        ZNVErrorRef error;
        auto task = makeTask(*session, authentication, &error);
        if (error) {
            ZNVLogError("{}{}", failureLog, describe(error));
            failure();
            return;
        }
        if (completion && task) {
            {
                std::lock_guard<std::mutex> lock(self->storageMutex_);
                (self.get()->*pending)[task->taskIdentifier()] = completion;
            }
            task->resume();
        }
    });
}

void ZNVStorage::URLForRemoteFile(const std::string& remoteFile, URLCompletion completion) {
    startRemoteFileRequest(
        completion,
        [completion] {
            if (completion) completion(std::nullopt);
        },
        &ZNVStorage::remoteURLBlockForTask_, "failed to get information for remote file: ",
        [remoteFile](ZNVNetworkSessionManager& session, const ZNVAuthenticationRef& authentication,
                     ZNVErrorRef* error) {
            return session.getInformationForRemoteFile(remoteFile, authentication, error);
        });
}

void ZNVStorage::deleteRemoteFile(const std::string& remoteFile, DeleteCompletion completion) {
    startRemoteFileRequest(
        completion,
        [completion] {
            if (completion) completion(false);
        },
        &ZNVStorage::deleteBlockForTask_, "failed to delete remote file: ",
        [remoteFile](ZNVNetworkSessionManager& session, const ZNVAuthenticationRef& authentication,
                     ZNVErrorRef* error) {
            return session.deleteRemoteFile(remoteFile, authentication, error);
        });
}

// ---------------------------------------------------------------------------
// Account observation

void ZNVStorage::connectToAccount() {
    if (!account_ || statusObservation_ != 0) return;
    auto weak = weakStorage();
    statusObservation_ = account_->addObserver(
        ZNVAccount::StatusKey,
        [weak](const ZNVKeyValueChangeRecord&) {
            ZNVMainQueue::async([weak] {
                if (auto self = weak.lock()) self->refreshAndSave();
            });
        },
        ZNVKeyValueObservingOptionInitial);
}

void ZNVStorage::disconnectFromAccount() {
    if (account_ && statusObservation_ != 0) account_->removeObserver(statusObservation_);
    statusObservation_ = 0;
}

// ---------------------------------------------------------------------------
// Invalidation

void ZNVStorage::invalidateClientAndCancelTasks() {
    MutationScope mutation(*this);
    size_t uploadCount = 0;
    {
        std::lock_guard<std::mutex> lock(storageMutex_);
        uploadCount = mutableUploads_.size();
    }
    if (uploadCount == 0) {
        ZNVNetwork::invalidateClientAndCancelTasks();
        return;
    }
    const auto range = ZNVIndexSet::withRange(0, uploadCount);
    willChange("uploads", ZNVKeyValueChange::Removal, range);
    ZNVNetwork::invalidateClientAndCancelTasks();
    {
        // The file-ID map keeps its entries: an answer that arrives for one
        // of these uploads is still recognised as belonging to it.
        std::lock_guard<std::mutex> lock(storageMutex_);
        mutableUploads_.clear();
    }
    uploadActivity_->clear();
    didChange("uploads", ZNVKeyValueChange::Removal, range);
}

}  // namespace znv

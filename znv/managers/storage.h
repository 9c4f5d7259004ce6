// ZNVStorage: the object an application holds for one signed-in account; a
// ZNVNetwork that also uploads.
//
// Contract
// - `storageForAccount(account)` makes and launches a new manager each time (no
//   cache: keep one per account); none when the account has no configuration.
// - Uploads: `uploadFromFile` makes a ZNVStorageUpload, adds it to `tasks` and
//   to the observable `uploads` (key "uploads", indexed insertions/removals)
//   and saves the collection. At most two uploads run at a time (besides the
//   two downloads), and only while the account is signed in (status 2) and the
//   network is reachable; any change of the account's status refreshes.
// - Every storage-service response that the session manager reports is routed
//   on the session's background queue: to a pending `URLForRemoteFile` /
//   `deleteRemoteFile` completion, or to the upload whose current URL session
//   task it answers. Answers of a superseded URL session task of an upload are
//   recognised by the file ID in their URL and ignored. After an upload has
//   advanced, the collection is saved through the account's authenticated
//   dispatch.
// - `URLForRemoteFile` and `deleteRemoteFile` call their completion on the main
//   queue (with none / false on failure), except when the session manager
//   refuses to make the request: then the completion runs on the account's
//   callback thread. A manager invalidated while the request waits for the
//   account's authentication completes it with none / false too. A request
//   whose answer cannot be parsed never completes. Without a completion the
//   request is made but not sent: nobody would hear its answer.
// - The upload collection and the lookup maps are guarded by a mutex that is
//   never held while calling out; walks work on copies.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "znv/account/account.h"
#include "znv/managers/network.h"
#include "znv/upload/storage_upload.h"

namespace znv {

using ZNVStorageUploadRef = std::shared_ptr<ZNVStorageUpload>;

class ZNVStorage : public ZNVNetwork {
  public:
    using URLCompletion = std::function<void(const std::optional<ZNVURL>& url)>;
    using DeleteCompletion = std::function<void(bool deleted)>;

    // A new, launched manager for the account; none when the account (or its
    // configuration) is missing.
    static std::shared_ptr<ZNVStorage> storageForAccount(
        const std::shared_ptr<ZNVAccount>& account);
    ~ZNVStorage() override;

    void launch() override;
    const char* className() const override { return "ZNVStorage"; }

    bool storageIsLaunched() const { return storageIsLaunched_.load(); }
    const std::shared_ptr<ZNVAccount>& account() const { return account_; }
    std::vector<ZNVStorageUploadRef> uploads() const;

    // Uploads.
    ZNVStorageUploadRef uploadFromFile(const ZNVURL& fileURL, bool applyVideoPostProcessing);
    ZNVStorageUploadRef uploadFromFile(const ZNVURL& fileURL, const std::string& remoteFilename,
                                       const std::string& sharedStorageID,
                                       const std::string& multiplexingHint,
                                       bool applyVideoPostProcessing, bool forceChunkUploading);
    void addTask(const ZNVNetworkTaskRef& task) override;
    void finishTask(const ZNVNetworkTaskRef& task) override;
    // Gives a restored upload without a remote file ID the one recorded for
    // it (same source URL text, start dates within 2 microseconds: the state
    // file keeps them to the microsecond), with the full-file limit that came
    // with it.
    void applyRecordedRemoteFileIDs(
        const std::vector<ZNVNetworkTaskRef>& restored,
        const std::vector<ZNVRemoteFileJournal::Entry>& entries) override;

    // One-shot remote-file operations (file ID of the service).
    void URLForRemoteFile(const std::string& remoteFile, URLCompletion completion);
    void deleteRemoteFile(const std::string& remoteFile, DeleteCompletion completion);

    // Activity.
    bool refreshTaskActivity() override;
    bool refreshUploadActivity();
    uint64_t activeUploadCount() const;

    // The upload whose current URL session task is `task`; none otherwise. When
    // the task's URL names a held upload that has moved on to a newer URL
    // session task, `ignored` is set and the answer is logged as stale.
    ZNVStorageUploadRef uploadForTask(const std::shared_ptr<ZNVURLSessionTask>& task,
                                      bool* ignored = nullptr);

    // Session manager delegate (extends the download handling).
    void didCompleteWithData(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                             const std::shared_ptr<ZNVURLSessionTask>& task,
                             const std::optional<ZNVBytes>& data,
                             const ZNVErrorRef& error) override;
    void didUpdateProgress(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                           const std::shared_ptr<ZNVURLSessionTask>& task, float progress) override;

    void invalidateClientAndCancelTasks() override;

  protected:
    explicit ZNVStorage(std::shared_ptr<ZNVAccount> account);

    std::shared_ptr<ZNVNetworkBackground> createBackgroundManager() override;

    void connectToAccount();
    void disconnectFromAccount();
    void connectSessionToUploads();
    void connectTaskToUpload(const std::shared_ptr<ZNVURLSessionTask>& task);
    bool validateParametersWithFailure(const std::function<void()>& failure);
    static void callBlock(std::function<void()> block);

    void assertValidUploadsCount() const {}
    // The uploads as they are now, without copying them (see ZNVTaskList).
    ZNVTaskList<ZNVStorageUpload>::Snapshot uploadSnapshot() const;

  private:
    // Removes staged bodies of this configuration that no upload refers to.
    void removeOrphanStagedBodies();
    std::weak_ptr<ZNVStorage> weakStorage();
    template <class Completion, class MakeTask>
    void startRemoteFileRequest(Completion completion, std::function<void()> failure,
                                std::map<uint64_t, Completion> ZNVStorage::*pending,
                                const char* failureLog, MakeTask makeTask);

    std::atomic<bool> storageIsLaunched_{false};
    const std::shared_ptr<ZNVAccount> account_;
    ZNVObserverToken statusObservation_ = 0;

    mutable std::mutex storageMutex_;
    ZNVTaskList<ZNVStorageUpload> mutableUploads_;                    // guarded by storageMutex_
    std::map<uint64_t, URLCompletion> remoteURLBlockForTask_;         // guarded by storageMutex_
    std::map<uint64_t, DeleteCompletion> deleteBlockForTask_;         // guarded by storageMutex_
    std::map<std::string, ZNVStorageUploadRef> uploadForRemoteFile_;  // guarded by storageMutex_
    // The uploads a refresh looks at; changed with mutableUploads_ (under the
    // mutation scope), guarded by its own mutex.
    const std::shared_ptr<ZNVTaskActivityIndex> uploadActivity_;
};

}  // namespace znv

// ZNVNetworkSessionManager: the one object through which the library talks to
// the network. It owns the URL session, receives every session callback on
// one serial callback queue, keeps each running request's response body until
// the request completes, tags every session task it makes, builds the storage
// service's requests, and hands completions, progress and finished downloads
// to its background delegate (the task manager).
//
// Contract
// - Made with `create`; the callback queue starts suspended, so no session
//   callback is delivered before `launch`. Work handed to
//   `performBackgroundSessionBlock` runs on that queue once launched (serially
//   with the callbacks), and inline on the caller's thread before.
// - The manager holds its background delegate strongly; the delegate (the
//   task manager) normally holds the manager, and the cycle is broken when
//   the session becomes invalid (`invalidate`), after which no callback
//   reaches the delegate. Destroying the manager invalidates its session.
// - Background delegate callbacks, per session task: progress
//   (`didUpdateProgress`, for uploads and plain downloads), a plain
//   download's file (`didFinishDownloadingToURL`, which must move the file
//   before it returns), then exactly one `didCompleteWithData` with the
//   response body (none when nothing arrived) and the error: a failing HTTP
//   status replaces the transport error with a server error that carries the
//   status. All of them run on the callback queue. A storage request's
//   answer is kept in memory by the session, never in a file, up to the
//   in-memory body limit (16 MiB): a larger one is dropped, and the request
//   fails with URL error -1103.
// - The service operations may be called from any thread. Each checks its
//   inputs, stores the authentication's token, builds its request and, while
//   holding the session's lock, creates the session task (not started: the
//   caller resumes it) and writes the request log. Failures come back as a
//   null task and the error out-parameter; nothing is thrown.
// - Task tags (the session task's description) tell, from a session task
//   alone, what it was made for: "download", "resume download",
//   "new remote file", "upload entire file", "chunk index <list>",
//   "assemble remote file", "request video post processing",
//   "information for remote file", "delete remote file".
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "znv/account/account_configuration.h"
#include "znv/account/authentication.h"
#include "znv/platform/error.h"
#include "znv/platform/index_set.h"
#include "znv/platform/url.h"
#include "znv/platform/url_session.h"
#include "znv/protocol/session_task_tags.h"
#include "znv/protocol/storage_chunk.h"
#include "znv/session/storage_path_manager.h"

namespace znv {

class ZNVNetworkSessionManager;

// What the session manager tells its owner. Every call runs on the session
// manager's callback queue.
class ZNVNetworkSessionBackgroundDelegate {
  public:
    virtual ~ZNVNetworkSessionBackgroundDelegate() = default;

    // A plain download (not a storage request) finished into `location`; the
    // file is removed when this returns.
    virtual void didFinishDownloadingToURL(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                                           const std::shared_ptr<ZNVURLSessionDownloadTask>& task,
                                           const ZNVURL& location) = 0;
    // A session task completed, with its response body (none when nothing
    // arrived) and its error (null on success).
    virtual void didCompleteWithData(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                                     const std::shared_ptr<ZNVURLSessionTask>& task,
                                     const std::optional<ZNVBytes>& data,
                                     const ZNVErrorRef& error) = 0;
    // Progress of a request's body or of a plain download. Not clamped: an
    // unknown expected size yields a negative or non-finite value.
    virtual void didUpdateProgress(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                                   const std::shared_ptr<ZNVURLSessionTask>& task,
                                   float progress) = 0;
    // For the task manager's own use; the session manager never sends it.
    virtual void sessionManagerDidFinishBackgroundSessionEvents(
        const std::shared_ptr<ZNVNetworkSessionManager>& manager) {
        (void)manager;
    }
};

class ZNVNetworkSessionManager : public ZNVURLSessionDelegate,
                                 public std::enable_shared_from_this<ZNVNetworkSessionManager> {
  public:
    using Work = std::function<void()>;

    // Null without a configuration, without a delegate, or for a
    // configuration without a storage URL.
    static std::shared_ptr<ZNVNetworkSessionManager> create(
        ZNVAccountConfigurationRef configuration,
        std::shared_ptr<ZNVNetworkSessionBackgroundDelegate> backgroundDelegate);
    ~ZNVNetworkSessionManager() override;
    ZNVNetworkSessionManager(const ZNVNetworkSessionManager&) = delete;
    ZNVNetworkSessionManager& operator=(const ZNVNetworkSessionManager&) = delete;

    // --- Task tags and the chunk size (no manager needed) ---
    // The same functions as ZNVSessionTaskTags (znv/protocol/session_task_tags.h).

    // 4194304: the largest size of one chunk.
    static uint64_t maximumChunkSize() { return ZNVSessionTaskTags::maximumChunkSize(); }
    // The indices of a task tagged "chunk index <list>"; none otherwise.
    static std::optional<ZNVIndexSet> chunkIndicesForTask(
        const std::shared_ptr<ZNVURLSessionTask>& task) {
        return ZNVSessionTaskTags::chunkIndicesForTask(task);
    }
    // Whether the task's original request carries "Authorization: Bearer ...",
    // which marks a storage request as opposed to a plain download.
    static bool taskHasAuthentication(const std::shared_ptr<ZNVURLSessionTask>& task) {
        return ZNVSessionTaskTags::taskHasAuthentication(task);
    }
    // Whether the tag is exactly "download" or "resume download".
    static bool taskIsForDownload(const std::shared_ptr<ZNVURLSessionTask>& task) {
        return ZNVSessionTaskTags::taskIsForDownload(task);
    }

    // --- State ---

    std::shared_ptr<ZNVNetworkSessionBackgroundDelegate> backgroundDelegate() const;
    void setBackgroundDelegate(std::shared_ptr<ZNVNetworkSessionBackgroundDelegate> delegate);
    const std::shared_ptr<ZNVURLSession>& session() const { return session_; }
    const ZNVAccountConfigurationRef& accountConfiguration() const { return accountConfiguration_; }
    const ZNVStoragePathManagerRef& pathManager() const { return pathManager_; }
    const ZNVURL& baseURL() const { return baseURL_; }
    std::string accessToken() const;
    void setAccessToken(std::string accessToken);
    // The background session identifier formed at construction
    // ("<application identifier>.ZNVStorage[.<configuration identifier>]").
    // It is deliberately not applied: every session is a foreground session.
    const std::optional<std::string>& formedBackgroundSessionIdentifier() const {
        return formedBackgroundSessionIdentifier_;
    }

    // --- Session control ---

    // Starts delivering callbacks (resumes the callback queue).
    void launch();
    // Invalidates the session and cancels its tasks (each completes with -999).
    void invalidate();
    // The session's live tasks, on the callback queue; at once on the
    // caller's thread with three empty lists when there is no session.
    void getTasksWithCompletionHandler(ZNVURLSession::TasksHandler completionHandler);
    // The session configuration's identifier: none for foreground sessions.
    std::optional<std::string> sessionIdentifier() const;
    bool currentThreadIsBackgroundSessionThread() const;
    // Runs `work` on the callback queue, or inline (with a log line) while
    // the queue is suspended or missing.
    void performBackgroundSessionBlock(Work work);

    // Stores the task's response body, replacing an earlier one; none or
    // empty bytes remove the entry. Nothing for a null task.
    void setData(const std::optional<ZNVBytes>& data,
                 const std::shared_ptr<ZNVURLSessionTask>& task);
    // The body stored for a session task, if any.
    std::optional<ZNVBytes> dataForTask(uint64_t taskIdentifier) const;

    // "<ZNVNetworkSessionManager: 0x..., <configuration>, session: <session>>"
    std::string description() const;

    // --- Service operations ---

    // Stores the authentication's access token for the requests that follow;
    // false with URL -1013 "missing access token" when it is empty (the old
    // token stays).
    bool useAuthentication(const ZNVAuthenticationRef& authentication,
                           ZNVErrorRef* error = nullptr);
    // base + "files/<remoteFileID>" (the ID inserted as it is).
    ZNVURL apiURLforRemoteFileID(const std::string& remoteFileID) const;
    // A request with "Accept: application/json", the method, the bearer
    // token and, with parameters (a JSON object; null for none), a compact
    // JSON body and "Content-Type: application/json".
    std::optional<ZNVURLRequest> generateRequestWithMethod(const std::string& method,
                                                           const ZNVURL& url,
                                                           const nlohmann::json& parameters,
                                                           ZNVErrorRef* error = nullptr) const;

    // POST files {"fileName", "sharedStorageId"?}; header "znvmultiplexinghint"
    // when a hint is given. Download task tagged "new remote file".
    std::shared_ptr<ZNVURLSessionDownloadTask> createRemoteFileWithName(
        const std::string& fileName, const std::optional<std::string>& sharedStorageID,
        const ZNVAuthenticationRef& authentication,
        const std::optional<std::string>& multiplexingHint, ZNVErrorRef* error = nullptr);
    // PUT files/ID/fullfile with the file's bytes. Upload task tagged "upload
    // entire file". An empty `localFile` gives no task and no error.
    std::shared_ptr<ZNVURLSessionUploadTask> uploadLocalFile(
        const ZNVURL& localFile, const std::string& remoteFileID,
        const ZNVAuthenticationRef& authentication, ZNVErrorRef* error = nullptr);
    // PUT files/ID with the batch staged as a multipart body. Upload task
    // tagged "chunk index <list>".
    std::shared_ptr<ZNVURLSessionUploadTask> uploadChunks(
        const std::vector<ZNVStorageChunkRef>& chunks, const ZNVURL& localFile,
        const std::string& remoteFileID, const ZNVAuthenticationRef& authentication,
        ZNVErrorRef* error = nullptr);
    // The same request for a body the writer already staged at `stagedBody`
    // (the multipart boundary in the request is the writer's).
    std::shared_ptr<ZNVURLSessionUploadTask> uploadStagedChunks(
        const ZNVStorageChunkWriter& writer, const ZNVURL& stagedBody,
        const std::string& remoteFileID, const ZNVAuthenticationRef& authentication,
        ZNVErrorRef* error = nullptr);
    // POST files/ID/complete with {"expectedChunks": [{"index", "sizeInBytes"}...]}
    // staged as a file. `expectedChunkSizes` is a JSON array of non-negative
    // integers (null: none), one per expected index in ascending order.
    // Upload task tagged "assemble remote file".
    std::shared_ptr<ZNVURLSessionUploadTask> assembleRemoteFile(
        const std::string& remoteFileID, const std::optional<ZNVIndexSet>& expectedChunkIndices,
        const nlohmann::json& expectedChunkSizes, const ZNVAuthenticationRef& authentication,
        ZNVErrorRef* error = nullptr);
    // POST files/ID/process {"type": "encode", "values": {"outputType": "video/mp4"}}.
    std::shared_ptr<ZNVURLSessionDownloadTask> postProcessRemoteVideoFile(
        const std::string& remoteFileID, const ZNVAuthenticationRef& authentication,
        ZNVErrorRef* error = nullptr);
    // GET files/ID.
    std::shared_ptr<ZNVURLSessionDownloadTask> getInformationForRemoteFile(
        const std::string& remoteFileID, const ZNVAuthenticationRef& authentication,
        ZNVErrorRef* error = nullptr);
    // DELETE files/ID.
    std::shared_ptr<ZNVURLSessionDownloadTask> deleteRemoteFile(
        const std::string& remoteFileID, const ZNVAuthenticationRef& authentication,
        ZNVErrorRef* error = nullptr);
    // GET of any URL without authorisation. Download task tagged "download".
    std::shared_ptr<ZNVURLSessionDownloadTask> downloadRemoteFile(const ZNVURL& remoteURL,
                                                                  ZNVErrorRef* error = nullptr);
    // Download task made from resume data, tagged "resume download".
    std::shared_ptr<ZNVURLSessionDownloadTask> resumeRemoteFileDownloadFromData(
        const ZNVBytes& resumeData, ZNVErrorRef* error = nullptr);

    // --- URL session callbacks (on the callback queue) ---

    void didBecomeInvalidWithError(const std::shared_ptr<ZNVURLSession>& session,
                                   const ZNVErrorRef& error) override;
    void didCompleteWithError(const std::shared_ptr<ZNVURLSession>& session,
                              const std::shared_ptr<ZNVURLSessionTask>& task,
                              const ZNVErrorRef& error) override;
    void didSendBodyData(const std::shared_ptr<ZNVURLSession>& session,
                         const std::shared_ptr<ZNVURLSessionTask>& task, int64_t bytesSent,
                         int64_t totalBytesSent, int64_t totalBytesExpectedToSend) override;
    void didReceiveData(const std::shared_ptr<ZNVURLSession>& session,
                        const std::shared_ptr<ZNVURLSessionDataTask>& dataTask,
                        const ZNVBytes& data) override;
    void didResumeAtOffset(const std::shared_ptr<ZNVURLSession>& session,
                           const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                           int64_t fileOffset, int64_t expectedTotalBytes) override;
    void didWriteData(const std::shared_ptr<ZNVURLSession>& session,
                      const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                      int64_t bytesWritten, int64_t totalBytesWritten,
                      int64_t totalBytesExpectedToWrite) override;
    void didFinishDownloadingToURL(const std::shared_ptr<ZNVURLSession>& session,
                                   const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                                   const ZNVURL& location) override;
    void didFinishDownloadingData(const std::shared_ptr<ZNVURLSession>& session,
                                  const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                                  const ZNVBytes& data, int64_t totalBytes) override;

  private:
    struct Passkey {};

  public:
    ZNVNetworkSessionManager(Passkey, ZNVAccountConfigurationRef configuration,
                             std::shared_ptr<ZNVNetworkSessionBackgroundDelegate> delegate);

  private:
    void start();
    void forwardProgress(const std::shared_ptr<ZNVURLSessionTask>& task, float progress);
    // Creates a task and logs its request under the session's lock.
    template <class Task, class Make>
    std::shared_ptr<Task> makeLoggedTask(const ZNVURLRequest& request, Make make,
                                         const std::string& extraLog);
    static std::string requestLogEntry(const ZNVURLRequest& request);
    // The largest storage answer kept (the session's in-memory body limit).
    uint64_t answerLimit() const;
    // True (and the task's answer dropped, its failure recorded) when an
    // answer of `size` bytes is over that limit.
    bool refuseOversizedAnswer(const std::shared_ptr<ZNVURLSessionDownloadTask>& task,
                               uint64_t size);
    // The frame of the requests on one remote file that send no file and
    // answer with JSON (post-processing, information, delete).
    std::shared_ptr<ZNVURLSessionDownloadTask> requestOnRemoteFile(
        const char* method, const char* lastPathComponent, const nlohmann::json& parameters,
        const char* tag, const char* operation, const std::string& remoteFileID,
        const ZNVAuthenticationRef& authentication, ZNVErrorRef* error);

    const ZNVAccountConfigurationRef accountConfiguration_;
    const ZNVStoragePathManagerRef pathManager_;
    const ZNVURL baseURL_;
    std::optional<std::string> formedBackgroundSessionIdentifier_;
    std::shared_ptr<ZNVURLSession> session_;  // set once in start()
    std::shared_ptr<ZNVOperationQueue> callbackQueue_;

    mutable std::mutex mutex_;  // guards the members below
    std::shared_ptr<ZNVNetworkSessionBackgroundDelegate> backgroundDelegate_;
    std::map<uint64_t, ZNVBytes> dataForTask_;
    // Why a task's answer file was refused (too large), until its completion.
    std::map<uint64_t, ZNVErrorRef> answerErrorForTask_;
    std::string accessToken_;
};

}  // namespace znv

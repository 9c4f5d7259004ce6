// ZNVURLSession: the HTTP transfer engine every request of the library goes
// through, with its configuration, its tasks and its delegate.
//
// Contract
// - One session drives one libcurl multi handle on one I/O thread of its own.
//   Creating tasks, `resume`, `cancel`, `cancelByProducingResumeData`,
//   `getTasksWithCompletionHandler` and invalidation may be called from any
//   thread; they take effect on the I/O thread, in the order they were made.
// - Delegate callbacks run on the session's delegate queue (a serial
//   ZNVOperationQueue), never on the I/O thread and never on the caller's
//   thread. For one task they come in this order: body progress
//   (`didSendBodyData`, throttled: after 64 KiB more but at most one per
//   10 ms, or after 100 ms whatever the count, and always the final one), then
//   either the whole response body of a data or upload task in one
//   `didReceiveData`, or for a download task `didResumeAtOffset` (resumed
//   downloads only), `didWriteData` (throttled likewise) and
//   `didFinishDownloadingToURL`; last `didCompleteWithError`. The task's state
//   becomes completed (3) on the delegate queue just before that last call.
// - An HTTP error status is not a transport error: its body is delivered like
//   any other and the completion carries no error. Transport failures complete
//   the task with an `NSURLErrorDomain` error that carries the failing URL
//   (`NSURLErrorFailingURLStringErrorKey`, `NSURLErrorFailingURLErrorKey`) and a
//   readable description: -1001 timed out, -1003 unknown host, -1004 cannot
//   connect, -1005 connection lost or empty reply, -1009 no network, -1200 TLS,
//   -1000 bad URL, -1002 unsupported scheme (also for redirects to anything but
//   http and https), -999 cancelled, -3001 upload file unreadable, -3003
//   download file unwritable, -1103 in-memory body over its cap.
// - A download's file lives in the private temporary directory (mode 0600); it
//   is handed to `didFinishDownloadingToURL` and removed as soon as that call
//   returns, so the delegate must move it away during the call. A download
//   task told to `keepBodyInMemory` has no file: its body comes to
//   `didFinishDownloadingData` instead, in the same place of the order.
// - Resume data is an opaque byte string. A download cancelled with
//   `cancelByProducingResumeData`, or one that failed mid-way from a server that
//   advertised byte ranges and a validator, yields it (the latter under
//   `NSURLSessionDownloadTaskResumeData` in its error). A task made from it asks
//   for the rest with "Range" and "If-Range": a 206 answer is appended to the
//   partial file, a 200 answer starts the file over; either way the delegate
//   hears `didResumeAtOffset` with the offset actually used. A 416 whose
//   "Content-Range: bytes */<length>" (or, without one, the length the first
//   answer announced) is the partial file's size means the file already holds
//   the whole body: the task hears `didResumeAtOffset` with offset and total
//   equal, hands the partial file to `didFinishDownloadingToURL` and completes
//   without error (`partialFileWasWhole()` tells such a task apart; its
//   `response()` is the 416). A 416 naming a length below the file's drops the
//   file and completes with an error without resume data. Any other status
//   leaves the partial file as it was, and such a task, like one that fails
//   before any answer, completes with an error holding its original resume
//   data. Resume data whose partial file is not one of the session's own (in
//   the private temporary directory, named "ZNVDownload-XXXXXX") starts over
//   in a fresh file.
// - Ownership: the caller holds the session; the session holds its delegate and
//   keeps itself alive until it has been invalidated. `invalidateAndCancel`
//   completes every live task with -999, then calls `didBecomeInvalidWithError`
//   with no error, releases the delegate and ends the I/O thread; no callback
//   follows. A session that is never invalidated lives (with its delegate) to
//   the end of the process.
// - Tasks are shared pointers; a task stays listed by the session from its
//   creation until its completion has been delivered.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "znv/platform/error.h"
#include "znv/platform/observable.h"
#include "znv/platform/operation_queue.h"
#include "znv/platform/url.h"
#include "znv/platform/url_request.h"

namespace znv {

class ZNVURLSession;
class ZNVURLSessionDataTask;
class ZNVURLSessionUploadTask;
class ZNVURLSessionDownloadTask;

// Task states (the values of `ZNVURLSessionTask::state()`).
inline constexpr int64_t ZNVURLSessionTaskStateRunning = 0;
inline constexpr int64_t ZNVURLSessionTaskStateSuspended = 1;
inline constexpr int64_t ZNVURLSessionTaskStateCanceling = 2;
inline constexpr int64_t ZNVURLSessionTaskStateCompleted = 3;

// "Expected size unknown" in progress callbacks.
inline constexpr int64_t ZNVURLSessionTransferSizeUnknown = -1;

struct ZNVURLSessionConfiguration {
    // The default configuration: 60 s without progress fails a request, 7 days
    // for a whole transfer, at most 6 connections per host, HTTP/2 where the
    // server offers it, TLS peers verified.
    static ZNVURLSessionConfiguration defaultSessionConfiguration();

    // Identifier of a background session; the default configuration has none.
    std::optional<std::string> identifier;
    std::optional<std::string> sharedContainerIdentifier;
    int64_t networkServiceType = 0;
    // Seconds without any progress (connecting, sending or receiving) after
    // which a request fails with -1001.
    double timeoutIntervalForRequest = 60.0;
    // Seconds a whole transfer may take.
    double timeoutIntervalForResource = 7.0 * 24 * 3600;
    int64_t HTTPMaximumConnectionsPerHost = 6;
    bool HTTPShouldUsePipelining = true;  // HTTP/2 multiplexing where offered
    // Sent with every request unless the request sets the same field.
    ZNVHTTPHeaderFields HTTPAdditionalHeaders;
    // Largest response body a data or upload task keeps in memory; a larger
    // one fails the task with -1103.
    uint64_t maximumInMemoryBodyBytes = 16ull << 20;
    // Names the partial files of the session's downloads
    // ("ZNVDownload-<tag>-XXXXXX"), so that their owner can remove those that
    // no resume data names (ZNVURLSessionResumeData::removeUnnamedPartialFiles).
    // Unused unless plain (ZNVURLSessionResumeData::isPlainTag).
    std::string downloadFileTag;
};

// Observable key: "state" (announced on the thread that changes it: the caller
// of resume and cancel, the delegate queue for completion).
class ZNVURLSessionTask : public ZNVObservable,
                          public std::enable_shared_from_this<ZNVURLSessionTask> {
  public:
    enum class Kind { Data, Upload, Download };

    virtual ~ZNVURLSessionTask();
    ZNVURLSessionTask(const ZNVURLSessionTask&) = delete;
    ZNVURLSessionTask& operator=(const ZNVURLSessionTask&) = delete;

    Kind kind() const { return kind_; }
    // 1, 2, 3 ... in the order the session made its tasks.
    uint64_t taskIdentifier() const { return taskIdentifier_; }
    std::string taskDescription() const;
    void setTaskDescription(std::string description);

    const ZNVURLRequest& originalRequest() const { return originalRequest_; }
    // The final response head, once it has arrived; null before.
    std::shared_ptr<const ZNVHTTPURLResponse> response() const;
    // The error the task completed with, once completed.
    ZNVErrorRef error() const;

    // 0 running, 1 suspended, 2 canceling, 3 completed.
    int64_t state() const { return state_.load(); }

    int64_t countOfBytesSent() const { return bytesSent_.load(); }
    int64_t countOfBytesExpectedToSend() const { return bytesExpectedToSend_.load(); }
    int64_t countOfBytesReceived() const { return bytesReceived_.load(); }
    int64_t countOfBytesExpectedToReceive() const { return bytesExpectedToReceive_.load(); }

    // Starts a new task (suspended -> running). No effect on a running,
    // canceling or completed task.
    void resume();
    // Stops the task; it completes with -999 (failing URL included). No effect
    // once the task is completing.
    void cancel();

    // "<ZNVURLSessionDownloadTask: 0x...> { taskIdentifier: 3, state: running }".
    std::string description() const;

  protected:
    ZNVURLSessionTask(Kind kind, uint64_t identifier, ZNVURLRequest request,
                      std::weak_ptr<ZNVURLSession> session);

    // Moves a live task to canceling; false when it is already canceling or done.
    bool requestCancel();
    // Caller holds transitionMutex_.
    void setState(int64_t state);
    std::shared_ptr<ZNVURLSession> owningSession() const { return session_.lock(); }

  private:
    friend class ZNVURLSession;

    const Kind kind_;
    const uint64_t taskIdentifier_;
    const ZNVURLRequest originalRequest_;
    const std::weak_ptr<ZNVURLSession> session_;

    std::atomic<int64_t> state_{ZNVURLSessionTaskStateSuspended};
    std::atomic<int64_t> bytesSent_{0};

  protected:
    std::atomic<int64_t> bytesExpectedToSend_{0};

  private:
    std::atomic<int64_t> bytesReceived_{0};
    std::atomic<int64_t> bytesExpectedToReceive_{ZNVURLSessionTransferSizeUnknown};

    // Serialises state transitions and their announcements (recursive: an
    // observer may cancel the task it is told about).
    std::recursive_mutex transitionMutex_;
    bool started_ = false;          // resume() was asked for; guarded by transitionMutex_
    bool cancelRequested_ = false;  // a cancel was asked for; guarded by transitionMutex_

    mutable std::mutex mutex_;  // guards the members below; never held across callbacks
    std::string description_;
    std::shared_ptr<const ZNVHTTPURLResponse> response_;
    ZNVErrorRef error_;
};

class ZNVURLSessionDataTask : public ZNVURLSessionTask {
  protected:
    using ZNVURLSessionTask::ZNVURLSessionTask;
    friend class ZNVURLSession;
};

// Sends its body from a file; the answer arrives like a data task's.
class ZNVURLSessionUploadTask : public ZNVURLSessionDataTask {
  public:
    const ZNVURL& fileURL() const { return fileURL_; }

  protected:
    ZNVURLSessionUploadTask(uint64_t identifier, ZNVURLRequest request, ZNVURL fileURL,
                            std::weak_ptr<ZNVURLSession> session);
    friend class ZNVURLSession;

  private:
    const ZNVURL fileURL_;
};

class ZNVURLSessionDownloadTask : public ZNVURLSessionTask {
  public:
    using ResumeDataHandler = std::function<void(const ZNVBytes& resumeData)>;

    // Cancels the task and hands the handler resume data (empty when the
    // transfer cannot be resumed), on the delegate queue, before the task's
    // completion with -999. A task that is already completing gets empty data.
    void cancelByProducingResumeData(ResumeDataHandler completionHandler);

    // The resume data this task was made from (empty for fresh downloads).
    const ZNVBytes& resumeDataUsed() const { return resumeData_; }
    // Resume data for the transfer under way, once its answer has begun and
    // allows asking for the rest later (a GET answered 200 or 206 with byte
    // ranges and a validator); empty before that and for in-memory bodies.
    // It is marked as growing: the partial file keeps filling after it was
    // read, and a task made from it continues from all the file then holds.
    // A process killed mid-transfer leaves the file behind; that data, saved
    // before, continues it at the next launch. Any thread.
    ZNVBytes runningResumeData();
    // True once the server answered this task's ranged request with 416 for a
    // partial file that already held the whole body: that file is the
    // download, although `response()` carries the 416.
    bool partialFileWasWhole() const { return partialFileWasWhole_.load(); }

    // Keeps the body in memory instead of a file, for small answers that are
    // read once: it reaches the delegate through `didFinishDownloadingData`
    // (at most `limit` bytes of it, with the count of all that arrived), and
    // an interrupted transfer has no resume data. Call before `resume`; a
    // task made from resume data keeps writing its partial file.
    void keepBodyInMemory(uint64_t limit) { inMemoryLimit_.store(limit); }
    // The limit given to `keepBodyInMemory`, or 0 when the body goes to a file.
    uint64_t inMemoryBodyLimit() const { return inMemoryLimit_.load(); }

  protected:
    ZNVURLSessionDownloadTask(uint64_t identifier, ZNVURLRequest request, ZNVBytes resumeData,
                              std::weak_ptr<ZNVURLSession> session);
    friend class ZNVURLSession;

  private:
    const ZNVBytes resumeData_;
    std::mutex runningMutex_;
    ZNVBytes runningResumeData_;              // guarded by runningMutex_; set on the I/O thread
    std::atomic<uint64_t> inMemoryLimit_{0};  // read by the session's transfer thread
    std::atomic<bool> partialFileWasWhole_{false};  // set on the I/O thread
};

// Receives a session's callbacks on its delegate queue. Every method has an
// empty default, so a delegate overrides only what it needs.
class ZNVURLSessionDelegate {
  public:
    virtual ~ZNVURLSessionDelegate() = default;

    // The session is invalid: after invalidateAndCancel or
    // finishTasksAndInvalidate (no error). The last callback of the session.
    virtual void didBecomeInvalidWithError(const std::shared_ptr<ZNVURLSession>& session,
                                           const ZNVErrorRef& error);
    virtual void didCompleteWithError(const std::shared_ptr<ZNVURLSession>& session,
                                      const std::shared_ptr<ZNVURLSessionTask>& task,
                                      const ZNVErrorRef& error);
    virtual void didSendBodyData(const std::shared_ptr<ZNVURLSession>& session,
                                 const std::shared_ptr<ZNVURLSessionTask>& task, int64_t bytesSent,
                                 int64_t totalBytesSent, int64_t totalBytesExpectedToSend);
    // The whole response body of a data or upload task, once, before its
    // completion (not called for an empty body).
    virtual void didReceiveData(const std::shared_ptr<ZNVURLSession>& session,
                                const std::shared_ptr<ZNVURLSessionDataTask>& dataTask,
                                const ZNVBytes& data);
    virtual void didResumeAtOffset(const std::shared_ptr<ZNVURLSession>& session,
                                   const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                                   int64_t fileOffset, int64_t expectedTotalBytes);
    virtual void didWriteData(const std::shared_ptr<ZNVURLSession>& session,
                              const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                              int64_t bytesWritten, int64_t totalBytesWritten,
                              int64_t totalBytesExpectedToWrite);
    // The downloaded body is at `location`; it is removed when this returns.
    virtual void didFinishDownloadingToURL(
        const std::shared_ptr<ZNVURLSession>& session,
        const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask, const ZNVURL& location);
    // The body of a download task that keeps it in memory: `data` holds at
    // most the task's limit, `totalBytes` counts everything that arrived. The
    // default writes `data` to a temporary file and calls
    // `didFinishDownloadingToURL`, so a delegate that only knows files still
    // gets one.
    virtual void didFinishDownloadingData(
        const std::shared_ptr<ZNVURLSession>& session,
        const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask, const ZNVBytes& data,
        int64_t totalBytes);
    // Background sessions only; this engine runs foreground sessions and never
    // sends it, but a delegate may implement it.
    virtual void didFinishEventsForBackgroundURLSession(
        const std::shared_ptr<ZNVURLSession>& session);
};

class ZNVURLSession : public std::enable_shared_from_this<ZNVURLSession> {
  public:
    using TasksHandler = std::function<void(
        const std::vector<std::shared_ptr<ZNVURLSessionDataTask>>& dataTasks,
        const std::vector<std::shared_ptr<ZNVURLSessionUploadTask>>& uploadTasks,
        const std::vector<std::shared_ptr<ZNVURLSessionDownloadTask>>& downloadTasks)>;

    // A session with its own I/O thread. Without a delegate queue the session
    // makes a serial one of its own.
    static std::shared_ptr<ZNVURLSession> create(
        const ZNVURLSessionConfiguration& configuration,
        std::shared_ptr<ZNVURLSessionDelegate> delegate = nullptr,
        std::shared_ptr<ZNVOperationQueue> delegateQueue = nullptr);
    ~ZNVURLSession();
    ZNVURLSession(const ZNVURLSession&) = delete;
    ZNVURLSession& operator=(const ZNVURLSession&) = delete;

    const ZNVURLSessionConfiguration& configuration() const { return configuration_; }
    // Null once the session has become invalid.
    std::shared_ptr<ZNVURLSessionDelegate> delegate() const;
    const std::shared_ptr<ZNVOperationQueue>& delegateQueue() const { return delegateQueue_; }
    std::string sessionDescription() const;
    void setSessionDescription(std::string description);
    std::string description() const;

    // The session-wide lock for callers that create a task and log it as one
    // step (`std::lock_guard guard(*session)`). Recursive; task creation does
    // not need it.
    void lock() { lock_.lock(); }
    void unlock() { lock_.unlock(); }
    bool try_lock() { return lock_.try_lock(); }

    // New tasks start suspended. After invalidation these return null.
    std::shared_ptr<ZNVURLSessionDataTask> dataTaskWithRequest(const ZNVURLRequest& request);
    // The body is streamed from the file; its length is the file's size when
    // the task starts.
    std::shared_ptr<ZNVURLSessionUploadTask> uploadTaskWithRequest(const ZNVURLRequest& request,
                                                                   const ZNVURL& fromFile);
    std::shared_ptr<ZNVURLSessionDownloadTask> downloadTaskWithRequest(
        const ZNVURLRequest& request);
    std::shared_ptr<ZNVURLSessionDownloadTask> downloadTaskWithURL(const ZNVURL& url);
    // Null, with an `NSURLErrorDomain` error (-1), for bytes that are not resume
    // data of this engine.
    std::shared_ptr<ZNVURLSessionDownloadTask> downloadTaskWithResumeData(
        const ZNVBytes& resumeData, ZNVErrorRef* error = nullptr);

    // Calls the handler on the delegate queue with the tasks that are live at
    // that moment (created and not yet completed), by kind, in identifier order.
    void getTasksWithCompletionHandler(TasksHandler completionHandler);

    void invalidateAndCancel();
    // No new tasks; the live ones run to their end, then the session becomes
    // invalid as with invalidateAndCancel.
    void finishTasksAndInvalidate();
    bool isInvalidated() const;

  private:
    struct Core;
    friend class ZNVURLSessionTask;
    friend class ZNVURLSessionDownloadTask;

    ZNVURLSession(const ZNVURLSessionConfiguration& configuration,
                  std::shared_ptr<ZNVURLSessionDelegate> delegate,
                  std::shared_ptr<ZNVOperationQueue> delegateQueue);
    void start();
    template <class T>
    std::shared_ptr<T> registerTask(std::shared_ptr<T> task);
    void taskResumed(const std::shared_ptr<ZNVURLSessionTask>& task);
    void taskCancelled(const std::shared_ptr<ZNVURLSessionTask>& task,
                       ZNVURLSessionDownloadTask::ResumeDataHandler resumeDataHandler);

    const ZNVURLSessionConfiguration configuration_;
    const std::shared_ptr<ZNVOperationQueue> delegateQueue_;
    std::recursive_mutex lock_;  // the callers' task-creation lock; not used inside
    std::unique_ptr<Core> core_;
};

}  // namespace znv

// Test harness for the URL session: a delegate that records every callback
// (and whether it ran on the delegate queue), a small local HTTP server for
// answers the storage emulator never gives (redirects, oversized bodies), and helpers that put
// files on the emulator.
#pragma once

#include <httplib.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "apps/emulator/emulator.h"
#include "tests/support/emulator_process.h"
#include "znv/platform/url_session.h"

namespace znv::test {

struct SessionEvent {
    enum class Kind { Sent, Data, Resumed, Written, Finished, Completed, Invalid, ResumeData };
    Kind kind;
    uint64_t task = 0;
    int64_t a = 0;  // bytes sent / written / offset / data size
    int64_t b = 0;  // total so far
    int64_t c = 0;  // total expected
    bool onDelegateQueue = false;
    ZNVErrorRef error;
    std::string text;  // body (Data), moved file path (Finished)
};

class RecordingDelegate : public ZNVURLSessionDelegate {
  public:
    using Kind = SessionEvent::Kind;
    using Session = std::shared_ptr<ZNVURLSession>;
    using Download = std::shared_ptr<ZNVURLSessionDownloadTask>;

    // Downloads are moved into `downloadDirectory` as "task-<id>".
    explicit RecordingDelegate(std::string downloadDirectory)
        : downloadDirectory_(std::move(downloadDirectory)) {}

    void setQueue(std::shared_ptr<ZNVOperationQueue> queue) { queue_ = std::move(queue); }
    // When false, finished downloads are left where the session put them.
    void setMovesDownloads(bool moves) { movesDownloads_ = moves; }

    void didBecomeInvalidWithError(const Session&, const ZNVErrorRef& error) override {
        add(Kind::Invalid, 0, 0, 0, 0, error);
    }
    // The task reads as completed by the time its completion arrives.
    void didCompleteWithError(const Session&, const std::shared_ptr<ZNVURLSessionTask>& task,
                              const ZNVErrorRef& error) override {
        add(Kind::Completed, task->taskIdentifier(), task->state(), 0, 0, error);
    }
    void didSendBodyData(const Session&, const std::shared_ptr<ZNVURLSessionTask>& task,
                         int64_t sent, int64_t total, int64_t expected) override {
        add(Kind::Sent, task->taskIdentifier(), sent, total, expected);
    }
    void didReceiveData(const Session&, const std::shared_ptr<ZNVURLSessionDataTask>& task,
                        const ZNVBytes& data) override {
        add(Kind::Data, task->taskIdentifier(), static_cast<int64_t>(data.size()), 0, 0, nullptr,
            std::string(data.begin(), data.end()));
    }
    void didResumeAtOffset(const Session&, const Download& task, int64_t offset,
                           int64_t expected) override {
        add(Kind::Resumed, task->taskIdentifier(), offset, 0, expected);
    }
    void didWriteData(const Session&, const Download& task, int64_t written, int64_t total,
                      int64_t expected) override {
        add(Kind::Written, task->taskIdentifier(), written, total, expected);
    }
    void didFinishDownloadingToURL(const Session&, const Download& task,
                                   const ZNVURL& location) override;

    // Records an event, noting whether it arrived on the delegate queue.
    void add(Kind kind, uint64_t task, int64_t a, int64_t b, int64_t c, ZNVErrorRef error = nullptr,
             std::string text = {});
    std::vector<SessionEvent> events() const;
    std::vector<SessionEvent> eventsFor(uint64_t task) const;
    // The completion of a task, waiting up to `seconds` for it.
    std::optional<SessionEvent> waitForCompletion(uint64_t task, int seconds = 30) const;
    bool waitForInvalid(int seconds = 30) const;
    size_t completedCount() const;
    // The running totals of the last progress report of each kind.
    int64_t totalWritten(uint64_t task) const { return lastTotal(task, Kind::Written); }
    int64_t totalSent(uint64_t task) const { return lastTotal(task, Kind::Sent); }

    // Where the last finished download was found (before it was moved), and
    // whether it was private (mode 0600) at that moment.
    std::string lastLocation() const {
        std::lock_guard guard(mutex_);
        return lastLocation_;
    }
    bool lastLocationWasPrivate() const {
        std::lock_guard guard(mutex_);
        return lastLocationPrivate_;
    }

  private:
    int64_t lastTotal(uint64_t task, Kind kind) const;

    const std::string downloadDirectory_;
    std::shared_ptr<ZNVOperationQueue> queue_;
    std::atomic<bool> movesDownloads_{true};
    mutable std::mutex mutex_;  // guards the members below
    std::vector<SessionEvent> events_;
    std::string lastLocation_;
    bool lastLocationPrivate_ = false;
};

// A loopback HTTP server for the cases the emulator has no rule for.
class LocalServer {
  public:
    // "/payload" answers `payload` with ETag and Accept-Ranges. The payload is
    // fixed before the server thread starts, so handlers read it without a lock.
    explicit LocalServer(std::string payload);
    ~LocalServer();
    std::string url(const std::string& path) const;
    const std::string payload;

  private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
};

// Creates an empty remote file on the emulator listening on `port`; returns its id.
std::string createRemoteFile(int port, const std::string& name);
// Puts `content` on the emulator as a complete file; returns its content URL.
std::string putFileOnEmulator(emulator::Emulator& emulator, const std::string& content,
                              std::string* fileId = nullptr);
// Creates an empty remote file; returns its id.
std::string createRemoteFile(emulator::Emulator& emulator, const std::string& name);

}  // namespace znv::test

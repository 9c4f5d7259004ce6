// Helpers for the session tests: a background delegate that records what it
// hears, and the log capture of the foundation tests.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "apps/emulator/emulator.h"
#include "tests/foundation/log_capture.h"
#include "tests/support/test_support.h"
#include "znv/session/network_session_manager.h"

namespace znv::test {

class RecordingDelegate : public ZNVNetworkSessionBackgroundDelegate {
  public:
    struct Completion {
        std::shared_ptr<ZNVURLSessionTask> task;
        std::optional<ZNVBytes> data;
        ZNVErrorRef error;
        bool onCallbackQueue = false;
    };

    void didFinishDownloadingToURL(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                                   const std::shared_ptr<ZNVURLSessionDownloadTask>& task,
                                   const ZNVURL& location) override {
        std::string content = readFile(location.path());
        std::lock_guard guard(mutex_);
        downloads_[task->taskIdentifier()] = content;
        onQueue_ = onQueue_ && manager->currentThreadIsBackgroundSessionThread();
    }
    void didCompleteWithData(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                             const std::shared_ptr<ZNVURLSessionTask>& task,
                             const std::optional<ZNVBytes>& data,
                             const ZNVErrorRef& error) override {
        Completion completion{task, data, error, manager->currentThreadIsBackgroundSessionThread()};
        std::lock_guard guard(mutex_);
        completions_[task->taskIdentifier()] = completion;
    }
    void didUpdateProgress(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                           const std::shared_ptr<ZNVURLSessionTask>& task,
                           float progress) override {
        std::lock_guard guard(mutex_);
        progress_[task->taskIdentifier()].push_back(progress);
        onQueue_ = onQueue_ && manager->currentThreadIsBackgroundSessionThread();
    }

    std::optional<Completion> completion(uint64_t taskIdentifier) const {
        std::lock_guard guard(mutex_);
        auto it = completions_.find(taskIdentifier);
        if (it == completions_.end()) return std::nullopt;
        return it->second;
    }
    // Waits for the completion of a task.
    std::optional<Completion> waitForCompletion(const std::shared_ptr<ZNVURLSessionTask>& task) {
        waitFor([&] { return completion(task->taskIdentifier()).has_value(); });
        return completion(task->taskIdentifier());
    }
    std::vector<float> progress(uint64_t taskIdentifier) const {
        std::lock_guard guard(mutex_);
        auto it = progress_.find(taskIdentifier);
        return it == progress_.end() ? std::vector<float>() : it->second;
    }
    std::optional<std::string> download(uint64_t taskIdentifier) const {
        std::lock_guard guard(mutex_);
        auto it = downloads_.find(taskIdentifier);
        if (it == downloads_.end()) return std::nullopt;
        return it->second;
    }
    bool everythingOnCallbackQueue() const {
        std::lock_guard guard(mutex_);
        bool all = onQueue_;
        for (const auto& [id, c] : completions_)
            all = all && c.onCallbackQueue;
        return all;
    }

  private:
    mutable std::mutex mutex_;
    std::map<uint64_t, Completion> completions_;
    std::map<uint64_t, std::vector<float>> progress_;
    std::map<uint64_t, std::string> downloads_;
    bool onQueue_ = true;
};

}  // namespace znv::test

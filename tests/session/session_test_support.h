// Helpers for the session tests: a background delegate that records what it
// hears, a log capture, and a session manager talking to an in-process
// emulator.
#pragma once

#include <spdlog/sinks/ringbuffer_sink.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "apps/emulator/emulator.h"
#include "tests/support/test_support.h"
#include "znv/foundation/log.h"
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
    size_t completionCount() const {
        std::lock_guard guard(mutex_);
        return completions_.size();
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

// Captures the log channel's messages (text only) while it lives.
class LogCapture {
  public:
    explicit LogCapture(spdlog::level::level_enum level = spdlog::level::info)
        : sink_(std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(4096)),
          previous_(ZNVLogLevel()) {
        sink_->set_pattern("%l|%v");
        ZNVLogAddSink(sink_);
        ZNVLogSetLevel(level);
    }
    ~LogCapture() {
        ZNVLogSetLevel(previous_);
        ZNVLogRemoveSink(sink_);
    }
    // Messages as "<level>|<text>".
    std::vector<std::string> lines() const { return sink_->last_formatted(); }
    // The first message that contains `needle`, or "".
    std::string find(const std::string& needle) const {
        for (std::string line : lines()) {
            if (line.find(needle) != std::string::npos) {
                while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
                    line.pop_back();
                }
                return line;
            }
        }
        return {};
    }

  private:
    std::shared_ptr<spdlog::sinks::ringbuffer_sink_mt> sink_;
    spdlog::level::level_enum previous_;
};

}  // namespace znv::test

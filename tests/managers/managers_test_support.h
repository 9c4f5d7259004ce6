// Helpers for the task manager tests: a log capture, a recorder of indexed
// change announcements, a minimal network task whose `resume` only flips
// its state, so the activation policy can be driven without any transfer, and
// the configuration, state file and download the tests share.
#pragma once

#include <spdlog/sinks/ringbuffer_sink.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/test_support.h"
#include "znv/account/reachability_manager.h"
#include "znv/foundation/log.h"
#include "znv/platform/observable.h"
#include "znv/session/network_session_manager.h"
#include "znv/tasks/network_download.h"
#include "znv/tasks/network_task.h"

namespace znv::test {

// Captures the log channel's messages (info and above) while alive.
class LogCapture {
  public:
    LogCapture() : sink_(std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(20000)) {
        sink_->set_pattern("%v");
        previousLevel_ = ZNVLogLevel();
        ZNVLogSetLevel(spdlog::level::info);
        ZNVLogAddSink(sink_);
    }
    ~LogCapture() {
        ZNVLogRemoveSink(sink_);
        ZNVLogSetLevel(previousLevel_);
    }
    std::vector<std::string> lines() const { return sink_->last_formatted(); }
    size_t count(const std::string& text) const {
        auto all = lines();
        return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const std::string& l) {
            return l.find(text) != std::string::npos;
        }));
    }
    bool contains(const std::string& text) const { return count(text) > 0; }
    // Index of the first line containing `text` at or after `from`, or -1.
    long indexOf(const std::string& text, size_t from = 0) const {
        auto all = lines();
        for (size_t i = from; i < all.size(); ++i) {
            if (all[i].find(text) != std::string::npos) return static_cast<long>(i);
        }
        return -1;
    }

  private:
    std::shared_ptr<spdlog::sinks::ringbuffer_sink_mt> sink_;
    spdlog::level::level_enum previousLevel_;
};

// The log lines that contain any of `texts`, as those texts, in order.
inline std::vector<std::string> linesContaining(const LogCapture& log,
                                                const std::vector<std::string>& texts) {
    std::vector<std::string> result;
    for (const auto& line : log.lines()) {
        for (const auto& text : texts) {
            if (line.find(text) != std::string::npos) {
                result.push_back(text);
                break;
            }
        }
    }
    return result;
}

// Holds a session's background queue busy until the returned function is
// called, so that work handed to it meanwhile piles up.
inline std::function<void()> blockBackgroundQueue(
    const std::shared_ptr<ZNVNetworkSessionManager>& session) {
    struct Gate {
        std::mutex mutex;
        std::condition_variable changed;
        bool entered = false;  // guarded by mutex
        bool open = false;     // guarded by mutex
    };
    auto gate = std::make_shared<Gate>();
    session->performBackgroundSessionBlock([gate] {
        std::unique_lock<std::mutex> lock(gate->mutex);
        gate->entered = true;
        gate->changed.notify_all();
        gate->changed.wait(lock, [&] { return gate->open; });
    });
    {
        std::unique_lock<std::mutex> lock(gate->mutex);
        gate->changed.wait(lock, [&] { return gate->entered; });
    }
    return [gate] {
        std::lock_guard<std::mutex> lock(gate->mutex);
        gate->open = true;
        gate->changed.notify_all();
    };
}

// Waits until everything handed to the session's background queue so far
// has run.
inline bool drainBackgroundQueue(const std::shared_ptr<ZNVNetworkSessionManager>& session) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    session->performBackgroundSessionBlock([done] { *done = true; });
    return waitFor([&] { return done->load(); });
}

// One announcement of an observable collection.
struct Announcement {
    std::string key;
    ZNVKeyValueChange kind;
    std::vector<uint64_t> indexes;
    bool prior;
    bool operator==(const Announcement&) const = default;
};

inline void PrintTo(const Announcement& a, std::ostream* os) {
    *os << (a.prior ? "will " : "did ") << ZNVKeyValueChangeName(a.kind) << " " << a.key << " [";
    for (size_t i = 0; i < a.indexes.size(); ++i)
        *os << (i ? "," : "") << a.indexes[i];
    *os << "]";
}

// Records will- and did-change announcements of some keys of an observable.
class AnnouncementRecorder {
  public:
    AnnouncementRecorder(ZNVObservable& object, const std::vector<std::string>& keys)
        : object_(object) {
        for (const auto& key : keys) {
            tokens_.push_back(object.addObserver(
                key,
                [this](const ZNVKeyValueChangeRecord& change) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    records_.push_back(
                        {change.key, change.kind, change.indexes.indices(), change.isPrior});
                },
                ZNVKeyValueObservingOptionPrior));
        }
    }
    ~AnnouncementRecorder() {
        for (auto token : tokens_)
            object_.removeObserver(token);
    }
    std::vector<Announcement> records() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.clear();
    }

  private:
    ZNVObservable& object_;
    std::vector<ZNVObserverToken> tokens_;
    mutable std::mutex mutex_;
    std::vector<Announcement> records_;
};

// A network task whose resume only moves it to running.
class FakeTask : public ZNVNetworkTask {
  public:
    static std::shared_ptr<FakeTask> make(
        std::shared_ptr<ZNVNetworkSessionManager> session = nullptr,
        const std::string& name = "fake") {
        auto task = std::shared_ptr<FakeTask>(new FakeTask());
        task->initWithSource(ZNVURL::fromString("https://example.invalid/" + name).value(),
                             std::move(session));
        return task;
    }
    bool resume() override {
        ++resumeCalls;
        if (refuse || !ZNVNetworkTask::resume()) return false;
        if (state() != ZNVNetworkTaskStateSuspended || rawError()) return false;
        setState(ZNVNetworkTaskStateRunning);
        return true;
    }
    std::atomic<int> resumeCalls{0};
    std::atomic<bool> refuse{false};  // answer false without starting

  private:
    FakeTask() = default;
};

// A configuration whose service nobody listens on (the discard port): these
// tests never let a request out.
inline ZNVAccountConfigurationRef offlineConfiguration(const std::string& identifier = "") {
    return std::make_shared<ZNVAccountConfiguration>(
        ZNVURL::fromString("http://127.0.0.1:9/api/").value(), identifier);
}

// Where the managers of a configuration keep their state file.
inline std::string statePath(const std::string& identifier) {
    return std::string(std::getenv("HOME")) + "/Library/Network/" + identifier + ".state";
}

// A download of a remote file nobody serves, without a session manager.
inline std::shared_ptr<ZNVNetworkDownload> makeDownload(const std::string& name = "file.zip") {
    return ZNVNetworkDownload::create(ZNVURL::fromString("https://example.invalid/" + name).value(),
                                      nullptr);
}

// Makes every reachability manager created from now on a manual one that
// starts reachable, so tests decide when the network is up.
inline void installManualReachability() {
    ZNVReachabilityManager::setFactory([](const sockaddr*, socklen_t) {
        return std::make_shared<ZNVManualReachabilityManager>(true);
    });
}

// The manual reachability manager of a manager made after
// `installManualReachability`.
template <class Manager>
std::shared_ptr<ZNVManualReachabilityManager> manualReachability(const Manager& manager) {
    return std::dynamic_pointer_cast<ZNVManualReachabilityManager>(manager->reachabilityManager());
}

}  // namespace znv::test

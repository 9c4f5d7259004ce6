// Shared fixture of the end-to-end tests: a real emulator on a loopback port,
// a signed-in account for it, manual reachability and a recorder of the
// storage manager's task notifications.
#pragma once

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/types.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "apps/emulator/emulator.h"
#include "tests/managers/managers_test_support.h"
#include "tests/support/test_support.h"
#include "znv/account/account.h"
#include "znv/managers/storage.h"
#include "znv/platform/main_queue.h"
#include "znv/platform/notification_center.h"

extern "C" char** environ;

namespace znv::test {

// Runs this test executable again as a child with only the test `filter`,
// its environment plus `variables` ("NAME=value") and a scratch directory of
// its own; the child's PID, or -1.
inline pid_t spawnTestChild(const std::string& filter, std::vector<std::string> variables) {
    variables.push_back("ZNV_TEST_SCRATCH=" + makeTempDir("child"));
    std::vector<char*> envp;
    for (char** e = environ; *e; ++e)
        envp.push_back(*e);
    for (auto& v : variables)
        envp.push_back(v.data());
    envp.push_back(nullptr);
    std::string self = "/proc/self/exe";
    std::string argument = "--gtest_filter=" + filter;
    char* argv[] = {self.data(), argument.data(), nullptr};
    pid_t pid = -1;
    if (::posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, envp.data()) != 0) return -1;
    return pid;
}

// Follows the manager's "ZNVNetwork: task did ..." notifications and keeps the
// largest number of uploads and of downloads seen running at once.
class TaskEventRecorder {
  public:
    explicit TaskEventRecorder(const ZNVNetwork* manager) {
        token_ = ZNVNotificationCenter::defaultCenter().addObserver(
            "", manager, [this](const ZNVNotification& notification) { record(notification); });
    }
    ~TaskEventRecorder() { ZNVNotificationCenter::defaultCenter().removeObserver(token_); }

    size_t maxRunningUploads() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return maxUploads_;
    }
    size_t maxRunningDownloads() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return maxDownloads_;
    }
    size_t count(const std::string& name) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<size_t>(std::count(names_.begin(), names_.end(), name));
    }
    // Whether a notification was posted off the main queue.
    bool sawOffMainQueue() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return offMainQueue_;
    }

  private:
    void record(const ZNVNotification& notification) {
        const auto* task =
            ZNVNotificationValue<ZNVNetworkTaskRef>(notification, ZNVNetwork_TaskKey);
        if (!task || !*task) return;
        const bool isUpload = std::dynamic_pointer_cast<ZNVStorageUpload>(*task) != nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        if (!ZNVMainQueue::isCurrent()) offMainQueue_ = true;
        names_.push_back(notification.name);
        auto& running = isUpload ? runningUploads_ : runningDownloads_;
        if (notification.name == ZNVNetwork_TaskDidResumeNotification) {
            running.insert(task->get());
        } else {
            running.erase(task->get());
        }
        maxUploads_ = std::max(maxUploads_, runningUploads_.size());
        maxDownloads_ = std::max(maxDownloads_, runningDownloads_.size());
    }

    ZNVNotificationToken token_ = 0;
    mutable std::mutex mutex_;
    std::vector<std::string> names_;
    std::set<const void*> runningUploads_;
    std::set<const void*> runningDownloads_;
    size_t maxUploads_ = 0;
    size_t maxDownloads_ = 0;
    bool offMainQueue_ = false;
};

class EmulatorTest : public ::testing::Test {
  protected:
    virtual emulator::EmulatorOptions emulatorOptions() {
        emulator::EmulatorOptions options;
        options.dataDir = makeTempDir("emulator");
        return options;
    }

    void SetUp() override {
        installManualReachability();
        emulator_ = std::make_unique<emulator::Emulator>(emulatorOptions());
        std::string error;
        ASSERT_TRUE(emulator_->start(&error)) << error;
        configuration_ = std::make_shared<ZNVAccountConfiguration>(
            ZNVURL::fromString(emulator_->baseURL()).value(),
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
        account_ = ZNVTokenAccount::createWithToken(configuration_, "dev-token");
        sources_ = makeTempDir("sources");
    }

    void TearDown() override {
        for (auto& storage : storages_)
            storage->invalidateClientAndCancelTasks();
        ZNVMainQueue::waitUntilDrained();
        storages_.clear();
        if (emulator_) emulator_->stop();
    }

    std::shared_ptr<ZNVStorage> makeStorage() {
        auto storage = ZNVStorage::storageForAccount(account_);
        if (storage) storages_.push_back(storage);
        return storage;
    }

    std::string writeSource(const std::string& name, uint64_t size, uint32_t seed = 7) {
        const std::string path = sources_ + "/" + name;
        writePatternFile(path, size, seed);
        return path;
    }

    // The emulator's finished file for a remote file ID.
    std::string remoteContentPath(const std::string& fileID) const {
        return emulator_->dataDir() + "/files/" + fileID + "/content";
    }

    // Requests of the log whose method is `method` and whose path starts with
    // `prefix` (and, when given, ends with `suffix`).
    std::vector<nlohmann::json> requests(const std::string& method, const std::string& prefix,
                                         const std::string& suffix = "") const {
        std::vector<nlohmann::json> found;
        for (const auto& entry : emulator_->requestLog()) {
            const std::string path = entry.value("path", "");
            if (entry.value("method", "") != method || path.rfind(prefix, 0) != 0) continue;
            if (!suffix.empty() &&
                (path.size() < suffix.size() ||
                 path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0)) {
                continue;
            }
            found.push_back(entry);
        }
        return found;
    }

    // The most requests whose path starts with `prefix` that the emulator
    // served at once (from the log's start and end times).
    size_t maxRequestsInFlight(const std::string& prefix) const {
        std::vector<std::pair<int64_t, int64_t>> spans;
        for (const auto& entry : emulator_->requestLog()) {
            if (entry.value("path", "").rfind(prefix, 0) != 0 || !entry.contains("endMs")) continue;
            spans.emplace_back(entry["startMs"].get<int64_t>(), entry["endMs"].get<int64_t>());
        }
        size_t most = 0;
        for (const auto& [start, end] : spans) {
            // The log's end comes a moment after the client has its answer.
            most = std::max<size_t>(most, std::count_if(spans.begin(), spans.end(), [&](auto& o) {
                                        return o.first <= start && o.second > start + 50;
                                    }));
        }
        return most;
    }

    static bool waitForCompletion(const std::vector<ZNVNetworkTaskRef>& tasks,
                                  std::chrono::milliseconds timeout = std::chrono::seconds(120)) {
        return waitFor(
            [&] {
                return std::all_of(tasks.begin(), tasks.end(), [](const ZNVNetworkTaskRef& task) {
                    return task->state() == ZNVNetworkTaskStateCompleted;
                });
            },
            timeout);
    }

    std::unique_ptr<emulator::Emulator> emulator_;
    ZNVAccountConfigurationRef configuration_;
    std::shared_ptr<ZNVTokenAccount> account_;
    std::string sources_;
    std::vector<std::shared_ptr<ZNVStorage>> storages_;
};

}  // namespace znv::test

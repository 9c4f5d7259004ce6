// Test helpers shared by the task and upload tests: a background delegate that
// stands in for the task managers (it routes the session manager's callbacks to
// the tasks a test registers, by task identifier), an emulator with a session
// manager and a signed-in account around it, and a settable clock.
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "apps/emulator/emulator.h"
#include "tests/support/test_support.h"
#include "znv/account/account.h"
#include "znv/account/account_configuration.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/keyed_archive.h"
#include "znv/platform/main_queue.h"
#include "znv/platform/url_session.h"
#include "znv/protocol/storage_response.h"
#include "znv/session/network_session_manager.h"
#include "znv/tasks/network_download.h"
#include "znv/tasks/network_task.h"
#include "znv/upload/storage_upload.h"

namespace znv::test {

// Routes completions, finished downloads and progress to registered tasks, the
// way the network and storage managers do.
class TaskRouter : public ZNVNetworkSessionBackgroundDelegate {
  public:
    void add(const std::shared_ptr<ZNVNetworkTask>& task) {
        std::lock_guard<std::mutex> lock(mutex_);
        tasks_.push_back(task);
    }
    void setReachable(bool reachable) { reachable_ = reachable; }

    void didFinishDownloadingToURL(const std::shared_ptr<ZNVNetworkSessionManager>&,
                                   const std::shared_ptr<ZNVURLSessionDownloadTask>& task,
                                   const ZNVURL& location) override {
        if (auto download = find<ZNVNetworkDownload>(task))
            download->handleDownloadedFile(location);
    }

    void didCompleteWithData(const std::shared_ptr<ZNVNetworkSessionManager>& manager,
                             const std::shared_ptr<ZNVURLSessionTask>& task,
                             const std::optional<ZNVBytes>& data,
                             const ZNVErrorRef& error) override {
        if (ZNVNetworkSessionManager::taskIsForDownload(task)) {
            if (auto download = find<ZNVNetworkDownload>(task)) {
                download->connectToSession(manager, task);
                download->handleCompletionWithError(error);
            }
            return;
        }
        if (!ZNVNetworkSessionManager::taskHasAuthentication(task)) return;
        ZNVStorageResponseRef response = ZNVStorageResponse::responseForTask(task, data, error);
        if (!response) return;
        if (auto upload = find<ZNVStorageUpload>(task)) {
            upload->handleStorageResponse(*response, reachable_.load());
        }
    }

    void didUpdateProgress(const std::shared_ptr<ZNVNetworkSessionManager>&,
                           const std::shared_ptr<ZNVURLSessionTask>& task,
                           float progress) override {
        if (ZNVNetworkSessionManager::taskIsForDownload(task)) {
            if (auto download = find<ZNVNetworkDownload>(task)) download->handleProgress(progress);
            return;
        }
        ZNVStorageResponseRef response = ZNVStorageResponse::responseForTask(task, {}, nullptr);
        auto upload = find<ZNVStorageUpload>(task);
        if (!response || !upload) return;
        if (response->type() == ZNVStorageResponseTypeUploadedChunk) {
            upload->handleChunkProgress(progress);
        } else if (response->type() == ZNVStorageResponseTypeUploadedFullFile) {
            upload->handleFullFileProgress(progress);
        }
    }

  private:
    template <class T>
    std::shared_ptr<T> find(const std::shared_ptr<ZNVURLSessionTask>& task) {
        if (!task) return nullptr;
        std::vector<std::weak_ptr<ZNVNetworkTask>> copy;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            copy = tasks_;
        }
        for (const auto& weak : copy) {
            auto typed = std::dynamic_pointer_cast<T>(weak.lock());
            if (typed && typed->taskIdentifier() == task->taskIdentifier()) return typed;
        }
        return nullptr;
    }

    mutable std::mutex mutex_;
    std::vector<std::weak_ptr<ZNVNetworkTask>> tasks_;  // guarded by mutex_
    std::atomic<bool> reachable_{true};
};

// An emulator on a loopback port, with a session manager (routing to a
// TaskRouter) and a signed-in account for it.
struct EmulatorHarness {
    explicit EmulatorHarness(emulator::EmulatorOptions options = {}, bool launch = true)
        : emulator(std::move(options)) {
        std::string error;
        started = emulator.start(&error);
        EXPECT_TRUE(started) << error;
        configuration = std::make_shared<ZNVAccountConfiguration>(
            *ZNVURL::fromString(emulator.baseURL()), "tests");
        router = std::make_shared<TaskRouter>();
        session = ZNVNetworkSessionManager::create(configuration, router);
        account = ZNVTokenAccount::createWithToken(configuration, "dev-token");
        if (launch) session->launch();
    }
    ~EmulatorHarness() {
        // Callbacks (and the end of the invalidation) need a running queue.
        session->launch();
        session->invalidate();
        ZNVMainQueue::waitUntilDrained();
    }

    // Makes a complete remote file with the given content and returns its ID.
    std::string seedRemoteFile(const std::string& name, const std::string& content) {
        httplib::Client client("127.0.0.1", emulator.port());
        httplib::Headers headers{{"Authorization", "Bearer dev-token"}};
        auto created = client.Post("/api/files", headers, nlohmann::json{{"fileName", name}}.dump(),
                                   "application/json");
        EXPECT_TRUE(created && created->status == 201);
        if (!created) return {};
        const std::string id = nlohmann::json::parse(created->body).value("fileId", "");
        auto put = client.Put(("/api/files/" + id + "/fullfile").c_str(), headers, content,
                              "application/octet-stream");
        EXPECT_TRUE(put && put->status == 200);
        return id;
    }

    // The bytes the emulator stores for a completed remote file.
    std::string storedContentPath(const std::string& remoteFileID) const {
        return emulator.dataDir() + "/files/" + remoteFileID + "/content";
    }

    emulator::Emulator emulator;
    bool started = false;
    ZNVAccountConfigurationRef configuration;
    std::shared_ptr<TaskRouter> router;
    std::shared_ptr<ZNVNetworkSessionManager> session;
    std::shared_ptr<ZNVTokenAccount> account;
};

// Whether the file system has room for an upload of `size` bytes to go whole
// (the upload keeps a margin of free space beyond the file).
inline bool wholeFileUploadFits(uint64_t size) {
    return ZNVNetworkUtilities_freeSizeAvailableOnFileSystem() >=
           ZNVStorageUploadFreeSpaceMargin + size;
}

// The task a later launch decodes from an archive of it, as `T` (null if it
// is none).
template <class T = ZNVNetworkTask>
std::shared_ptr<T> unarchivedTask(const ZNVBytes& data, ZNVErrorRef* error = nullptr) {
    return std::dynamic_pointer_cast<T>(
        ZNVKeyedUnarchiver::unarchivedObjectOfClasses({"ZNVNetworkTask"}, data, error));
}

// Recovery waits at their full length (the tests otherwise run them at scale
// 0), for the life of the object.
struct FullRecoveryDelays {
    FullRecoveryDelays() { ZNVNetworkTask::setRecoveryDelayScale(1.0); }
    ~FullRecoveryDelays() { ZNVNetworkTask::setRecoveryDelayScale(0.0); }
};

// A clock the test moves by hand; installed for the life of the object.
class ManualClock {
  public:
    ManualClock() : now_(std::chrono::system_clock::now()) {
        ZNVNetworkTask::setClock([this]() {
            std::lock_guard<std::mutex> lock(mutex_);
            return now_;
        });
    }
    ~ManualClock() { ZNVNetworkTask::setClock({}); }
    void advance(std::chrono::milliseconds by) {
        std::lock_guard<std::mutex> lock(mutex_);
        now_ += by;
    }

  private:
    std::mutex mutex_;
    ZNVDate now_;
};

}  // namespace znv::test

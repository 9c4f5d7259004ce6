// ZNVStorage without a service: creation, the upload entry points and the
// upload half of the activation policy. Traffic against a real emulator is
// exercised in tests/e2e.
#include "znv/managers/storage.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <thread>

#include "tests/managers/managers_test_support.h"
#include "tests/support/test_support.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/main_queue.h"

namespace znv {
namespace {

using test::AnnouncementRecorder;
using test::LogCapture;
using test::offlineConfiguration;

class StorageTest : public ::testing::Test {
  protected:
    void SetUp() override {
        test::installManualReachability();
        account_ = ZNVTokenAccount::createWithToken(offlineConfiguration(name()), "dev-token",
                                                    ZNVAccountStatusSignedOut);
        directory_ = test::makeTempDir("sources");
    }
    void TearDown() override {
        std::vector<std::shared_ptr<ZNVNetworkSessionManager>> sessions;
        for (auto& storage : storages_) {
            if (auto session = storage->sessionManager()) sessions.push_back(session);
            storage->invalidateClientAndCancelTasks();
        }
        ZNVMainQueue::waitUntilDrained();
        // Cancelled requests are answered on each session's queue: those
        // answers are logged before the next test watches the log.
        for (auto& session : sessions)
            EXPECT_TRUE(test::drainBackgroundQueue(session));
    }
    static std::string name() {
        return ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }
    std::shared_ptr<ZNVStorage> makeStorage() {
        auto storage = ZNVStorage::storageForAccount(account_);
        if (storage) storages_.push_back(storage);
        return storage;
    }
    ZNVURL sourceFile(const std::string& fileName, uint64_t size) {
        const std::string path = directory_ + "/" + fileName;
        test::writePatternFile(path, size);
        return ZNVURL::fileURL(path);
    }
    // Waits until everything scheduled so far has run: the main queue hands
    // refreshes to the session's queue, whose refreshes may queue saves.
    void settle(const std::shared_ptr<ZNVStorage>& storage) {
        for (int round = 0; round < 2; ++round) {
            ASSERT_TRUE(ZNVMainQueue::waitUntilDrained());
            ASSERT_TRUE(test::drainBackgroundQueue(storage->sessionManager()));
            ASSERT_TRUE(storage->waitUntilStateIsWritten());
        }
    }

    std::shared_ptr<ZNVTokenAccount> account_;
    std::string directory_;
    std::vector<std::shared_ptr<ZNVStorage>> storages_;
};

TEST_F(StorageTest, EveryCallMakesANewLaunchedManagerAndAccountsNeedAConfiguration) {
    auto first = makeStorage();
    auto second = makeStorage();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_TRUE(first->storageIsLaunched());
    EXPECT_TRUE(first->networkIsLaunched());
    EXPECT_NE(first->sessionManager(), nullptr);
    EXPECT_NE(first->sessionManager(), second->sessionManager());
    EXPECT_EQ(first->account(), account_);

    EXPECT_EQ(ZNVStorage::storageForAccount(nullptr), nullptr);
    auto unconfigured = ZNVTokenAccount::createWithToken(nullptr, "dev-token");
    EXPECT_EQ(ZNVStorage::storageForAccount(unconfigured), nullptr);
}

// The life of the uploads collection: uploads join it (and "tasks"), those
// that cannot start never do, finishing and invalidation empty it, and with
// the session gone remote-file operations fail on the main queue.
TEST_F(StorageTest, UploadsCollectionFromAdditionToInvalidation) {
    LogCapture log;
    auto storage = makeStorage();
    EXPECT_EQ(storage->uploadFromFile(sourceFile("empty.bin", 0), false), nullptr);
    EXPECT_EQ(storage->uploadFromFile(ZNVURL::fileURL(directory_ + "/missing.bin"), false),
              nullptr);
    EXPECT_TRUE(storage->tasks().empty());
    EXPECT_EQ(log.count("failed to initiate upload: "), 2u);
    AnnouncementRecorder recorder(*storage, {"uploads", "tasks"});
    auto named = storage->uploadFromFile(sourceFile("clip one.mov", 1000), "", "", "", true, true);
    auto plain = storage->uploadFromFile(sourceFile("notes.txt", 10), false);
    ASSERT_NE(named, nullptr);
    ASSERT_NE(plain, nullptr);
    // No name given: the sanitised name of the source file.
    EXPECT_EQ(named->remoteFilename(),
              storage->uploadFromFile(sourceFile("clip one.mov", 1000), false)->remoteFilename());
    EXPECT_TRUE(named->requiresVideoPostProcessing());
    EXPECT_TRUE(named->forceChunkUploading());
    EXPECT_FALSE(plain->forceChunkUploading());

    auto uploads = storage->uploads();
    ASSERT_EQ(uploads.size(), 3u);
    EXPECT_EQ(uploads[0], named);
    EXPECT_EQ(uploads[1], plain);
    EXPECT_EQ(storage->tasks().size(), 3u);

    // "uploads" brackets the inherited "tasks" announcements.
    const auto bracketed = [](ZNVKeyValueChange change, std::vector<uint64_t> at) {
        return std::vector<test::Announcement>{{"uploads", change, at, true},
                                               {"tasks", change, at, true},
                                               {"tasks", change, at, false},
                                               {"uploads", change, at, false}};
    };
    auto records = recorder.records();
    ASSERT_GE(records.size(), 4u);
    EXPECT_EQ(std::vector(records.begin(), records.begin() + 4),
              bracketed(ZNVKeyValueChange::Insertion, {0}));

    recorder.clear();
    storage->finishTask(plain);
    EXPECT_EQ(recorder.records(), bracketed(ZNVKeyValueChange::Removal, {1}));
    EXPECT_EQ(storage->uploads().size(), 2u);
    EXPECT_EQ(storage->tasks().size(), 2u);

    // Invalidation removes the two left with one announcement.
    recorder.clear();
    storage->invalidateClientAndCancelTasks();
    EXPECT_EQ(recorder.records(), bracketed(ZNVKeyValueChange::Removal, {0, 1}));
    EXPECT_TRUE(storage->uploads().empty());
    EXPECT_TRUE(storage->tasks().empty());

    std::atomic<int> answers{0};
    std::atomic<bool> onMainQueue{true};
    storage->URLForRemoteFile("some-id", [&](const std::optional<ZNVURL>& url) {
        EXPECT_FALSE(url.has_value());
        if (!ZNVMainQueue::isCurrent()) onMainQueue = false;
        ++answers;
    });
    storage->deleteRemoteFile("some-id", [&](bool deleted) {
        EXPECT_FALSE(deleted);
        if (!ZNVMainQueue::isCurrent()) onMainQueue = false;
        ++answers;
    });
    storage->deleteRemoteFile("some-id", nullptr);  // no completion: nothing to call
    ASSERT_TRUE(test::waitFor([&] { return answers.load() == 2; }));
    EXPECT_TRUE(onMainQueue);
    EXPECT_EQ(log.count("a cloud session manager is required"), 3u);
}

TEST_F(StorageTest, TheRefreshAnUploadAsksForIsPostedOnceItJoinedUploads) {
    // Added off the main queue, an upload's refresh may run at once; were it
    // posted before the upload joined "uploads", it would find nothing to
    // start and nothing would ask again.
    auto storage = makeStorage();
    settle(storage);
    std::mutex mutex;
    std::vector<std::function<void()>> held;  // guarded by mutex
    std::vector<size_t> missingAtPost;        // guarded by mutex
    ZNVMainQueue::setExecutor([&](std::function<void()> work) {
        const size_t missing = storage->tasks().size() - storage->uploads().size();
        std::lock_guard lock(mutex);
        missingAtPost.push_back(missing);
        held.push_back(std::move(work));
    });
    std::thread adder([&] {
        storage->uploadFromFile(sourceFile("a.bin", 100), false);
        storage->uploadFromFile(sourceFile("b.bin", 100), false);
    });
    adder.join();
    ZNVMainQueue::setExecutor(nullptr);
    std::lock_guard lock(mutex);
    for (auto& work : held)
        ZNVMainQueue::async(std::move(work));
    EXPECT_GE(missingAtPost.size(), 2u);
    for (size_t missing : missingAtPost)
        EXPECT_EQ(missing, 0u);
    EXPECT_EQ(storage->uploads().size(), 2u);
}

TEST_F(StorageTest, EachRefreshWeighsUploadsThenDownloadsAndNoneIsMerged) {
    auto storage = makeStorage();
    auto upload = storage->uploadFromFile(sourceFile("queued.bin", 100), false);
    ASSERT_NE(upload, nullptr);
    settle(storage);

    // Holds the session's queue so that the requests below pile up.
    auto hold = [&] { return test::blockBackgroundQueue(storage->sessionManager()); };
    const std::vector<std::string> watched{
        "upload(s) are currently active.",
        "Account must be signed in before uploads can be activated.",
        "Network must be reachable before uploads can be activated.",
        "download(s) are currently active.",
        "Have capacity to activate 2 more download(s) ...",
        "   No suspended download(s) left to activate.",
        "Network must be reachable before downloads can be activated.",
    };
    {
        // Signed out: the upload half stops at the account, the download
        // half still runs, and two requests give two rounds.
        LogCapture log;
        auto release = hold();
        storage->refreshAndSave();
        storage->refreshAndSave();
        release();
        settle(storage);
        const std::vector<std::string> round{
            "upload(s) are currently active.",
            "Account must be signed in before uploads can be activated.",
            "download(s) are currently active.",
            "Have capacity to activate 2 more download(s) ...",
            "   No suspended download(s) left to activate.",
        };
        std::vector<std::string> expected = round;
        expected.insert(expected.end(), round.begin(), round.end());
        EXPECT_EQ(linesContaining(log, watched), expected);
        EXPECT_FALSE(storage->refreshUploadActivity());
    }

    // Signed in but unreachable: both halves name the network. Signing in
    // asks for a round by itself.
    test::manualReachability(storage)->setReachable(false);
    {
        LogCapture log;
        account_->setStatus(ZNVAccountStatusSignedIn);
        ASSERT_TRUE(test::waitFor([&] {
            return log.contains("Network must be reachable before uploads can be activated.");
        }));
    }
    settle(storage);
    LogCapture log;
    auto release = hold();
    storage->refreshAndSave();
    release();
    settle(storage);
    const std::vector<std::string> expected{
        "upload(s) are currently active.",
        "Network must be reachable before uploads can be activated.",
        "download(s) are currently active.",
        "Network must be reachable before downloads can be activated.",
    };
    EXPECT_EQ(linesContaining(log, watched), expected);
    EXPECT_EQ(upload->state(), ZNVNetworkTaskStateSuspended);
}

TEST_F(StorageTest, AnswersNamingAHeldUploadAreIgnoredEvenAfterInvalidation) {
    auto storage = makeStorage();
    // An upload that already has its remote file, as a restored one would.
    auto upload = ZNVStorageUpload::create(sourceFile("held.bin", 100), "", account_, "", "", false,
                                           storage->sessionManager());
    ASSERT_NE(upload, nullptr);
    upload->setRemoteFileID("held-file");
    storage->addTask(upload);

    auto session = storage->sessionManager();
    auto authentication = std::make_shared<ZNVAuthentication>("dev-token");
    // Requests whose answers are not awaited by anyone: an information
    // request naming the held upload's file and one naming another file.
    auto forHeld = session->getInformationForRemoteFile("held-file", authentication);
    auto forOther = session->getInformationForRemoteFile("other-file", authentication);
    ASSERT_NE(forHeld, nullptr);
    ASSERT_NE(forOther, nullptr);
    // A refresh still queued would walk the session's tasks and log the same
    // line for the held upload's request: it runs before the log is watched.
    settle(storage);
    const std::string body = R"({"fileId":"held-file","contentUri":"http://x/y"})";
    const ZNVBytes bytes(body.begin(), body.end());
    const std::string ignoredLine = "ignoring response for old session task " +
                                    std::to_string(forHeld->taskIdentifier()) +
                                    ": information for remote file";
    {
        LogCapture log;
        storage->didCompleteWithData(session, forHeld, bytes, nullptr);
        EXPECT_EQ(log.count(ignoredLine), 1u);
        EXPECT_FALSE(log.contains("no upload found for storage response:"));

        storage->didCompleteWithData(session, forOther, bytes, nullptr);
        EXPECT_EQ(log.count("no upload found for storage response:\n"), 1u);
    }

    // The file-ID lookup outlives the collection: after invalidation an
    // answer for the upload's file is still recognised as stale.
    storage->invalidateClientAndCancelTasks();
    // The cancelled requests' own answers are logged before the log is watched.
    ASSERT_TRUE(test::waitFor([&] {
        return forHeld->state() == ZNVURLSessionTaskStateCompleted &&
               forOther->state() == ZNVURLSessionTaskStateCompleted;
    }));
    ASSERT_TRUE(test::drainBackgroundQueue(session));
    LogCapture log;
    bool ignored = false;
    EXPECT_EQ(storage->uploadForTask(forHeld, &ignored), nullptr);
    EXPECT_TRUE(ignored);
    EXPECT_EQ(log.count(ignoredLine), 1u);
}

TEST_F(StorageTest, RestoredUploadsReturnToTheUploadsCollection) {
    auto storage = makeStorage();
    auto upload =
        storage->uploadFromFile(sourceFile("kept.bin", 5000), "kept", "", "", false, false);
    ASSERT_NE(upload, nullptr);
    settle(storage);

    LogCapture log;
    auto relaunched = makeStorage();
    auto uploads = relaunched->uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_TRUE(uploads[0]->wasDecoded());
    EXPECT_EQ(uploads[0]->remoteFilename(), "kept");
    EXPECT_EQ(uploads[0]->sourceFileSize(), 5000u);
    EXPECT_EQ(uploads[0]->account(), account_);
    EXPECT_EQ(relaunched->tasks().size(), 1u);
    EXPECT_TRUE(test::waitFor(
        [&] { return log.contains("reconciling 1 uploads against 0 session tasks"); }));
}

// Staged bodies of this configuration that no queued upload refers to and
// that predate the process are removed at launch; everything else stays.
TEST_F(StorageTest, LaunchRemovesOnlyOrphanStagedBodiesOlderThanTheProcess) {
    {
        auto network = ZNVNetwork::create(offlineConfiguration(name()));
        auto upload = ZNVStorageUpload::create(sourceFile("live.bin", 5000), "", account_, "", "",
                                               false, nullptr);
        upload->setRemoteFileID("LIVE-1");
        network->addTask(upload);
    }
    const std::string dir = ZNVPrivateTemporaryDirectory();
    ASSERT_FALSE(dir.empty());
    const std::string prefix = dir + "/ZNVStorageUpload-" + name() + "-";
    const std::vector<std::string> orphans = {prefix + "GONE-0.chunk", prefix + "GONE-2-16.chunk",
                                              prefix + "GONE.json"};
    const std::vector<std::string> kept = {
        prefix + "LIVE-1-8.chunk",
        prefix + "LIVE-1.json",                       // a queued upload's
        dir + "/ZNVStorageUpload-another-GONE.json",  // another configuration's
        prefix + "GONE.txt",
        dir + "/GONE-0.chunk",  // not staging names
    };
    const auto old = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
    for (const auto& path : orphans) {
        test::writeFile(path, "body");
        std::filesystem::last_write_time(path, old);
    }
    for (const auto& path : kept) {
        test::writeFile(path, "body");
        std::filesystem::last_write_time(path, old);
    }
    const std::string fresh = prefix + "FRESH-0.chunk";  // may be this process's own
    test::writeFile(fresh, "body");

    auto storage = makeStorage();
    ASSERT_EQ(storage->uploads().size(), 1u);
    for (const auto& path : orphans)
        EXPECT_FALSE(std::filesystem::exists(path)) << path;
    for (const auto& path : kept)
        EXPECT_TRUE(std::filesystem::exists(path)) << path;
    EXPECT_TRUE(std::filesystem::exists(fresh));
}

// A manager that only keeps the queue (never launched, so without a session)
// removes an upload's staged bodies when the upload is cancelled or finished,
// as a launched one does; another upload's stay.
TEST_F(StorageTest, CancelAndFinishRemoveStagedBodiesAlsoFromAQueueNeverLaunched) {
    const std::vector<std::string> ids = {"CANCEL", "FINISH", "OTHER"};
    {
        auto network = ZNVNetwork::create(offlineConfiguration(name()));
        for (const auto& id : ids) {
            auto upload = ZNVStorageUpload::create(sourceFile(id + ".bin", 5000), "", account_, "",
                                                   "", false, nullptr);
            upload->setRemoteFileID(id);
            network->addTask(upload);
        }
    }
    const std::string prefix = ZNVPrivateTemporaryDirectory() + "/ZNVStorageUpload-" + name() + "-";
    const auto remaining = [&](const std::string& id) {
        size_t count = 0;
        for (const auto& suffix : {"-0.chunk", "-8.chunk", ".json"})
            count += std::filesystem::exists(prefix + id + suffix) ? 1 : 0;
        return count;
    };
    for (const auto& id : ids) {
        for (const auto& suffix : {"-0.chunk", "-8.chunk", ".json"})
            test::writeFile(prefix + id + suffix, "body");
    }
    auto queue = ZNVNetwork::create(offlineConfiguration(name()));
    queue->readState();
    ASSERT_EQ(queue->tasks().size(), 3u);
    queue->tasks()[0]->cancel();
    EXPECT_EQ(remaining("CANCEL"), 0u);
    EXPECT_EQ(remaining("FINISH"), 3u);
    queue->finishTask(queue->tasks()[1]);
    EXPECT_EQ(remaining("FINISH"), 0u);
    EXPECT_EQ(remaining("OTHER"), 3u);
}

}  // namespace
}  // namespace znv

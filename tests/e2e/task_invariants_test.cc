// The task engine's invariants against a real emulator, made deterministic by
// a token provider that the test holds closed: a step waiting for its
// authentication is started (one create per upload, two uploads at a time),
// work queued before a cancel and retry never runs, retrying many failed
// uploads keeps two running, a task finished before it completed stops, a
// lookup waiting for its token is answered when the manager goes, and a
// restored upload never takes the answer of a new one.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>

#include "tests/e2e/e2e_support.h"

namespace znv {
namespace {

constexpr uint64_t kMiB = 1024 * 1024;

// A token provider that answers only once the test opens it. Its state is
// shared with the provider, which the account's queue may still be leaving
// when the test ends.
class TokenGate {
  public:
    ZNVTokenAccount::TokenProvider provider() {
        return [state = state_](ZNVErrorRef*) {
            std::unique_lock<std::mutex> lock(state->mutex);
            ++state->waiting;
            state->changed.notify_all();
            state->changed.wait_for(lock, std::chrono::seconds(60), [&] { return state->open; });
            return std::string("dev-token");
        };
    }
    void open() {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->open = true;
        state_->changed.notify_all();
    }
    // Waits until the account's queue sits in the provider.
    bool waitUntilWaiting() {
        std::unique_lock<std::mutex> lock(state_->mutex);
        return state_->changed.wait_for(lock, std::chrono::seconds(30),
                                        [&] { return state_->waiting > 0; });
    }

  private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        int waiting = 0;    // guarded by mutex
        bool open = false;  // guarded by mutex
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

class TaskInvariants : public test::EmulatorTest {
  protected:
    // Runs a refresh and waits until it and everything it queued has run.
    void refresh(const std::shared_ptr<ZNVStorage>& storage) {
        storage->refreshAndSave();
        for (int round = 0; round < 2; ++round) {
            ASSERT_TRUE(ZNVMainQueue::waitUntilDrained());
            auto done = std::make_shared<std::atomic<bool>>(false);
            storage->sessionManager()->performBackgroundSessionBlock([done] { *done = true; });
            ASSERT_TRUE(test::waitFor([&] { return done->load(); }));
        }
    }
    size_t runningUploads(const std::shared_ptr<ZNVStorage>& storage) const {
        size_t running = 0;
        for (const auto& upload : storage->uploads())
            running += upload->state() == ZNVNetworkTaskStateRunning ? 1 : 0;
        return running;
    }
    // Remote files the emulator holds (finished or not).
    size_t remoteFileCount() const {
        const std::filesystem::path files = emulator_->dataDir() + "/files";
        if (!std::filesystem::exists(files)) return 0;
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(files),
                                                 std::filesystem::directory_iterator()));
    }
};

TEST_F(TaskInvariants, AStepWaitingForAuthenticationIsStartedAndHoldsItsSlot) {
    TokenGate gate;
    account_->setTokenProvider(gate.provider());
    auto storage = makeStorage();
    std::vector<ZNVNetworkTaskRef> uploads;
    std::vector<std::string> sources;
    for (int i = 0; i < 5; ++i) {
        sources.push_back(writeSource("file" + std::to_string(i), 64 * 1024 + i, 20 + i));
        uploads.push_back(storage->uploadFromFile(ZNVURL::fileURL(sources.back()), false));
        ASSERT_NE(uploads.back(), nullptr);
    }
    ASSERT_TRUE(gate.waitUntilWaiting());

    // Refreshes while the account holds every step back: two uploads are
    // started, none is resumed a second time and nobody else takes a slot.
    for (int i = 0; i < 10; ++i)
        refresh(storage);
    EXPECT_EQ(runningUploads(storage), 2u);
    EXPECT_FALSE(uploads[0]->resume());
    EXPECT_EQ(requests("POST", "/api/files").size(), 0u);

    gate.open();
    ASSERT_TRUE(waitForCompletion(uploads));
    EXPECT_EQ(requests("POST", "/api/files").size(), uploads.size());
    EXPECT_EQ(remoteFileCount(), uploads.size());
    for (size_t i = 0; i < uploads.size(); ++i) {
        auto upload = std::static_pointer_cast<ZNVStorageUpload>(uploads[i]);
        EXPECT_EQ(upload->error(), nullptr);
        EXPECT_TRUE(test::filesEqual(remoteContentPath(upload->remoteFileID()), sources[i]));
    }
}

TEST_F(TaskInvariants, WorkQueuedBeforeACancelAndRetryNeverRuns) {
    TokenGate gate;
    account_->setTokenProvider(gate.provider());
    auto storage = makeStorage();
    const auto source = writeSource("retried.bin", 3 * kMiB + 5, 31);
    auto upload = storage->uploadFromFile(ZNVURL::fileURL(source), false);
    ASSERT_NE(upload, nullptr);
    ASSERT_TRUE(gate.waitUntilWaiting());

    // The create waits for its token; the application cancels and retries.
    upload->cancel();
    ASSERT_NE(upload->error(), nullptr);
    upload->retry();
    EXPECT_EQ(upload->error(), nullptr);
    // The manager's next round starts it again; its step waits for the token.
    ASSERT_TRUE(test::waitFor([&] { return upload->state() == ZNVNetworkTaskStateRunning; }));

    gate.open();
    ASSERT_TRUE(waitForCompletion({upload}));
    EXPECT_EQ(upload->error(), nullptr);
    EXPECT_EQ(requests("POST", "/api/files").size(), 1u);
    EXPECT_EQ(requests("PUT", "/api/files/" + upload->remoteFileID(), "/fullfile").size(), 1u);
    EXPECT_EQ(remoteFileCount(), 1u);
    EXPECT_TRUE(test::filesEqual(remoteContentPath(upload->remoteFileID()), source));
}

TEST_F(TaskInvariants, RetryingAndResumingEveryFailedUploadAtOnceKeepsTwoRunning) {
    // Every create refused: five uploads fail for good.
    ASSERT_TRUE(emulator_->addFault({{"method", "POST"},
                                     {"path", "/api/files"},
                                     {"action", "status"},
                                     {"status", 400},
                                     {"times", 5}}));
    auto storage = makeStorage();
    std::vector<ZNVNetworkTaskRef> uploads;
    std::vector<std::string> sources;
    for (int i = 0; i < 5; ++i) {
        sources.push_back(writeSource("failed" + std::to_string(i), 5000 + i, 80 + i));
        uploads.push_back(storage->uploadFromFile(ZNVURL::fileURL(sources.back()), false));
        ASSERT_NE(uploads.back(), nullptr);
    }
    ASSERT_TRUE(waitForCompletion(uploads));
    for (const auto& upload : uploads)
        ASSERT_NE(upload->error(), nullptr);

    // The application retries them all at once, while creates go unanswered.
    ASSERT_TRUE(
        emulator_->addFault({{"method", "POST"}, {"path", "/api/files"}, {"action", "stall"}}));
    for (const auto& upload : uploads)
        upload->retry();
    // ... and resumes them too: only the manager starts a task of its queue.
    for (const auto& upload : uploads)
        EXPECT_FALSE(upload->resume());
    for (int i = 0; i < 3; ++i)
        refresh(storage);
    EXPECT_EQ(runningUploads(storage), 2u);
    const auto unanswered = [&] {
        size_t count = 0;
        for (const auto& entry : requests("POST", "/api/files"))
            count += entry.contains("endMs") ? 0 : 1;
        return count;
    };
    EXPECT_LE(unanswered(), 2u);

    emulator_->clearFaults();
    ASSERT_TRUE(waitForCompletion(uploads));
    for (size_t i = 0; i < uploads.size(); ++i) {
        auto upload = std::static_pointer_cast<ZNVStorageUpload>(uploads[i]);
        EXPECT_EQ(upload->error(), nullptr);
        EXPECT_TRUE(test::filesEqual(remoteContentPath(upload->remoteFileID()), sources[i]));
    }
}

TEST_F(TaskInvariants, LookupsWaitingForTheirTokenCompleteWhenTheManagerIsInvalidated) {
    TokenGate gate;
    account_->setTokenProvider(gate.provider());
    auto storage = makeStorage();
    auto calls = std::make_shared<std::atomic<int>>(0);
    storage->URLForRemoteFile("F1", [calls](const std::optional<ZNVURL>& url) {
        if (!url) ++*calls;
    });
    storage->deleteRemoteFile("F1", [calls](bool deleted) {
        if (!deleted) ++*calls;
    });
    ASSERT_TRUE(gate.waitUntilWaiting());
    storage->invalidateClientAndCancelTasks();
    gate.open();
    account_->waitUntilIdle();
    EXPECT_TRUE(test::waitFor([&] { return calls->load() == 2; }, std::chrono::seconds(5)));
    EXPECT_TRUE(emulator_->requestLog().empty());
}

TEST_F(TaskInvariants, ARestoredUploadNeverTakesTheAnswerOfANewOne) {
    // The first launch saves its upload while the body is on its way (session
    // task 2 of its session).
    ASSERT_TRUE(emulator_->addFault(
        {{"method", "PUT"}, {"path", "/api/files/*/fullfile"}, {"action", "stall"}}));
    const auto oldSource = writeSource("old.bin", 2 * kMiB, 51);
    const std::string statePath = std::string(std::getenv("HOME")) + "/Library/Network/" +
                                  configuration_->accountConfigurationIdentifier() + ".state";
    std::string saved;
    std::weak_ptr<ZNVStorage> firstManager;
    {
        auto first = makeStorage();
        firstManager = first;
        auto old = first->uploadFromFile(ZNVURL::fileURL(oldSource), false);
        ASSERT_NE(old, nullptr);
        ASSERT_TRUE(test::waitFor([&] {
            if (!std::filesystem::exists(statePath)) return false;
            saved = test::readFile(statePath);
            return !old->remoteFileID().empty() &&
                   saved.find(old->remoteFileID()) != std::string::npos &&
                   saved.find("\"task identifier\"") != std::string::npos;
        }));
        // The invalidation saves an empty list on the session's queue, and
        // answers still arriving may save too; wait for both before the
        // saved file is put back.
        auto session = first->sessionManager();
        first->invalidateClientAndCancelTasks();
        ZNVMainQueue::waitUntilDrained();
        for (int round = 0; round < 2; ++round) {
            // Saves also come through the account's queue.
            account_->waitUntilIdle();
            auto done = std::make_shared<std::atomic<bool>>(false);
            session->performBackgroundSessionBlock([done] { *done = true; });
            ASSERT_TRUE(test::waitFor([&] { return done->load(); }));
            ZNVMainQueue::waitUntilDrained();
        }
        // Saves are written on the manager's writer queue after the session hands them over.
        ASSERT_TRUE(first->waitUntilStateIsWritten());
        storages_.clear();
    }
    // A block still running on the account's or the main queue may hold the
    // first manager a moment longer; it is gone, and so is any save of its own,
    // before the saved file is put back.
    ASSERT_TRUE(test::waitFor([&] {
        account_->waitUntilIdle();
        ZNVMainQueue::waitUntilDrained();
        return firstManager.expired();
    }));
    account_->waitUntilIdle();
    ZNVMainQueue::waitUntilDrained();
    emulator_->clearFaults();

    // Relaunch with that file; the old source has changed, so the restored
    // upload fails while decoding and is never reconnected.
    test::writeFile(statePath, saved);
    test::writePatternFile(oldSource, 2 * kMiB + 1, 51);
    auto second = makeStorage();
    ASSERT_EQ(second->uploads().size(), 1u);
    auto restored = second->uploads()[0];
    ASSERT_NE(restored->error(), nullptr);

    const auto newSource = writeSource("new.bin", 2 * kMiB, 52);
    auto fresh = second->uploadFromFile(ZNVURL::fileURL(newSource), false);
    ASSERT_TRUE(waitForCompletion({fresh}, std::chrono::seconds(30)));
    EXPECT_EQ(fresh->error(), nullptr);
    EXPECT_TRUE(test::filesEqual(remoteContentPath(fresh->remoteFileID()), newSource));
    EXPECT_EQ(restored->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_NE(restored->error(), nullptr);
}

TEST_F(TaskInvariants, AnUploadFinishedBeforeItCompletedStopsAndNeverRunsAgain) {
    // One whose body is on the wire: its request stops before the upload that
    // takes its slot sends anything, and it never sends again.
    ASSERT_TRUE(emulator_->addFault(
        {{"method", "PUT"}, {"path", "/api/files/*/fullfile"}, {"action", "stall"}}));
    auto storage = makeStorage();
    std::vector<ZNVStorageUploadRef> uploads;
    for (int i = 0; i < 3; ++i) {
        uploads.push_back(storage->uploadFromFile(
            ZNVURL::fileURL(writeSource("slow" + std::to_string(i), 100000, 60 + i)), false));
        ASSERT_NE(uploads.back(), nullptr);
    }
    const auto bodies = [&] { return requests("PUT", "/api/files/", "/fullfile"); };
    ASSERT_TRUE(test::waitFor([&] { return bodies().size() == 2; }));
    const std::string victimPath = bodies()[0]["path"];
    ZNVStorageUploadRef victim;
    for (const auto& upload : uploads) {
        if (!upload->remoteFileID().empty() &&
            victimPath == "/api/files/" + upload->remoteFileID() + "/fullfile")
            victim = upload;
    }
    ASSERT_NE(victim, nullptr);
    storage->finishTask(victim);
    refresh(storage);
    ASSERT_TRUE(test::waitFor([&] { return bodies().size() == 3; }));
    EXPECT_EQ(victim->state(), ZNVNetworkTaskStateCompleted);
    victim->retry();
    EXPECT_FALSE(victim->resume());
    emulator_->clearFaults();
    std::vector<ZNVNetworkTaskRef> rest;
    for (const auto& upload : uploads) {
        if (upload != victim) rest.push_back(upload);
    }
    ASSERT_TRUE(waitForCompletion(rest));
    const auto log = bodies();
    ASSERT_EQ(log.size(), 3u) << "the finished upload sent its body again";
    ASSERT_EQ(log[0]["path"], victimPath);
    ASSERT_TRUE(log[0].contains("endMs"));
    EXPECT_TRUE(log[0].value("aborted", false));
    // The log's end comes a moment after the client let go.
    EXPECT_LE(log[0]["endMs"].get<int64_t>(), log[2]["startMs"].get<int64_t>() + 50)
        << "three uploads had a body on the wire";

    // One whose create waits for its token: finished meanwhile, it never sends it.
    TokenGate gate;
    account_->setTokenProvider(gate.provider());
    auto waiting =
        storage->uploadFromFile(ZNVURL::fileURL(writeSource("waiting", 1000, 70)), false);
    ASSERT_NE(waiting, nullptr);
    ASSERT_TRUE(gate.waitUntilWaiting());
    const size_t creates = requests("POST", "/api/files").size();
    storage->finishTask(waiting);
    gate.open();
    account_->waitUntilIdle();
    refresh(storage);
    EXPECT_EQ(requests("POST", "/api/files").size(), creates);
    EXPECT_EQ(waiting->state(), ZNVNetworkTaskStateCompleted);

    // Taken in again, a finished upload runs as any other.
    storage->addTask(waiting);
    waiting->retry();
    ASSERT_TRUE(waitForCompletion({waiting}, std::chrono::seconds(20)));
    EXPECT_EQ(waiting->error(), nullptr);
    EXPECT_EQ(requests("POST", "/api/files").size(), creates + 1);
}

}  // namespace
}  // namespace znv

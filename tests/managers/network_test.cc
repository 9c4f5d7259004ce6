// ZNVNetwork: collection announcements, the activation policy, notification
// forwarding, the background-session completion and invalidation.
#include "znv/managers/network.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "tests/managers/managers_test_support.h"
#include "tests/support/test_support.h"
#include "znv/platform/main_queue.h"

namespace znv {
namespace {

using test::Announcement;
using test::AnnouncementRecorder;
using test::FakeTask;
using test::LogCapture;
using test::makeDownload;
using test::offlineConfiguration;

class ManualReachabilityEnvironment : public ::testing::Environment {
  public:
    void SetUp() override { test::installManualReachability(); }
};
[[maybe_unused]] auto* const reachabilityEnvironment =
    ::testing::AddGlobalTestEnvironment(new ManualReachabilityEnvironment);

constexpr auto Insertion = ZNVKeyValueChange::Insertion;
constexpr auto Removal = ZNVKeyValueChange::Removal;

std::vector<ZNVNetworkTaskRef> asTasks(std::initializer_list<ZNVNetworkTaskRef> tasks) {
    return std::vector<ZNVNetworkTaskRef>(tasks);
}

// --- Collections --------------------------------------------------------------

TEST(NetworkCollection, AddingAnnouncesOnceIgnoresDuplicatesAndActivatesNothingBeforeLaunch) {
    auto network = ZNVNetwork::create(offlineConfiguration("collection-add"));
    AnnouncementRecorder recorder(*network, {"tasks", "downloads"});
    auto task = FakeTask::make();
    auto download = makeDownload();

    network->addTask(task);
    network->addTask(task);
    network->addTask(nullptr);
    network->addTask(download);

    EXPECT_EQ(network->tasks(), asTasks({task, download}));
    ASSERT_EQ(network->downloads().size(), 1u);
    EXPECT_EQ(network->downloads()[0], download);
    EXPECT_TRUE(network->hasTask(task));
    EXPECT_FALSE(network->hasTask(FakeTask::make()));
    // Nothing is activated before launch.
    EXPECT_FALSE(network->networkIsLaunched());
    EXPECT_FALSE(network->refreshTaskActivity());
    EXPECT_EQ(download->state(), ZNVNetworkTaskStateSuspended);

    const std::vector<Announcement> expected{
        {"tasks", Insertion, {0}, true},
        {"tasks", Insertion, {0}, false},
        // A download is announced in "downloads" around its "tasks" insertion.
        {"downloads", Insertion, {0}, true},
        {"tasks", Insertion, {1}, true},
        {"tasks", Insertion, {1}, false},
        {"downloads", Insertion, {0}, false},
    };
    EXPECT_EQ(recorder.records(), expected);
}

TEST(NetworkCollection, FinishingAnnouncesDownloadsAtThePositionInTasks) {
    auto network = ZNVNetwork::create(offlineConfiguration("collection-finish"));
    auto task = FakeTask::make();
    auto download = makeDownload();
    network->addTask(task);
    network->addTask(download);
    AnnouncementRecorder recorder(*network, {"tasks", "downloads"});

    network->finishTask(download);
    // The download sat at position 0 of "downloads" but 1 of "tasks": both
    // "downloads" announcements carry 1.
    std::vector<Announcement> expected{
        {"downloads", Removal, {1}, true},
        {"tasks", Removal, {1}, true},
        {"tasks", Removal, {1}, false},
        {"downloads", Removal, {1}, false},
    };
    EXPECT_EQ(recorder.records(), expected);
    EXPECT_TRUE(network->downloads().empty());

    // A task that is no download still completes a "downloads" removal.
    recorder.clear();
    network->finishTask(task);
    expected = {
        {"tasks", Removal, {0}, true},
        {"tasks", Removal, {0}, false},
        {"downloads", Removal, {0}, false},
    };
    EXPECT_EQ(recorder.records(), expected);
    EXPECT_TRUE(network->tasks().empty());

    // Finishing a task that is not held announces nothing.
    recorder.clear();
    network->finishTask(task);
    network->finishTask(nullptr);
    EXPECT_TRUE(recorder.records().empty());
}

// --- Activation policy ----------------------------------------------------------

TEST(NetworkActivation, CapacityIsFilledInOrderEarlyTasksGoBeyondItAndAnySuccessCounts) {
    LogCapture log;
    auto running = FakeTask::make(nullptr, "running");
    running->setState(ZNVNetworkTaskStateRunning);
    auto completed = FakeTask::make(nullptr, "completed");
    completed->setState(ZNVNetworkTaskStateCompleted);
    auto first = FakeTask::make(nullptr, "first");
    auto second = FakeTask::make(nullptr, "second");
    auto third = FakeTask::make(nullptr, "third");
    auto early = FakeTask::make(nullptr, "early");
    early->setNeedsEarlyActivation(true);

    EXPECT_TRUE(ZNVNetwork::activateTasks(
        2, asTasks({running, completed, first, second, third, early}), "download"));
    EXPECT_EQ(running->resumeCalls, 0);
    EXPECT_EQ(completed->resumeCalls, 0);
    EXPECT_EQ(first->resumeCalls, 1);
    EXPECT_EQ(second->resumeCalls, 1);
    EXPECT_EQ(third->resumeCalls, 0);
    EXPECT_EQ(early->resumeCalls, 1);
    EXPECT_TRUE(log.contains("Have capacity to activate 2 more download(s) ..."));
    EXPECT_TRUE(log.contains("   Activating download(s): ("));

    // With the count used up, only tasks that ask for early activation run.
    auto late = FakeTask::make(nullptr, "late");
    auto earlyToo = FakeTask::make(nullptr, "early-too");
    earlyToo->setNeedsEarlyActivation(true);
    EXPECT_TRUE(ZNVNetwork::activateTasks(0, asTasks({late, earlyToo}), "upload"));
    EXPECT_EQ(late->resumeCalls, 0);
    EXPECT_EQ(earlyToo->resumeCalls, 1);

    // Nothing suspended: nothing resumed, and the log says so.
    EXPECT_FALSE(ZNVNetwork::activateTasks(2, asTasks({running, completed}), "upload"));
    EXPECT_TRUE(log.contains("   No suspended upload(s) left to activate."));

    // Every resume is tried, and one that succeeds is enough.
    auto refusing = FakeTask::make(nullptr, "refusing");
    refusing->refuse = true;
    auto accepted = FakeTask::make(nullptr, "accepted");
    EXPECT_TRUE(ZNVNetwork::activateTasks(2, asTasks({refusing, accepted}), "download"));
    EXPECT_EQ(refusing->resumeCalls, 1);
    EXPECT_EQ(accepted->state(), ZNVNetworkTaskStateRunning);
    EXPECT_FALSE(ZNVNetwork::activateTasks(2, asTasks({refusing}), "download"));
    EXPECT_EQ(refusing->resumeCalls, 2);
}

TEST(NetworkActivation, PreparingRecoversFromErrorsAndConsumesAttempts) {
    auto recoverable = FakeTask::make(nullptr, "recoverable");
    // A lost connection with a failing URL is recovered from automatically.
    recoverable->setRawError(ZNVError::make(
        NSURLErrorDomain, NSURLErrorNetworkConnectionLost,
        {{NSLocalizedDescriptionKey, std::string("lost")},
         {NSURLErrorFailingURLStringErrorKey, std::string("https://example.invalid/r")}}));
    ASSERT_EQ(recoverable->state(), ZNVNetworkTaskStateSuspended);
    auto fatal = FakeTask::make(nullptr, "fatal");
    fatal->setRawError(ZNVError::withMessage(NSURLErrorDomain, NSURLErrorBadURL, "bad"));

    // Unreachable: no stall handling, but error recovery still runs.
    ZNVNetwork::prepareTasksForActivation(asTasks({recoverable, fatal}), false);
    EXPECT_EQ(recoverable->rawError(), nullptr);
    EXPECT_EQ(recoverable->remainingAttemptsForAutomaticErrorRecovery(), 4u);
    EXPECT_NE(fatal->rawError(), nullptr);
    EXPECT_EQ(fatal->remainingAttemptsForAutomaticErrorRecovery(), 4u);
    EXPECT_EQ(fatal->state(), ZNVNetworkTaskStateCompleted);
}

TEST(NetworkActivation, DownloadCapacityIsTwoAndWaitsForTheNetwork) {
    LogCapture log;
    auto network = ZNVNetwork::create(offlineConfiguration("download-capacity"));
    auto reachability = test::manualReachability(network);
    ASSERT_NE(reachability, nullptr);
    auto first = makeDownload("1.zip");
    auto second = makeDownload("2.zip");
    auto plain = makeDownload("3.zip");
    auto skipped = makeDownload("4.zip");
    auto early = makeDownload("5.zip");
    early->setNeedsEarlyActivation(true);
    for (const auto& d : {first, second, plain, skipped, early})
        network->addTask(d);
    first->setState(ZNVNetworkTaskStateRunning);
    second->setState(ZNVNetworkTaskStateRunning);

    // Two running: nothing more, not even a download asking to go early.
    EXPECT_FALSE(network->refreshDownloadActivity());
    EXPECT_TRUE(log.contains("2 download(s) are currently active."));
    EXPECT_EQ(early->state(), ZNVNetworkTaskStateSuspended);

    // Unreachable with one slot free: the log names the network (the device
    // is always plugged in on a desktop) and nothing starts.
    second->setState(ZNVNetworkTaskStateCompleted);
    reachability->setReachable(false);
    EXPECT_FALSE(network->isReachableEvenInBackground());
    EXPECT_FALSE(network->refreshDownloadActivity());
    EXPECT_TRUE(log.contains("Network must be reachable before downloads can be activated."));
    EXPECT_EQ(plain->state(), ZNVNetworkTaskStateSuspended);

    // Reachable with one slot free: the first suspended download plus the
    // early one are resumed (and, having no session manager, fail at once).
    reachability->setReachable(true);
    EXPECT_TRUE(network->refreshDownloadActivity());
    EXPECT_TRUE(log.contains("Have capacity to activate 1 more download(s) ..."));
    EXPECT_EQ(plain->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_EQ(skipped->state(), ZNVNetworkTaskStateSuspended);
    EXPECT_EQ(early->state(), ZNVNetworkTaskStateCompleted);
    ASSERT_NE(plain->error(), nullptr);
    EXPECT_EQ(plain->error()->localizedDescription(), "a network session is required");
}

// --- A launched manager -------------------------------------------------------------

class LaunchedNetwork : public ::testing::Test {
  protected:
    void SetUp() override {
        // One state file per test, so no test restores another's tasks.
        identifier_ = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        network_ = ZNVNetwork::create(offlineConfiguration(identifier_));
        network_->launch();
        session_ = network_->sessionManager();
        ASSERT_NE(session_, nullptr);
    }
    void TearDown() override {
        network_->invalidateClientAndCancelTasks();
        ZNVMainQueue::waitUntilDrained();
        drainBackgroundQueue();  // the last save has run before the next test
    }

    // Blocks the session's background queue until the returned release is called.
    std::function<void()> blockBackgroundQueue() { return test::blockBackgroundQueue(session_); }
    void drainBackgroundQueue() {
        ASSERT_TRUE(test::drainBackgroundQueue(session_));
        ASSERT_TRUE(network_->waitUntilStateIsWritten());
    }
    // Lets everything scheduled so far run: the main queue hands refreshes to
    // the background queue, whose refreshes may queue saves behind them.
    void settle() {
        for (int round = 0; round < 2; ++round) {
            ASSERT_TRUE(ZNVMainQueue::waitUntilDrained());
            drainBackgroundQueue();
        }
    }

    std::string identifier_;
    std::shared_ptr<ZNVNetwork> network_;
    std::shared_ptr<ZNVNetworkSessionManager> session_;
};

struct Forwarded {
    std::string name;
    ZNVNetworkTaskRef task;
    uint64_t previous;
    uint64_t current;
    bool onMainQueue = false;
};

TEST_F(LaunchedNetwork, TaskStateChangesAreRepostedUnderTheManagersNames) {
    std::mutex mutex;
    std::vector<Forwarded> forwarded;
    auto token = ZNVNotificationCenter::defaultCenter().addObserver(
        "", network_.get(), [&](const ZNVNotification& notification) {
            Forwarded entry{notification.name, nullptr, 99, 99, false};
            if (auto t =
                    ZNVNotificationValue<ZNVNetworkTaskRef>(notification, ZNVNetwork_TaskKey)) {
                entry.task = *t;
            }
            if (auto p =
                    ZNVNotificationValue<uint64_t>(notification, ZNVNetwork_PreviousTaskStateKey)) {
                entry.previous = *p;
            }
            if (auto n = ZNVNotificationValue<uint64_t>(notification, ZNVNetwork_NewTaskStateKey)) {
                entry.current = *n;
            }
            EXPECT_EQ(notification.userInfo.size(), 3u);
            entry.onMainQueue = ZNVMainQueue::isCurrent();
            std::lock_guard<std::mutex> lock(mutex);
            forwarded.push_back(entry);
        });

    auto task = FakeTask::make(session_, "observed");
    auto post = [&](uint64_t previous, uint64_t current, const void* sender) {
        ZNVNotificationCenter::defaultCenter().post(
            ZNVNetworkTask_DidChangeStateNotification, sender,
            {{ZNVNetworkTask_TaskKey, std::any(ZNVNetworkTaskRef(task))},
             {ZNVNetworkTask_PreviousStateKey, std::any(previous)},
             {ZNVNetworkTask_NewStateKey, std::any(current)}});
    };
    post(0, 1, session_.get());
    post(1, 1, session_.get());  // running to running still counts as a resume
    post(1, 0, session_.get());
    post(1, 2, session_.get());
    post(2, 7, session_.get());  // no such state: nothing is posted
    post(0, 1, this);            // another sender's are not the manager's business
    // A real change of a task is forwarded too, on the main queue.
    auto real = FakeTask::make(session_, "real");
    real->setState(ZNVNetworkTaskStateRunning);
    EXPECT_TRUE(test::waitFor([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return forwarded.size() == 5;
    }));
    ZNVNotificationCenter::defaultCenter().removeObserver(token);

    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(forwarded.size(), 5u);
    EXPECT_EQ(forwarded[4].name, "ZNVNetwork: task did resume");
    EXPECT_EQ(forwarded[4].task, real);
    EXPECT_TRUE(forwarded[4].onMainQueue);
    EXPECT_EQ(forwarded[0].name, "ZNVNetwork: task did resume");
    EXPECT_EQ(forwarded[1].name, "ZNVNetwork: task did resume");
    EXPECT_EQ(forwarded[2].name, "ZNVNetwork: task did suspend");
    EXPECT_EQ(forwarded[3].name, "ZNVNetwork: task did complete");
    EXPECT_EQ(forwarded[3].task, task);
    EXPECT_EQ(forwarded[3].previous, 1u);
    EXPECT_EQ(forwarded[3].current, 2u);
}

TEST_F(LaunchedNetwork, SupersededSavesAreSkippedAndTheNewestWins) {
    LogCapture log;
    auto release = blockBackgroundQueue();
    std::vector<ZNVNetworkTaskRef> added;
    for (int i = 0; i < 25; ++i) {
        added.push_back(FakeTask::make(nullptr, "queued" + std::to_string(i)));
        network_->addTask(added.back());
    }
    release();
    drainBackgroundQueue();
    // 25 saves were queued behind the gate; only the last one wrote.
    EXPECT_EQ(log.count("saving task state:"), 1u);
    EXPECT_EQ(log.count("   stored state for 25 suspended tasks"), 1u);
}

// The lines one refresh of a manager without downloads logs, in order.
const std::vector<std::string> kIdleDownloadRound{
    "0 download(s) are currently active.",
    "Have capacity to activate 2 more download(s) ...",
    "   No suspended download(s) left to activate.",
};

TEST_F(LaunchedNetwork, EveryRefreshRequestRunsItsOwnRoundInOrder) {
    settle();
    LogCapture log;
    // Requests that pile up behind a busy queue are not merged: each one
    // runs its own round of the activation policy, one after another.
    auto release = blockBackgroundQueue();
    network_->refreshAndSave();
    network_->refreshAndSave();
    network_->refreshAndSave();
    release();
    drainBackgroundQueue();

    std::vector<std::string> expected;
    for (int round = 0; round < 3; ++round)
        expected.insert(expected.end(), kIdleDownloadRound.begin(), kIdleDownloadRound.end());
    EXPECT_EQ(linesContaining(log, kIdleDownloadRound), expected);
}

TEST_F(LaunchedNetwork, ASaveWritesTheCollectionAsItWasWhenAskedFor) {
    settle();
    auto first = FakeTask::make(nullptr, "first");
    auto second = FakeTask::make(nullptr, "second");
    auto restoredSources = [&] {
        auto reader = ZNVNetwork::create(offlineConfiguration(identifier_));
        reader->readState();
        std::vector<std::string> names;
        for (const auto& task : reader->tasks())
            names.push_back(task->sourceURL() ? task->sourceURL()->lastPathComponent() : "?");
        return names;
    };

    LogCapture log;
    auto release = blockBackgroundQueue();
    network_->addTask(first);  // asks for a save of [first]
    network_->beginBatch();
    network_->addTask(second);  // no save while the batch is open
    release();
    settle();
    // The queued save still runs inside the batch, with what it was asked to
    // write: the second task is not in it.
    EXPECT_EQ(restoredSources(), std::vector<std::string>{"first"});
    EXPECT_EQ(log.count("saving task state:"), 1u);
    EXPECT_EQ(log.count("   stored state for 1 suspended tasks"), 1u);

    network_->commitBatch();
    settle();
    EXPECT_EQ(restoredSources(), (std::vector<std::string>{"first", "second"}));
}

TEST_F(LaunchedNetwork, BackgroundStateChangesSaveWhenTheyMatter) {
    auto task = FakeTask::make(session_, "background");
    network_->addTask(task);
    settle();

    LogCapture log;
    task->setState(ZNVNetworkTaskStateRunning);  // an ordinary start: no save
    settle();
    EXPECT_EQ(log.count("saving task state:"), 0u);

    task->setNeedsEarlyActivation(true);
    task->setState(ZNVNetworkTaskStateSuspended);  // not running: refresh, then save
    settle();
    EXPECT_EQ(log.count("saving task state:"), 1u);
    EXPECT_TRUE(log.contains("download(s) are currently active."));

    task->setState(ZNVNetworkTaskStateRunning);  // an early start is saved
    settle();
    EXPECT_EQ(log.count("saving task state:"), 2u);
}

TEST_F(LaunchedNetwork, ForeignBackgroundSessionsAreAnsweredAtOnceAndDiscretionaryTasksKept) {
    LogCapture log;
    int called = 0;
    network_->setCompletionHandler([&] { ++called; }, "org.example.other");
    EXPECT_EQ(called, 1);
    EXPECT_TRUE(log.contains("Failed to process tasks for org.example.other with network session"));
    EXPECT_EQ(network_->backgroundManager(), nullptr);

    network_->invokeNetworkSessionCompletionWithDescription("finished");
    EXPECT_TRUE(log.contains("   no completion available for background: finished"));
    EXPECT_EQ(called, 1);

    // A desktop is always plugged in: discretionary tasks are kept.
    auto task = FakeTask::make(session_, "discretionary");
    task->setDiscretionary(true);
    network_->addTask(task);
    network_->recycleDiscretionaryTasksIfNeeded();
    EXPECT_TRUE(log.contains("Not recycling discretionary tasks because device is plugged in."));
    EXPECT_FALSE(log.contains("automatically cancelling task"));
    EXPECT_EQ(task->rawError(), nullptr);
}

TEST_F(LaunchedNetwork, InvalidationEmptiesTheCollectionsAndSavesTheEmptyList) {
    auto task = FakeTask::make(nullptr, "kept");
    auto download = makeDownload();
    network_->addTask(task);
    network_->addTask(download);
    AnnouncementRecorder recorder(*network_, {"tasks", "downloads"});

    network_->invalidateClientAndCancelTasks();
    const std::vector<Announcement> expected{
        {"downloads", Removal, {0}, true},
        {"tasks", Removal, {0, 1}, true},
        {"tasks", Removal, {0, 1}, false},
        {"downloads", Removal, {0}, false},
    };
    EXPECT_EQ(recorder.records(), expected);
    EXPECT_TRUE(network_->tasks().empty());
    EXPECT_TRUE(network_->downloads().empty());
    EXPECT_EQ(network_->sessionManager(), nullptr);

    // The save of the empty list was queued before the session manager was
    // dropped and still runs.
    const std::string statePath = test::statePath(identifier_);
    ASSERT_TRUE(test::waitFor([&] {
        if (!std::filesystem::exists(statePath)) return false;
        auto restored = ZNVNetwork::create(offlineConfiguration(identifier_));
        restored->readState();
        return restored->tasks().empty();
    }));

    // Without a session manager refreshes are dropped.
    LogCapture log;
    network_->refreshAndSave();
    EXPECT_TRUE(log.contains("No session manager available to serialize refresh."));
}

}  // namespace
}  // namespace znv

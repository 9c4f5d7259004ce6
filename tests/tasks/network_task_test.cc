// The base network task: error split and recovery budget, state notifications,
// cancel, retry, the stall watchdog, reconnection and the archive.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <mutex>
#include <vector>

#include "tests/tasks/task_test_support.h"
#include "znv/foundation/error_handler.h"
#include "znv/platform/keyed_archive.h"
#include "znv/platform/notification_center.h"

namespace znv {
namespace {

using namespace std::chrono_literals;
using test::EmulatorHarness;

ZNVErrorRef recoverableError(const std::string& message = "connection lost") {
    return ZNVError::make(NSURLErrorDomain, NSURLErrorNetworkConnectionLost,
                          {{NSLocalizedDescriptionKey, message},
                           {NSURLErrorFailingURLStringErrorKey, std::string("http://h/x")}});
}

ZNVErrorRef fatalError(const std::string& message = "bad request") {
    return ZNVError::withMessage(NSURLErrorDomain, NSURLErrorBadServerResponse, message);
}

// Records the state notifications a session manager's tasks post.
class StateNotifications {
  public:
    explicit StateNotifications(const void* sender) {
        for (const char* name : {ZNVNetworkTask_DidChangeStateNotification,
                                 ZNVNetworkTask_DidChangeStateBackgroundNotification}) {
            tokens_.push_back(ZNVNotificationCenter::defaultCenter().addObserver(
                name, sender, [this](const ZNVNotification& n) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    Entry entry;
                    entry.background =
                        n.name == ZNVNetworkTask_DidChangeStateBackgroundNotification;
                    entry.keys = n.userInfo.size();
                    if (auto* task = ZNVNotificationValue<std::shared_ptr<ZNVNetworkTask>>(
                            n, ZNVNetworkTask_TaskKey)) {
                        entry.task = task->get();
                    }
                    if (auto* v =
                            ZNVNotificationValue<uint64_t>(n, ZNVNetworkTask_PreviousStateKey)) {
                        entry.previous = *v;
                    }
                    if (auto* v = ZNVNotificationValue<uint64_t>(n, ZNVNetworkTask_NewStateKey)) {
                        entry.current = *v;
                    }
                    entries_.push_back(entry);
                }));
        }
    }
    ~StateNotifications() {
        for (auto token : tokens_)
            ZNVNotificationCenter::defaultCenter().removeObserver(token);
    }

    struct Entry {
        bool background = false;
        size_t keys = 0;
        const ZNVNetworkTask* task = nullptr;
        uint64_t previous = 99;
        uint64_t current = 99;
    };
    // The (previous, new) pairs of one kind of notification, in posting order.
    std::vector<std::pair<uint64_t, uint64_t>> transitions(bool background) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::pair<uint64_t, uint64_t>> result;
        for (const auto& e : entries_) {
            if (e.background == background) result.emplace_back(e.previous, e.current);
        }
        return result;
    }
    std::vector<Entry> entries() {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }

  private:
    std::mutex mutex_;
    std::vector<Entry> entries_;
    std::vector<ZNVNotificationToken> tokens_;
};

class NetworkTaskTest : public ::testing::Test {
  protected:
    // Drains the session manager's queue and the main queue so that every
    // notification posted so far has been delivered.
    void drain() {
        std::atomic<bool> done{false};
        harness.session->performBackgroundSessionBlock([&done] { done = true; });
        ASSERT_TRUE(test::waitFor([&] { return done.load(); }));
        ASSERT_TRUE(ZNVMainQueue::waitUntilDrained());
    }
    std::shared_ptr<ZNVURLSessionTask> suspendedSessionTask() {
        // A plain download (tagged "download") that nobody routes.
        return harness.session->downloadRemoteFile(
            *ZNVURL::fromString(harness.emulator.rootURL() + "content/none"));
    }
    std::shared_ptr<ZNVNetworkTask> makeTask() {
        return ZNVNetworkTask::create(ZNVURL::fromString("http://example.invalid/a.bin"),
                                      harness.session);
    }

    EmulatorHarness harness;
};

TEST_F(NetworkTaskTest, ErrorsCompareByUserInfoAlone) {
    auto task = makeTask();
    int errorAnnouncements = 0;
    task->addObserver("error", [&](const ZNVKeyValueChangeRecord&) { ++errorAnnouncements; });

    // No user info on a task without error: nothing happens at all.
    task->setRawError(ZNVError::make(NSURLErrorDomain, NSURLErrorBadURL));
    EXPECT_EQ(task->rawError(), nullptr);
    EXPECT_EQ(task->state(), ZNVNetworkTaskStateSuspended);

    task->setRawError(fatalError("same text"));
    EXPECT_EQ(errorAnnouncements, 1);
    // Same user info, other domain and code: ignored.
    task->setRawError(ZNVError::withMessage(NSCocoaErrorDomain, 4, "same text"));
    EXPECT_EQ(task->rawError()->code(), NSURLErrorBadServerResponse);
    EXPECT_EQ(errorAnnouncements, 1);

    EXPECT_TRUE(ZNVNetworkTask::errorsAreEqual(nullptr, ZNVError::make(NSURLErrorDomain, 1)));
    EXPECT_FALSE(ZNVNetworkTask::errorsAreEqual(fatalError("a"), fatalError("b")));
    // A hidden error changes the raw error but not the public one.
    auto hidden = makeTask();
    int hiddenAnnouncements = 0;
    hidden->addObserver("error", [&](const ZNVKeyValueChangeRecord&) { ++hiddenAnnouncements; });
    hidden->setRawError(recoverableError());
    EXPECT_EQ(hiddenAnnouncements, 0);
}

TEST_F(NetworkTaskTest, StateChangesPostBothNotificationsFromTheSessionManager) {
    StateNotifications notifications(harness.session.get());
    auto task = makeTask();
    task->setState(ZNVNetworkTaskStateSuspended);  // unchanged: posts nothing
    task->setState(ZNVNetworkTaskStateRunning);
    task->setState(ZNVNetworkTaskStateRunning);
    task->setState(ZNVNetworkTaskStateCompleted);
    drain();

    using Transitions = std::vector<std::pair<uint64_t, uint64_t>>;
    EXPECT_EQ(notifications.transitions(false), (Transitions{{0, 1}, {1, 2}}));
    EXPECT_EQ(notifications.transitions(true), (Transitions{{0, 1}, {1, 2}}));
    for (const auto& entry : notifications.entries()) {
        EXPECT_EQ(entry.keys, 3u);
        EXPECT_EQ(entry.task, task.get());
    }

    // Without a session manager only the foreground notification is posted,
    // with no sender.
    StateNotifications unowned(nullptr);
    auto loose = ZNVNetworkTask::create();
    loose->setState(ZNVNetworkTaskStateRunning);
    drain();
    int foreground = 0;
    for (const auto& entry : unowned.entries()) {
        if (entry.task != loose.get()) continue;
        EXPECT_FALSE(entry.background);
        ++foreground;
    }
    EXPECT_EQ(foreground, 1);
}

// Resetting for a resume passes through completed and back inside one
// operation: the notifications show both steps, while an observer called in
// the middle still reads the settled values it began with.
TEST_F(NetworkTaskTest, ResetForResumePassesThroughCompletedAndSettledValuesHideIt) {
    StateNotifications notifications(harness.session.get());
    auto task = makeTask();
    task->setTask(suspendedSessionTask());
    EXPECT_EQ(task->settledState(), ZNVNetworkTaskStateRunning);
    task->setRawError(recoverableError());
    EXPECT_EQ(task->settledState(), ZNVNetworkTaskStateSuspended);
    EXPECT_TRUE(task->settledHasRawError());

    std::vector<std::pair<ZNVNetworkTaskState, ZNVNetworkTaskState>> seen;
    bool errorSeenSettled = false;
    auto token = task->addObserver("state", [&](const ZNVKeyValueChangeRecord&) {
        seen.emplace_back(task->state(), task->settledState());
        errorSeenSettled = errorSeenSettled || task->settledHasRawError();
    });
    task->resetForResume();
    task->removeObserver(token);

    using Seen = std::vector<std::pair<ZNVNetworkTaskState, ZNVNetworkTaskState>>;
    EXPECT_EQ(seen, (Seen{{ZNVNetworkTaskStateCompleted, ZNVNetworkTaskStateSuspended},
                          {ZNVNetworkTaskStateSuspended, ZNVNetworkTaskStateSuspended}}));
    EXPECT_TRUE(errorSeenSettled);
    // Once it is over they agree with the task again.
    EXPECT_EQ(task->settledState(), task->state());
    EXPECT_FALSE(task->settledHasRawError());
    EXPECT_TRUE(task->freezeProgress());
    EXPECT_EQ(task->taskIdentifier(), static_cast<uint64_t>(ZNVNotFound));
    drain();
    using Transitions = std::vector<std::pair<uint64_t, uint64_t>>;
    EXPECT_EQ(notifications.transitions(false), (Transitions{{0, 1}, {1, 0}, {0, 2}, {2, 0}}));
}

TEST_F(NetworkTaskTest, CancelKeepsSuccessAndReplacesAnyOtherOutcome) {
    auto succeeded = makeTask();
    succeeded->setTask(suspendedSessionTask());
    succeeded->setTask(nullptr);
    ASSERT_EQ(succeeded->state(), ZNVNetworkTaskStateCompleted);
    succeeded->cancel();
    EXPECT_EQ(succeeded->rawError(), nullptr);
    EXPECT_EQ(succeeded->state(), ZNVNetworkTaskStateCompleted);

    auto failed = makeTask();
    failed->setRawError(fatalError());
    failed->cancel();
    ASSERT_NE(failed->error(), nullptr);
    EXPECT_EQ(failed->error()->code(), NSURLErrorCancelled);
    EXPECT_EQ(failed->error()->localizedDescription(), "network task cancelled");
    EXPECT_TRUE(ZNVNetworkTask::errorIndicatesManuallyCancelledTask(failed->error()));

    auto running = makeTask();
    auto sessionTask = suspendedSessionTask();
    running->setTask(sessionTask);
    running->cancel();
    EXPECT_EQ(running->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_EQ(running->task(), nullptr);
    EXPECT_TRUE(test::waitFor([&] {
        return sessionTask->state() == ZNVURLSessionTaskStateCompleted;
    })) << "the URL session task is cancelled as well";
}

TEST_F(NetworkTaskTest, StallWatchdogCancelsOnlyAfterNinetySeconds) {
    test::ManualClock clock;
    auto task = makeTask();
    auto sessionTask = suspendedSessionTask();
    task->setTask(sessionTask);
    ASSERT_EQ(task->state(), ZNVNetworkTaskStateRunning);

    clock.advance(89s);
    task->automaticallyResumeFromStall();
    EXPECT_EQ(task->state(), ZNVNetworkTaskStateRunning);
    clock.advance(1s);  // exactly 90 s: not yet
    task->automaticallyResumeFromStall();
    EXPECT_EQ(task->state(), ZNVNetworkTaskStateRunning);

    clock.advance(1s);
    task->automaticallyResumeFromStall();
    EXPECT_EQ(task->state(), ZNVNetworkTaskStateSuspended);
    ASSERT_NE(task->rawError(), nullptr);
    EXPECT_EQ(task->rawError()->localizedDescription(),
              "internal error: URL session task appears to have stalled.");
    EXPECT_EQ(task->error(), nullptr) << "a stall is recovered from silently";
    EXPECT_TRUE(
        test::waitFor([&] { return sessionTask->state() == ZNVURLSessionTaskStateCompleted; }));

    // A task whose URL session task is already running is not stalled.
    auto busy = makeTask();
    auto started = suspendedSessionTask();
    busy->setTask(started);
    started->resume();
    ASSERT_TRUE(test::waitFor([&] { return started->state() != ZNVURLSessionTaskStateSuspended; }));
    clock.advance(600s);
    busy->automaticallyResumeFromStall();
    EXPECT_EQ(busy->rawError(), nullptr);
}

TEST_F(NetworkTaskTest, ValidationAndNewSessionTasks) {
    auto orphan = ZNVNetworkTask::create(ZNVURL::fromString("http://h/x"), nullptr);
    EXPECT_FALSE(orphan->validateParameters());
    ASSERT_NE(orphan->error(), nullptr);
    EXPECT_EQ(orphan->error()->code(), NSURLErrorCannotFindHost);
    EXPECT_EQ(orphan->error()->localizedDescription(), "a network session is required");
    EXPECT_EQ(orphan->state(), ZNVNetworkTaskStateCompleted);

    auto nothing = makeTask();
    nothing->startNewSessionTask(nullptr, nullptr);
    ASSERT_NE(nothing->rawError(), nullptr);
    EXPECT_EQ(nothing->rawError()->localizedDescription(),
              "internal error: No error reported for nil URL session task.");
    EXPECT_EQ(nothing->state(), ZNVNetworkTaskStateSuspended);

    auto refused = makeTask();
    refused->startNewSessionTask(suspendedSessionTask(), fatalError("no task"));
    EXPECT_EQ(refused->task(), nullptr);
    EXPECT_EQ(refused->error()->localizedDescription(), "no task");

    auto started = makeTask();
    auto sessionTask = suspendedSessionTask();
    started->startNewSessionTask(sessionTask, nullptr);
    EXPECT_EQ(started->state(), ZNVNetworkTaskStateRunning);
    EXPECT_EQ(started->taskIdentifier(), sessionTask->taskIdentifier());
    EXPECT_TRUE(started->taskStartDate().has_value());
    EXPECT_TRUE(test::waitFor([&] {
        return sessionTask->state() != ZNVURLSessionTaskStateSuspended;
    })) << "the new URL session task is started";
}

std::shared_ptr<ZNVNetworkTask> roundTrip(const ZNVNetworkTask& task) {
    ZNVErrorRef error;
    auto decoded =
        test::unarchivedTask(ZNVKeyedArchiver::archivedDataWithRootObject(task, &error), &error);
    EXPECT_EQ(error, nullptr) << (error ? error->description() : "");
    return decoded;
}

TEST_F(NetworkTaskTest, ArchiveWritesItsKeysInOrderAndNeverRunning) {
    auto task = makeTask();
    task->setTask(suspendedSessionTask());
    task->setRetryCount(3);
    task->setNeedsEarlyActivation(true);
    ASSERT_EQ(task->state(), ZNVNetworkTaskStateRunning);

    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*task);
    auto json = nlohmann::ordered_json::parse(data.begin(), data.end());
    const auto& object = json["$top"]["root"];
    std::vector<std::string> keys;
    for (const auto& item : object.items())
        keys.push_back(item.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"$class", "state", "source URL", "task identifier",
                                              "completed progress", "start date", "retry count",
                                              "discretionary", "needs early activation"}));
    EXPECT_EQ(object["state"], "suspended");

    auto decoded = roundTrip(*task);
    ASSERT_NE(decoded, nullptr);
    EXPECT_TRUE(decoded->wasDecoded());
    EXPECT_EQ(decoded->state(), ZNVNetworkTaskStateSuspended);
    EXPECT_EQ(decoded->retryCount(), 3u);
    EXPECT_TRUE(decoded->needsEarlyActivation());
    EXPECT_EQ(decoded->taskIdentifier(), task->taskIdentifier());
    EXPECT_EQ(decoded->sourceURL(), task->sourceURL());
    EXPECT_EQ(decoded->session(), nullptr);
    EXPECT_EQ(std::chrono::duration_cast<std::chrono::milliseconds>(decoded->startDate() -
                                                                    task->startDate())
                  .count(),
              0);

    // Only a decoded task reconnects, and only while it has no error.
    auto sessionTask = suspendedSessionTask();
    decoded->connectToSession(harness.session, sessionTask);
    EXPECT_EQ(decoded->session(), harness.session);
    EXPECT_EQ(decoded->task(), sessionTask);
    EXPECT_EQ(decoded->state(), ZNVNetworkTaskStateRunning);
    EXPECT_NE(decoded->description().find("with task \"download\""), std::string::npos)
        << decoded->description();
    auto fresh = ZNVNetworkTask::create(ZNVURL::fromString("http://h/x"), nullptr);
    fresh->connectToSession(harness.session, suspendedSessionTask());
    EXPECT_EQ(fresh->session(), nullptr);
    EXPECT_EQ(fresh->task(), nullptr);
    auto failed = roundTrip(*makeTask());
    failed->setRawError(fatalError());
    failed->connectToSession(harness.session, suspendedSessionTask());
    EXPECT_EQ(failed->task(), nullptr);

    try {
        ZNVNonKeyedCoder coder;
        task->encodeWithCoder(coder);
        ADD_FAILURE() << "a non-keyed coder was accepted";
    } catch (const ZNVInvalidArchiveOperationException& e) {
        EXPECT_STREQ(e.what(), "ZNVNetworkTask only supports NSKeyedArchiver encoders");
    }
}

TEST_F(NetworkTaskTest, RecoveriesArePacedHiddenFiveTimesInARowAndPublicTheSixth) {
    test::ManualClock clock;
    test::FullRecoveryDelays fullDelays;
    const auto secondsUntil = [](const ZNVDate& from, const ZNVDate& to) {
        return std::chrono::duration<double>(to - from).count();
    };
    // One failure and its recovery once its wait is over; returns the wait.
    const auto failAndRecover = [&](const std::shared_ptr<ZNVNetworkTask>& task,
                                    const ZNVErrorRef& error) {
        task->setTask(suspendedSessionTask());
        EXPECT_EQ(task->state(), ZNVNetworkTaskStateRunning);
        task->setRawError(error);
        EXPECT_EQ(task->error(), nullptr);
        EXPECT_EQ(task->state(), ZNVNetworkTaskStateSuspended);
        EXPECT_EQ(task->task(), nullptr);
        const ZNVDate failed = ZNVNetworkTask::now();
        task->automaticallyRecoverFromError();
        const std::optional<ZNVDate> due = task->nextRecoveryDate();
        EXPECT_TRUE(due.has_value());
        const double wait = due ? secondsUntil(failed, *due) : 0.0;
        EXPECT_NE(task->rawError(), nullptr) << "recovered before its time";
        clock.advance(std::chrono::milliseconds(static_cast<int64_t>(wait * 1000) - 1));
        task->automaticallyRecoverFromError();
        EXPECT_NE(task->rawError(), nullptr) << "recovered before its time";
        clock.advance(2ms);
        task->automaticallyRecoverFromError();
        EXPECT_EQ(task->rawError(), nullptr);
        EXPECT_EQ(task->state(), ZNVNetworkTaskStateSuspended);
        return wait;
    };

    auto task = makeTask();
    for (int n = 1; n <= 5; ++n) {
        const double wait = failAndRecover(task, recoverableError());
        EXPECT_GT(wait, 0.0) << "recovery " << n;
        EXPECT_LE(wait, static_cast<double>(1 << (n - 1))) << "recovery " << n;
        EXPECT_EQ(task->remainingAttemptsForAutomaticErrorRecovery(), 5u - n);
    }
    // The sixth failure in a row is public, and stays so after a relaunch.
    task->setTask(suspendedSessionTask());
    task->setRawError(recoverableError());
    ASSERT_NE(task->error(), nullptr);
    EXPECT_EQ(task->error()->code(), NSURLErrorNetworkConnectionLost);
    EXPECT_EQ(task->state(), ZNVNetworkTaskStateCompleted);
    task->automaticallyRecoverFromError();
    EXPECT_NE(task->error(), nullptr);
    auto decoded = roundTrip(*task);
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(decoded->state(), ZNVNetworkTaskStateCompleted);
    ASSERT_NE(decoded->error(), nullptr) << "a failure must not show as a success";
    EXPECT_EQ(decoded->error()->code(), NSURLErrorNetworkConnectionLost);
    EXPECT_EQ(decoded->remainingAttemptsForAutomaticErrorRecovery(), 0u);
    decoded->retry();
    EXPECT_EQ(decoded->rawError(), nullptr);
    EXPECT_EQ(decoded->remainingAttemptsForAutomaticErrorRecovery(), 5u);

    // A manual retry restores the budget and counts; it acts only on a
    // public error.
    auto healthy = makeTask();
    healthy->retry();
    EXPECT_EQ(healthy->retryCount(), 0u);
    task->retry();
    EXPECT_EQ(task->rawError(), nullptr);
    EXPECT_EQ(task->state(), ZNVNetworkTaskStateSuspended);
    EXPECT_EQ(task->remainingAttemptsForAutomaticErrorRecovery(), 5u);
    EXPECT_EQ(task->retryCount(), 1u);
    EXPECT_FALSE(task->freezeProgress()) << "resume unfreezes the progress";

    // A step that went through: the next failure counts as the first again,
    // but a 503 that asks for 40 s is given them.
    failAndRecover(task, recoverableError());
    task->restoreRecoveryAttempts();
    const double wait =
        failAndRecover(task, ZNVError::make(NSURLErrorDomain, NSURLErrorBadServerResponse,
                                            {{NSLocalizedDescriptionKey, std::string("busy")},
                                             {ZNVURLErrorFailingStatusCodeKey, int64_t{503}},
                                             {ZNVURLErrorRetryAfterKey, 40.0}}));
    EXPECT_DOUBLE_EQ(wait, 40.0);
    EXPECT_EQ(task->remainingAttemptsForAutomaticErrorRecovery(), 4u);
}

// An archive as earlier versions wrote it: the error under "error".
class LegacyTaskArchive : public ZNVCoding {
  public:
    std::string className() const override { return "ZNVNetworkTask"; }
    void encodeWithCoder(ZNVCoder& coder) const override {
        ZNVKeyedArchiver* archiver = coder.asKeyedArchiver();
        archiver->encodeString("completed", "state");
        archiver->encodeError(fatalError("old"), "error");
        archiver->encodeString("many", "retry count");
    }
};

// A public error decodes as a completed task; a hidden one as a suspended
// task that keeps it, with a fresh recovery budget.
TEST_F(NetworkTaskTest, ArchivedErrorsDecideTheDecodedStateAndTheLegacyKeyIsRead) {
    auto fatal = makeTask();
    fatal->setRawError(fatalError());
    EXPECT_EQ(roundTrip(*fatal)->state(), ZNVNetworkTaskStateCompleted);
    auto hidden = makeTask();
    hidden->setRawError(recoverableError());
    hidden->automaticallyRecoverFromError();
    hidden->setRawError(recoverableError());
    ASSERT_EQ(hidden->remainingAttemptsForAutomaticErrorRecovery(), 4u);
    auto decodedHidden = roundTrip(*hidden);
    EXPECT_EQ(decodedHidden->state(), ZNVNetworkTaskStateSuspended);
    ASSERT_NE(decodedHidden->rawError(), nullptr);
    EXPECT_TRUE(ZNVError::equal(decodedHidden->rawError(), hidden->rawError()));
    EXPECT_EQ(decodedHidden->error(), nullptr);
    EXPECT_EQ(decodedHidden->remainingAttemptsForAutomaticErrorRecovery(), 5u)
        << "the recovery budget is not archived";

    ZNVErrorRef error;
    auto legacy = test::unarchivedTask(
        ZNVKeyedArchiver::archivedDataWithRootObject(LegacyTaskArchive()), &error);
    ASSERT_NE(legacy, nullptr) << (error ? error->description() : "");
    ASSERT_NE(legacy->rawError(), nullptr);
    EXPECT_EQ(legacy->rawError()->localizedDescription(), "old");
    EXPECT_EQ(legacy->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_EQ(legacy->retryCount(), 0u);
    EXPECT_EQ(legacy->taskIdentifier(), static_cast<uint64_t>(ZNVNotFound));
}

}  // namespace
}  // namespace znv

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/support/test_support.h"
#include "znv/platform/main_queue.h"
#include "znv/platform/operation_queue.h"

namespace znv {
namespace {

using namespace std::chrono_literals;
using test::waitFor;

// A latch the test opens to let a blocked queue item finish.
class Gate {
  public:
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [&] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
};

TEST(OperationQueue, KeepsEachPostersOrderAndNeverRunsTwoItemsAtOnce) {
    ZNVOperationQueue queue("fifo");
    const int posters = 4;
    const int perPoster = 500;
    std::mutex mutex;
    std::vector<std::pair<int, int>> ran;  // (poster, sequence), guarded by mutex
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < posters; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < perPoster; ++i) {
                queue.addOperation([&, p, i] {
                    if (inside.fetch_add(1) != 0) ++overlaps;
                    {
                        std::lock_guard lock(mutex);
                        ran.emplace_back(p, i);
                    }
                    inside.fetch_sub(1);
                });
            }
        });
    }
    for (auto& t : threads)
        t.join();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(overlaps.load(), 0);
    std::lock_guard lock(mutex);
    ASSERT_EQ(ran.size(), static_cast<size_t>(posters * perPoster));
    std::map<int, int> next;
    for (auto [p, i] : ran) {
        EXPECT_EQ(i, next[p]) << "poster " << p << " out of order";
        next[p] = i + 1;
    }
    EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(OperationQueue, ItemsAddedByAnItemRunAfterItAndAreAwaited) {
    // Created suspended so that the sibling is queued before the parent runs.
    ZNVOperationQueue queue("nested", /*suspended=*/true);
    std::vector<std::string> order;  // only touched on the queue
    queue.addOperation([&] {
        queue.addOperation([&] { order.push_back("child"); });
        order.push_back("parent");
    });
    queue.addOperation([&] { order.push_back("sibling"); });
    queue.setSuspended(false);
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(order, (std::vector<std::string>{"parent", "sibling", "child"}));
}

TEST(OperationQueue, SuspensionHoldsItemsAndLetsTheRunningOneFinish) {
    ZNVOperationQueue queue("suspend", /*suspended=*/true);
    std::atomic<int> count{0};
    queue.addOperation([&] { ++count; });
    queue.addOperation([&] { ++count; });
    EXPECT_TRUE(queue.isSuspended());
    EXPECT_EQ(queue.operationCount(), 2u);
    EXPECT_FALSE(waitFor([&] { return count.load() > 0; }, 100ms));
    queue.setSuspended(false);
    ASSERT_TRUE(waitFor([&] { return count.load() == 2; }));

    // Suspending while an item runs: that item completes, the next one waits.
    Gate gate;
    std::atomic<bool> started{false};
    queue.addOperation([&] {
        started = true;
        gate.wait();
        ++count;
    });
    queue.addOperation([&] { ++count; });
    ASSERT_TRUE(waitFor([&] { return started.load(); }));
    queue.setSuspended(true);
    gate.open();
    ASSERT_TRUE(waitFor([&] { return count.load() == 3; }));
    EXPECT_FALSE(waitFor([&] { return count.load() == 4; }, 100ms));
    queue.setSuspended(false);
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(count.load(), 4);
}

TEST(OperationQueue, IsCurrentOnlyInsideItsOwnItems) {
    ZNVOperationQueue a("a");
    ZNVOperationQueue b("b");
    EXPECT_FALSE(a.isCurrent());
    EXPECT_EQ(ZNVOperationQueue::current(), nullptr);
    std::atomic<bool> aInA{false}, bInA{true}, currentIsA{false}, aInB{true};
    a.addOperation([&] {
        aInA = a.isCurrent();
        bInA = b.isCurrent();
        currentIsA = ZNVOperationQueue::current() == &a;
        b.addOperation([&] { aInB = a.isCurrent(); });
    });
    a.waitUntilAllOperationsAreFinished();
    b.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(aInA);
    EXPECT_FALSE(bInA);
    EXPECT_TRUE(currentIsA);
    EXPECT_FALSE(aInB);
    // Waiting on the queue from its own item would deadlock; it returns instead.
    std::atomic<bool> returned{false};
    a.addOperation([&] {
        a.waitUntilAllOperationsAreFinished();
        returned = true;
    });
    EXPECT_TRUE(waitFor([&] { return returned.load(); }));
}

TEST(OperationQueue, DestructionWaitsForTheRunningItemAndDropsTheRest) {
    auto captured = std::make_shared<int>(1);
    std::weak_ptr<int> weakCaptured = captured;
    std::atomic<int> ran{0};
    std::atomic<bool> started{false};
    std::atomic<bool> sawDrop{false};
    auto queue = std::make_unique<ZNVOperationQueue>("drop");
    ZNVOperationQueue* raw = queue.get();
    Gate gate;
    raw->addOperation([&, raw] {
        started = true;
        gate.wait();
        // The destructor is now waiting for this item; the pending one is gone
        // and new work is refused.
        sawDrop = waitFor([&] { return raw->operationCount() == 1; });
        raw->addOperation([&] { ran += 10; });
        ++ran;
    });
    raw->addOperation([&ran, captured] { ran += 100; });
    captured.reset();
    ASSERT_TRUE(waitFor([&] { return started.load(); }));
    gate.open();
    queue.reset();  // joins the worker
    EXPECT_TRUE(sawDrop);
    EXPECT_EQ(ran.load(), 1);
    EXPECT_TRUE(weakCaptured.expired());
}

TEST(OperationQueue, CanBeDestroyedFromItsOwnItem) {
    auto queue = std::make_shared<ZNVOperationQueue>("self");
    std::weak_ptr<ZNVOperationQueue> weakQueue = queue;
    std::atomic<bool> destroyed{false};
    std::atomic<bool> laterRan{false};
    std::atomic<bool> released{false};
    auto holder = std::make_shared<std::shared_ptr<ZNVOperationQueue>>(queue);
    queue->addOperation([holder, &destroyed, &released] {
        // Waits until the test has dropped its own reference, so that this
        // is the last strong one and the queue dies on its own worker.
        waitFor([&] { return released.load(); });
        holder->reset();
        destroyed = true;
    });
    queue->addOperation([&] { laterRan = true; });
    queue.reset();
    released = true;
    ASSERT_TRUE(waitFor([&] { return destroyed.load(); }));
    EXPECT_TRUE(waitFor([&] { return weakQueue.expired(); }));
    EXPECT_FALSE(waitFor([&] { return laterRan.load(); }, 100ms));
}

// The main queue is process-wide; these tests leave it with its default
// executor and drained.
TEST(MainQueue, RunsPostedWorkInOrderOffTheCallingThreadAndDrains) {
    std::vector<int> order;  // only touched on the main queue
    std::atomic<bool> wasCurrent{true};
    const auto caller = std::this_thread::get_id();
    std::atomic<bool> ranOnCaller{false};
    EXPECT_FALSE(ZNVMainQueue::isCurrent());
    for (int i = 0; i < 100; ++i) {
        ZNVMainQueue::async([&, i] {
            if (!ZNVMainQueue::isCurrent()) wasCurrent = false;
            if (std::this_thread::get_id() == caller) ranOnCaller = true;
            order.push_back(i);
            if (i == 99) ZNVMainQueue::async([&] { order.push_back(1000); });
        });
    }
    ASSERT_TRUE(ZNVMainQueue::waitUntilDrained());
    ASSERT_EQ(order.size(), 101u);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(order[i], i);
    EXPECT_EQ(order.back(), 1000);
    EXPECT_TRUE(wasCurrent);
    EXPECT_FALSE(ranOnCaller);
}

TEST(MainQueue, DrainTimesOutWhileWorkIsBlocked) {
    Gate gate;
    ZNVMainQueue::async([&] { gate.wait(); });
    EXPECT_FALSE(ZNVMainQueue::waitUntilDrained(50ms));
    gate.open();
    EXPECT_TRUE(ZNVMainQueue::waitUntilDrained());
}

TEST(MainQueue, HostExecutorRunsTheWorkOnTheHostsThread) {
    // A host event loop: a queue of the host's own that runs what it is
    // handed, in order.
    ZNVOperationQueue host("host");
    ASSERT_TRUE(ZNVMainQueue::waitUntilDrained());
    ZNVMainQueue::setExecutor(
        [&](std::function<void()> work) { host.addOperation(std::move(work)); });
    std::vector<int> order;  // only touched on the host's queue
    std::atomic<int> offHost{0};
    std::atomic<int> notCurrent{0};
    for (int i = 0; i < 50; ++i) {
        ZNVMainQueue::async([&, i] {
            if (!host.isCurrent()) ++offHost;
            if (!ZNVMainQueue::isCurrent()) ++notCurrent;
            order.push_back(i);
        });
    }
    EXPECT_TRUE(ZNVMainQueue::waitUntilDrained());
    ZNVMainQueue::setExecutor(nullptr);
    host.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(offHost.load(), 0);
    EXPECT_EQ(notCurrent.load(), 0);
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(order[i], i);

    // Back on the library's own thread.
    std::atomic<bool> ran{false};
    ZNVMainQueue::async([&] { ran = !host.isCurrent(); });
    EXPECT_TRUE(ZNVMainQueue::waitUntilDrained());
    EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace znv
